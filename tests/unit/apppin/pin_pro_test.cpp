// The Pro PIN drivers against a scripted card, with every key and MAC
// computed by OpenSSL in the test.
#include "token/apppin/pin_pro.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "token/appfs/fs_pro.h"
#include "token/apppack/pack_pro.h"
#include "unit/apppack/pack_pro_oracle.h"

namespace {

using namespace krfs_test;
using namespace pro_oracle;

const TBytes kPin{'1', '2', '3', '4', '5', '6'};
const TBytes kNewPin{'6', '5', '4', '3', '2', '1'};
const TBytes kSalt = hex("0A0A0505 1122334455667788 99AABBCCDDEEFF00");
const TBytes kChallenge = hex("0123456789ABCDEF");

const std::string kList = "00 CA 01 84 00";
const std::string kCounter = "00 A4 08 00 06 66 66 10 00 00 04 00";
const std::string kFipsCounter = "00 A4 08 00 06 66 66 50 00 00 0F 00";
const std::string kHome = "00 A4 08 00 02 66 66 00";
const std::string kFipsHome = "00 A4 08 00 04 66 66 50 00 00";

std::string readAt(unsigned offset, unsigned length) {
    char b[32];
    std::snprintf(b, sizeof b, "00 B0 %02X %02X %02X", offset >> 8, offset & 0xFF, length);
    return b;
}
std::string writeAt(unsigned offset, const std::string& bytes) {
    char b[32];
    std::snprintf(b, sizeof b, "00 D6 %02X %02X 02 ", offset >> 8, offset & 0xFF);
    return b + bytes;
}
std::string ok(const TBytes& data) { return hexOf(data) + "90 00"; }

// Records what the driver sends on its way to the script.
struct Recorder : ISender {
    explicit Recorder(ScriptedSender& s) : script(s) {}
    void send(const TBytes& c, TBytes& r) override {
        sent.push_back(c);
        script.send(c, r);
    }
    TBytes atr() override { return {}; }
    ScriptedSender& script;
    std::vector<TBytes> sent;
};

struct ProPin : ::testing::Test {
    void TearDown() override { EXPECT_TRUE(sender.allConsumed()) << sender.exchanges(); }

    // The two counter bytes of the selected PIN.
    void counter(bool fips, unsigned offset, const std::string& bytes) {
        sender.expect(fips ? kFipsCounter : kCounter, fileFcp(0x40));
        sender.expect(readAt(offset, 2), bytes + " 90 00");
    }
    void salt(bool fips) {
        sender.expect(fips ? kFipsCounter : kCounter, fileFcp(0x40));
        sender.expect(readAt(0, 20), ok(kSalt));
    }
    void challenge() { sender.expect("00 84 00 00 08", ok(kChallenge)); }
    void selectUser(bool fips, const std::string& left = "0A 0A") {
        info->fips = fips;
        sender.expect(kList, "90 00");
        counter(fips, fips ? 41 : 0, left);
        pin->select(pin->pathUser());
    }
    std::string authenticate(unsigned char p2, const TBytes& key) {
        char b[24];
        std::snprintf(b, sizeof b, "00 82 00 %02X 08 ", p2);
        return b + hexOf(challengeMac(key, kChallenge));
    }
    template <class T>
    T* use() {
        T* p = applet.installPin<T>();
        pin = p;
        return p;
    }

