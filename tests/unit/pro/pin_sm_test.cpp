// The Pro PIN drivers and secure messaging against a scripted card, keys and
// MACs from OpenSSL; the session key table of the pack drivers.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "token/apppack/pack_gost.h"
#include "token/apppack/pack_pro.h"
#include "token/apppin/pin_pro.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using oracle::plainKey;
using oracle::saltedKey;

const std::string kList = "00 CA 01 84 00";

struct ProPin : ProApplet, ProPinScript {
    ProPin() : ProPinScript{sender} {}
    void written(unsigned offset, const std::string& bytes, const char* answer = "90 00") {
        sender.expect(apdu("00 D6 00 %02X 02 ", offset) + bytes, answer);
    }
    // A fresh driver (paths follow the mode at their first use) with `path`, or the
    // user PIN, selected: nothing verified yet, `left` in the counter at `offset`.
    template <class T = CPinPro>
    T* selected(bool fips, TPath path, unsigned offset, const std::string& left) {
        info->fips = fips;
        T* p = applet.install<T>(applet.pin_);
        pin = p;
        if (path.empty()) path = p->pathUser();
        sender.expect(kList, "90 00");
        counter(fips, offset, left);
        pin->select(path);
        return p;
    }
    template <class T = CPinPro>
    T* user(bool fips, const std::string& left = "0A 0A") {
        return selected<T>(fips, {}, fips ? 41 : 0, left);
    }
    bool unset(unsigned long key) {
        return failureCode([&] { pack->keyGet(key); }) == code(0x6900);
    }

    CPackPro* pack = applet.install<CPackPro>(applet.pack_);
    CPinPro* pin = nullptr;
};

TEST_F(ProPin, LoginAnswersTheChallengeWithTheKeyOfThePinAndTheMode) {
    user(false);  // outside FIPS: key 0 for the user, the salted keys kept
    salt(false);
    answer(false, 0x81, plainKey(kPin), "90 00");
    counter(false, 0, "0A 0A");
    pin->login(kPin);
    EXPECT_EQ(pin->info().loginState, 0x00FF);
    EXPECT_EQ(sender.offered[0], 256u) << "the verified list's buffer";
    EXPECT_EQ(pack->keyGet(0), plainKey(kPin));
    EXPECT_EQ(pack->keyGet(1), saltedKey(1, kPin, kSalt));
    EXPECT_EQ(pack->keyGet(3), saltedKey(3, kPin, kSalt));
    EXPECT_TRUE(unset(2));

    selected(false, {0x05}, 2, "03 03");  // the administrator: plain key, no salt
    answer(false, 0x85, plainKey(kPin), "63 00");
    counter(false, 2, "03 03");
    written(2, "02 03");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6300));

    user(true, "05 05");  // FIPS: the salted key
    salt(true);
    answer(true, 0x91, saltedKey(1, kPin, kSalt), "90 00");
    counter(true, 41, "05 05");
    pin->login(kPin);
}

TEST_F(ProPin, CounterUpkeepAfterTheCardsVerdict) {
    // The card's word, the counter before (none: no counter file), as written back and the
    // answer to that; the state, attempts left and total after.
    const std::tuple<std::string, std::string, std::string, std::string, std::vector<int>> rows[] =
        {
            {"90 00", "07 0A", "0A 0A", "90 00", {0xFF, 10, 10}},
            {"63 00", "07 0A", "06 0A", "90 00", {0, 6, 10}},
            {"63 00", "00 0A", "", "", {0, 0, 10}},  // at zero it stays
            {"63 C2", "07 0A", "", "", {0, 7, 10}},
            {"90 00", "", "", "", {0xFF, 9, 10}},
            {"63 00", "07 0A", "06 0A", "69 82", {0, 6, 10}},
        };
    for (const auto& [sw, before, after, writeAnswer, record] : rows) {
        user(false, "09 0A");
        salt(false);
        answer(false, 0x81, plainKey(kPin), sw);
        counter(false, 0, before);
        if (!after.empty()) written(0, after, writeAnswer.c_str());
        const TBytes word = hex(sw);
        EXPECT_EQ(failureCode([&] { pin->login(kPin); }),
                  sw == "90 00" ? 0 : code(word[0] << 8 | word[1]));
        const CPinInfo i = pin->info();
        EXPECT_EQ((std::vector<int>{i.loginState, i.attemptsLeft, i.attemptsTotal}), record)
            << sw << before;
    }
}

