// The Pro label files against a scripted card.
#include "token/applabel/label_pro.h"

#include <gtest/gtest.h>

#include <string>

#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

const std::string kUtf8File = "00 A4 08 00 06 66 66 10 00 00 05 00";
const std::string kLegacyFile = "00 A4 08 00 06 66 66 10 00 00 02 00";

TBytes text(const std::string& s, std::size_t size = 0) {
    TBytes out(s.begin(), s.end());
    if (out.size() < size) out.resize(size, 0);
    return out;
}

struct ProLabel : ProApplet {
    CLabelPro* label = applet.install<CLabelPro>(applet.label_);  // after fs: it takes an adapter
};

TEST_F(ProLabel, ReadsTheFileOfTheTokensFormFallingBackToTheLegacyOne) {
    const TBytes utf8 = text("\xD0\x9A\xD0\xBB\xD1\x8E\xD1\x87 1", 32),
                 legacy = text("Token A", 32);
    const struct {
        bool fips;
        std::string first;   // the form's file
        std::string answer;  // empty: there and read; else the legacy file is read
        TBytes stored;
    } rows[] = {{false, kUtf8File, "", utf8},
                {false, kUtf8File, "69 82", legacy},
                {true, kFipsLabel, "", utf8}};
    for (const auto& r : rows) {
        info->fips = r.fips;
        if (!r.answer.empty()) sender.expect(r.first, r.answer);
        sender.expect(r.answer.empty() ? r.first : kLegacyFile, fileFcp(32));
        sender.expect("00 B0 00 00 20", toHex(r.stored) + "90 00");
        EXPECT_EQ(label->read(), r.stored) << r.first << " " << r.answer;
    }
    EXPECT_EQ(label->encoding(), 3u);
    info->fips = false;
    sender.expect(kUtf8File, "6A 82").expect(kLegacyFile, "6A 82");
    EXPECT_EQ(failureCode([&] { label->read(); }), code(0x6A82));
}

TEST_F(ProLabel, WritesPaddedFormsThenStampsTheToken) {
    auto written = [&](const std::string& select, const TBytes& content) {
        sender.expect(select, fileFcp(32));
        sender.expect("00 D6 00 00 20 " + toHex(content), "90 00");
    };
    const std::string full = "0123456789abcdefghijklmnopqrstuv";
    const struct {
        bool fips;
        std::string label;
        TBytes utf8, legacy;  // legacy empty: none on a FIPS token
    } rows[] = {
        {false, "Token A", text("Token A", 32), text("Token A", 32)},
        {false, full, text(full), text(full.substr(0, 31), 32)},  // the legacy one is cut
        {true, full, text(full), {}},
    };
    for (const auto& r : rows) {
        info->fips = r.fips;
        written(r.fips ? kFipsLabel : kUtf8File, r.utf8);
        if (!r.fips) written(kLegacyFile, r.legacy);
        sender.expect(kMarkerSelect, fileFcp(16));
        sender.expect("00 D6 00 00 10" + anyBytes(16), "90 00");
        label->write(text(r.label));
    }
    info->fips = false;  // a failed write stops where it is, without a stamp
    written(kUtf8File, text("A", 32));
    sender.expect(kLegacyFile, "6A 82");
    EXPECT_EQ(failureCode([&] { label->write(text("A")); }), code(0x6A82));
    info->asked = 0;  // over 32 bytes: refused before even the FIPS question
    EXPECT_EQ(failureCode([&] { label->write(text(std::string(33, 'x'))); }), code(0x6B00));
    EXPECT_EQ(info->asked, 0);
}

}  // namespace