    ScriptedSender sender;
    Recorder recorder{sender};
    ProTestApplet applet{&recorder};
    FixedInfo* info = applet.installInfo<FixedInfo>(false);
    CFSPro* fs = applet.installFs<CFSPro>();
    CPackPro* pack = applet.installPack<CPackPro>();
    CPinPro* pin = applet.installPin<CPinPro>();
};

TEST_F(ProPin, PathsAndOffsetsByMode) {
    const struct {
        bool fips;
        std::vector<TPath> paths;  // user admin global enc sig user2 enc2 sig2
        WORD user;
    } rows[] = {
        {false, {{0x0001}, {0x0005}, {}, {}, {}, {}, {}, {}}, 0},
        {true, {{0x0011}, {}, {}, {0x0012}, {0x0013}, {0x001A}, {0x001B}, {0x001C}}, 41},
    };
    for (const auto& r : rows) {
        info->fips = r.fips;
        CPinPro* p = use<CPinPro>();
        const std::vector<TPath> got{p->pathUser(), p->pathAdmin(), p->pathGlobal(), p->pathEnc(),
                                     p->pathSig(),  p->pathUser2(), p->pathEnc2(),   p->pathSig2()};
        EXPECT_EQ(got, r.paths) << "fips " << r.fips;
        EXPECT_EQ(p->offset_userpin(), r.user);
        EXPECT_EQ(p->offset_adminpin(), 2);
        EXPECT_EQ(p->encoding(), 3u);
    }
}

TEST_F(ProPin, SelectReadsTheVerifiedListAndTheCounter) {
    const struct {
        bool fips;
        TPath path;
        std::string list;
        std::string counterSelect;  // empty: no counter read
        unsigned offset;
        std::string counterAnswer;
        std::vector<int> record;  // state, left, total
    } rows[] = {
        {false, {0x0001}, "05 01 90 00", kCounter, 0, "07 0A 90 00", {0xFF, 7, 10}},
        {false, {0x0005}, "01 90 00", kCounter, 2, "03 03 90 00", {0, 3, 3}},
        {false, {0x0001}, "90 00", kCounter, 0, "", {0, 0xFF, 0xFF}},
        {true, {0x0011}, "1A 11 90 00", kFipsCounter, 41, "05 05 90 00", {0xFF, 5, 5}},
        {true, {0x001A}, "11 90 00", "", 0, "", {0, 0xFF, 0xFF}},
        {false, {0x0002}, "02 90 00", "", 0, "", {0xFF, 0xFF, 0xFF}},
    };
    for (const auto& r : rows) {
        info->fips = r.fips;
        use<CPinPro>();
        sender.expect(kList, r.list);
        if (!r.counterSelect.empty()) {
            // An empty answer: a token without the counter file.
            sender.expect(r.counterSelect, r.counterAnswer.empty() ? "6A 82" : fileFcp(0x40));
            if (!r.counterAnswer.empty()) sender.expect(readAt(r.offset, 2), r.counterAnswer);
        }
        pin->select(r.path);
        const CPinInfo i = pin->info();
        EXPECT_EQ((std::vector<int>{i.loginState, i.attemptsLeft, i.attemptsTotal}), r.record)
            << r.list;
        EXPECT_EQ(i.minLength, 6);
        EXPECT_EQ(i.maxLength, 16);
    }
    EXPECT_EQ(sender.offered[0], 256u);

    sender.expect(kList, "69 82");
    EXPECT_EQ(failureCode([&] { pin->select({0x0001}); }), code(0x6982));
}

TEST_F(ProPin, LoginOutsideFipsAnswersTheChallengeWithKeyZero) {
    selectUser(false, "0A 0A");
    salt(false);
    challenge();
    sender.expect(kHome, kDirFcp);
    sender.expect(authenticate(0x81, plainKey(kPin)), "90 00");
    counter(false, 0, "0A 0A");
    pin->login(kPin);

    EXPECT_EQ(pin->info().loginState, 0x00FF);
    EXPECT_EQ(pack->keyGet(0), plainKey(kPin));
    EXPECT_EQ(pack->keyGet(1), saltedKey(1, kPin, kSalt));
    EXPECT_EQ(pack->keyGet(3), saltedKey(3, kPin, kSalt));
    EXPECT_EQ(failureCode([&] { pack->keyGet(2); }), code(0x6900));
}

TEST_F(ProPin, LoginInFipsModeAnswersWithTheSaltedKey) {
    selectUser(true, "05 05");
    salt(true);
    challenge();
    sender.expect(kFipsHome, kDirFcp);
    sender.expect(authenticate(0x91, saltedKey(1, kPin, kSalt)), "90 00");
    counter(true, 41, "05 05");
    pin->login(kPin);
    EXPECT_EQ(pin->info().loginState, 0x00FF);
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
        challenge();
        sender.expect(kHome, kDirFcp);
        sender.expect(authenticate(0x81, plainKey(kPin)), r.sw);
        if (r.before.empty())
            sender.expect(kCounter, "6A 82");
        else
            counter(false, 0, r.before);
        if (!r.written.empty()) sender.expect(writeAt(0, r.written), r.writeAnswer);
        EXPECT_EQ(failureCode([&] { pin->login(kPin); }), r.raised) << r.what;
        const CPinInfo i = pin->info();
        EXPECT_EQ((std::vector<int>{i.attemptsLeft, i.attemptsTotal}), r.record) << r.what;
        EXPECT_EQ(i.loginState, r.raised == 0 ? 0x00FF : 0) << r.what;
    }
}

