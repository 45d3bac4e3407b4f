// Pro secure messaging against bytes computed with OpenSSL.
#include "token/apppack/pack_pro.h"

#include <gtest/gtest.h>

#include "unit/apppack/pack_pro_oracle.h"

namespace {

using namespace krfs_test;
using namespace pro_oracle;

const TBytes kMacKey = hex("0123456789ABCDEF FEDCBA9876543210 89ABCDEF01234567");
const TBytes kEncKey = hex("1122334455667788 99AABBCCDDEEFF00 0F1E2D3C4B5A6978");

struct ProSm : ::testing::Test {
    void SetUp() override {
        pack->keySet(CPackPro::kKeyMac, kMacKey);
        pack->keySet(CPackPro::kKeyEnc, kEncKey);
    }
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }
    ScriptedSender sender;
    ProTestApplet applet{&sender};
    CPackPro* pack = applet.installPack<CPackPro>();
};

TEST_F(ProSm, WrapsCommandsOfEachShape) {
    const TBytes data20 = hex("000102030405060708090A0B0C0D0E0F10111213");
    const struct {
        const char* command;
        TBytes header;
        TBytes data;
        std::size_t cipher;
    } rows[] = {
        {"00 A4 00 00", hex("00A40000"), {}, 8},     // no data, no Le
        {"00 B0 00 00 10", hex("00B00000"), {}, 8},  // Le dropped
        {"90 24 10 9B 08 01 02 03 04 05 06 07 08", hex("9024109B"), hex("0102030405060708"), 16},
        {"80 DA 01 02 14 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 00",
         hex("80DA0102"), data20, 24},  // with Le
        {"0C 2A 00 00 01 5A", hex("0C2A0000"), {0x5A}, 8},
    };
    for (const auto& r : rows) {
        const TBytes wrapped = pack->wrap(hex(r.command));
        EXPECT_EQ(hexOf(wrapped), hexOf(smCommand(kMacKey, kEncKey, r.header, r.data)))
            << r.command;
        // Header, Lc, 87 L 01, the blocks, 97 01 FF, 8E 08 MAC, FF.
        ASSERT_EQ(wrapped.size(), 5 + 3 + r.cipher + 3 + 10 + 1) << r.command;
        EXPECT_EQ(wrapped[0], r.header[0] | 0x0C);
        EXPECT_EQ(wrapped[4], 3 + r.cipher + 13);
        EXPECT_EQ(wrapped[6], r.cipher + 1);
        EXPECT_EQ(wrapped.back(), 0xFF);
    }
}

TEST_F(ProSm, SendsTheWrappedCommandAndOpensTheAnswer) {
    const TBytes command = hex("00 B0 00 00 03");
    const TBytes wrapped = smCommand(kMacKey, kEncKey, hex("00B00000"), {});
    const struct {
        TBytes plain;
        unsigned short sw;
        unsigned char indicator;
    } rows[] = {
        {hex("010203"), 0x9000, 0x01},
        {{}, 0x9000, 0x01},
        {hex("0102030405060708"), 0x6282, 0x01},  // verified and opened whatever the word
        {hex("AA"), 0x9000, 0x02},                // the indicator is not looked at
    };
    for (const auto& r : rows) {
        sender.expect(hexOf(wrapped),
                      hexOf(smAnswer(kMacKey, kEncKey, wrapped, r.plain, r.sw, r.indicator)));
        TBytes response;
        pack->sm(command, response);
        EXPECT_EQ(hexOf(response), hexOf(cat({r.plain,
                                              {static_cast<unsigned char>(r.sw >> 8),
                                               static_cast<unsigned char>(r.sw)}})));
    }
    EXPECT_EQ(sender.offered, std::vector<std::size_t>(4, 257));
}

TEST_F(ProSm, ObjectsAreFoundInAnyOrder) {
    const TBytes wrapped = smCommand(kMacKey, kEncKey, hex("00CA0100"), {});
    const TBytes answer = smAnswer(kMacKey, kEncKey, wrapped, hex("4142"), 0x9000);
    // 87 09 <9 bytes> 8E 08 <8 bytes> 90 00: move the MAC object first.
    const long first = 2 + answer[1];
    const TBytes swapped = cat({TBytes(answer.begin() + first, answer.end() - 2),
                                TBytes(answer.begin(), answer.begin() + first),
                                {0x90, 0x00}});
    TBytes response;
    pack->unwrap(wrapped, swapped, response);
    EXPECT_EQ(response, hex("4142 9000"));
}

