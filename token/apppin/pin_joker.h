// The PIN driver of the Joker applet: the Java dialogue without the
// administrator's branch and without unblock.
#pragma once

#include "token/apppin/pin_java.h"

namespace libapdu {

class CPinJoker : public CPinJava {
public:
    explicit CPinJoker(IApplet* owner);
};

}  // namespace libapdu
