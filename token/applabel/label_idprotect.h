// The label of the IDProtect applet: the first 32 bytes of the information
// file, seven-bit text padded with blanks.
#pragma once

#include "token/applabel/label_common.h"

namespace libapdu {

class CLabelIdprotect : public CLabelCommon {
public:
    explicit CLabelIdprotect(IApplet* owner) : CLabelCommon(owner) {}

    // The 32 stored bytes less trailing blanks and zeros.
    TBytes read() override;
    // At most 32 bytes of seven-bit text without zeros.
    void write(const TBytes& label) override;
    unsigned int encoding() override { return 2; }
};

}  // namespace libapdu
