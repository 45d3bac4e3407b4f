// The krfs subcommands.
#pragma once

#include <string>

#include "session.h"

namespace krfstool {

struct Common {
    Options options;
    PinSource pin;
    std::string newPinEnv;  // passwd: the variable holding the new PIN
    bool login = false;     // log in before the command
    bool json = false;
};

int cmdReaders(const Common& c);
int cmdInfo(const Common& c);
int cmdLs(const Common& c, const std::string& path, bool longFormat, bool recursive);
int cmdCat(const Common& c, const std::string& path);
int cmdGet(const Common& c, const std::string& path, const std::string& file);
int cmdPut(const Common& c, const std::string& file, const std::string& path, bool isPrivate);
int cmdMkdir(const Common& c, const std::string& path);
int cmdRm(const Common& c, const std::string& path, bool recursive);
int cmdLogin(const Common& c);
int cmdPasswd(const Common& c);

// The key containers of the token's applet, through the C++ interface.
int cmdKeys(const Common& c);
// The private-key operation of the container at `keyPath` on one raw block.
int cmdDecrypt(const Common& c, const std::string& keyPath, const std::string& in,
               const std::string& out, bool pkcs1);

}  // namespace krfstool
