// The information drivers against a scripted card: Pro, with the real file system
// beside it so that the selects it causes are real, and R2.
#include "token/appinfo/info_pro.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "token/appinfo/info_r2.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

constexpr unsigned kControl = 0x9C41264C;

struct ProInfo : ProApplet {
    CInfoPro* pro = applet.install<CInfoPro>(applet.info_);
};

TEST_F(ProInfo, IdentifierVersionMemoryRandomAndColourWithTheirFiles) {
    sender.expectControl(kControl, "02 00 00 00", "11 22 33 44 55 66 77 88");
    EXPECT_EQ(pro->id(1), hex("88 77 66 55")) << "from the reader";
    sender.expect("00 CA 01 81 00", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 90 00");
    EXPECT_EQ(pro->id(2), hex("0A 0B 0C 0D 0E 0F"));
    sender.expect("00 CA 01 82 00", "04 02 07 90 00");
    EXPECT_EQ(pro->version(9), hex("04 02"));
    sender.expect(kFipsLabel, kDirFcp);  // asked once; memory selects the FIPS home
    sender.expect(kFipsHome, kDirFcp).expect("00 CA 01 8A 00", "01 00 90 00");
    EXPECT_EQ(pro->memoryFree(), 256u);
    sender.expect(kFipsHome, kDirFcp);
    sender.expect("00 CA 01 89 00", "FF FF 01 00 90 00");
    EXPECT_EQ(pro->memoryTotal(), 262144u);
    sender.expect("00 84 00 00 F0", toHex(TBytes(240, 0xAB)) + "90 00");
    sender.expect("00 84 00 00 01", "CD 90 00");
    EXPECT_EQ(pro->rnd(241), cat({TBytes(240, 0xAB), {0xCD}}));
    sender.expect("00 A4 08 00 06 66 66 50 00 00 0A 00", fileFcp(3));
    sender.expect("00 B0 00 02 01", "05 90 00");
    EXPECT_EQ(pro->color(), 5u);
    EXPECT_EQ(sender.offered,
              (std::vector<std::size_t>{8, 258, 258, 258, 258, 256, 258, 256, 242, 3, 258, 3}));

    CInfoPro* plain = applet.install<CInfoPro>(applet.info_);
    sender.expect(kFipsLabel, "69 82").expect("00 A4 08 00 06 66 66 10 00 00 06 00", "6A 82");
    EXPECT_EQ(plain->color(), 0xFFFFFFFFu) << "any refusal of the label file: not FIPS";
}

TEST_F(ProInfo, AnswersTooShortGiveBadAnswerWithoutReadingPast) {
    sender.expect(kFipsLabel, "6A 82");
    EXPECT_FALSE(pro->isFips());
    const struct {
        bool home;  // memory selects the home first
        const char* command;
        const char* answer;
        std::function<void()> call;
    } rows[] = {{false, "00 CA 01 81 00", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 90 00",
                 [&] { pro->id(2); }},
                {false, "00 CA 01 82 00", "01 90 00", [&] { pro->version(0); }},
                {true, "00 CA 01 8A 00", "01 00 00 90 00", [&] { pro->memoryFree(); }},
                {true, "00 CA 01 89 00", "00 00 01 90 00", [&] { pro->memoryTotal(); }},
                {false, "00 84 00 00 08", "01 02 03 90 00", [&] { pro->rnd(8); }}};
    for (const auto& r : rows) {
        if (r.home) sender.expect(kHome, kDirFcp);
        sender.expect(r.command, r.answer);
        EXPECT_EQ(failureCode(r.call), code(0x6281)) << r.command << " / " << r.answer;
    }
    // The configuration block through the reader: its length, then the block.
    const std::string askLength = "01 00 00 00 C0 AA 00 00 00 00 03 00";
    sender.expectControl(kControl, askLength, "01 02 00");
    sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 01",
                         toHex(TBytes(0x0102, 0x3C)) + "00");
    EXPECT_EQ(pro->readCfg(), TBytes(0x0102, 0x3C));
    const std::pair<const char*, const char*> broken[] = {
        {"00 02", nullptr}, {"FF FF 00", nullptr}, {"00 02 00", "AA 00"}, {"00 02 00", "AA BB CC"}};
    for (const auto& [length, block] : broken) {
        sender.expectControl(kControl, askLength, length);
        if (block) sender.expectControl(kControl, "01 00 00 00 C0 AA 00 00 01 00 03 00", block);
        EXPECT_EQ(failureCode([&] { pro->readCfg(); }), code(0x6281)) << length;
    }
}

TEST(R2Info, EveryOperationReadsItsFieldFromAFreshBlockOfAtLeastNineteenBytes) {
    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    CInfoR2* info = applet.install<CInfoR2>(applet.info_);
    const char* kConfig = "00 DA 00 00 01 00 00";
    // Identifier, version, total memory (LE), eight unused bytes, free memory (LE), colour.
    const std::string block = "A1 A2 A3 A4 05 06 00 80 00 00 00 00 00 00 00 00 34 12 09";
    const std::function<unsigned()> calls[] = {
        [&] { return info->id(2) == hex("A1 A2 A3 A4") ? 1u : 0u; },
        [&] { return info->version(7) == hex("05 06") ? 1u : 0u; },
        [&] { return info->memoryTotal(); }, [&] { return info->memoryFree(); },
        [&] { return info->color(); }};
    const unsigned want[] = {1, 1, 0x8000, 0x1234, 9};
    for (size_t i = 0; i < 5; ++i) {
        sender.expect(kConfig, block + " EE 90 00");
        EXPECT_EQ(calls[i](), want[i]) << i;
        sender.expect(kConfig, block.substr(0, block.size() - 3) + " 90 00");  // a byte short
        EXPECT_EQ(failureCode(calls[i]), code(0x6281)) << i;
    }
    sender.expect(kConfig, block + " EE 90 00");
    EXPECT_EQ(info->config(), hex(block + " EE"));
    EXPECT_EQ(sender.offered.back(), 258u);
    sender.expect(kConfig, "6D 00");
    EXPECT_EQ(failureCode([&] { info->id(0); }), code(0x6D00));
    EXPECT_FALSE(info->isFips());  // and what R2 lacks, which sends nothing
    EXPECT_EQ(failureCode([&] { info->rnd(8); }), code(0xFACE));
}

}  // namespace