TEST_F(ProPin, AdministratorLoginUsesThePlainKeyAndItsOwnCounter) {
    pack->keySet(1, {0x77});
    sender.expect(kList, "90 00");
    counter(false, 2, "03 03");
    pin->select(pin->pathAdmin());
    challenge();
    sender.expect(kHome, kDirFcp);
    sender.expect(authenticate(0x85, plainKey(kPin)), "63 00");
    counter(false, 2, "03 03");
    sender.expect(writeAt(2, "02 03"), "90 00");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6300));
    EXPECT_EQ(pack->keyGet(1), TBytes{0x77}) << "no key derivation for the administrator";
}

TEST_F(ProPin, LoginOnAnotherPinTouchesNoCounter) {
    info->fips = true;
    sender.expect(kList, "90 00");
    pin->select(pin->pathUser2());
    salt(true);
    challenge();
    sender.expect(kFipsHome, kDirFcp);
    sender.expect(authenticate(0x9A, saltedKey(1, kPin, kSalt)), "63 00");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6300));
}

TEST_F(ProPin, RefusalsBeforeAnyCommand) {
    selectUser(false);
    EXPECT_EQ(failureCode([&] { pin->login({}); }), code(0x6300));
    EXPECT_EQ(failureCode([&] { pin->change({}); }), code(0x6300));
    info->fips = true;
    EXPECT_EQ(failureCode([&] { pin->change(kNewPin); }), code(0xFACE));
    EXPECT_EQ(failureCode([&] { pin->change({}); }), code(0xFACE)) << "the mode is judged first";
    CPinPro4* pro4 = use<CPinPro4>();
    EXPECT_EQ(failureCode([&] { pro4->change({}); }), code(0x6300));
}

TEST_F(ProPin, MalformedChallengesEndTheLogin) {
    const struct {
        std::string answer;
        long raised;
    } rows[] = {
        {"90 00", code(0x6281)}, {"01 02 03 04 05 06 07 90 00", code(0x6281)},
        {"90", code(0x6281)},    {"", code(0x6281)},
        {"6A 86", code(0x6A86)},
    };
    selectUser(false);
    for (const auto& r : rows) {
        salt(false);
        sender.expect("00 84 00 00 08", r.answer);
        EXPECT_EQ(failureCode([&] { pin->login(kPin); }), r.raised) << r.answer;
    }
    EXPECT_EQ(sender.offered.back(), 10u);
}

TEST_F(ProPin, KeyGenSetsKeyZeroEvenWithoutASalt) {
    const struct {
        const char* what;
        std::string select;
        unsigned size;  // of the counter file; 0: not found
    } rows[] = {{"no counter file", kCounter, 0}, {"counter file too short", kCounter, 19}};
    for (const auto& r : rows) {
        pack->keySet(3, {1});
        sender.expect(r.select, r.size ? fileFcp(r.size) : "6A 82");
        pin->keyGen(kPin);
        EXPECT_EQ(pack->keyGet(0), plainKey(kPin)) << r.what;
        for (unsigned long k : {1ul, 2ul, 3ul})
            EXPECT_EQ(failureCode([&] { pack->keyGet(k); }), code(0x6900)) << r.what << k;
    }

    // In FIPS mode the login then needs key 1 and stops before the challenge.
    selectUser(true);
    sender.expect(kFipsCounter, "6A 82");
    EXPECT_EQ(failureCode([&] { pin->login(kPin); }), code(0x6900));
}

