// Fault knobs: a card that misbehaves on purpose, for tests of how the host
// copes. Wraps any card model.
#pragma once

#include "core/card.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace vtoken {

struct Faults {
    // Commands that begin with `prefix` get `status` and nothing else, in
    // the card's byte order; the card does not act on them.
    struct Refusal {
        Bytes prefix;
        std::uint16_t status = 0;
    };
    // Answers to commands that begin with `prefix` are cut to their first
    // `keep` bytes (status word included).
    struct Truncation {
        Bytes prefix;
        std::size_t keep = 0;
    };

    std::vector<Refusal> refuse;
    std::vector<Truncation> truncate;
    // The card answers this many commands after each power-up or reset, and
    // then none until the next.
    std::optional<std::size_t> muteAfter;
    // The card leaves the reader when the command with this number (1 is the
    // first the process sees) arrives, without answering it.
    std::optional<std::size_t> vanishAt;

    bool empty() const { return refuse.empty() && truncate.empty() && !muteAfter && !vanishAt; }

    // Command-line forms: "00B0=6A82" (a command prefix of at least CLA and
    // INS, then the status word) and "00CA0181=10" (prefix, then the bytes
    // kept). Throw std::invalid_argument.
    static Refusal parseRefusal(std::string_view text);
    static Truncation parseTruncation(std::string_view text);
};

class FaultyCard : public ICard {
public:
    FaultyCard(ICard& card, Faults faults) : card_(card), faults_(std::move(faults)) {}

    Bytes atr() const override { return card_.atr(); }
    bool statusLowByteFirst() const override { return card_.statusLowByteFirst(); }
    Bytes process(const Bytes& command) override;
    std::optional<Bytes> control(unsigned int code, const Bytes& input) override {
        return card_.control(code, input);
    }
    void powerOn() override;
    void powerOff() override { card_.powerOff(); }
    void reset() override;

    // Called when the card leaves: the vpcd link drops its connection here.
    void setOnVanish(std::function<void()> onVanish) { onVanish_ = std::move(onVanish); }
    const Faults& faults() const { return faults_; }

private:
    ICard& card_;
    Faults faults_;
    std::function<void()> onVanish_;
    std::size_t seen_ = 0;
    std::size_t sincePowerUp_ = 0;
};

}  // namespace vtoken
