// Secure messaging of the Pro cards in FIPS mode: ISO 7816-4 shaped, with the
// fixed values the card expects and no state carried between commands.
#pragma once

#include "token/apppack/pack_common.h"

namespace libapdu {

class CPackPro : public CPackCommon {
public:
    // Key numbers in the table the PIN driver fills.
    static constexpr unsigned long kKeyMac = 1;
    static constexpr unsigned long kKeyEnc = 3;

    explicit CPackPro(IApplet* owner) : CPackCommon(owner) {}

    // Wraps `apdu`, sends it and leaves the plain data and SW1 SW2 in
    // `response`. A two-byte answer comes back as it is; any fault in a
    // longer one raises 0x6281.
    void sm(const TBytes& apdu, TBytes& response) override;
    void chain(const TBytes& apdu, TBytes& response) override;  // raises 0xFACE

    // The two halves of sm, apart so that each can be checked alone.
    TBytes wrap(const TBytes& apdu);
    // `header` is the first four bytes of the wrapped command.
    void unwrap(const TBytes& header, const TBytes& answer, TBytes& response);

private:
    // Checks and decrypts a protected answer; false on any fault.
    bool open(const TBytes& header, const TBytes& answer, TBytes& plain);
};

}  // namespace libapdu
