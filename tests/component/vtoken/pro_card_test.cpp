// The virtual Pro card byte by byte: what it answers to each command form.
#include "pro/pro_card.h"

#include <gtest/gtest.h>

namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using namespace vtoken::pro;

ProCard makeCard(Model model, bool fips = false) {
    Personalisation p;
    p.model = model;
    p.fips = fips;
    p.id = Bytes{0xA1, 0xB2, 0xC3, 0xD4};
    p.colour = 3;
    return ProCard(personalise(p));
}

Bytes send(ProCard& card, const char* hex) { return card.process(fromHex(hex)); }

Bytes sw(const Bytes& response) { return Bytes(response.end() - 2, response.end()); }

const Bytes kOk{0x90, 0x00};

TEST(ProCardSelect, MasterFileAndFilesAnswerTheirModelsControlData) {
    ProCard pro16 = makeCard(Model::Pro16);
    EXPECT_EQ(send(pro16, "00 A4 00 00 00"),
              fromHex("6F 17 82 03 38 00 00 83 02 3F 00 81 02 00 00 86 08 FF FF FF FF FF FF FF FF"
                      " 90 00"));
    EXPECT_EQ(send(pro16, "00 A4 08 00 04 66 66 00 01 00"),
              fromHex("6F 16 82 03 01 00 00 83 02 00 01 81 02 00 10 86 07 00 00 FF 00 00 00 00"
                      " 90 00"));

    ProCard pro42 = makeCard(Model::Pro42);
    EXPECT_EQ(send(pro42, "00 A4 08 00 04 66 66 00 01 00"),
              fromHex("6F 14 82 01 01 83 02 00 01 80 02 00 10 86 07 00 00 FF 00 00 00 00 90 00"));
    EXPECT_EQ(pro42.session().df, (Path{0x6666}));
    EXPECT_EQ(pro42.session().ef, 0x0001);
    // A directory keeps tag 0x81 for its size on every model.
    EXPECT_EQ(
        send(pro42, "00 A4 08 00 02 66 66 00"),
        fromHex("6F 15 82 01 38 83 02 66 66 81 02 00 00 86 08 01 FF 01 01 01 01 01 01 90 00"));
    EXPECT_FALSE(pro42.session().ef);
}

TEST(ProCardSelect, OtherFormsMoveThroughTheTree) {
    ProCard card = makeCard(Model::Pro32);
    EXPECT_EQ(sw(send(card, "00 A4 00 00 02 66 66")), kOk) << "a child by identifier";
    EXPECT_EQ(sw(send(card, "00 A4 09 00 04 10 00 00 04 00")), kOk) << "a path from here";
    EXPECT_EQ(card.session().df, (Path{0x6666, 0x1000}));
    EXPECT_EQ(card.session().ef, 0x0004);
    EXPECT_EQ(sw(send(card, "00 A4 03 00 00")), kOk) << "the parent";
    EXPECT_EQ(card.session().df, (Path{0x6666}));
    EXPECT_EQ(send(card, "00 A4 02 00 02 10 00 00"), fromHex("6A 82")) << "1000 is no file";
    EXPECT_EQ(sw(send(card, "00 A4 01 00 02 10 00 00")), kOk);
    EXPECT_EQ(send(card, "00 A4 00 0C 02 3F 00"), kOk) << "no control data asked";
    EXPECT_TRUE(card.session().df.empty());

    EXPECT_EQ(send(card, "00 A4 04 00 07 A0 00 00 03 12 02 02 00"), fromHex("6A 82"));
    EXPECT_EQ(send(card, "00 A4 08 00 06 66 66 00 01 00 02 00"), fromHex("6A 82"))
        << "no path through a file";
    EXPECT_EQ(send(card, "00 A4 08 00 02 77 77 00"), fromHex("6A 82"));
    EXPECT_EQ(send(card, "00 A4 08 01 02 66 66 00"), fromHex("6A 86"));
    EXPECT_EQ(send(card, "00 A4 08 00 03 66 66 00 00"), fromHex("67 00"));
    EXPECT_TRUE(card.session().df.empty()) << "a failed select changes nothing";
}

