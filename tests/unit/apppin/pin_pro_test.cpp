// The Pro PIN drivers against a scripted card, with every key and MAC
// computed by OpenSSL in the test.
#include "token/apppin/pin_pro.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "token/appfs/fs_pro.h"
#include "token/apppack/pack_pro.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using oracle::plainKey;
using oracle::saltedKey;

const TBytes kPin{'1', '2', '3', '4', '5', '6'};
const TBytes kNewPin{'6', '5', '4', '3', '2', '1'};
const TBytes kSalt = hex("0A0A0505 1122334455667788 99AABBCCDDEEFF00");
const TBytes kChallenge = hex("0123456789ABCDEF");

const std::string kList = "00 CA 01 84 00";
const std::string kCounter = "00 A4 08 00 06 66 66 10 00 00 04 00";
const std::string kFipsCounter = "00 A4 08 00 06 66 66 50 00 00 0F 00";
const std::string kHome = "00 A4 08 00 02 66 66 00";
const std::string kFipsHome = "00 A4 08 00 04 66 66 50 00 00";
const std::string kUnblock =
    "00 DA 01 6E 2C 83 02 00 01 85 08 02 0F 82 0F FF FF 00 00 86 02 00 01 8F 18 ";

std::string counterAt(const char* ins, unsigned offset, unsigned length) {
    char b[32];
    std::snprintf(b, sizeof b, "00 %s %02X %02X %02X ", ins, offset >> 8, offset & 0xFF, length);
    return b;
}

struct ProPin : ::testing::Test {
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }

    // The two counter bytes of the selected PIN; an empty `bytes`: no counter file.
    void counter(bool fips, unsigned offset, const std::string& bytes) {
        sender.expect(fips ? kFipsCounter : kCounter, bytes.empty() ? "6A 82" : fileFcp(0x40));
        if (!bytes.empty()) sender.expect(counterAt("B0", offset, 2), bytes + " 90 00");
    }
    void salt(bool fips) {
        sender.expect(fips ? kFipsCounter : kCounter, fileFcp(0x40));
        sender.expect(counterAt("B0", 0, 20), toHex(kSalt) + "90 00");
    }
    // The challenge, then its answer under `key` for the PIN object `p2`.
    void answer(bool fips, unsigned char p2, const TBytes& key, const std::string& sw) {
        sender.expect("00 84 00 00 08", toHex(kChallenge) + "90 00");
        sender.expect(fips ? kFipsHome : kHome, kDirFcp);
        char head[24];
        std::snprintf(head, sizeof head, "00 82 00 %02X 08 ", p2);
        sender.expect(head + toHex(oracle::challengeMac(key, kChallenge)), sw);
    }
    void selectUser(bool fips, const std::string& left = "0A 0A") {
        info->fips = fips;
        sender.expect(kList, "90 00");
        counter(fips, fips ? 41 : 0, left);
        pin->select(pin->pathUser());
    }
    void selectAdmin() {
        sender.expect(kList, "90 00");
        counter(false, 2, "03 03");
        pin->select(pin->pathAdmin());
    }
    template <class T>
    T* use() {
        T* p = applet.install<T>(applet.pin_);
        pin = p;
        return p;
    }
    long unset(unsigned long key) {
        return failureCode([&] { pack->keyGet(key); });
    }

    ScriptedSender sender;
    ScriptedApplet applet{&sender};
    FixedInfo* info = applet.install<FixedInfo>(applet.info_, false);
    CFSPro* fs = applet.install<CFSPro>(applet.fs_);
    CPackPro* pack = applet.install<CPackPro>(applet.pack_);
    CPinPro* pin = applet.install<CPinPro>(applet.pin_);
};

