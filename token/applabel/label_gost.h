// The label of the GOST applet: an applet object behind its own APDUs, kept
// as single-byte text padded with blanks.
#pragma once

#include "token/applabel/label_common.h"

namespace libapdu {

class CLabelGost : public CLabelCommon {
public:
    explicit CLabelGost(IApplet* owner) : CLabelCommon(owner) {}

    // The stored text less its leading byte and trailing blanks.
    TBytes read() override;
    // No length check here: the card's status word is the only answer.
    void write(const TBytes& label) override;
    unsigned int encoding() override { return 2; }
};

}  // namespace libapdu
