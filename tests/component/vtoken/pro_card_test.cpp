// The virtual Pro card byte by byte: what it answers to each command form.
#include "component/vtoken/transcript.h"
#include "pro/pro_card.h"

#include <gtest/gtest.h>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using namespace vtoken::pro;

ProCard makeCard(Model model) {
    Personalisation p;
    p.model = model;
    p.id = Bytes{0xA1, 0xB2, 0xC3, 0xD4};
    p.colour = 3;
    return ProCard(personalise(p));
}

TEST(ProCard, SelectAnswersEachModelsControlDataAndMovesOnlyWhenFound) {
    ProCard pro16 = makeCard(Model::Pro16), pro42 = makeCard(Model::Pro42);
    play(pro16, R"(
        00 A4 00 00 00
          -> 6F 17 82 03 38 00 00 83 02 3F 00 81 02 00 00 86 08 FF FF FF FF FF FF FF FF 90 00
        00 A4 08 00 04 66 66 00 01 00
          -> 6F 16 82 03 01 00 00 83 02 00 01 81 02 00 10 86 07 00 00 FF 00 00 00 00 90 00)");
    play(pro42, R"(
        00 A4 08 00 04 66 66 00 01 00
          -> 6F 14 82 01 01 83 02 00 01 80 02 00 10 86 07 00 00 FF 00 00 00 00 90 00)");
    EXPECT_EQ(pro42.session().df, (Path{0x6666}));
    EXPECT_EQ(pro42.session().ef, 0x0001);
    play(pro42, R"(# a directory keeps tag 81 for its size on every model
        00 A4 08 00 02 66 66 00
          -> 6F 15 82 01 38 83 02 66 66 81 02 00 00 86 08 01 FF 01 01 01 01 01 01 90 00
        00 A4 09 00 04 10 00 00 04 00 -> ... 90 00  # a path from here)");
    EXPECT_EQ(pro42.session().df, (Path{0x6666, 0x1000}));
    EXPECT_EQ(pro42.session().ef, 0x0004);
    play(pro42, R"(
        00 A4 03 00 00 -> ... 90 00                 # the parent
        00 A4 02 00 02 10 00 00 -> 6A 82            # 1000 is no file
        00 A4 01 00 02 10 00 00 -> ... 90 00        # but a directory
        00 A4 00 0C 02 3F 00 -> 90 00               # no control data asked
        00 A4 04 00 07 A0 00 00 03 12 02 02 00 -> 6A 82
        00 A4 08 00 06 66 66 00 01 00 02 00 -> 6A 82  # no path through a file
        00 A4 08 00 02 77 77 00 -> 6A 82
        00 A4 08 01 02 66 66 00 -> 6A 86
        00 A4 08 00 03 66 66 00 00 -> 67 00)");
    EXPECT_TRUE(pro42.session().df.empty()) << "failed selects change nothing";
}

TEST(ProCard, ReadAndUpdateAnswerIsoRangeErrorsAndAccessRules) {
    ProCard card = makeCard(Model::Pro42);
    play(card, R"(
        00 B0 00 00 01 -> 69 86                      # no file selected
        00 A4 08 00 06 66 66 10 00 00 06 00 -> ... 90 00
        00 B0 00 00 01 -> 03 90 00
        00 B0 00 02 01 -> 6B 00                      # offset past the end
        00 B0 00 00 04 -> 03 62 82                   # less than asked
        00 B0 00 00 00 -> 03 90 00                   # Le 00: all there is
        00 D6 00 00 01 07 -> 69 82                   # the colour is never written
        00 A4 08 00 04 66 66 00 01 00 -> ... 90 00
        00 D6 00 0E 02 AA BB -> 90 00
        00 B0 00 0E 02 -> AA BB 90 00
        00 D6 00 0F 02 AA BB -> 6A 84                # past the end
        00 D6 00 11 01 AA -> 6B 00
        00 D6 00 00 01 AA 00 -> 67 00
        00 A4 08 00 06 66 66 10 00 00 05 00 -> ... 90 00
        00 D6 00 00 01 41 -> 69 82                   # the label needs the user PIN)");
    card.verify({0x6666}, kUserPin);
    play(card, R"(
        00 D6 00 00 01 41 -> 90 00
        00 A4 00 00 00 -> ... 90 00                  # leaving 6666 is the logout
        00 A4 08 00 06 66 66 10 00 00 05 00 -> ... 90 00
        00 D6 00 00 01 42 -> 69 82)");
    EXPECT_EQ(card.state().find({0x6666, 0x1000, 0x0005})->data[0], 'A');
}

// Files of 0x20 bytes, free to read, the user PIN to write, and a directory,
// as the drivers of each generation send them.
const std::string kFile6F =
    "00 E0 00 00 1D 6F 1B 82 03 01 00 00 85 03 00 00 00 83 02 01 01 81 02 00 20 86 07 00 01 01 "
    "01 01 01 01\n";
const std::string kFile62 =
    "00 E0 00 00 19 62 17 82 01 01 85 01 00 83 02 01 01 80 02 00 20 86 07 00 01 01 01 01 01 01\n";
const std::string kDir62 =
    "00 E0 00 00 1A 62 18 82 01 38 85 01 00 83 02 02 02 81 02 00 00 86 08 01 01 01 01 01 01 01 "
    "01\n";
const std::string kSelectHome = "00 A4 08 00 02 66 66 00 -> ... 90 00\n";

TEST(ProCard, CreateTakesEachGenerationsTemplateAndChecksIt) {
    ProCard pro16 = makeCard(Model::Pro16), pro42 = makeCard(Model::Pro42b);
    pro16.verify({0x6666}, kUserPin);
    play(pro16, kSelectHome + kFile62 + "-> 6A 80\n" + kFile6F + "-> 90 00\n");
    EXPECT_EQ(pro16.session().ef, 0x0101) << "the new file is current";
    play(pro16, kSelectHome + kFile6F + "-> 6A 80  # in use, as the older cards say it");

    pro42.verify({0x6666}, kUserPin);
    play(pro42, kSelectHome + kFile6F + "-> 6A 80\n" + kFile62 + "-> 90 00\n" + kSelectHome +
                    kFile62 + "-> 6A 89\n" + kDir62 + "-> 90 00\n");
    EXPECT_EQ(pro42.session().df, (Path{0x6666, 0x0202})) << "the new directory is current";
    EXPECT_EQ(pro42.state().find({0x6666, 0x0101})->data, Bytes(0x20, 0x00));
    play(pro42, kSelectHome + R"(
        00 A4 08 00 04 66 66 01 01 00
          -> 6F 14 82 01 01 83 02 01 01 80 02 00 20 86 07 00 01 01 01 01 01 01 90 00
        # a Pro 4 file gives its size under 80; 3FFF is reserved
        00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 81 02 00 20 86 02 00 00 -> 6A 80
        00 E0 00 00 11 62 0F 82 01 01 83 02 3F FF 80 02 00 20 86 02 00 00 -> 6A 80
        # 72 KB hold one file of 64 KB, not two
        00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 80 02 FF FF 86 02 00 00 -> 90 00
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 E0 00 00 11 62 0F 82 01 01 83 02 04 04 80 02 FF FF 86 02 00 00 -> 6A 84
        00 E0 01 00 11 62 0F 82 01 01 83 02 05 05 80 02 00 20 86 02 00 00 -> 6A 86
        00 E0 00 00 05 62 07 82 01 01 -> 6A 80       # a cut template
        00 A4 00 00 00 -> ... 90 00)" +
                    "\n" + kFile62 + "-> 69 82  # the master file takes nothing");
}

TEST(ProCard, DeleteTakesOnlyEmptyDirectoriesAndDeletableNodes) {
    ProCard card = makeCard(Model::Pro42);
    card.state().assumeVerified = {kUserPin};
    play(card, kSelectHome + kDir62 + "-> 90 00\n" + R"(
        00 E0 00 00 19 62 17 82 01 01 85 01 00 83 02 01 01 80 02 00 04 86 07 00 01 01 01 01 01 01
          -> 90 00
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 E4 00 00 02 02 02 -> 69 81                # not empty
        00 E4 00 00 02 00 01 -> 69 82                # the marker stays
        00 E4 00 00 02 09 09 -> 6A 82
        00 E4 00 00 01 02 -> 67 00
        00 A4 08 00 04 66 66 02 02 00 -> ... 90 00
        00 E4 00 00 02 01 01 -> 90 00
        00 B0 00 00 01 -> 69 86                      # the deleted file is gone
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 E4 00 00 02 02 02 -> 90 00)");
    EXPECT_EQ(card.state().find({0x6666, 0x0202}), nullptr);
}

TEST(ProCard, ListGivesEntriesFromTheAskedIndexAsFitTheAnswer) {
    ProCard card = makeCard(Model::Pro16);
    card.state().assumeVerified = {kUserPin};
    play(card, R"(
        80 16 00 00 00 -> 6F 04 86 02 66 66 90 00    # a fresh session is at the master file
        00 A4 08 00 02 66 66 00 -> ... 90 00
        80 16 01 00 00 -> 6F 04 86 02 00 01 90 00
        80 16 00 00 00 -> 6F 04 86 02 10 00 90 00)");
    Bytes create = fromHex(kFile6F.substr(0, kFile6F.size() - 1));
    for (unsigned char i = 0; i < 50; ++i) {
        create[19] = 0x05;
        create[20] = i;
        ASSERT_EQ(card.process(create), fromHex("90 00"));
        card.process(fromHex("00 A4 08 00 02 66 66 00"));
    }
    const Bytes first = card.process(fromHex("80 16 01 00 00"));
    EXPECT_EQ(first.size(), 42u * 6 + 2);
    EXPECT_EQ(Bytes(first.begin() + 6, first.begin() + 12), fromHex("6F 04 86 02 05 00"));
    const Bytes rest = card.process(fromHex("80 16 01 2A 00"));
    EXPECT_EQ(rest.size(), 9u * 6 + 2);
    EXPECT_EQ(Bytes(rest.end() - 8, rest.end()), fromHex("6F 04 86 02 05 31 90 00"));
    play(card, "80 16 01 33 00 -> 90 00\n80 16 02 00 00 -> 6A 86");
}

TEST(ProCard, DataObjectsChallengeStartUpAndUnknownCommands) {
    ProCard card = makeCard(Model::Pro42);
    play(card, R"(
        00 CA 01 81 00 -> 03 C8 06 00 4B 52 46 53 56 54 00 00 A1 B2 C3 D4 90 00
        00 CA 01 82 00 -> C8 06 90 00
        00 CA 01 83 00 -> 10 90 00
        00 CA 01 84 00 -> 90 00                      # nothing verified
        00 CA 01 89 00 -> 00 C0 00 40 90 00
        00 CA 01 99 00 -> 6A 88
        00 CA 02 81 00 -> 6A 88
        00 84 00 00 -> 67 00
        80 10 00 00 -> 90 00
        80 10 00 00 00 -> 67 00
        80 A4 00 00 00 -> 6E 00
        00 16 00 00 00 -> 6E 00
        00 20 00 00 00 -> 6D 00
        00 A4 00 -> 67 00
        00 D6 00 00 03 01 02 -> 67 00)");
    const std::size_t free = 65536 - card.state().memoryUsed();
    EXPECT_EQ(card.process(fromHex("00 CA 01 8A 00")),
              (Bytes{static_cast<unsigned char>(free >> 8), static_cast<unsigned char>(free), 0x90,
                     0x00}));
    const Bytes challenge = card.process(fromHex("00 84 00 00 08"));
    ASSERT_EQ(challenge.size(), 10u);
    EXPECT_EQ(card.session().challenge, Bytes(challenge.begin(), challenge.end() - 2));
    card.verify({0x6666}, kUserPin);
    play(card, "00 CA 01 84 00 -> 01 90 00");
}

TEST(ProCard, ReaderControlCodeGivesBasicInformationAndTheConfigurationBlock) {
    Personalisation p;
    p.model = Model::Pro32;
    p.fips = true;
    p.id = Bytes{0xA1, 0xB2, 0xC3, 0xD4};
    p.colour = 3;
    ProCard card(personalise(p));
    auto control = [&](const char* in) { return card.control(ProCard::kControlCode, fromHex(in)); };
    EXPECT_EQ(control("02 00 00 00"), fromHex("02 C8 03 01 D4 C3 B2 A1"));
    const Bytes block = fromHex("A1 B2 C3 D4 C8 03 00 20 02 03 01 10 00 00 00 00");
    EXPECT_EQ(card.configBlock(), block);
    EXPECT_EQ(control("01 00 00 00 C0 AA 00 00 00 00 03 00"), fromHex("00 10 00"));
    Bytes all = block;
    all.push_back(0x00);
    EXPECT_EQ(control("01 00 00 00 C0 AA 00 00 01 00 11 00"), all);
    EXPECT_EQ(control("01 00 00 00 C0 AA 00 00 01 00 10 00"), fromHex("01")) << "the wrong room";
    EXPECT_EQ(control("07"), fromHex("01"));
    EXPECT_FALSE(card.control(0x42000C00, fromHex("02 00 00 00")));
}

TEST(ProCard, ResetEndsTheSessionAndEachChangeIsAnnouncedOnce) {
    ProCard card = makeCard(Model::Pro42);
    int changes = 0;
    card.setOnChange([&](const ProState& s) {
        ++changes;
        EXPECT_EQ(s.find({0x6666, 0x0001})->data[0], 0x77);
    });
    card.verify({0x6666}, kUserPin);
    play(card, R"(
        00 A4 08 00 04 66 66 00 01 00 -> ... 90 00
        00 B0 00 00 01 -> ... 90 00
        00 D6 00 00 01 77 -> 90 00
        00 D6 00 20 01 77 -> 6B 00                   # refused: no change)");
    EXPECT_EQ(changes, 1);
    card.reset();
    EXPECT_TRUE(card.session().df.empty());
    EXPECT_FALSE(card.session().ef);
    EXPECT_TRUE(card.session().verified.empty());
    play(card, "00 B0 00 00 01 -> 69 86");
    EXPECT_EQ(card.state().find({0x6666, 0x0001})->data[0], 0x77) << "the tree stays";
    EXPECT_EQ(card.history().size(), 1u) << "history starts again at the reset";
}

}  // namespace
}  // namespace krfs::component
