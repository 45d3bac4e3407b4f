// A card that answers from a transcript: the smallest virtual token, for
// tests that need a reader with a card but no card logic.
#pragma once

#include "core/card.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vtoken {

struct Exchange {
    Bytes command;
    Bytes response;
};

// The text form, one item a line, '#' starts a comment:
//
//   order keyed            # or "ordered"; keyed is the default
//   00 A4 04 00 02 3F 00 -> 90 00
//
// Keyed: any listed command gets its response, as often as it comes.
// Ordered: the commands must come in the listed order, each once.
struct Script {
    enum class Order { Keyed, Ordered };

    Order order = Order::Keyed;
    std::vector<Exchange> exchanges;

    // Throws std::invalid_argument naming the line at fault.
    static Script parse(std::string_view text);
    // Throws std::runtime_error if the file cannot be read.
    static Script load(const std::string& path);
};

class ScriptCard : public ICard {
public:
    // What a card answers to an instruction it does not support.
    static constexpr std::uint16_t kUnknownCommand = 0x6D00;

    ScriptCard(Bytes atr, Script script);

    Bytes atr() const override { return atr_; }
    Bytes process(const Bytes& command) override;

    // How many exchanges of an ordered script have been answered.
    std::size_t position() const { return next_; }

private:
    Bytes atr_;
    Script script_;
    std::size_t next_ = 0;
};

}  // namespace vtoken