TEST(ProCardBinary, ReadAndUpdateAnswerIsoRangeErrors) {
    ProCard card = makeCard(Model::Pro42);
    EXPECT_EQ(send(card, "00 B0 00 00 01"), fromHex("69 86")) << "no file selected";
    send(card, "00 A4 08 00 06 66 66 10 00 00 06 00");
    EXPECT_EQ(send(card, "00 B0 00 00 01"), fromHex("03 90 00"));
    EXPECT_EQ(send(card, "00 B0 00 02 01"), fromHex("6B 00")) << "offset past the end";
    EXPECT_EQ(send(card, "00 B0 00 00 04"), fromHex("03 62 82")) << "less than asked";
    EXPECT_EQ(send(card, "00 B0 00 00 00"), fromHex("03 90 00")) << "Le 00: all there is";
    EXPECT_EQ(send(card, "00 D6 00 00 01 07"), fromHex("69 82")) << "colour is never written";

    send(card, "00 A4 08 00 04 66 66 00 01 00");
    EXPECT_EQ(send(card, "00 D6 00 0E 02 AA BB"), kOk);
    EXPECT_EQ(send(card, "00 B0 00 0E 02"), fromHex("AA BB 90 00"));
    EXPECT_EQ(send(card, "00 D6 00 0F 02 AA BB"), fromHex("6A 84")) << "past the end";
    EXPECT_EQ(send(card, "00 D6 00 11 01 AA"), fromHex("6B 00"));
    EXPECT_EQ(send(card, "00 D6 00 00 01 AA 00"), fromHex("67 00"));

    send(card, "00 A4 08 00 06 66 66 10 00 00 05 00");
    EXPECT_EQ(send(card, "00 D6 00 00 01 41"), fromHex("69 82")) << "the label needs the user PIN";
    card.verify({0x6666}, kUserPin);
    EXPECT_EQ(send(card, "00 D6 00 00 01 41"), kOk);
    // Leaving the PIN's directory is the logout.
    send(card, "00 A4 00 00 00");
    send(card, "00 A4 08 00 06 66 66 10 00 00 05 00");
    EXPECT_EQ(send(card, "00 D6 00 00 01 42"), fromHex("69 82"));
    EXPECT_EQ(card.state().find({0x6666, 0x1000, 0x0005})->data[0], 'A');
}

TEST(ProCardCreate, EachGenerationTakesItsOwnTemplate) {
    // The commands as the drivers send them: a file of 0x20 bytes, free to
    // read, the user PIN to write.
    const char* file6F =
        "00 E0 00 00 1D 6F 1B 82 03 01 00 00 85 03 00 00 00 83 02 01 01 81 02 00 20 86 07 00 01"
        " 01 01 01 01 01";
    const char* file62 =
        "00 E0 00 00 19 62 17 82 01 01 85 01 00 83 02 01 01 80 02 00 20 86 07 00 01 01 01 01 01"
        " 01";
    const char* dir62 =
        "00 E0 00 00 1A 62 18 82 01 38 85 01 00 83 02 02 02 81 02 00 00 86 08 01 01 01 01 01 01"
        " 01 01";

    ProCard pro16 = makeCard(Model::Pro16);
    pro16.verify({0x6666}, kUserPin);
    send(pro16, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(pro16, file62), fromHex("6A 80"));
    EXPECT_EQ(send(pro16, file6F), kOk);
    EXPECT_EQ(pro16.session().ef, 0x0101) << "the new file is current";
    send(pro16, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(pro16, file6F), fromHex("6A 80")) << "in use, as the older cards say it";

    ProCard pro42 = makeCard(Model::Pro42b);
    pro42.verify({0x6666}, kUserPin);
    send(pro42, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(pro42, file6F), fromHex("6A 80"));
    EXPECT_EQ(send(pro42, file62), kOk);
    send(pro42, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(pro42, file62), fromHex("6A 89"));
    EXPECT_EQ(send(pro42, dir62), kOk);
    EXPECT_EQ(pro42.session().df, (Path{0x6666, 0x0202})) << "the new directory is current";
    const Node* file = pro42.state().find({0x6666, 0x0101});
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->data, Bytes(0x20, 0x00));
    EXPECT_EQ(file->access, fromHex("00 01 01 01 01 01 01"));
    EXPECT_EQ(send(pro42, "00 A4 08 00 04 66 66 01 01 00"),
              fromHex("6F 14 82 01 01 83 02 01 01 80 02 00 20 86 07 00 01 01 01 01 01 01 90 00"));

    // A Pro 4 file must give its size under 0x80.
    send(pro42, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(pro42, "00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 81 02 00 20 86 02 00 00"),
              fromHex("6A 80"));
    EXPECT_EQ(send(pro42, "00 E0 00 00 11 62 0F 82 01 01 83 02 3F FF 80 02 00 20 86 02 00 00"),
              fromHex("6A 80"))
        << "a reserved identifier";
    // 72 KB hold one file of 64 KB, not two.
    EXPECT_EQ(send(pro42, "00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 80 02 FF FF 86 02 00 00"),
              kOk);
    send(pro42, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(pro42, "00 E0 00 00 11 62 0F 82 01 01 83 02 04 04 80 02 FF FF 86 02 00 00"),
              fromHex("6A 84"));
    EXPECT_EQ(send(pro42, "00 E0 01 00 11 62 0F 82 01 01 83 02 05 05 80 02 00 20 86 02 00 00"),
              fromHex("6A 86"));
    EXPECT_EQ(send(pro42, "00 E0 00 00 05 62 07 82 01 01"), fromHex("6A 80")) << "a cut template";

    send(pro42, "00 A4 00 00 00");
    EXPECT_EQ(send(pro42, file62), fromHex("69 82")) << "the master file takes nothing";
}

