// The Java and Joker PIN drivers and secure messaging against a scripted card
// whose keys, MACs and ciphers come from OpenSSL; the file system and the FIPS
// state are doubles.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>

#include "token/apppack/pack_joker.h"
#include "token/apppin/pin_joker.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using oracle::saltedKey;
using Keys = std::vector<TBytes>;
using Paths = std::vector<TPath>;

Keys keysOf(const TBytes& pin) {
    Keys k;
    for (int i = 0; i < 5; ++i) k.push_back(saltedKey(i, pin, kSalt));
    return k;
}
TBytes cbc(const TBytes& key, const TBytes& iv, const TBytes& data, bool encrypt) {
    return oracle::evp("DES-EDE3-CBC", key, iv, data, encrypt);
}
TBytes mac3(const TBytes& key, const TBytes& data) {  // full triple DES, 0x80 padding
    const TBytes c = cbc(key, TBytes(8, 0), oracle::isoPad(data), true);
    return TBytes(c.end() - 8, c.end());
}

// The card's view of a wrapped command under session keys `k` and its challenge `c`.
struct Opened {
    TBytes header, lc, iv, h, plain, le;
};
Opened open(const TBytes& cmd, const Keys& k, TBytes c) {
    Opened o;
    auto s = [&](std::size_t from, std::size_t n) { return TBytes(&cmd[from], &cmd[from] + n); };
    const std::size_t at = cmd[4] ? 5 : 7, end = cmd.size() - 2, tail = end - 34;
    const bool longE = cmd[at + 1] == 0xFF;
    const std::size_t e = at + (longE ? 4 : 2),
                      n = longE ? cmd[at + 2] << 8 | cmd[at + 3] : cmd[at + 1];
    o.header = s(0, 4), o.lc = s(4, at - 4), o.iv = s(tail + 2, 8), o.h = s(tail + 16, 8),
    o.le = s(end, 2);
    EXPECT_EQ(o.lc.size() == 1 ? o.lc[0] : o.lc[1] << 8 | o.lc[2], end - at);
    EXPECT_EQ(
        toHex(s(at, 1)) + toHex(s(tail, 34)),
        toHex(
            cat({{0x32, 0x22, 8}, o.iv, hex("34 02 01 3E 33 08"), o.h, {0x0D, 8}, s(end - 8, 8)})));
    EXPECT_EQ(e + n, tail) << "ciphertext length";
    ++c[7];
    EXPECT_EQ(s(end - 8, 8), mac3(k[2], cat({s(0, end - 8), c}))) << "command MAC";
    o.plain = cbc(k[1], o.iv, s(e, tail - e), false);
    while (!o.plain.empty() && o.plain.back() == 0) o.plain.pop_back();
    if (!o.plain.empty() && o.plain.back() == 0x80) o.plain.pop_back();
    return o;
}
// A protected answer: `part` framed with its MAC under k[4].
TBytes framed(const Keys& k, const TBytes& h, const TBytes& part, const TBytes& sw) {
    return cat({part, {0x0D, 8}, mac3(k[4], cat({part, h, sw, {0x0D, 8}})), sw});
}
TBytes reply(const Keys& k, const TBytes& h, const TBytes& data, const TBytes& sw) {
    if (data.empty()) return framed(k, h, cat({{0x99, 0x02}, sw}), sw);
    const TBytes iv = oracle::random(8), e = cbc(k[3], iv, oracle::isoPad(data), true);
    return framed(k, h, cat({{0x22, 8}, iv, {0x32, static_cast<unsigned char>(e.size())}, e}), sw);
}

// Records the selections; serves the salt from 000F and fails on the paths in `failing`.
struct FakeFS : IAppFS {
    void select(TPath path) override {
        selected.push_back(path);
        if (failing.count(path)) APDU_RAISE(0x6A82);
        current = path;
    }
    void read(TBytes& data, WORD) override { data = current == TPath{0x000F} ? kSalt : TBytes(); }
    Paths selected;
    std::set<TPath> failing;
    TPath current;
};
struct FakeInfo : IAppInfo {
    bool isFips() override { return fips; }
    bool fips = false;
};
struct JavaApplet : IApplet {
    JavaApplet(ISender* s, bool joker) : IApplet(s) {
        error_.reset(joker ? static_cast<IAppError*>(new CErrorJoker) : new CErrorJava);
        pack_.reset(joker ? new CPackJoker(this) : new CPackJava(this));
        pin_.reset(joker ? new CPinJoker(this) : new CPinJava(this));
        fs_.reset(fs = new FakeFS);
        info_.reset(fips = new FakeInfo);
    }
    FakeFS* fs;
    FakeInfo* fips;
};

