// The label of the Pro cards: a UTF-8 file beside a legacy single-byte one,
// or one file of its own on a FIPS token.
#pragma once

#include "token/applabel/label_common.h"

namespace libapdu {

class CLabelPro : public CLabelCommon {
public:
    static constexpr std::size_t kSize = 32;

    explicit CLabelPro(IApplet* owner) : CLabelCommon(owner) {}

    // The stored bytes, zero padding included; a token without the UTF-8
    // file gives its legacy label converted to UTF-8.
    TBytes read() override;
    // `label` is UTF-8 of at most 32 bytes, and at most 32 in the host's
    // single-byte character set; otherwise 0x6B00 before any APDU.
    void write(const TBytes& label) override;
    unsigned int encoding() override { return 3; }

    // Stamps the token with fresh random bytes after a change.
    void volatile_update();
};

}  // namespace libapdu
