// The session key table of the pack drivers, and Pro secure messaging against
// bytes computed with OpenSSL.
#include <gtest/gtest.h>

#include "token/apppack/pack_gost.h"
#include "token/apppack/pack_pro.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using oracle::smCommand;

TEST(PackKeys, TableGrowsWithEmptyEntriesAndSaveRestoreSetsTheSessionAside) {
    CPackGost pack(nullptr);
    auto unset = [&](unsigned long i) {
        return failureCode([&] { pack.keyGet(i); }) == code(0x6900);
    };
    pack.keySet(1, {0x11});
    pack.keySet(3, {});  // grows the table, but an empty key stays unset
    EXPECT_TRUE(unset(0) && unset(2) && unset(3) && unset(~0ul));
    pack.keySave();  // empties the table for the keys of a new PIN
    pack.keySet(1, {0xB1});
    pack.keyClear();
    pack.keyRestore();
    EXPECT_EQ(pack.keyGet(1), hex("11"));
    TBytes response;  // no secure messaging on this dialect
    EXPECT_EQ(failureCode([&] { pack.sm(hex("00 A4 00 00"), response); }), code(0xFACE));
}

const TBytes kMacKey = hex("0123456789ABCDEF FEDCBA9876543210 89ABCDEF01234567");
const TBytes kEncKey = hex("1122334455667788 99AABBCCDDEEFF00 0F1E2D3C4B5A6978");

struct ProSm : ::testing::Test {
    void SetUp() override {
        pack->keySet(CPackPro::kKeyMac, kMacKey);
        pack->keySet(CPackPro::kKeyEnc, kEncKey);
    }
    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    CPackPro* pack = applet.install<CPackPro>(applet.pack_);
    const TBytes wrapped = smCommand(kMacKey, kEncKey, hex("00B00000"), {});
};

TEST_F(ProSm, WrapsCommandsOfEachShape) {
    const struct {
        const char* command;
        const char* header;
        const char* data;
    } rows[] = {
        {"00 A4 00 00", "00A40000", ""},     // no data, no Le
        {"00 B0 00 00 10", "00B00000", ""},  // Le dropped
        {"90 24 10 9B 08 0102030405060708", "9024109B", "0102030405060708"},
        {"80 DA 01 02 14 000102030405060708090A0B0C0D0E0F10111213 00", "80DA0102",
         "000102030405060708090A0B0C0D0E0F10111213"},  // with Le
    };
    for (const auto& r : rows) {
        EXPECT_EQ(toHex(pack->wrap(hex(r.command))),
                  toHex(smCommand(kMacKey, kEncKey, hex(r.header), hex(r.data))));
    }
}

TEST_F(ProSm, SendsTheWrappedCommandAndOpensTheAnswer) {
    const struct {
        const char* plain;
        unsigned short sw;
        unsigned char indicator;
    } rows[] = {
        {"010203", 0x9000, 0x01},
        {"0102030405060708", 0x6282, 0x02},  // whatever the word and the indicator
    };
    for (const auto& r : rows) {
        const TBytes cipher =
            oracle::evp("DES-EDE3-CBC", kEncKey, TBytes(8, 0), oracle::isoPad(hex(r.plain)), true);
        sender.expect(toHex(wrapped),
                      toHex(oracle::smReply(kMacKey, wrapped, cat({{r.indicator}, cipher}), r.sw)));
        TBytes response;
        pack->sm(hex("00 B0 00 00 03"), response);
        EXPECT_EQ(response,
                  cat({hex(r.plain),
                       {static_cast<unsigned char>(r.sw >> 8), static_cast<unsigned char>(r.sw)}}));
    }
    EXPECT_EQ(sender.offered, std::vector<std::size_t>(2, 257));

    TBytes response;
    pack->keyClear();  // a bare status word passes unchecked, even without keys
    pack->unwrap(hex("0CA40000"), hex("6A 88"), response);
    EXPECT_EQ(response, hex("6A 88"));
}

TEST_F(ProSm, AnyFaultInAProtectedAnswerIsABadAnswer) {
    const TBytes cipher =
        oracle::evp("DES-EDE3-CBC", kEncKey, TBytes(8, 0), oracle::isoPad(hex("010203")), true);
    const TBytes good = oracle::smReply(kMacKey, wrapped, cat({{0x01}, cipher}), 0x9000);
    TBytes flipped = good, otherHeader = wrapped;
    flipped[good.size() - 3] ^= 0x01;  // last MAC byte
    otherHeader[2] = 0x01;             // the MAC binds the command's header
    const long first = 2 + good[1];
    // Ciphertext that is no whole block, or whose padding is broken, under a correct MAC.
    auto macd = [&](const TBytes& value) {
        return oracle::smReply(kMacKey, wrapped, value, 0x9000);
    };
    const TBytes noPadding =
        oracle::evp("DES-EDE3-CBC", kEncKey, TBytes(8, 0), TBytes(8, 0x41), true);
    const struct {
        const char* what;
        TBytes header;
        TBytes answer;
    } rows[] = {
        {"empty", wrapped, {}},
        {"MAC mismatch", wrapped, flipped},
        {"other command", otherHeader, good},
        {"no 0x8E", wrapped, cat({TBytes(good.begin(), good.begin() + first), {0x90, 0x00}})},
        {"no 0x87", wrapped, TBytes(good.begin() + first, good.end())},
        {"length past the end", wrapped, hex("87 20 01 02 03 90 00")},
        {"empty 0x87", wrapped, macd({})},
        {"partial block", wrapped, macd(hex("01 0102030405"))},
        {"padding broken", wrapped, macd(cat({{0x01}, noPadding}))},
    };
    for (const auto& r : rows) {
        TBytes response{0xEE};
        EXPECT_EQ(failureCode([&] { pack->unwrap(r.header, r.answer, response); }), code(0x6281))
            << r.what;
        EXPECT_EQ(response, TBytes{0xEE}) << r.what << ": left as it was";
    }
    sender.expect(toHex(wrapped), toHex(flipped));  // through sm as well
    TBytes response;
    EXPECT_EQ(failureCode([&] { pack->sm(hex("00 B0 00 00"), response); }), code(0x6281));
}

TEST_F(ProSm, RefusalsBeforeSending) {
    TBytes response;  // a malformed command, chaining, or a missing key
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
