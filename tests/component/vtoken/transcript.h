// Checks a card byte for byte against a written transcript.
#pragma once

#include "core/card.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace krfs::component {

// Plays `transcript` to `card`: an exchange "COMMAND -> ANSWER" in hex a line
// (the arrow may begin the next line), '#' starting a comment. An answer
// written "... SW1 SW2" is checked by its status word only.
inline void play(vtoken::ICard& card, const std::string& transcript) {
    std::istringstream in(transcript);
    std::string exchange;
    for (std::string line; std::getline(in, line);) {
        exchange += line.substr(0, line.find('#'));
        const auto arrow = exchange.find("->");
        if (arrow == std::string::npos) continue;
        const std::string command = exchange.substr(0, arrow);
        std::string expected = exchange.substr(arrow + 2);
        exchange.clear();
        std::string answer = vtoken::toHex(card.process(vtoken::fromHex(command)));
        if (const auto dots = expected.find("..."); dots != std::string::npos) {
            expected.erase(0, dots + 3);
            answer.erase(0, answer.size() < 5 ? 0 : answer.size() - 5);
        }
        EXPECT_EQ(answer, vtoken::toHex(vtoken::fromHex(expected))) << command;
    }
}

}  // namespace krfs::component