TEST(ProCardDelete, OnlyEmptyDirectoriesAndDeletableNodesGo) {
    ProCard card = makeCard(Model::Pro42);
    card.state().assumeVerified = {kUserPin};
    send(card, "00 A4 08 00 02 66 66 00");
    send(card,
         "00 E0 00 00 1A 62 18 82 01 38 85 01 00 83 02 02 02 81 02 00 00 86 08 01 01 01 01"
         " 01 01 01 01");
    send(card,
         "00 E0 00 00 19 62 17 82 01 01 85 01 00 83 02 01 01 80 02 00 04 86 07 00 01 01 01"
         " 01 01 01");
    send(card, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(card, "00 E4 00 00 02 02 02"), fromHex("69 81")) << "not empty";
    EXPECT_EQ(send(card, "00 E4 00 00 02 00 01"), fromHex("69 82")) << "the marker stays";
    EXPECT_EQ(send(card, "00 E4 00 00 02 09 09"), fromHex("6A 82"));
    EXPECT_EQ(send(card, "00 E4 00 00 01 02"), fromHex("67 00"));
    send(card, "00 A4 08 00 04 66 66 02 02 00");
    EXPECT_EQ(send(card, "00 E4 00 00 02 01 01"), kOk);
    EXPECT_EQ(send(card, "00 B0 00 00 01"), fromHex("69 86")) << "the deleted file is gone";
    send(card, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(card, "00 E4 00 00 02 02 02"), kOk);
    EXPECT_EQ(card.state().find({0x6666, 0x0202}), nullptr);
}

TEST(ProCardList, EntriesComeFromTheAskedIndexAsFitsTheAnswer) {
    ProCard card = makeCard(Model::Pro16);
    card.state().assumeVerified = {kUserPin};
    // A fresh session starts at the master file.
    EXPECT_EQ(send(card, "80 16 00 00 00"), fromHex("6F 04 86 02 66 66 90 00"));
    send(card, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(card, "80 16 01 00 00"), fromHex("6F 04 86 02 00 01 90 00"));
    EXPECT_EQ(send(card, "80 16 00 00 00"), fromHex("6F 04 86 02 10 00 90 00"));
    for (int i = 0; i < 50; ++i) {
        Bytes create = fromHex(
            "00 E0 00 00 1D 6F 1B 82 03 01 00 00 85 03 00 00 00 83 02 05 00 81 02 00 01 86 07 00 00"
            " 00 00 00 00 00");
        create[20] = static_cast<unsigned char>(i);
        ASSERT_EQ(card.process(create), kOk);
        send(card, "00 A4 08 00 02 66 66 00");
    }
    const Bytes first = send(card, "80 16 01 00 00");
    EXPECT_EQ(first.size(), 42u * 6 + 2);
    EXPECT_EQ(Bytes(first.begin() + 6, first.begin() + 12), fromHex("6F 04 86 02 05 00"));
    const Bytes rest = send(card, "80 16 01 2A 00");
    EXPECT_EQ(rest.size(), 9u * 6 + 2);
    EXPECT_EQ(Bytes(rest.end() - 8, rest.end()), fromHex("6F 04 86 02 05 31 90 00"));
    EXPECT_EQ(send(card, "80 16 01 33 00"), kOk);
    EXPECT_EQ(send(card, "80 16 02 00 00"), fromHex("6A 86"));
}

