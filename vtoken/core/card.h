// The card side of a token: what a reader sees of it.
#pragma once

#include "core/bytes.h"

#include <optional>
#include <stdexcept>

namespace vtoken {

// Thrown by process() for a command that gets no answer at all: the card has
// gone mute, or it left the reader while the command was on its way.
class NoAnswer : public std::runtime_error {
public:
    enum class Why { Mute, Gone };
    explicit NoAnswer(Why why)
        : std::runtime_error(why == Why::Mute ? "card is mute" : "card has left the reader"),
          why_(why) {}
    Why why() const { return why_; }

private:
    Why why_;
};

class ICard {
public:
    virtual ~ICard();

    // The answer to reset the card gives on power-up and after a reset.
    virtual Bytes atr() const = 0;
    // One command APDU in, one response APDU (data and status word) out.
    virtual Bytes process(const Bytes& command) = 0;

    // Whether the card sends its status words low byte first, as the R2
    // dialect does.
    virtual bool statusLowByteFirst() const { return false; }

    // The reader driver's control channel, for tokens whose reader answers
    // vendor control codes. Nothing: the reader does not know the code.
    virtual std::optional<Bytes> control(unsigned int code, const Bytes& input);

    // Contact events. A card that keeps a session (selected file, security
    // status, secure messaging keys) drops it here.
    virtual void powerOn() {}
    virtual void powerOff() {}
    virtual void reset() {}
};

}  // namespace vtoken
