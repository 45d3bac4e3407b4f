// The label of the R2 cards: a file of its own, exactly as long as the label.
#pragma once

#include "token/applabel/label_common.h"

namespace libapdu {

class CLabelR2 : public CLabelCommon {
public:
    static constexpr std::size_t kSize = 32;

    explicit CLabelR2(IApplet* owner) : CLabelCommon(owner) {}

    TBytes read() override;
    // At most 32 bytes, none of them zero; otherwise 0x6B00 before any APDU.
    // The old file is removed first, so a failure later leaves no label.
    void write(const TBytes& label) override;
    unsigned int encoding() override { return 2; }
};

}  // namespace libapdu
