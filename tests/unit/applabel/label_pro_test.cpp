// The Pro label files against a scripted card.
#include "token/applabel/label_pro.h"

#include <gtest/gtest.h>

#include <string>

#include "token/appfs/fs_pro.h"
#include "unit/apppack/pack_pro_oracle.h"

namespace {

using namespace krfs_test;

const std::string kUtf8File = "00 A4 08 00 06 66 66 10 00 00 05 00";
const std::string kLegacyFile = "00 A4 08 00 06 66 66 10 00 00 02 00";
const std::string kFipsFile = "00 A4 08 00 06 66 66 50 00 00 02 00";
const std::string kMarker = "00 A4 08 00 04 66 66 00 01 00";

TBytes text(const std::string& s, std::size_t size = 0) {
    TBytes out(s.begin(), s.end());
    if (out.size() < size) out.resize(size, 0);
    return out;
}

std::string anyBytes(std::string head, int n) {
    while (n--) head += " ??";
    return head;
}

struct ProLabel : ::testing::Test {
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }
    void file(const std::string& select, const TBytes& content) {
        sender.expect(select, fileFcp(static_cast<unsigned>(content.size())));
        sender.expect(
            "00 B0 00 00 " + pro_oracle::hexOf({static_cast<unsigned char>(content.size())}),
            pro_oracle::hexOf(content) + "90 00");
    }
    void written(const std::string& select, const TBytes& content) {
        sender.expect(select, fileFcp(32));
        sender.expect("00 D6 00 00 20 " + pro_oracle::hexOf(content), "90 00");
    }
    void marker() {
        sender.expect(kMarker, fileFcp(16));
        sender.expect(anyBytes("00 D6 00 00 10", 16), "90 00");
    }

    ScriptedSender sender;
    ProTestApplet applet{&sender};
    FixedInfo* info = applet.installInfo<FixedInfo>(false);
    CFSPro* fs = applet.installFs<CFSPro>();
    CLabelPro* label = applet.installLabel<CLabelPro>();  // after fs: it takes an adapter
};

TEST_F(ProLabel, ReadsTheFileOfTheTokensForm) {
    const TBytes utf8 = text("\xD0\x9A\xD0\xBB\xD1\x8E\xD1\x87 1", 32);
    const TBytes legacy = text("Token A", 32);
    const struct {
        const char* what;
        bool fips;
        std::string firstSelect;
        std::string firstAnswer;  // empty: the file is there and read
        TBytes stored;
    } rows[] = {
        {"UTF-8 file", false, kUtf8File, "", utf8},
        {"no UTF-8 file", false, kUtf8File, "6A 82", legacy},
        {"UTF-8 file unreadable", false, kUtf8File, "69 82", legacy},
        {"FIPS file", true, kFipsFile, "", utf8},
    };
    for (const auto& r : rows) {
        info->fips = r.fips;
        if (r.firstAnswer.empty()) {
            file(r.firstSelect, r.stored);
        } else {
            sender.expect(r.firstSelect, r.firstAnswer);
            file(kLegacyFile, r.stored);
        }
        EXPECT_EQ(pro_oracle::hexOf(label->read()), pro_oracle::hexOf(r.stored)) << r.what;
    }
    EXPECT_EQ(label->encoding(), 3u);
}

TEST_F(ProLabel, ALegacyFileThatFailsToo) {
    sender.expect(kUtf8File, "6A 82");
    sender.expect(kLegacyFile, "6A 82");
    EXPECT_EQ(failureCode([&] { label->read(); }), code(0x6A82));
}

TEST_F(ProLabel, WritesPaddedFormsThenStampsTheToken) {
    const std::string thirtyTwo = "0123456789abcdefghijklmnopqrstuv";
    const struct {
        bool fips;
        std::string label;
        TBytes utf8;
        TBytes legacy;  // empty: none on a FIPS token
    } rows[] = {
        {false, "Token A", text("Token A", 32), text("Token A", 32)},
        {false, thirtyTwo, text(thirtyTwo), text(thirtyTwo.substr(0, 31), 32)},
        {false, "", TBytes(32, 0), TBytes(32, 0)},
        {true, thirtyTwo, text(thirtyTwo), {}},
    };
    for (const auto& r : rows) {
        info->fips = r.fips;
        if (r.fips) {
            written(kFipsFile, r.utf8);
        } else {
            written(kUtf8File, r.utf8);
            written(kLegacyFile, r.legacy);
        }
        marker();
        label->write(text(r.label));
    }
}

TEST_F(ProLabel, ALabelOver32BytesIsRefusedBeforeAnyCommand) {
    info->asked = 0;
    EXPECT_EQ(failureCode([&] { label->write(text(std::string(33, 'x'))); }), code(0x6B00));
    EXPECT_EQ(info->asked, 0) << "not even the FIPS question, which may need the card";
}

TEST_F(ProLabel, AFailedWriteStopsWhereItIsWithoutAStamp) {
    written(kUtf8File, text("A", 32));
    sender.expect(kLegacyFile, "6A 82");
    EXPECT_EQ(failureCode([&] { label->write(text("A")); }), code(0x6A82));
}

}  // namespace