TEST_F(ProSm, TwoByteAnswersPassUncheckedEvenWithoutKeys) {
    pack->keyClear();
    for (const char* sw : {"69 82", "90 00", "6A 88"}) {
        TBytes response;
        pack->unwrap(hex("0CA40000"), hex(sw), response);
        EXPECT_EQ(response, hex(sw));
    }
}

TEST_F(ProSm, AnyFaultInAProtectedAnswerIsABadAnswer) {
    const TBytes wrapped = smCommand(kMacKey, kEncKey, hex("00B00000"), {});
    const TBytes good = smAnswer(kMacKey, kEncKey, wrapped, hex("010203"), 0x9000);
    TBytes flipped = good;
    flipped[good.size() - 3] ^= 0x01;  // last MAC byte
    const long first = 2 + good[1];    // 87 09 <9 bytes>
    TBytes otherHeader = wrapped;
    otherHeader[2] = 0x01;  // the MAC binds the command's header

    // Ciphertext that is no whole block, or whose padding is broken, under a
    // correct MAC.
    auto macd = [&](const TBytes& value) {
        const TBytes object = cat({{0x87, static_cast<unsigned char>(value.size())}, value});
        const TBytes mac = oracle::retailMac(
            kMacKey, oracle::zeroPad(cat(
                         {TBytes(wrapped.begin(), wrapped.begin() + 4), TBytes(4, 0), object})));
        return cat({object, {0x8E, 0x08}, mac, {0x90, 0x00}});
    };
    const TBytes noPadding =
        oracle::evp("DES-EDE3-CBC", kEncKey, TBytes(8, 0), TBytes(8, 0x41), true);

    const struct {
        const char* what;
        TBytes header;
        TBytes answer;
    } rows[] = {
        {"empty", wrapped, {}},
        {"one byte", wrapped, {0x90}},
        {"MAC mismatch", wrapped, flipped},
        {"other command", otherHeader, good},
        {"no 0x8E", wrapped, cat({TBytes(good.begin(), good.begin() + first), {0x90, 0x00}})},
        {"no 0x87", wrapped, cat({TBytes(good.begin() + first, good.end())})},
        {"length past the end", wrapped, hex("87 20 01 02 03 90 00")},
        {"short MAC", wrapped, cat({TBytes(good.begin(), good.end() - 3), {0x90, 0x00}})},
        {"reserved tag", wrapped, hex("FF 00 90 00")},
        {"empty 0x87", wrapped, macd({})},
        {"indicator only", wrapped, macd({0x01})},
        {"partial block", wrapped, macd(hex("01 0102030405"))},
        {"padding broken", wrapped, macd(cat({{0x01}, noPadding}))},
    };
    for (const auto& r : rows) {
        TBytes response{0xEE};
        EXPECT_EQ(failureCode([&] { pack->unwrap(r.header, r.answer, response); }), code(0x6281))
            << r.what;
        EXPECT_EQ(response, TBytes{0xEE}) << r.what << ": left as it was";
    }

    // Through sm as well: a bad MAC from the card.
    sender.expect(hexOf(wrapped), hexOf(flipped));
    TBytes response;
    EXPECT_EQ(failureCode([&] { pack->sm(hex("00 B0 00 00"), response); }), code(0x6281));
}

TEST_F(ProSm, RefusalsBeforeSending) {
    TBytes response;
    EXPECT_EQ(failureCode([&] { pack->sm(hex("00 A4 00"), response); }), code(0x6B00));
    EXPECT_EQ(failureCode([&] { pack->sm(hex("00 D6 00 00 05 01 02"), response); }), code(0x6B00));
    EXPECT_EQ(failureCode([&] { pack->chain(hex("00 A4 00 00"), response); }), code(0xFACE));
    for (unsigned long unset : {CPackPro::kKeyMac, CPackPro::kKeyEnc}) {
        SetUp();
        pack->keySet(unset, {});
        EXPECT_EQ(failureCode([&] { pack->sm(hex("00 A4 00 00"), response); }), code(0x6900))
            << "key " << unset;
    }
}

}  // namespace
