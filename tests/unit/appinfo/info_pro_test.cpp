#include "token/appinfo/info_pro.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "token/appfs/fs_pro.h"
#include "unit/scripted_sender.h"

namespace {

using namespace libapdu;
using krfs_test::code;
using krfs_test::failureCode;
using krfs_test::hex;

constexpr unsigned int kControl = 0x9C41264C;
const char* kFipsProbe = "00 A4 08 00 06 66 66 50 00 00 02 00";
const char* kFile = "6F 0B 82 01 01 81 02 00 03 86 02 00 00 90 00";
const char* kDirectory = "6F 03 82 01 38 90 00";

// A Pro applet as the library wires it: the real file system beside CInfoPro,
// so the select commands that CInfoPro causes are the real ones.
class ProInfo : public ::testing::Test {
protected:
    void SetUp() override {
        applet.installFs<CFSPro>();
        info = applet.installInfo<CInfoPro>();
    }
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }

    void knownFips(bool fips) {
        sender.expect(kFipsProbe, fips ? kDirectory : "6A 82");
        EXPECT_EQ(info->isFips(), fips);
    }

    krfs_test::ScriptedSender sender;
    krfs_test::ScriptedApplet applet{&sender};
    CInfoPro* info = nullptr;
};

// ---- identifier ----

TEST_F(ProInfo, IdOneReversesBytesFourToSevenOfTheReaderAnswer) {
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77 88");
    EXPECT_EQ(info->id(1), hex("88 77 66 55"));
    EXPECT_EQ(sender.offered(), std::vector<std::size_t>{8});
}

TEST_F(ProInfo, IdOneTurnsEveryFailureIntoUnavailable) {
    sender.expectControlRaise(kControl, "02 00 00 00", 0x6F00);
    EXPECT_EQ(failureCode([&] { info->id(1); }), code(0xFACE));
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77");
    EXPECT_EQ(failureCode([&] { info->id(1); }), code(0xFACE));
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77");
    EXPECT_EQ(failureCode([&] { info->readBasicInfo(); }), code(0x6281));
}

// A reader driver that fails with something other than a library failure.
class ThrowingControl : public libapdu::ISender {
public:
    void send(const TBytes&, TBytes&) override { throw 7; }
    TBytes atr() override { return {}; }
    void control(unsigned int, const TBytes&, TBytes&) override { throw 7; }
};

TEST(ProInfoForeignFailure, IdOneStillGivesUnavailable) {
    ThrowingControl sender;
    krfs_test::ScriptedApplet applet(&sender);
    CInfoPro* info = applet.installInfo<CInfoPro>();
    EXPECT_EQ(failureCode([&] { info->id(1); }), code(0xFACE));
}

TEST_F(ProInfo, IdFallbackTakesBytesTenToFifteenForEverySelectorButOne) {
    const std::string data = "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F";
    for (unsigned char selector : {0, 2, 3, 255}) {
        SCOPED_TRACE(static_cast<int>(selector));
        sender.expect("00 CA 01 81 00", data + " 90 00");
        EXPECT_EQ(info->id(selector), hex("0A 0B 0C 0D 0E 0F"));
    }
    EXPECT_EQ(sender.offered().back(), 258u);
}

// ---- answers too short to use ----

struct ShortCase {
    const char* name;
    const char* command;
    const char* answer;
    bool selectsHome;
    std::function<void(CInfoPro*)> call;
};

class ProInfoShort : public ProInfo, public ::testing::WithParamInterface<ShortCase> {};

TEST_P(ProInfoShort, GivesBadAnswerWithoutReadingPastIt) {
    const ShortCase& c = GetParam();
    if (c.selectsHome) {
        knownFips(false);
        sender.expect("00 A4 08 00 02 66 66 00", kDirectory);
    }
    sender.expect(c.command, c.answer);
    EXPECT_EQ(failureCode([&] { c.call(info); }), code(0x6281));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ProInfoShort,
    ::testing::Values(
        ShortCase{"IdOf15", "00 CA 01 81 00", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 90 00",
                  false, [](CInfoPro* i) { i->id(2); }},
        ShortCase{"IdEmpty", "00 CA 01 81 00", "90 00", false, [](CInfoPro* i) { i->id(2); }},
        ShortCase{"VersionOfOne", "00 CA 01 82 00", "01 90 00", false,
                  [](CInfoPro* i) { i->version(0); }},
        ShortCase{"MemoryFreeOfOne", "00 CA 01 8A 00", "01 90 00", true,
                  [](CInfoPro* i) { i->memoryFree(); }},
        ShortCase{"MemoryFreeOfThree", "00 CA 01 8A 00", "01 00 00 90 00", true,
                  [](CInfoPro* i) { i->memoryFree(); }},
        ShortCase{"MemoryTotalOfThree", "00 CA 01 89 00", "00 00 01 90 00", true,
                  [](CInfoPro* i) { i->memoryTotal(); }},
        ShortCase{"RandomShort", "00 84 00 00 08", "01 02 03 90 00", false,
                  [](CInfoPro* i) { i->rnd(8); }}),
    [](const auto& i) { return std::string(i.param.name); });

TEST_F(ProInfo, GetDataFailureWordGoesUp) {
    sender.expect("00 CA 01 82 00", "6A 88");
    EXPECT_EQ(failureCode([&] { info->version(0); }), code(0x6A88));
}

// ---- well-formed answers ----

