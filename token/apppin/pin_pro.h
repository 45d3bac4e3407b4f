// The Pro PIN drivers.
#pragma once

#include "token/apppin/pin_common.h"

namespace libapdu {

class CPinPro : public CPinCommon {
public:
    explicit CPinPro(IApplet* owner) : CPinCommon(owner) {}
    // The user and administrator PINs, or the FIPS set on a FIPS token.
    void NamesInitProc() override;
    unsigned int encoding() override { return 3; }
};

class CPinPro4 : public CPinPro {
public:
    explicit CPinPro4(IApplet* owner) : CPinPro(owner) {}
};

}  // namespace libapdu
