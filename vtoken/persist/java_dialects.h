// The dialects that live as applets on the virtual Java card: what
// `init --dialect D` installs, and how a stored applet comes back.
#pragma once

#include "core/bytes.h"
#include "javacard/init_options.h"
#include "javacard/javacard.h"

#include <memory>
#include <string>
#include <vector>

namespace vtoken {

struct JavaInstallation {
    Bytes atr = javacard::defaultAtr();
    std::vector<std::unique_ptr<javacard::Applet>> applets;
};

struct JavaDialect {
    const char* name;
    // The dialect's natural set of applets, personalised from the init
    // options it takes. Throws std::invalid_argument on a bad value.
    JavaInstallation (*install)(javacard::InitOptions& options);
};

// Null if `name` is not a Java-card dialect.
const JavaDialect* javaDialect(const std::string& name);
// "gost, datastore, ..." for messages.
std::string javaDialectNames();

// `--applets NAME,...`: adds each named applet ("manager", "cryptopro") to
// the dialect's own, personalised from the options it takes. Throws
// std::invalid_argument for an unknown name or one the card already carries.
void addApplets(JavaInstallation& installation, javacard::InitOptions& options);

// An applet from its saved state; throws std::invalid_argument for an
// unknown kind or a bad state.
std::unique_ptr<javacard::Applet> loadApplet(const std::string& kind,
                                             const nlohmann::ordered_json& state);

}  // namespace vtoken