TEST_F(ProPin, PathsByModeAndSelectReadsTheVerifiedListAndTheCounter) {
    for (bool fips : {false, true}) {
        info->fips = fips;
        CPinPro* p = use<CPinPro>();
        const std::vector<TPath> got{p->pathUser(), p->pathAdmin(), p->pathGlobal(), p->pathEnc(),
                                     p->pathSig(),  p->pathUser2(), p->pathEnc2(),   p->pathSig2()};
        const std::vector<TPath> plain{{0x01}, {0x05}, {}, {}, {}, {}, {}, {}},
            withFips{{0x11}, {}, {}, {0x12}, {0x13}, {0x1A}, {0x1B}, {0x1C}};
        EXPECT_EQ(got, fips ? withFips : plain);
        EXPECT_EQ(p->offset_userpin(), fips ? 41 : 0);
        EXPECT_EQ(p->offset_adminpin(), 2);
        EXPECT_EQ(p->encoding(), 3u);
    }
    const struct {
        bool fips;
        TPath path;
        std::string list;
        unsigned offset;          // of the counter; 1: no counter read
        std::string counter;      // empty: no counter file
        std::vector<int> record;  // state, left, total
    } rows[] = {
        {false, {0x0001}, "05 01 90 00", 0, "07 0A", {0xFF, 7, 10}},
        {false, {0x0005}, "01 90 00", 2, "03 03", {0, 3, 3}},
        {false, {0x0001}, "90 00", 0, "", {0, 0xFF, 0xFF}},
        {true, {0x0011}, "1A 11 90 00", 41, "05 05", {0xFF, 5, 5}},
        {true, {0x001A}, "11 90 00", 1, "", {0, 0xFF, 0xFF}},
        {false, {0x0002}, "02 90 00", 1, "", {0xFF, 0xFF, 0xFF}},
    };
    for (const auto& r : rows) {
        info->fips = r.fips;
        use<CPinPro>();
        sender.expect(kList, r.list);
        if (r.offset != 1) counter(r.fips, r.offset, r.counter);
        pin->select(r.path);
        const CPinInfo i = pin->info();
        EXPECT_EQ((std::vector<int>{i.loginState, i.attemptsLeft, i.attemptsTotal, i.minLength,
                                    i.maxLength}),
                  (std::vector<int>{r.record[0], r.record[1], r.record[2], 6, 16}))
            << r.list;
    }
    EXPECT_EQ(sender.offered[0], 256u);
    sender.expect(kList, "69 82");
    EXPECT_EQ(failureCode([&] { pin->select({0x0001}); }), code(0x6982));
}

TEST_F(ProPin, LoginAnswersTheChallengeWithTheKeyOfThePinAndTheMode) {
    selectUser(false);  // outside FIPS: key 0 for the user, the salted keys kept
    salt(false);
    answer(false, 0x81, plainKey(kPin), "90 00");
    counter(false, 0, "0A 0A");
    pin->login(kPin);
    EXPECT_EQ(pin->info().loginState, 0x00FF);
    EXPECT_EQ(pack->keyGet(0), plainKey(kPin));
    EXPECT_EQ(pack->keyGet(1), saltedKey(1, kPin, kSalt));
    EXPECT_EQ(pack->keyGet(3), saltedKey(3, kPin, kSalt));
    EXPECT_EQ(unset(2), code(0x6900));

    selectAdmin();  // the administrator: the plain key, no salt, its own counter
    answer(false, 0x85, plainKey(kPin), "63 00");
    counter(false, 2, "03 03");
    sender.expect(counterAt("D6", 2, 2) + "02 03", "90 00");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6300));
    EXPECT_EQ(pack->keyGet(1), saltedKey(1, kPin, kSalt)) << "no key derivation";

    use<CPinPro>();             // paths follow the mode at their first use
    selectUser(true, "05 05");  // FIPS: the salted key
    salt(true);
    answer(true, 0x91, saltedKey(1, kPin, kSalt), "90 00");
    counter(true, 41, "05 05");
    pin->login(kPin);
    EXPECT_EQ(pin->info().loginState, 0x00FF);

    sender.expect(kList, "90 00");  // another PIN object has no counter
    pin->select(pin->pathUser2());
    salt(true);
    answer(true, 0x9A, saltedKey(1, kPin, kSalt), "63 00");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6300));
}