TEST_F(ProPin, LogoutLeavesTheDirectoryAndForgetsTheKeys) {
    selectUser(false);
    pack->keySet(0, {1});
    sender.expect("00 A4 00 00 00", kDirFcp);
    pin->logout();
    EXPECT_EQ(pin->info().loginState, 0);
    EXPECT_EQ(failureCode([&] { pack->keyGet(0); }), code(0x6900));
}

TEST_F(ProPin, ChangeOutsideFips) {
    // CPinPro: the selected PIN, or 0x85 with the plain key for the administrator.
    selectUser(false);
    salt(false);
    sender.expect(kHome, kDirFcp);
    sender.expect("00 24 01 81 18 " + hexOf(plainKey(kNewPin)), "90 00");
    pin->change(kNewPin);
    EXPECT_EQ(pack->keyGet(1), saltedKey(1, kNewPin, kSalt));

    sender.expect(kList, "90 00");
    counter(false, 2, "03 03");
    pin->select(pin->pathAdmin());
    sender.expect(kHome, kDirFcp);
    sender.expect("00 24 01 85 18 " + hexOf(plainKey(kNewPin)), "69 82");
    EXPECT_EQ(failureCode([&] { pin->change(kNewPin); }), code(0x6982));

    // CPinPro4: always the fixed 0x81.
    use<CPinPro4>();
    sender.expect(kList, "90 00");
    counter(false, 2, "03 03");
    pin->select(pin->pathAdmin());
    salt(false);
    sender.expect(kHome, kDirFcp);
    sender.expect("90 24 00 81 18 " + hexOf(plainKey(kNewPin)), "90 00");
    pin->change(kNewPin);
}

TEST_F(ProPin, UnblockRecreatesTheUserPinAndResetsItsCounter) {
    const struct {
        TBytes pin;
        std::string before;
        std::string written;
    } rows[] = {{kNewPin, "00 0A", "0A 0A"}, {{}, "0A 0A", ""}};
    for (const auto& r : rows) {
        salt(false);
        sender.expect(kHome, kDirFcp);
        sender.expect(
            "00 DA 01 6E 2C 83 02 00 01 85 08 02 0F 82 0F FF FF 00 00 86 02 00 01 8F 18 " +
                hexOf(plainKey(r.pin)),
            "90 00");
        counter(false, 0, r.before);
        if (!r.written.empty()) sender.expect(writeAt(0, r.written), "90 00");
        pin->unblock(r.pin);
    }
    // Refused by the card: no counter upkeep.
    salt(false);
    sender.expect(kHome, kDirFcp);
    sender.expect("00 DA 01 6E 2C 83 02 00 01 85 08 02 0F 82 0F FF FF 00 00 86 02 00 01 8F 18 " +
                      hexOf(plainKey(kPin)),
                  "69 82");
    EXPECT_EQ(failureCode([&] { pin->unblock(kPin); }), code(0x6982));
}

