// The R2 information driver: every field from a fresh configuration block.
#include "token/appinfo/info_r2.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

TEST(R2Info, EveryOperationReadsItsFieldFromAFreshBlockOfAtLeastNineteenBytes) {
    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    CInfoR2* info = applet.install<CInfoR2>(applet.info_);
    const char* kConfig = "00 DA 00 00 01 00 00";
    // Identifier, version, total memory (LE), eight unused bytes, free memory (LE), colour.
    const std::string block = "A1 A2 A3 A4 05 06 00 80 00 00 00 00 00 00 00 00 34 12 09";
    const struct {
        std::function<TBytes()> call;
        TBytes want;
    } rows[] = {
        {[&] { return info->id(1); }, hex("A1 A2 A3 A4")},
        {[&] { return info->id(2); }, hex("A1 A2 A3 A4")},
        {[&] { return info->version(7); }, hex("05 06")},
        {[&] { return info->config(); }, hex(block + " EE")},
    };
    for (const auto& r : rows) {
        sender.expect(kConfig, block + " EE 90 00");
        EXPECT_EQ(r.call(), r.want);
    }
    sender.expect(kConfig, block + " 90 00");
    EXPECT_EQ(info->memoryFree(), 0x1234u);
    sender.expect(kConfig, block + " 90 00");
    EXPECT_EQ(info->memoryTotal(), 0x8000u);
    sender.expect(kConfig, block + " 90 00");
    EXPECT_EQ(info->color(), 9u);
    EXPECT_EQ(sender.offered.back(), 258u);

    // A short block, a failing word, and what R2 lacks, which sends nothing.
    const std::function<void()> calls[] = {[&] { info->id(1); }, [&] { info->version(0); },
                                           [&] { info->memoryTotal(); },
                                           [&] { info->memoryFree(); }, [&] { info->color(); }};
    for (const auto& call : calls) {
        sender.expect(kConfig, block.substr(0, block.size() - 3) + " 90 00");
        EXPECT_EQ(failureCode(call), code(0x6281));
    }
    sender.expect(kConfig, "6D 00");
    EXPECT_EQ(failureCode([&] { info->id(0); }), code(0x6D00));
    EXPECT_FALSE(info->isFips());
    EXPECT_EQ(failureCode([&] { info->rnd(8); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { info->value(2); }), code(0xFACE));
    EXPECT_TRUE(sender.allConsumed());
}

}  // namespace
