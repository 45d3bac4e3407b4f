// The file system of the Joker applet: the Java one with other instruction
// bytes.
#pragma once

#include "token/appfs/fs_javafamily.h"

namespace libapdu {

using CFSJoker = CFSJavaFamily<kJokerCommands>;

}  // namespace libapdu