TEST_F(ProInfo, VersionIsTheFirstTwoBytes) {
    sender.expect("00 CA 01 82 00", "04 02 07 90 00");
    EXPECT_EQ(info->version(9), hex("04 02"));
}

TEST_F(ProInfo, MemoryFreeAndTotalAreInDifferentUnits) {
    knownFips(false);
    sender.expect("00 A4 08 00 02 66 66 00", kDirectory);
    sender.expect("00 CA 01 8A 00", "01 00 90 00");
    EXPECT_EQ(info->memoryFree(), 256u);
    sender.expect("00 A4 08 00 02 66 66 00", kDirectory);
    sender.expect("00 CA 01 89 00", "FF FF 01 00 90 00");
    EXPECT_EQ(info->memoryTotal(), 262144u);
    EXPECT_EQ(sender.offered().back(), 256u);
}

TEST_F(ProInfo, MemorySelectsTheFipsHomeOnAFipsToken) {
    knownFips(true);
    sender.expect("00 A4 08 00 04 66 66 50 00 00", kDirectory);
    sender.expect("00 CA 01 8A 00", "12 34 90 00");
    EXPECT_EQ(info->memoryFree(), 0x1234u);
}

TEST_F(ProInfo, RandomGoesIn240ByteRequests) {
    std::string full;
    for (int i = 0; i < 240; ++i) full += "AB ";
    sender.expect("00 84 00 00 F0", full + "90 00");
    sender.expect("00 84 00 00 01", "CD 90 00");
    const TBytes r = info->rnd(241);
    ASSERT_EQ(r.size(), 241u);
    EXPECT_EQ(r[239], 0xAB);
    EXPECT_EQ(r[240], 0xCD);
    EXPECT_EQ(sender.offered(), (std::vector<std::size_t>{242, 3}));
    EXPECT_TRUE(info->rnd(0).empty());
}

// ---- FIPS state ----

TEST_F(ProInfo, FipsIsAskedOnceAndCached) {
    sender.expect(kFipsProbe, kDirectory);
    EXPECT_TRUE(info->isFips());
    EXPECT_TRUE(info->isFips());
    EXPECT_EQ(sender.exchanges(), 1u);
}

TEST_F(ProInfo, AnyFailedProbeMeansNotFipsForTheDriversLife) {
    for (const char* word : {"6A 82", "69 82", "6F 00"}) {
        SCOPED_TRACE(word);
        CInfoPro fresh(&applet);
        sender.expect(kFipsProbe, word);
        EXPECT_FALSE(fresh.isFips());
        EXPECT_FALSE(fresh.isFips());
    }
}

// ---- colour ----

TEST_F(ProInfo, ColourOfAPlainToken) {
    knownFips(false);
    sender.expect("00 A4 08 00 06 66 66 10 00 00 06 00", kFile);
    sender.expect("00 B0 00 00 01", "07 90 00");
    EXPECT_EQ(info->color(), 7u);
}

TEST_F(ProInfo, ColourOfAFipsTokenIsTheThirdByte) {
    knownFips(true);
    sender.expect("00 A4 08 00 06 66 66 50 00 00 0A 00", kFile);
    sender.expect("00 B0 00 02 01", "05 90 00");
    EXPECT_EQ(info->color(), 5u);
}

TEST_F(ProInfo, ColourThatCannotBeReadIsAllOnes) {
    knownFips(false);
    sender.expect("00 A4 08 00 06 66 66 10 00 00 06 00", "6A 82");
    EXPECT_EQ(info->color(), 0xFFFFFFFFu);
    sender.expect("00 A4 08 00 06 66 66 10 00 00 06 00", kFile);
    sender.expect("00 B0 00 00 01", "69 82");
    EXPECT_EQ(info->color(), 0xFFFFFFFFu);
}

// ---- configuration block ----

TEST_F(ProInfo, ConfigurationBlockInTwoSteps) {
    sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 00 00 03 00", "01 02 00");
    TBytes block(0x0102, 0x3C);
    block.push_back(0x00);
    sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 01", krfs_test::toHex(block));
    const TBytes got = info->readCfg();
    EXPECT_EQ(got, TBytes(0x0102, 0x3C));
    EXPECT_EQ(sender.offered(), (std::vector<std::size_t>{3, 0x0103}));
}

struct CfgCase {
    const char* name;
    const char* lengthAnswer;
    const char* blockAnswer;  // nullptr: the first step fails already
};

class ProInfoCfg : public ProInfo, public ::testing::WithParamInterface<CfgCase> {};

TEST_P(ProInfoCfg, MalformedAnswersGiveBadAnswer) {
    const CfgCase& c = GetParam();
    sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 00 00 03 00", c.lengthAnswer);
    if (c.blockAnswer)
        sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 00", c.blockAnswer);
    EXPECT_EQ(failureCode([&] { info->readCfg(); }), code(0x6281));
}

INSTANTIATE_TEST_SUITE_P(Answers, ProInfoCfg,
                         ::testing::Values(CfgCase{"LengthShort", "00 02", nullptr},
                                           CfgCase{"LengthTrailerNotZero", "00 02 01", nullptr},
                                           CfgCase{"LengthTooLargeToAsk", "FF FF 00", nullptr},
                                           CfgCase{"BlockOneShort", "00 02 00", "AA 00"},
                                           CfgCase{"BlockTrailerNotZero", "00 02 00", "AA BB CC"}),
                         [](const auto& i) { return std::string(i.param.name); });

}  // namespace