TEST_F(ProPin, RefusalsMalformedChallengesMissingSaltsAndLogout) {
    user(false);
    EXPECT_EQ(failureCode([&] { pin->login({}); }), code(0x6300));
    EXPECT_EQ(failureCode([&] { pin->change({}); }), code(0x6300));
    sender.expect(kList, "69 82");
    EXPECT_EQ(failureCode([&] { pin->select({0x0001}); }), code(0x6982));
    for (const char* challenge : {"90 00", "01 02 03 04 05 06 07 90 00", "90", ""}) {
        salt(false);  // a challenge too short, or none
        sender.expect("00 84 00 00 08", challenge);
        EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6281)) << challenge;
    }
    EXPECT_EQ(sender.offered.back(), 10u);
    pack->keySet(3, {1});  // a counter file too short for a salt: key 0 only
    sender.expect(counterFile(false), fileFcp(19));
    pin->keyGen(kPin);
    EXPECT_EQ(pack->keyGet(0), plainKey(kPin));
    EXPECT_TRUE(unset(1) && unset(2) && unset(3));
    salt(false);  // the user PIN's change: its object and the new key 0
    sender.expect(kHome, kDirFcp);
    sender.expect("00 24 01 81 18 " + toHex(plainKey(kNewPin)), "90 00");
    pin->change(kNewPin);
    EXPECT_EQ(pack->keyGet(1), saltedKey(1, kNewPin, kSalt));
    sender.expect("00 A4 00 00 00", kDirFcp);
    pin->logout();
    EXPECT_EQ(pin->info().loginState, 0);
    EXPECT_TRUE(unset(0));

    user(true);  // FIPS without a salt: the login stops before the challenge
    sender.expect(counterFile(true), "6A 82");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6900));
    EXPECT_EQ(failureCode([&] { pin->change({}); }), code(0xFACE)) << "Pro: no change in FIPS mode";
}

TEST_F(ProPin, FipsChangeFirstWritesTheShadowSetUnderTheSessionKeys) {
    CPinPro4* pro4 = user<CPinPro4>(true, "05 05");
    const TBytes old1 = saltedKey(1, kPin, kSalt), old3 = saltedKey(3, kPin, kSalt);
    const TBytes a = saltedKey(1, kNewPin, kSalt), b = saltedKey(3, kNewPin, kSalt);
    pack->keySet(1, old1);
    pack->keySet(3, old3);
    sender.expect(counterFile(true), "6A 82");  // no salt: the session's keys stay
    EXPECT_EQ(failureCode([&] { pro4->change(kNewPin); }), code(0x6900));
    EXPECT_EQ(pack->keyGet(3), old3);
    salt(true);  // the new keys, read while the session's are set aside
    sender.expect(kFipsHome, kDirFcp);
    for (const auto& [header, key] : {std::pair{"9024009A", a}, {"9024109B", b}, {"9024109C", a}})
        sender.expect(toHex(oracle::smCommand(old1, old3, hex(header), key)), "90 00");
    sender.expect(kList, "69 82");  // the rest, under the new keys, comes with the component tests
    EXPECT_EQ(failureCode([&] { pro4->change(kNewPin); }), code(0x6982));
}

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
    const std::tuple<const char*, const char*, const char*> rows[] = {
        // command, header, data
        {"00 A4 00 00", "00A40000", ""},     // no data, no Le
        {"00 B0 00 00 10", "00B00000", ""},  // Le dropped
        {"90 24 10 9B 08 0102030405060708", "9024109B", "0102030405060708"},
        {"80 DA 01 02 14 000102030405060708090A0B0C0D0E0F10111213 00", "80DA0102",
         "000102030405060708090A0B0C0D0E0F10111213"},  // with Le
    };
    for (const auto& [command, header, data] : rows)
        EXPECT_EQ(toHex(pack->wrap(hex(command))),
                  toHex(smCommand(kMacKey, kEncKey, hex(header), hex(data))));
}

TEST_F(ProSm, SendsTheWrappedCommandAndOpensTheAnswer) {
    const std::tuple<const char*, unsigned short, unsigned char> rows[] = {
        {"010203", 0x9000, 0x01},
        {"0102030405060708", 0x6282, 0x02},  // whatever the word and the indicator
    };
    for (const auto& [plain, sw, indicator] : rows) {
        const TBytes cipher =
            oracle::evp("DES-EDE3-CBC", kEncKey, TBytes(8, 0), oracle::isoPad(hex(plain)), true);
        sender.expect(toHex(wrapped),
                      toHex(oracle::smReply(kMacKey, wrapped, cat({{indicator}, cipher}), sw)));
        TBytes response;
        pack->sm(hex("00 B0 00 00 03"), response);
        EXPECT_EQ(response,
                  cat({hex(plain),
                       {static_cast<unsigned char>(sw >> 8), static_cast<unsigned char>(sw)}}));
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
    const std::tuple<const char*, TBytes, TBytes> rows[] = {
        // what, the header, the answer
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
    for (const auto& [what, header, answer] : rows) {
        TBytes response{0xEE};
        EXPECT_EQ(failureCode([&] { pack->unwrap(header, answer, response); }), code(0x6281))
            << what;
        EXPECT_EQ(response, TBytes{0xEE}) << what << ": left as it was";
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
