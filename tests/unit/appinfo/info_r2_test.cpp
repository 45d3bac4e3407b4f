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
