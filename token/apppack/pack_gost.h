// The Gost applet has no secure messaging or chaining; its pack driver only
// lends CPinGost the key table.
#pragma once

#include "token/apppack/pack_common.h"

namespace libapdu {

class CPackGost : public CPackCommon {
public:
    explicit CPackGost(IApplet* owner);
    void sm(const TBytes& apdu, TBytes& response) override;     // raises 0xFACE
    void chain(const TBytes& apdu, TBytes& response) override;  // raises 0xFACE
};

}  // namespace libapdu
