// Token information of the Joker applet: the Java driver with other
// instruction bytes.
#pragma once

#include "token/appinfo/info_java.h"

namespace libapdu {

using CInfoJoker = CInfoJavaFamily<kJokerCommands>;

}  // namespace libapdu