TEST_F(ProPin, CounterUpkeepAfterTheCardsVerdict) {
    const struct {
        const char* what;
        std::string sw;
        std::string before;   // empty: no counter file
        std::string written;  // empty: nothing written
        std::string writeAnswer;
        long raised;
        std::vector<int> record;  // left, total
    } rows[] = {
        {"right, equal", "90 00", "0A 0A", "", "", 0, {10, 10}},
        {"right, after misses", "90 00", "07 0A", "0A 0A", "90 00", 0, {10, 10}},
        {"wrong", "63 00", "07 0A", "06 0A", "90 00", code(0x6300), {6, 10}},
        {"wrong at zero", "63 00", "00 0A", "", "", code(0x6300), {0, 10}},
        {"other word", "69 83", "07 0A", "", "", code(0x6983), {7, 10}},
        {"other 63 word", "63 C2", "07 0A", "", "", code(0x63C2), {7, 10}},
        {"right, no counter file", "90 00", "", "", "", 0, {9, 10}},
        {"wrong, write refused", "63 00", "07 0A", "06 0A", "69 82", code(0x6300), {6, 10}},
    };
    for (const auto& r : rows) {
        use<CPinPro>();
        selectUser(false, "09 0A");
        salt(false);
        answer(false, 0x81, plainKey(kPin), r.sw);
        counter(false, 0, r.before);
        if (!r.written.empty()) sender.expect(counterAt("D6", 0, 2) + r.written, r.writeAnswer);
        EXPECT_EQ(failureCode([&] { pin->login(kPin); }), r.raised) << r.what;
        const CPinInfo i = pin->info();
        EXPECT_EQ((std::vector<int>{i.loginState, i.attemptsLeft, i.attemptsTotal}),
                  (std::vector<int>{r.raised ? 0 : 0xFF, r.record[0], r.record[1]}))
            << r.what;
    }
}

TEST_F(ProPin, RefusalsMalformedChallengesMissingSaltsAndLogout) {
    selectUser(false);
    EXPECT_EQ(failureCode([&] { pin->login({}); }), code(0x6300));
    EXPECT_EQ(failureCode([&] { pin->change({}); }), code(0x6300));
    const std::pair<const char*, unsigned short> challenges[] = {
        {"90 00", 0x6281},
        {"01 02 03 04 05 06 07 90 00", 0x6281},
        {"90", 0x6281},
        {"", 0x6281},
        {"6A 86", 0x6A86}};
    for (const auto& [challenge, sw] : challenges) {
        salt(false);
        sender.expect("00 84 00 00 08", challenge);
        EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(sw)) << challenge;
    }
    EXPECT_EQ(sender.offered.back(), 10u);

    // Without a salt, or with a counter file too short for one, only key 0 is set.
    for (unsigned size : {0u, 19u}) {
        pack->keySet(3, {1});
        sender.expect(kCounter, size ? fileFcp(size) : "6A 82");
        pin->keyGen(kPin);
        EXPECT_EQ(pack->keyGet(0), plainKey(kPin)) << size;
        EXPECT_TRUE(unset(1) && unset(2) && unset(3)) << size;
    }
    use<CPinPro>();
    selectUser(true);  // in FIPS mode the login then stops before the challenge
    sender.expect(kFipsCounter, "6A 82");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6900));
    EXPECT_EQ(failureCode([&] { pin->change(kNewPin); }), code(0xFACE)) << "Pro: not in FIPS";
    EXPECT_EQ(failureCode([&] { pin->change({}); }), code(0xFACE)) << "the mode is judged first";
    EXPECT_EQ(failureCode([&] { use<CPinPro4>()->change({}); }), code(0x6300));

    pack->keySet(0, {1});
    sender.expect("00 A4 00 00 00", kDirFcp);
    pin->logout();
    EXPECT_EQ(pin->info().loginState, 0);
    EXPECT_EQ(unset(0), code(0x6900));
}

TEST_F(ProPin, ChangeOutsideFipsAndUnblock) {
    selectUser(false);  // CPinPro: the selected PIN object
    salt(false);
    sender.expect(kHome, kDirFcp);
    sender.expect("00 24 01 81 18 " + toHex(plainKey(kNewPin)), "90 00");
    pin->change(kNewPin);
    EXPECT_EQ(pack->keyGet(1), saltedKey(1, kNewPin, kSalt));
    selectAdmin();  // the administrator's plain key, and no salt
    sender.expect(kHome, kDirFcp);
    sender.expect("00 24 01 85 18 " + toHex(plainKey(kNewPin)), "69 82");
    EXPECT_EQ(failureCode([&] { pin->change(kNewPin); }), code(0x6982));
    use<CPinPro4>();  // CPinPro4: always the fixed 0x81
    selectAdmin();
    salt(false);
    sender.expect(kHome, kDirFcp);
    sender.expect("90 24 00 81 18 " + toHex(plainKey(kNewPin)), "90 00");
    pin->change(kNewPin);

    // Unblock recreates the user PIN and resets its counter unless refused.
    const struct {
        TBytes pin;
        std::string sw, before, written;
    } rows[] = {
        {kNewPin, "90 00", "00 0A", "0A 0A"}, {{}, "90 00", "0A 0A", ""}, {kPin, "69 82", "", ""}};
    for (const auto& r : rows) {
        salt(false);
        sender.expect(kHome, kDirFcp);
        sender.expect(kUnblock + toHex(plainKey(r.pin)), r.sw);
        if (!r.before.empty()) counter(false, 0, r.before);
        if (!r.written.empty()) sender.expect(counterAt("D6", 0, 2) + r.written, "90 00");
        EXPECT_EQ(failureCode([&] { pin->unblock(r.pin); }), r.sw == "90 00" ? 0 : code(0x6982));
    }
}