struct Dialect {
    bool joker;
    unsigned status, challenge, authenticate, change, refresh;
};
const Dialect kDialects[] = {{false, 0x07, 0x17, 0x11, 0x0F, 0x1B},
                             {true, 0x14, 0x12, 0x10, 0x18, 0x1D}};
const std::string kStatus = "23 01 03 06 01 0A 20 01 00 90 00";

// One applet of a dialect with its card's exchanges.
struct Rig {
    explicit Rig(const Dialect& d, bool fips = false) : d(d) { applet.fips->fips = fips; }
    void status(unsigned id, const std::string& answer) {
        card.expect(apdu("80 %02X 00 %02X 05 10 03 23 06 20 00", d.status, id), answer);
    }
    void authenticate(unsigned id, const TBytes& key, const std::string& sw) {
        card.expect(apdu("80 %02X 00 00 08", d.challenge), toHex(kChallenge) + "90 00");
        card.expect(apdu("80 %02X 00 %02X 0A 10 08 ", d.authenticate, id) +
                        toHex(oracle::challengeMac(key, kChallenge)),
                    sw);
    }
    std::string changed(unsigned ins, unsigned id, const TBytes& key) {
        return apdu("80 %02X 00 %02X 1A 10 18 ", ins, id) + toHex(key);
    }
    void refresh() {  // a fresh marker with its low bit set
        card.respond([this](const TBytes& cmd) {
            EXPECT_EQ(toHex(TBytes(cmd.begin(), cmd.begin() + 7)),
                      apdu("80 %02X 00 00 12 10 10 ", d.refresh));
            EXPECT_TRUE(cmd.size() == 23 && (cmd[7] & 1)) << toHex(cmd);
            return hex("90 00");
        });
    }
    // One wrapped command under `k`; the card keeps the inner command and answers 90 00.
    void sm(const Keys& k) {
        const TBytes c = oracle::random(8);
        card.expect(apdu("80 %02X 01 00 08", d.challenge), toHex(c) + "90 00");
        card.respond([this, k, c](const TBytes& cmd) {
            const Opened o = open(cmd, k, c);
            inner.push_back(toHex(cat({o.header, o.plain, o.le})));
            return reply(k, o.h, {}, hex("90 00"));
        });
    }
    const Dialect& d;
    ScriptedSender card;
    JavaApplet applet{&card, d.joker};
    IAppPin* pin = applet.pin();
    IAppPack* pack = applet.pack();
    Paths& fs = applet.fs->selected;
    std::vector<std::string> inner;
};

TEST(JavaPin, StatusOfTheUserPinAndOnJavaTheAdministrator) {
    // The answer; attempts left, total and login state, or the failure.
    const std::tuple<const char*, std::vector<int>, long> rows[] = {
        {kStatus.c_str(), {3, 10, 0}, 0},
        {"20 01 01 06 01 F0 23 01 05 90 00", {5, 0x7F, 0xFF}, 0},  // a total of 0 shows as 0x7F
        {"23 01 03 06 01 0A 90 00", {}, code(0x6281)},             // no verified flag
        {"23 01 03 06 05 0A 20 01 01 90 00", {}, code(0x6281)},    // past the answer
        {"67 07", {}, code(0x6A82)},
    };
    for (const Dialect& d : kDialects) {
        for (const auto& [answer, fields, failure] : rows) {
            Rig r(d);
            r.status(0x11, answer);
            EXPECT_EQ(failureCode([&] { r.pin->select({0x0011}); }), failure) << answer;
            const std::vector<int> p = pinFields(r.pin->info());
            if (!failure) {
                EXPECT_EQ(std::vector<int>(p.begin() + 2, p.end()), fields) << answer;
            }
            EXPECT_EQ(r.fs, Paths{{}});
            EXPECT_EQ(r.card.offered, std::vector<std::size_t>{258});
        }
        Rig r(d);  // Joker reads no administrator status; nobody reads the global PIN's
        if (!d.joker) r.status(0x21, "23 01 02 06 01 03 20 01 01 90 00");
        r.pin->select({0x0021});
        EXPECT_EQ(pinFields(r.pin->info()), (d.joker ? std::vector<int>{6, 16, 255, 255, 0x10}
                                                     : std::vector<int>{6, 16, 2, 3, 0xFF}));
        r.pin->select(r.pin->pathGlobal());
        EXPECT_EQ(pinFields(r.pin->info()), (std::vector<int>{6, 16, 255, 255, 0x10}));
        EXPECT_EQ(r.fs, (d.joker ? Paths{} : Paths{{0x3F00, 0x6666}}));
    }
}

