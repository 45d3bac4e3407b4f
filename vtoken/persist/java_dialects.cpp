#include "persist/java_dialects.h"

#include "gost/gost_applet.h"
#include "datastore/datastore_card.h"
#include "idprotect/idprotect_applet.h"
#include "java/java_applet.h"
#include "manager/cryptopro_applet.h"
#include "manager/manager_applet.h"

#include <algorithm>
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
        {"gost", &gost::install},           {"datastore", &datastore::install},
        {"idprotect", &idprotect::install}, {"java", &java::installJava},
        {"joker", &java::installJoker},
    };
    return table;
}

const std::vector<AppletKind>& kinds() {
    static const std::vector<AppletKind> table = {
        {"gost", &gost::load},           {"datastore", &datastore::load},
        {"idprotect", &idprotect::load}, {"manager", &manager::load},
        {"cryptopro", &cryptopro::load}, {"java", &java::loadJava},
        {"joker", &java::loadJoker},
    };
    return table;
}

// What `--applets` can add to any dialect's card.
struct ExtraApplet {
    const char* name;
    std::unique_ptr<javacard::Applet> (*install)(javacard::InitOptions& options);
};

const std::vector<ExtraApplet>& extraApplets() {
    static const std::vector<ExtraApplet> table = {
        {"manager", &manager::install},
        {"cryptopro", &cryptopro::install},
    };
    return table;
}

}  // namespace

void addApplets(JavaInstallation& installation, javacard::InitOptions& options) {
    const auto list = options.take("--applets");
    if (!list) return;
    std::size_t from = 0;
    while (from <= list->size()) {
        const std::size_t comma = std::min(list->find(',', from), list->size());
        const std::string name = list->substr(from, comma - from);
        from = comma + 1;
        const auto extra = std::find_if(extraApplets().begin(), extraApplets().end(),
                                        [&](const ExtraApplet& e) { return name == e.name; });
        if (extra == extraApplets().end()) {
            std::string known;
            for (const auto& e : extraApplets())
                known += (known.empty() ? "" : ", ") + std::string(e.name);
            throw std::invalid_argument("--applets: no applet \"" + name + "\" (" + known + ")");
        }
        auto applet = extra->install(options);
        // Two applets of one AID: the second could never be selected.
        for (const auto& a : installation.applets)
            if (a->aid() == applet->aid())
                throw std::invalid_argument("--applets: the card already carries " + name);
        installation.applets.push_back(std::move(applet));
    }
}

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