TEST(ProCardData, ObjectsChallengeAndStartUpCommand) {
    ProCard card = makeCard(Model::Pro42);
    EXPECT_EQ(send(card, "00 CA 01 81 00"),
              fromHex("03 C8 06 00 4B 52 46 53 56 54 00 00 A1 B2 C3 D4 90 00"));
    EXPECT_EQ(send(card, "00 CA 01 82 00"), fromHex("C8 06 90 00"));
    EXPECT_EQ(send(card, "00 CA 01 83 00"), fromHex("10 90 00"));
    EXPECT_EQ(send(card, "00 CA 01 84 00"), kOk) << "nothing verified";
    card.verify({0x6666}, kUserPin);
    EXPECT_EQ(send(card, "00 CA 01 84 00"), fromHex("01 90 00"));
    EXPECT_EQ(send(card, "00 CA 01 89 00"), fromHex("00 C0 00 40 90 00"));
    const std::size_t free = 65536 - card.state().memoryUsed();
    EXPECT_EQ(send(card, "00 CA 01 8A 00"), (Bytes{static_cast<unsigned char>(free >> 8),
                                                   static_cast<unsigned char>(free), 0x90, 0x00}));
    EXPECT_EQ(send(card, "00 CA 01 99 00"), fromHex("6A 88"));
    EXPECT_EQ(send(card, "00 CA 02 81 00"), fromHex("6A 88"));

    const Bytes challenge = send(card, "00 84 00 00 08");
    ASSERT_EQ(challenge.size(), 10u);
    EXPECT_EQ(sw(challenge), kOk);
    EXPECT_EQ(card.session().challenge, Bytes(challenge.begin(), challenge.end() - 2));
    EXPECT_EQ(send(card, "00 84 00 00"), fromHex("67 00"));

    EXPECT_EQ(send(card, "80 10 00 00"), kOk);
    EXPECT_EQ(send(card, "80 10 00 00 00"), fromHex("67 00"));
    EXPECT_EQ(send(card, "80 A4 00 00 00"), fromHex("6E 00"));
    EXPECT_EQ(send(card, "00 16 00 00 00"), fromHex("6E 00"));
    EXPECT_EQ(send(card, "00 20 00 00 00"), fromHex("6D 00"));
    EXPECT_EQ(send(card, "00 A4 00"), fromHex("67 00"));
    EXPECT_EQ(send(card, "00 D6 00 00 03 01 02"), fromHex("67 00"));
}

TEST(ProCardControl, ReaderCodeGivesBasicInformationAndTheConfigurationBlock) {
    ProCard card = makeCard(Model::Pro32, true);
    EXPECT_EQ(card.control(ProCard::kControlCode, fromHex("02 00 00 00")),
              fromHex("02 C8 03 01 D4 C3 B2 A1"));
    const Bytes block = card.configBlock();
    EXPECT_EQ(block, fromHex("A1 B2 C3 D4 C8 03 00 20 02 03 01 10 00 00 00 00"));
    EXPECT_EQ(card.control(ProCard::kControlCode, fromHex("01 00 00 00 C0 AA 00 00 00 00 03 00")),
              fromHex("00 10 00"));
    Bytes all = block;
    all.push_back(0x00);
    EXPECT_EQ(card.control(ProCard::kControlCode, fromHex("01 00 00 00 C0 AA 00 00 01 00 11 00")),
              all);
    EXPECT_EQ(card.control(ProCard::kControlCode, fromHex("01 00 00 00 C0 AA 00 00 01 00 10 00")),
              fromHex("01"))
        << "the wrong room";
    EXPECT_EQ(card.control(ProCard::kControlCode, fromHex("07")), fromHex("01"));
    EXPECT_FALSE(card.control(0x42000C00, fromHex("02 00 00 00")));
}

TEST(ProCardSession, ResetClearsTheSessionAndKeepsTheTree) {
    ProCard card = makeCard(Model::Pro42);
    card.verify({0x6666}, kUserPin);
    send(card, "00 A4 08 00 04 66 66 00 01 00");
    send(card, "00 D6 00 00 01 77");
    card.reset();
    EXPECT_TRUE(card.session().df.empty());
    EXPECT_FALSE(card.session().ef);
    EXPECT_TRUE(card.session().verified.empty());
    EXPECT_EQ(send(card, "00 B0 00 00 01"), fromHex("69 86"));
    EXPECT_EQ(card.state().find({0x6666, 0x0001})->data[0], 0x77);
    EXPECT_EQ(card.history().size(), 1u) << "history starts again at the reset";
}

TEST(ProCardSession, ChangesAreAnnouncedOncePerChangingCommand) {
    ProCard card = makeCard(Model::Pro42);
    int changes = 0;
    card.setOnChange([&](const ProState& s) {
        ++changes;
        EXPECT_EQ(s.find({0x6666, 0x0001})->data[0], 0x55);
    });
    send(card, "00 A4 08 00 04 66 66 00 01 00");
    send(card, "00 B0 00 00 01");
    EXPECT_EQ(changes, 0);
    send(card, "00 D6 00 00 01 55");
    EXPECT_EQ(changes, 1);
    send(card, "00 D6 00 20 01 55");
    EXPECT_EQ(changes, 1) << "a refused update changes nothing";
}

}  // namespace
