// The Pro information driver against a scripted card and reader.
#include "token/appinfo/info_pro.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "token/appfs/fs_pro.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using Sizes = std::vector<std::size_t>;

constexpr unsigned kControl = 0x9C41264C;
const char* kFipsProbe = "00 A4 08 00 06 66 66 50 00 00 02 00";
const char* kColour = "00 A4 08 00 06 66 66 10 00 00 06 00";
const char* kHome = "00 A4 08 00 02 66 66 00";

// The real Pro file system beside CInfoPro, so the selects it causes are real.
struct ProInfo : ::testing::Test {
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }
    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    CFSPro* fs = applet.install<CFSPro>(applet.fs_);
    CInfoPro* info = applet.install<CInfoPro>(applet.info_);
};

// A reader driver failing with something other than a library failure.
struct ThrowingSender : ISender {
    void send(const TBytes&, TBytes&) override {}
    TBytes atr() override { return {}; }
    void control(unsigned, const TBytes&, TBytes&) override { throw 7; }
};

TEST_F(ProInfo, IdOneComesFromTheReaderTheOthersFromBytesTenToFifteen) {
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77 88");
    EXPECT_EQ(info->id(1), hex("88 77 66 55"));
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77");
    EXPECT_EQ(failureCode([&] { info->id(1); }), code(0xFACE));
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77");
    EXPECT_EQ(failureCode([&] { info->readBasicInfo(); }), code(0x6281));
    ThrowingSender foreign;
    ScriptedApplet other(&foreign);
    EXPECT_EQ(failureCode([&] { other.install<CInfoPro>(other.info_)->id(1); }), code(0xFACE));

    for (unsigned char selector : {0, 2, 255}) {
        sender.expect("00 CA 01 81 00", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 90 00");
        EXPECT_EQ(info->id(selector), hex("0A 0B 0C 0D 0E 0F"));
    }
    EXPECT_EQ(sender.offered, (Sizes{8, 8, 8, 258, 258, 258}));
}

TEST_F(ProInfo, VersionMemoryAndRandomAndAnswersTooShortForThem) {
    sender.expect(kFipsProbe, kDirFcp);  // memory selects the home, here the FIPS one
    EXPECT_TRUE(info->isFips());
    sender.expect("00 CA 01 82 00", "04 02 07 90 00");
    EXPECT_EQ(info->version(9), hex("04 02"));
    sender.expect("00 A4 08 00 04 66 66 50 00 00", kDirFcp).expect("00 CA 01 8A 00", "01 00 90 00");
    EXPECT_EQ(info->memoryFree(), 256u);
    sender.expect("00 A4 08 00 04 66 66 50 00 00", kDirFcp);
    sender.expect("00 CA 01 89 00", "FF FF 01 00 90 00");
    EXPECT_EQ(info->memoryTotal(), 262144u);
    sender.expect("00 84 00 00 F0", toHex(TBytes(240, 0xAB)) + "90 00");
    sender.expect("00 84 00 00 01", "CD 90 00");
    const TBytes r = info->rnd(241);
    EXPECT_EQ(r.size(), 241u);
    EXPECT_EQ(r.back(), 0xCD);
    EXPECT_TRUE(info->rnd(0).empty());
    EXPECT_EQ(sender.offered, (Sizes{258, 258, 258, 256, 258, 256, 242, 3}));

    CInfoPro* plain = applet.install<CInfoPro>(applet.info_);
    sender.expect(kFipsProbe, "6A 82");
    EXPECT_FALSE(plain->isFips());
    const struct {
        bool home;  // memory selects the home first
        const char* command;
        const char* answer;
        std::function<void()> call;
    } rows[] = {{false, "00 CA 01 81 00", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 90 00",
                 [&] { plain->id(2); }},
                {false, "00 CA 01 81 00", "90 00", [&] { plain->id(2); }},
                {false, "00 CA 01 82 00", "01 90 00", [&] { plain->version(0); }},
                {true, "00 CA 01 8A 00", "01 90 00", [&] { plain->memoryFree(); }},
                {true, "00 CA 01 8A 00", "01 00 00 90 00", [&] { plain->memoryFree(); }},
                {true, "00 CA 01 89 00", "00 00 01 90 00", [&] { plain->memoryTotal(); }},
                {false, "00 84 00 00 08", "01 02 03 90 00", [&] { plain->rnd(8); }}};
    for (const auto& r : rows) {
        if (r.home) sender.expect(kHome, kDirFcp);
        sender.expect(r.command, r.answer);
        EXPECT_EQ(failureCode(r.call), code(0x6281)) << r.command << " / " << r.answer;
    }
    sender.expect("00 CA 01 82 00", "6A 88");
    EXPECT_EQ(failureCode([&] { plain->version(0); }), code(0x6A88));
}

TEST_F(ProInfo, FipsIsTheLabelFilesPresenceAskedOnceAndChoosesTheColourFile) {
    for (const char* word : {"6A 82", "69 82", "6F 00"}) {
        CInfoPro fresh(&applet);
        sender.expect(kFipsProbe, word);
        EXPECT_FALSE(fresh.isFips());
        EXPECT_FALSE(fresh.isFips());
    }
    sender.expect(kFipsProbe, "6A 82");
    sender.expect(kColour, fileFcp(3)).expect("00 B0 00 00 01", "07 90 00");
    EXPECT_EQ(info->color(), 7u);
    sender.expect(kColour, "6A 82");
    EXPECT_EQ(info->color(), 0xFFFFFFFFu);
    sender.expect(kColour, fileFcp(3)).expect("00 B0 00 00 01", "69 82");
    EXPECT_EQ(info->color(), 0xFFFFFFFFu);

    CInfoPro fips(&applet);
    sender.expect(kFipsProbe, kDirFcp);
    sender.expect("00 A4 08 00 06 66 66 50 00 00 0A 00", fileFcp(3));
    sender.expect("00 B0 00 02 01", "05 90 00");
    EXPECT_EQ(fips.color(), 5u);
    EXPECT_TRUE(fips.isFips());
}

TEST_F(ProInfo, ConfigurationBlockInTwoSteps) {
    const std::string askLength = "01 00 00 00 C0 AA 00 00 00 00 03 00";
    sender.expectControl(kControl, askLength, "01 02 00");
    sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 01",
                         toHex(TBytes(0x0102, 0x3C)) + "00");
    EXPECT_EQ(info->readCfg(), TBytes(0x0102, 0x3C));
    EXPECT_EQ(sender.offered, (Sizes{3, 0x0103}));
    const struct {
        const char* length;
        const char* block;
    } broken[] = {{"00 02", nullptr},
                  {"00 02 01", nullptr},
                  {"FF FF 00", nullptr},
                  {"00 02 00", "AA 00"},
                  {"00 02 00", "AA BB CC"}};
    for (const auto& b : broken) {
        sender.expectControl(kControl, askLength, b.length);
        if (b.block) sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 00", b.block);
        EXPECT_EQ(failureCode([&] { info->readCfg(); }), code(0x6281)) << b.length;
    }
}

}  // namespace