TEST_F(ProPin, FipsChangeWritesTheShadowSetThenTheUserSetThenARandomShadow) {
    CPinPro4* pro4 = use<CPinPro4>();
    selectUser(true, "05 05");
    pack->keySet(1, {0x11});  // no salt: the session's keys stay
    pack->keySet(3, {0x33});
    sender.expect(kFipsCounter, "6A 82");
    EXPECT_EQ(failureCode([&] { pro4->change(kNewPin); }), code(0x6900));
    EXPECT_EQ(pack->keyGet(1), TBytes{0x11});
    EXPECT_EQ(pack->keyGet(3), TBytes{0x33});

    const TBytes old1 = saltedKey(1, kPin, kSalt), old3 = saltedKey(3, kPin, kSalt);
    pack->keySet(1, old1);  // the keys of the current login
    pack->keySet(3, old3);
    const TBytes a = saltedKey(1, kNewPin, kSalt), b = saltedKey(3, kNewPin, kSalt);
    auto sm = [&](const TBytes& k1, const TBytes& k3, const char* header, const TBytes& key) {
        return toHex(oracle::smCommand(k1, k3, hex(header), key));
    };
    salt(true);                         // the new keys, read out while the session's are set aside
    sender.expect(kFipsHome, kDirFcp);  // the shadow set, under the old keys
    sender.expect(sm(old1, old3, "9024009A", a), "90 00");
    sender.expect(sm(old1, old3, "9024109B", b), "90 00");
    sender.expect(sm(old1, old3, "9024109C", a), "90 00");
    sender.expect(kList, "11 90 00");  // log in to the shadow PIN; no counter for it
    salt(true);
    answer(true, 0x9A, a, "90 00");
    sender.expect(kFipsHome, kDirFcp);  // the user set, under the new keys
    const TBytes userPin = oracle::smCommand(a, b, hex("90240091"), a);
    sender.expect(toHex(userPin), toHex(oracle::smAnswer(a, b, userPin, {}, 0x9000)));
    sender.expect(sm(a, b, "90241092", b), "90 00");
    sender.expect(sm(a, b, "90241093", a), "90 00");
    salt(true);                           // keys of a random secret
    sender.expect(kList, "11 1A 90 00");  // back to the user PIN
    counter(true, 41, "05 05");
    salt(true);
    answer(true, 0x91, a, "90 00");
    counter(true, 41, "05 05");
    for (const char* head : {"9C 24 00 9A", "9C 24 10 9B", "9C 24 10 9C"})  // the random shadow
        sender.expect(head + std::string(" 30 87 21 01") + anyBytes(32) + " 97 01 FF 8E 08" +
                          anyBytes(8) + " FF",
                      "90 00");
    pro4->change(kNewPin);
    EXPECT_EQ(pack->keyGet(1), a) << "the session goes on under the new PIN";
    EXPECT_EQ(pack->keyGet(3), b);
    EXPECT_EQ(pro4->info().loginState, 0x00FF);

    // The random keys: under the new keys, 1A and 1C the same, none the new PIN's.
    std::vector<TBytes> shadow;
    for (auto c = sender.sent.end() - 3; c != sender.sent.end(); ++c) {
        TBytes plain = oracle::evp("DES-EDE3-CBC", b, TBytes(8, 0),
                                   TBytes(c->begin() + 8, c->begin() + 40), false);
        EXPECT_EQ(TBytes(plain.begin() + 24, plain.end()), hex("8000000000000000"));
        plain.resize(24);
        EXPECT_EQ(*c, oracle::smCommand(a, b, TBytes(c->begin(), c->begin() + 4), plain));
        shadow.push_back(plain);
    }
    EXPECT_EQ(shadow[0], shadow[2]);
    EXPECT_NE(shadow[0], a);
    EXPECT_NE(shadow[1], b);
}

}  // namespace
