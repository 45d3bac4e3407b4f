// The card side of a token: what a reader sees of it.
#pragma once

#include "core/bytes.h"

namespace vtoken {

class ICard {
public:
    virtual ~ICard();

    // The answer to reset the card gives on power-up and after a reset.
    virtual Bytes atr() const = 0;
    // One command APDU in, one response APDU (data and status word) out.
    virtual Bytes process(const Bytes& command) = 0;

    // Contact events. A card that keeps a session (selected file, security
    // status, secure messaging keys) drops it here.
    virtual void powerOn() {}
    virtual void powerOff() {}
    virtual void reset() {}
};

}  // namespace vtoken
