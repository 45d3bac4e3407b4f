#include "token/appinfo/info_r2.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "unit/scripted_sender.h"

namespace {

using namespace libapdu;
using krfs_test::code;
using krfs_test::failureCode;
using krfs_test::hex;

const char* kConfig = "00 DA 00 00 01 00 00";
// Identifier, version, total memory (LE), eight unused bytes, free memory
// (LE), colour, two bytes more.
const std::string kBlock = "A1 A2 A3 A4 05 06 00 80 00 00 00 00 00 00 00 00 34 12 09 EE EE";

class R2Info : public ::testing::Test {
protected:
    void SetUp() override { info = applet.installInfo<CInfoR2>(); }
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }

    krfs_test::ScriptedSender sender;
    krfs_test::ScriptedApplet applet{&sender};
    CInfoR2* info = nullptr;
};

struct BlockCase {
    const char* name;
    std::function<TBytes(CInfoR2*)> call;
    TBytes want;
};

std::function<TBytes(CInfoR2*)> number(unsigned int (CInfoR2::*op)()) {
    return [op](CInfoR2* i) {
        const unsigned int v = (i->*op)();
        return TBytes{static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    };
}

class R2Block : public R2Info, public ::testing::WithParamInterface<BlockCase> {};

TEST_P(R2Block, EachOperationReadsTheBlockAnew) {
    const BlockCase& c = GetParam();
    for (int round = 0; round < 2; ++round) {
        sender.expect(kConfig, kBlock + " 90 00");
        EXPECT_EQ(c.call(info), c.want);
    }
    EXPECT_EQ(sender.offered().back(), 258u);
}

INSTANTIATE_TEST_SUITE_P(
    Offsets, R2Block,
    ::testing::Values(
        BlockCase{"IdAnySelector", [](CInfoR2* i) { return i->id(1); }, hex("A1 A2 A3 A4")},
        BlockCase{"IdSelectorIgnored", [](CInfoR2* i) { return i->id(2); }, hex("A1 A2 A3 A4")},
        BlockCase{"Version", [](CInfoR2* i) { return i->version(0); }, hex("05 06")},
        BlockCase{"VersionSelectorIgnored", [](CInfoR2* i) { return i->version(7); }, hex("05 06")},
        BlockCase{"MemoryTotalLittleEndian", number(&CInfoR2::memoryTotal), hex("80 00")},
        BlockCase{"MemoryFreeLittleEndian", number(&CInfoR2::memoryFree), hex("12 34")},
        BlockCase{"Colour", number(&CInfoR2::color), hex("00 09")},
        BlockCase{"ConfigDropsTheStatusWord", [](CInfoR2* i) { return i->config(); }, hex(kBlock)}),
    [](const auto& i) { return std::string(i.param.name); });

TEST_F(R2Info, BlockOfNineteenBytesIsTooShortForEveryOperation) {
    const std::string shortBlock = "A1 A2 A3 A4 05 06 00 80 00 00 00 00 00 00 00 00 34 12";
    const std::function<void()> calls[] = {
        [&] { info->id(1); },        [&] { info->version(0); }, [&] { info->memoryTotal(); },
        [&] { info->memoryFree(); }, [&] { info->color(); },    [&] { info->config(); }};
    for (const auto& call : calls) {
        sender.expect(kConfig, shortBlock + " 90 00");
        EXPECT_EQ(failureCode(call), code(0x6281));
    }
    // Nineteen bytes of data are the least: the colour is byte 18.
    sender.expect(kConfig, shortBlock + " 07 90 00");
    EXPECT_EQ(info->color(), 7u);
}

TEST_F(R2Info, FailingWordGoesUp) {
    sender.expect(kConfig, "6D 00");
    EXPECT_EQ(failureCode([&] { info->id(0); }), code(0x6D00));
}

TEST_F(R2Info, NeverFipsNoRandomNoValuesAndNothingSent) {
    EXPECT_FALSE(info->isFips());
    EXPECT_EQ(failureCode([&] { info->rnd(8); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { info->value(2); }), code(0xFACE));
    EXPECT_EQ(sender.exchanges(), 0u);
}

TEST_F(R2Info, StatusWordIsReadLowByteFirstByTheR2Dialect) {
    applet.setError(new CErrorR2);
    sender.expect(kConfig, kBlock + " 00 90");
    EXPECT_EQ(info->id(0), hex("A1 A2 A3 A4"));
}

}  // namespace
