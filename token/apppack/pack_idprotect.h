// The IDProtect pack driver: secure messaging that runs a fresh key
// agreement for each wrapped command, and ISO 7816-4 command chaining with
// GET RESPONSE for long commands and answers.
#pragma once

#include "token/apppack/pack_common.h"

namespace libapdu {

class CPackIdprotect : public CPackCommon {
public:
    explicit CPackIdprotect(IApplet* owner) : CPackCommon(owner) {}

    // One Diffie-Hellman channel per call: agree keys, send the wrapped
    // command, close. Only the command's status word comes back, unverified.
    void sm(const TBytes& apdu, TBytes& response) override;
    // Sends the data in parts of at most 255 bytes and collects every 61xx
    // continuation; `response` ends with the last status word.
    void chain(const TBytes& apdu, TBytes& response) override;
};

}  // namespace libapdu
