#include "persist/java_dialects.h"

#include "gost/gost_applet.h"
#include "datastore/datastore_card.h"
#include "idprotect/idprotect_applet.h"
#include "java/java_applet.h"

#include <stdexcept>

namespace vtoken {

namespace {

using Loader = std::unique_ptr<javacard::Applet> (*)(const nlohmann::ordered_json&);

struct AppletKind {
    const char* kind;
    Loader load;
};

// One row per dialect and per applet kind.
const std::vector<JavaDialect>& dialects() {
    static const std::vector<JavaDialect> table = {
        {"gost", &gost::install},
        {"datastore", &datastore::install},
        {"idprotect", &idprotect::install},
        {"java", &java::installJava},
        {"joker", &java::installJoker},
    };
    return table;
}

const std::vector<AppletKind>& kinds() {
    static const std::vector<AppletKind> table = {
        {"gost", &gost::load},
        {"datastore", &datastore::load},
        {"idprotect", &idprotect::load},
        {"java", &java::loadJava},
        {"joker", &java::loadJoker},
    };
    return table;
}

}  // namespace

const JavaDialect* javaDialect(const std::string& name) {
    for (const auto& d : dialects())
        if (name == d.name) return &d;
    return nullptr;
}

std::string javaDialectNames() {
    std::string names;
    for (const auto& d : dialects()) names += (names.empty() ? "" : ", ") + std::string(d.name);
    return names;
}

std::unique_ptr<javacard::Applet> loadApplet(const std::string& kind,
                                             const nlohmann::ordered_json& state) {
    for (const auto& k : kinds())
        if (kind == k.kind) return k.load(state);
    throw std::invalid_argument("unknown applet kind");
}

}  // namespace vtoken