TEST_F(ProPin, FipsChangeWritesTheShadowSetThenTheUserSetThenARandomShadow) {
    CPinPro4* pro4 = use<CPinPro4>();
    selectUser(true, "05 05");
    const TBytes old1 = saltedKey(1, kPin, kSalt), old3 = saltedKey(3, kPin, kSalt);
    pack->keySet(1, old1);  // the keys of the current login
    pack->keySet(3, old3);
    const TBytes a = saltedKey(1, kNewPin, kSalt), b = saltedKey(3, kNewPin, kSalt);
    auto sm = [&](const TBytes& k1, const TBytes& k3, const char* header, const TBytes& key) {
        return hexOf(smCommand(k1, k3, hex(header), key));
    };

    // 1-3: the new keys, read out while the session's are set aside.
    salt(true);
    // 4-5: the shadow set, under the old keys.
    sender.expect(kFipsHome, kDirFcp);
    sender.expect(sm(old1, old3, "9024009A", a), "90 00");
    sender.expect(sm(old1, old3, "9024109B", b), "90 00");
    sender.expect(sm(old1, old3, "9024109C", a), "90 00");
    // 6: log in to the shadow PIN; no counter for it.
    sender.expect(kList, "11 90 00");
    salt(true);
    challenge();
    sender.expect(kFipsHome, kDirFcp);
    sender.expect(authenticate(0x9A, a), "90 00");
    // 7-8: the user set, under the new keys; the card may protect its answer.
    sender.expect(kFipsHome, kDirFcp);
    const TBytes userPin = smCommand(a, b, hex("90240091"), a);
    sender.expect(hexOf(userPin), hexOf(smAnswer(a, b, userPin, {}, 0x9000)));
    sender.expect(sm(a, b, "90241092", b), "90 00");
    sender.expect(sm(a, b, "90241093", a), "90 00");
    // 9: keys of a random secret.
    salt(true);
    // 10: back to the user PIN.
    sender.expect(kList, "11 1A 90 00");
    counter(true, 41, "05 05");
    salt(true);
    challenge();
    sender.expect(kFipsHome, kDirFcp);
    sender.expect(authenticate(0x91, a), "90 00");
    counter(true, 41, "05 05");
    // 11: the random shadow set, under the new keys.
    auto pattern = [](const char* head) {
        std::string s = head;
        s += " 30 87 21 01";
        for (int i = 0; i < 32; ++i) s += " ??";
        s += " 97 01 FF 8E 08";
        for (int i = 0; i < 8; ++i) s += " ??";
        return s + " FF";
    };
    sender.expect(pattern("9C 24 00 9A"), "90 00");
    sender.expect(pattern("9C 24 10 9B"), "90 00");
    sender.expect(pattern("9C 24 10 9C"), "90 00");

    pro4->change(kNewPin);

    EXPECT_EQ(pack->keyGet(1), a) << "the session goes on under the new PIN";
    EXPECT_EQ(pack->keyGet(3), b);
    EXPECT_EQ(pro4->info().loginState, 0x00FF);

    // The random keys: decrypted with the new encryption key, key objects
    // 1A and 1C get the same key, and each command carries a MAC under a.
    ASSERT_GE(recorder.sent.size(), 3u);
    std::vector<TBytes> shadow;
    for (std::size_t i = recorder.sent.size() - 3; i < recorder.sent.size(); ++i) {
        const TBytes& c = recorder.sent[i];
        const TBytes cipher(c.begin() + 8, c.begin() + 40);
        TBytes plain = oracle::evp("DES-EDE3-CBC", b, TBytes(8, 0), cipher, false);
        ASSERT_EQ(plain.size(), 32u);
        EXPECT_EQ(TBytes(plain.begin() + 24, plain.end()), hex("8000000000000000"));
        plain.resize(24);
        shadow.push_back(plain);
        EXPECT_EQ(hexOf(c), hexOf(smCommand(a, b, TBytes(c.begin(), c.begin() + 4), plain)));
    }
    EXPECT_EQ(shadow[0], shadow[2]);
    EXPECT_NE(shadow[0], a);
    EXPECT_NE(shadow[1], b);
    EXPECT_NE(shadow[0], shadow[1]);
}

TEST_F(ProPin, FipsChangeWithoutASaltKeepsTheSessionKeys) {
    CPinPro4* pro4 = use<CPinPro4>();
    selectUser(true);
    pack->keySet(1, {0x11});
    pack->keySet(3, {0x33});
    sender.expect(kFipsCounter, "6A 82");
    EXPECT_EQ(failureCode([&] { pro4->change(kNewPin); }), code(0x6900));
    EXPECT_EQ(pack->keyGet(1), TBytes{0x11});
    EXPECT_EQ(pack->keyGet(3), TBytes{0x33});
}

}  // namespace
