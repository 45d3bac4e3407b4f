#include "core/script_card.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using vtoken::Bytes;
using vtoken::Script;
using vtoken::ScriptCard;

TEST(VTokenHex, ReadsSeparatedAndMixedCaseDigits) {
    EXPECT_EQ(vtoken::fromHex("3b8A 00:ff\t10"), (Bytes{0x3B, 0x8A, 0x00, 0xFF, 0x10}));
    EXPECT_EQ(vtoken::fromHex(""), Bytes{});
    EXPECT_EQ(vtoken::toHex({0x0A, 0xF0, 0x00}), "0A F0 00");
    EXPECT_EQ(vtoken::fromHex(vtoken::toHex({0x01, 0xFE})), (Bytes{0x01, 0xFE}));
}

TEST(VTokenHex, RejectsOddDigitsStrayCharactersAndSplitBytes) {
    EXPECT_THROW(vtoken::fromHex("3B8"), std::invalid_argument);
    EXPECT_THROW(vtoken::fromHex("3G"), std::invalid_argument);
    EXPECT_THROW(vtoken::fromHex("0x3B"), std::invalid_argument);
    EXPECT_THROW(vtoken::fromHex("3 B"), std::invalid_argument);
}

TEST(VTokenScript, ParsesOrderCommentsAndExchanges) {
    Script script = Script::parse(
        "# a transcript\n"
        "\n"
        "order ordered\n"
        "  00 A4 00 00 02 3F 00 -> 90 00   # select MF\r\n"
        "00B0000004->0102030490 00");
    EXPECT_EQ(script.order, Script::Order::Ordered);
    ASSERT_EQ(script.exchanges.size(), 2u);
    EXPECT_EQ(script.exchanges[0].command, (Bytes{0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}));
    EXPECT_EQ(script.exchanges[0].response, (Bytes{0x90, 0x00}));
    EXPECT_EQ(script.exchanges[1].command, (Bytes{0x00, 0xB0, 0x00, 0x00, 0x04}));
    EXPECT_EQ(script.exchanges[1].response, (Bytes{0x01, 0x02, 0x03, 0x04, 0x90, 0x00}));

    EXPECT_EQ(Script::parse("00 A4 00 00 -> 90 00").order, Script::Order::Keyed);
}

TEST(VTokenScript, ErrorsNameTheLine) {
    auto lineOf = [](const std::string& text) -> std::string {
        try {
            Script::parse(text);
        } catch (const std::invalid_argument& e) {
            return e.what();
        }
        return "no error";
    };
    EXPECT_NE(lineOf("00 A4 00 00 -> 90 00\n00 A4 00 00 90 00\n").find("line 2"),
              std::string::npos);
    EXPECT_NE(lineOf("#\norder sometimes\n").find("line 2"), std::string::npos);
    EXPECT_NE(lineOf("00 A4 00 00 -> 9\n").find("line 1"), std::string::npos);
    EXPECT_NE(lineOf("00 A4 00 -> 90 00\n").find("header"), std::string::npos);
    EXPECT_NE(lineOf("00 A4 00 00 -> 90\n").find("status word"), std::string::npos);
}

TEST(VTokenScript, LoadFailsForAMissingFile) {
    EXPECT_THROW(Script::load("/nonexistent/krfs-script"), std::runtime_error);
}

TEST(ScriptCard, KeyedAnswersAnyListedCommandAsOftenAsAsked) {
    ScriptCard card({0x3B, 0x00},
                    Script::parse("00 A4 00 00 02 3F 00 -> 90 00\n00 B0 00 00 01 -> 42 90 00\n"));
    EXPECT_EQ(card.atr(), (Bytes{0x3B, 0x00}));
    const Bytes read{0x00, 0xB0, 0x00, 0x00, 0x01};
    EXPECT_EQ(card.process(read), (Bytes{0x42, 0x90, 0x00}));
    EXPECT_EQ(card.process({0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}), (Bytes{0x90, 0x00}));
    EXPECT_EQ(card.process(read), (Bytes{0x42, 0x90, 0x00}));
    // A longer Le is another command, not a prefix match.
    EXPECT_EQ(card.process({0x00, 0xB0, 0x00, 0x00, 0x02}), (Bytes{0x6D, 0x00}));
}

TEST(ScriptCard, OrderedAnswersInTurnAndAStrayCommandDoesNotAdvance) {
    ScriptCard card({0x3B, 0x00}, Script::parse("order ordered\n"
                                                "00 84 00 00 01 -> 01 90 00\n"
                                                "00 84 00 00 01 -> 02 90 00\n"
                                                "00 20 00 01 00 -> 63 C3\n"));
    const Bytes challenge{0x00, 0x84, 0x00, 0x00, 0x01};
    EXPECT_EQ(card.process(challenge), (Bytes{0x01, 0x90, 0x00}));
    EXPECT_EQ(card.process({0x00, 0x20, 0x00, 0x01, 0x00}), (Bytes{0x6D, 0x00})) << "out of turn";
    EXPECT_EQ(card.position(), 1u);
    EXPECT_EQ(card.process(challenge), (Bytes{0x02, 0x90, 0x00}));
    EXPECT_EQ(card.process({0x00, 0x20, 0x00, 0x01, 0x00}), (Bytes{0x63, 0xC3}));
    EXPECT_EQ(card.process(challenge), (Bytes{0x6D, 0x00})) << "used up";
    // Contact events do not rewind the transcript.
    card.reset();
    EXPECT_EQ(card.process(challenge), (Bytes{0x6D, 0x00}));
}

TEST(ScriptCard, WithoutAScriptEveryCommandIsUnknown) {
    ScriptCard card({0x3B, 0x00}, Script{});
    EXPECT_EQ(card.process({0x00, 0xA4, 0x04, 0x00}), (Bytes{0x6D, 0x00}));
}

}  // namespace
