// The label of the Joker applet: the Java driver with other instruction bytes.
#pragma once

#include "token/applabel/label_java.h"

namespace libapdu {

using CLabelJoker = CLabelJavaFamily<kJokerCommands>;

}  // namespace libapdu
