// Secure messaging of the Joker applet: the Java format, with its own
// challenge instruction.
#pragma once

#include "token/apppack/pack_java.h"

namespace libapdu {

class CPackJoker : public CPackJava {
public:
    explicit CPackJoker(IApplet* owner);
};

}  // namespace libapdu
