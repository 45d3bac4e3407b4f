// The virtual R2 token, as far as the host reads it now: its ATR and the
// configuration block. R2 cards send status words low byte first.
#pragma once

#include "core/apdu.h"
#include "core/card.h"
#include "core/faults.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vtoken::r2 {

// The R2 ATR announces T=15 only, which pcscd will not connect with T=0 or
// T=1: this card serves in process, through CardSender.
const Bytes& atr();

struct R2State {
    Bytes id{0x00, 0x00, 0x00, 0x01};  // 4 bytes
    Bytes version{0x02, 0x01};         // 2 bytes
    std::uint16_t memoryTotal = 0x8000;
    std::uint16_t memoryFree = 0x7000;
    unsigned char colour = 0;
    Faults faults;

    // The 20-byte block: identifier, version, total memory (little endian),
    // eight reserved bytes, free memory (little endian), colour, a zero.
    Bytes configBlock() const;
};

std::string toJsonText(const R2State& state);
// Throws std::invalid_argument naming the fault.
R2State fromJsonText(std::string_view text);
std::string describe(const R2State& state);

class R2Card : public ICard {
public:
    explicit R2Card(R2State state) : state_(std::move(state)) {}

    Bytes atr() const override { return r2::atr(); }
    bool statusLowByteFirst() const override { return true; }
    Bytes process(const Bytes& command) override;

    const R2State& state() const { return state_; }
    R2State& state() { return state_; }

private:
    R2State state_;
};

}  // namespace vtoken::r2