TEST(JavaPin, LoginAnswersTheChallengeWithTheKeyOfTheMode) {
    // FIPS, attempts left before, the card's word; left after, the failure.
    const std::tuple<bool, unsigned, const char*, int, long> rows[] = {
        {false, 3, "90 00", 10, 0},
        {true, 3, "90 00", 10, 0},  // key 0 instead of 3
        {false, 3, "67 05", 2, code(0x6300)},
        {false, 0, "69 83", 0, code(0x6983)},  // at 0 it stays
    };
    for (const Dialect& d : kDialects) {
        for (const auto& [fips, before, sw, after, failure] : rows) {
            Rig r(d, fips);
            r.status(0x11, apdu("23 01 %02X 06 01 0A 20 01 00 90 00", before));
            r.pin->select(r.pin->pathUser());
            r.authenticate(0x11, saltedKey(fips ? 0 : 3, kPin, kSalt), sw);
            EXPECT_EQ(failureCode([&] { r.pin->login(kPin); }), failure) << sw;
            EXPECT_EQ(r.pin->info().attemptsLeft, after);
            EXPECT_EQ(r.pin->info().loginState, failure ? 0 : 0xFF);
            EXPECT_EQ(r.fs, (Paths{{}, {0x000F}, {}}));
            for (int i = 0; i < 5; ++i) EXPECT_EQ(r.pack->keyGet(i), keysOf(kPin)[i]);
        }
        Rig r(d);
        for (const char* challenge : {"01 02 03 90 00", "90"}) {
            r.card.expect(apdu("80 %02X 00 00 08", d.challenge), challenge);
            EXPECT_EQ(failureCode([&] { r.pin->login(kPin); }), code(0x6281)) << challenge;
        }
        r.applet.fs->failing = {{0x000F}};  // no salt: nothing is sent
        EXPECT_EQ(failureCode([&] { r.pin->login(kPin); }), code(0x6A82));
    }
}

TEST(JavaPin, AdministratorBranchOnJavaOnly) {
    for (const Dialect& d : kDialects) {
        Rig r(d);
        r.pack->keySet(3, hex("0102"));  // an earlier user login
        if (!d.joker) r.status(0x21, kStatus);
        r.pin->select({0x0021});
        r.authenticate(0x21, d.joker ? saltedKey(3, kPin, kSalt) : oracle::plainKey(kPin), "90 00");
        r.pin->login(kPin);
        const TBytes key = d.joker ? saltedKey(3, kNewPin, kSalt) : oracle::plainKey(kNewPin);
        r.card.expect(r.changed(d.change, 0x21, key), "90 00");
        r.refresh();
        r.pin->change(kNewPin);
        const TPath up{0x3F00, 0x6666}, salt{0x000F};
        EXPECT_EQ(r.fs, (d.joker ? Paths{salt, {}, salt, {}} : Paths{up, up}));
        if (!d.joker) {
            EXPECT_EQ(r.pack->keyGet(3), hex("0102"));
        }
    }
}

