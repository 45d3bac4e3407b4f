// The file system that the Java applet emulates in its own commands.
#pragma once

#include "token/appfs/fs_javafamily.h"

namespace libapdu {

using CFSJava = CFSJavaFamily<kJavaCommands>;

}  // namespace libapdu
