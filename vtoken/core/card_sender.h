// The in-process face of a card: the library's sender talking straight to a
// card model, for component tests without PC/SC.
#pragma once

#include "core/card.h"
#include "libapdu/sender.h"

#include <stdexcept>

namespace vtoken {

// A response longer than the caller takes; PC/SC would refuse it with
// SCARD_E_INSUFFICIENT_BUFFER.
class ResponseTooLong : public std::length_error {
public:
    using std::length_error::length_error;
};

class CardSender : public libapdu::ISender {
public:
    // Powers the card on, as connecting to a reader does.
    explicit CardSender(ICard& card);

    void send(const TBytes& command, TBytes& response) override;
    TBytes atr() override;

    ICard& card() { return card_; }

private:
    ICard& card_;
};

}  // namespace vtoken
