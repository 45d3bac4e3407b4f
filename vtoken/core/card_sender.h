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
    // What a PC/SC sender raises when the card does not answer, as pcscd
    // reports a transmission that the reader driver could not complete, and
    // when the card has left the reader.
    static constexpr long kNoAnswerCode = 0x80100016;  // SCARD_E_NOT_TRANSACTED
    static constexpr long kRemovedCode = 0x80100069;   // SCARD_W_REMOVED_CARD

    // Powers the card on, as connecting to a reader does.
    explicit CardSender(ICard& card);

    void send(const TBytes& command, TBytes& response) override;
    TBytes atr() override;
    // The card's reader answers the codes it knows; any other code fails as
    // on a sender without a control channel.
    void control(unsigned int code, const TBytes& input, TBytes& output) override;

    ICard& card() { return card_; }

private:
    ICard& card_;
};

}  // namespace vtoken