TEST(JavaPin, PlainChangeUnblockAndLogout) {
    for (const Dialect& d : kDialects) {
        Rig r(d);
        r.status(0x11, kStatus);
        r.pin->select({0x0011});
        const TBytes key = saltedKey(3, kNewPin, kSalt);
        r.card.expect(r.changed(d.change, 0x11, key), "90 00");
        r.refresh();
        r.pin->change(kNewPin);
        EXPECT_EQ(r.fs, (d.joker ? Paths{{}, {0x000F}, {}} : Paths{{}, {0x000F}}));
        if (d.joker) {
            EXPECT_EQ(failureCode([&] { r.pin->unblock(kNewPin); }), code(0xFACE));
        } else {
            r.card.expect(r.changed(0x13, 0x11, key), "90 00");
            r.refresh();
            r.pin->unblock(kNewPin);
            r.card.expect(r.changed(0x13, 0x11, key), "67 36");  // refused: no marker
            EXPECT_EQ(failureCode([&] { r.pin->unblock(kNewPin); }), code(0x6900));
        }
        r.pin->logout();
        EXPECT_EQ(r.fs.back(), TPath{0x3F00});
        EXPECT_EQ(r.pin->info().loginState, 0);
        EXPECT_EQ(failureCode([&] { r.pack->keyGet(0); }), code(0x6900));
    }
}

// The bytes crypto_random gives within second `t`: the generator reseeded from the clock.
TBytes clockSecret(std::time_t t) {
    std::srand(static_cast<unsigned>(t));
    TBytes s(20);
    for (unsigned char& b : s) b = static_cast<unsigned char>(std::rand());
    return s;
}

TEST(JavaPin, FipsChangeWritesShadowPinAndShadowAgainUnderTheSessionKeys) {
    for (const Dialect& d : kDialects) {
        Rig r(d, true);
        r.status(0x11, kStatus);
        r.pin->select(r.pin->pathUser());
        const Keys old = keysOf(kPin), fresh = keysOf(kNewPin);
        for (int i = 0; i < 5; ++i) r.pack->keySet(i, old[i]);
        for (int i = 0; i < 5; ++i) r.sm(old);
        r.authenticate(0x1A, fresh[0], "90 00");
        for (int i = 0; i < 10; ++i) {
            if (i == 5) r.status(0x11, kStatus), r.authenticate(0x11, fresh[0], "90 00");
            r.sm(fresh);
        }
        r.refresh();
        const std::time_t start = std::time(nullptr);
        r.pin->change(kNewPin);
        Keys secret = keysOf(clockSecret(start));
        if (std::time(nullptr) != start && r.inner.size() > 10 &&
            r.inner[10].find(toHex(secret[0])) == std::string::npos)
            secret = keysOf(clockSecret(start + 1));
        std::vector<std::string> expected;
        for (int i = 0; i < 15; ++i)
            expected.push_back(
                apdu("84 %02X 00 %02X 10 18 ", d.change, (i / 5 == 1 ? 0x11 : 0x1A) + i % 5) +
                toHex((i < 10 ? fresh : secret)[i % 5]) + "00 20 ");
        EXPECT_EQ(r.inner, expected);
        const TPath salt{0x000F};
        EXPECT_EQ(r.fs, (d.joker ? Paths{{}, salt, {}, salt, {}, {}, salt, {}, salt, {}, {}}
                                 : Paths{{}, salt, {}, salt, {}, salt, {}, salt, {}, {}}));
        EXPECT_EQ(r.pin->info().loginState, 0xFF);
    }
}

struct JavaSm : ::testing::Test {
    void SetUp() override {
        for (int i = 0; i < 5; ++i) pack->keySet(i, k[i]);
    }
    ScriptedSender card;
    JavaApplet applet{&card, false};
    CPackJava* pack = static_cast<CPackJava*>(applet.pack());
    const Keys k = keysOf(kPin);
    const TBytes h = oracle::random(8), ok = hex("90 00");
};

TEST_F(JavaSm, WrapsEachShape) {
    // The command, H[7] as drawn; Lc, H[7] as sent, Le.
    const std::tuple<TBytes, unsigned char, const char*, unsigned char, const char*> rows[] = {
        {hex("80 0F 00 1A 03 10 01 AA"), 0xFF, "2C", 0x00, "00 20 "},  // H[7] wraps; no Le
        {hex("00 B0 00 00 10"), 0x05, "2C", 0x06, "00 30 "},
        {hex("00 B0 00 00 00 01 00"), 0, "2C", 1, "01 20 "},
        {cat({hex("80 D6 00 00 D7"), TBytes(215, 0x41)}), 0, "FC", 1, "00 20 "},  // a body of 252
        {cat({hex("80 D6 00 00 D8"), TBytes(216, 0x42)}), 0, "00 01 04", 1, "00 20 "},  // of 260
        {cat({hex("80 D6 00 00 F8"), TBytes(248, 0x43)}), 0, "00 01 26", 1,
         "00 20 "},  // 256 of cipher
    };
    for (const auto& [command, drawn, lc, sent, le] : rows) {
        const TBytes c = oracle::random(8), iv = oracle::random(8);
        TBytes header, data, drawnH = h;
        unsigned short ignored;
        IAPDUDefinitions::parse_capdu(command, header, data, ignored);
        drawnH[7] = drawn;
        card.expect("80 17 01 00 08", toHex(c) + "90 00");
        const CPackJava::CWrapped w = pack->wrap(command, iv, drawnH);
        const Opened o = open(w.command, k, c);
        EXPECT_EQ(toHex(cat({o.header, o.lc, {o.h[7]}, o.le})),
                  toHex(header).replace(0, 2, apdu("%02X", header[0] | 4)) + lc + " " +
                      apdu("%02X ", sent) + le);
        EXPECT_EQ(o.iv, iv);
        EXPECT_EQ(o.plain, data);
        EXPECT_EQ(w.hostChallenge, o.h);
        EXPECT_EQ(w.answerSize, (o.le[0] << 8 | o.le[1]) + 2u);
    }
}

TEST_F(JavaSm, OpensAnswersAndRefusesFaults) {
    const TBytes iv = oracle::random(8), bad = cbc(k[3], iv, TBytes(8, 0x41), true);
    TBytes flipped = reply(k, h, hex("010203"), ok);
    flipped[flipped.size() - 3] ^= 1;
    const std::tuple<const char*, TBytes, const char*, long> rows[] = {
        {"data", reply(k, h, hex("010203"), ok), "01 02 03 90 00 ", 0},
        {"no data", reply(k, h, {}, ok), "90 00 ", 0},
        {"12 bytes", framed(k, h, {}, ok), "", code(0x6281)},
        {"MAC mismatch", flipped, "", code(0x6281)},
        {"other H", reply(k, oracle::random(8), {}, ok), "", code(0x6281)},
        {"refused", hex("67 07"), "", code(0x6A82)},
        {"bare 90 00", ok, "", code(0x6281)},
        {"TLV past the end", framed(k, h, hex("22 08 01 02 03"), ok), "", code(0x6281)},
        {"short IV", framed(k, h, cat({hex("22 07 01020304050607 32 08"), bad}), ok), "",
         code(0x6281)},
        {"bad padding", framed(k, h, cat({{0x22, 8}, iv, {0x32, 8}, bad}), ok), "", code(0x6281)},
    };
    for (const auto& [what, answer, plain, failure] : rows) {
        TBytes response{0xEE};
        EXPECT_EQ(failureCode([&] { pack->unwrap(answer, h, response); }), failure) << what;
        EXPECT_EQ(toHex(response), failure ? "EE " : plain) << what;
    }
    pack->keyClear();  // the card's refusal comes first, keys or not
    TBytes response;
    EXPECT_EQ(failureCode([&] { pack->unwrap(hex("67 07"), h, response); }), code(0x6A82));
    EXPECT_EQ(failureCode([&] { pack->sm(hex("00 A4 00 00"), response); }), code(0x6900));
    EXPECT_EQ(failureCode([&] { pack->chain(hex("00 A4 00 00"), response); }), code(0xFACE));
}

TEST_F(JavaSm, SendsTheWrappedCommandWithRoomForTheProtection) {
    const TBytes c = oracle::random(8);
    card.expect("80 17 01 00 08", toHex(c) + "90 00");
    card.respond([&](const TBytes& cmd) { return reply(k, open(cmd, k, c).h, hex("0A0B"), ok); });
    TBytes response;
    pack->sm(hex("80 CA 01 07 10"), response);
    EXPECT_EQ(response, hex("0A 0B 90 00"));
    EXPECT_EQ(card.offered, (std::vector<std::size_t>{10, 0x10 + 0x22}));
}

}  // namespace
