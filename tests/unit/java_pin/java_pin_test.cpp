// The Java and Joker PIN and secure messaging drivers against a card computed
// with OpenSSL; the file system and the FIPS state are doubles.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "token/apppack/pack_joker.h"
#include "token/apppin/pin_joker.h"
#include "unit/java_oracle.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using namespace oracle::java;
using Paths = std::vector<TPath>;
const TBytes kOk = hex("90 00");
const TPath kSaltFile{0x000F}, kUp{0x3F00, 0x6666};
const std::string kStatus = "23 01 03 06 01 0A 20 01 00 90 00";

Keys keysOf(const TBytes& pin) {
    Keys k;
    for (int i = 0; i < 5; ++i) k.push_back(oracle::saltedKey(i, pin, kSalt));
    return k;
}
// A protected answer: `part` and its MAC under key 4.
TBytes framed(const Keys& k, const TBytes& h, const TBytes& part, const TBytes& sw = kOk) {
    return cat({part, {0x0D, 8}, mac(k[4], cat({part, h, sw, {0x0D, 8}})), sw});
}
TBytes reply(const Keys& k, const TBytes& h, const TBytes& data) {
    if (data.empty()) return framed(k, h, hex("99 02 90 00"));
    const TBytes iv = oracle::random(8), e = cbc(k[3], iv, data);
    return framed(k, h, cat({{0x22, 8}, iv, {0x32, uc(e.size())}, e}));
}

// Records the selections, serves the salt, and fails on the path `failing`.
struct FakeFS : IAppFS {
    void select(TPath path) override {
        selected.push_back(path);
        if (path == failing) APDU_RAISE(0x6A82);
    }
    void read(TBytes& data, WORD) override {
        data = selected.back() == kSaltFile ? kSalt : TBytes();
    }
    Paths selected;
    TPath failing{0xFFFF};
};
struct JavaApplet : IApplet {
    JavaApplet(ISender* s, bool joker) : IApplet(s) {
        error_.reset(joker ? static_cast<IAppError*>(new CErrorJoker) : new CErrorJava);
        pack_.reset(joker ? new CPackJoker(this) : new CPackJava(this));
        pin_.reset(joker ? new CPinJoker(this) : new CPinJava(this));
        fs_.reset(fs = new FakeFS);
        info_.reset(fips = new FixedInfo(this, false));
    }
    FakeFS* fs;
    FixedInfo* fips;
};

struct Dialect {
    bool joker;
    unsigned status, challenge, authenticate, change, refresh;
};
const Dialect kDialects[] = {{false, 0x07, 0x17, 0x11, 0x0F, 0x1B},
                             {true, 0x14, 0x12, 0x10, 0x18, 0x1D}};

// An applet of one dialect, and its card's side of the exchanges.
struct Rig {
    explicit Rig(const Dialect& d, bool fips = false, const Keys& session = {}) : d(d) {
        applet.fips->fips = fips;
        for (std::size_t i = 0; i < session.size(); ++i) pack->keySet(i, session[i]);
    }
    void status(unsigned id, const std::string& answer) {
        card.expect(apdu("80 %02X 00 %02X 05 10 03 23 06 20 00", d.status, id), answer);
    }
    void authenticate(unsigned id, const TBytes& key, const std::string& sw = "90 00") {
        card.expect(apdu("80 %02X 00 00 08", d.challenge), toHex(kChallenge) + "90 00");
        card.expect(apdu("80 %02X 00 %02X 0A 10 08 ", d.authenticate, id) +
                        toHex(oracle::challengeMac(key, kChallenge)),
                    sw);
    }
    void changed(unsigned ins, unsigned id, const TBytes& key, const char* sw = "90 00") {
        card.expect(apdu("80 %02X 00 %02X 1A 10 18 ", ins, id) + toHex(key), sw);
    }
    void refresh() {  // a fresh marker, its low bit set
        card.respond([this](const TBytes& cmd) {
            EXPECT_EQ(toHex(cmd).substr(0, 21), apdu("80 %02X 00 00 12 10 10 ", d.refresh));
            EXPECT_TRUE(cmd.size() == 23 && (cmd[7] & 1)) << toHex(cmd);
            return kOk;
        });
    }
    void sm(const Keys& k) {  // one wrapped command, kept
        const TBytes c = oracle::random(8);
        card.expect(apdu("80 %02X 01 00 08", d.challenge), toHex(c) + "90 00");
        card.respond([this, k, c](const TBytes& cmd) {
            sent.push_back({k, c, cmd});
            return reply(k, TBytes(cmd.end() - 20, cmd.end() - 12), {});
        });
    }
    bool carried(std::size_t i, const TBytes& apdu) {  // wrapped command i carried `apdu`
        const auto& [k, c, cmd] = sent.at(i);
        const auto at = cmd.end() - 2;
        return cmd == wrapped(k, c, apdu, {at - 32, at - 24}, {at - 18, at - 10});
    }
    const Dialect& d;
    ScriptedSender card;
    JavaApplet applet{&card, d.joker};
    IAppPin* pin = applet.pin();
    CPackJava* pack = static_cast<CPackJava*>(applet.pack());
    Paths& fs = applet.fs->selected;
    std::vector<std::tuple<Keys, TBytes, TBytes>> sent;
};

TEST(JavaPin, StatusOfTheUserPin) {
    const std::vector<int> unknown{0, 0, 255, 255, 0x10};  // the record as reset
    const std::tuple<std::string, std::vector<int>, long> rows[] = {
        {kStatus, {6, 16, 3, 10, 0}, 0},
        {"20 01 01 06 01 F0 23 01 05 90 00",
         {6, 16, 5, 0x7F, 0xFF},
         0},                                                          // a total of 0 shows as 0x7F
        {"23 01 03 06 01 0A 90 00", unknown, code(0x6281)},           // no verified flag
        {"23 01 03 06 05 0A 20 01 01 90 00", unknown, code(0x6281)},  // past the end
        {"67 07", unknown, code(0x6A82)},
    };
    for (const Dialect& d : kDialects) {
        for (const auto& [answer, fields, failure] : rows) {
            Rig r(d);
            r.status(0x11, answer);
            EXPECT_EQ(failureCode([&] { r.pin->select({0x0011}); }), failure) << answer;
            EXPECT_EQ(pinFields(r.pin->info()), fields) << answer;
            EXPECT_EQ(r.fs, Paths{{}});
        }
    }
}

TEST(JavaPin, LoginCountsDownAndTakesTheKeyOfTheMode) {
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
            r.authenticate(0x11, keysOf(kPin)[fips ? 0 : 3], sw);
            EXPECT_EQ(failureCode([&] { r.pin->login(kPin); }), failure) << sw;
            EXPECT_EQ(pinFields(r.pin->info()),
                      (std::vector<int>{6, 16, after, 10, failure ? 0 : 0xFF}));
            EXPECT_EQ(r.fs, (Paths{{}, kSaltFile, {}}));
            for (int i = 0; i < 5; ++i) EXPECT_EQ(r.pack->keyGet(i), keysOf(kPin)[i]);
        }
        Rig r(d);
        r.card.expect(apdu("80 %02X 00 00 08", d.challenge), "01 02 03 90 00");
        EXPECT_EQ(failureCode([&] { r.pin->login(kPin); }), code(0x6281));
        r.applet.fs->failing = kSaltFile;  // no salt: nothing is sent
        EXPECT_EQ(failureCode([&] { r.pin->login(kPin); }), code(0x6A82));
    }
}

TEST(JavaPin, AdministratorOnJavaOnlyThenUnblockAndLogout) {
    for (const Dialect& d : kDialects) {
        Rig r(d);
        r.pack->keySet(3, hex("0102"));  // an earlier user login
        if (!d.joker) r.status(0x21, "23 01 02 06 01 03 20 01 01 90 00");
        r.pin->select({0x0021});
        EXPECT_EQ(
            pinFields(r.pin->info()),
            (std::vector<int>{6, 16, d.joker ? 255 : 2, d.joker ? 255 : 3, d.joker ? 0x10 : 0xFF}));
        r.authenticate(0x21, d.joker ? keysOf(kPin)[3] : oracle::plainKey(kPin));
        r.pin->login(kPin);
        const TBytes adminKey = d.joker ? keysOf(kNewPin)[3] : oracle::plainKey(kNewPin);
        r.changed(d.change, 0x21, adminKey);
        r.refresh();
        r.pin->change(kNewPin);
        EXPECT_EQ(r.fs, (d.joker ? Paths{kSaltFile, {}, kSaltFile, {}} : Paths{kUp, kUp}));
        EXPECT_EQ(r.pack->keyGet(3), d.joker ? adminKey : hex("0102"));
        r.pin->select(r.pin->pathGlobal());  // sends nothing, knows nothing
        EXPECT_EQ(pinFields(r.pin->info()), (std::vector<int>{6, 16, 255, 255, 0x10}));

        r.status(0x11, kStatus);  // the user's unblock and logout; a plain change is end to end
        r.pin->select({0x0011});
        const TBytes key = keysOf(kNewPin)[3];
        if (d.joker) {
            EXPECT_EQ(failureCode([&] { r.pin->unblock(kNewPin); }), code(0xFACE));
        } else {
            r.changed(0x13, 0x11, key);
            r.refresh();
            r.pin->unblock(kNewPin);
            r.changed(0x13, 0x11, key, "67 36");  // refused: no marker
            EXPECT_EQ(failureCode([&] { r.pin->unblock(kNewPin); }), code(0x6900));
        }
        r.pin->logout();
        EXPECT_EQ(static_cast<CPinJava*>(r.pin)->pathUser2(), TPath{}) << "no shadow outside FIPS";
        EXPECT_EQ(r.fs.back(), TPath{0x3F00});
        EXPECT_EQ(r.pin->info().loginState, 0);
        EXPECT_EQ(failureCode([&] { r.pack->keyGet(3); }), code(0x6900));
    }
}

// What crypto_random gives within second `t`: the C generator seeded from the clock.
TBytes clockSecret(std::time_t t) {
    std::srand(static_cast<unsigned>(t));
    TBytes s(20);
    for (uc& b : s) b = static_cast<uc>(std::rand());
    return s;
}

TEST(JavaPin, FipsChangeWritesTheShadowThePinAndTheShadowAgain) {
    for (const Dialect& d : kDialects) {
        const Keys old = keysOf(kPin), fresh = keysOf(kNewPin);
        Rig r(d, true, old);
        r.status(0x11, kStatus);
        r.pin->select(r.pin->pathUser());
        for (int i = 0; i < 15; ++i) {
            if (i == 5) r.authenticate(0x1A, fresh[0]);
            if (i == 10) r.status(0x11, kStatus), r.authenticate(0x11, fresh[0]);
            r.sm(i < 5 ? old : fresh);  // the card's session keys
        }
        r.refresh();
        const std::time_t start = std::time(nullptr);
        r.pin->change(kNewPin);
        auto change = [&](unsigned id, const TBytes& key) {
            return cat({hex(apdu("80 %02X 00 %02X 1A 10 18", d.change, id)), key});
        };
        Keys secret = keysOf(clockSecret(start));  // the shadow ends with a 20-byte secret
        if (!r.carried(10, change(0x1A, secret[0]))) secret = keysOf(clockSecret(start + 1));
        for (int i = 0; i < 15; ++i)
            EXPECT_TRUE(r.carried(
                i, change((i / 5 == 1 ? 0x11 : 0x1A) + i % 5, (i < 10 ? fresh : secret)[i % 5])))
                << i;
        const TPath s = kSaltFile;
        EXPECT_EQ(r.fs, (d.joker ? Paths{{}, s, {}, s, {}, {}, s, {}, s, {}, {}}
                                 : Paths{{}, s, {}, s, {}, s, {}, s, {}, {}}));
        EXPECT_EQ(r.card.offered[2], 0x22u) << "room for a protected answer";
    }
}

TEST(JavaSm, WrapsEachShape) {
    // The command, H[7] as drawn and as sent, the Lc.
    const std::tuple<TBytes, uc, uc, const char*> rows[] = {
        {hex("80 0F 00 1A 03 10 01 AA"), 0xFF, 0x00, "2C"},  // no Le: 00 20
        {hex("00 B0 00 00 10"), 0x05, 0x06, "2C"},
        {hex("00 B0 00 00 00 01 00"), 0, 1, "2C"},                            // extended Le
        {cat({hex("80 D6 00 00 D7"), TBytes(215, 0x41)}), 0, 1, "FC"},        // a body of 252
        {cat({hex("80 D6 00 00 D8"), TBytes(216, 0x42)}), 0, 1, "00 01 04"},  // and of 260
        {cat({hex("80 D6 00 00 F8"), TBytes(248, 0x43)}), 0, 1, "00 01 26"},  // cipher of 256
    };
    const Keys k = keysOf(kPin);
    Rig r(kDialects[0], false, k);
    for (const auto& [command, drawn, sent, lc] : rows) {
        const TBytes c = oracle::random(8), iv = oracle::random(8);
        TBytes h = oracle::random(8);
        h[7] = drawn;
        r.card.expect("80 17 01 00 08", toHex(c) + "90 00");
        const CPackJava::CWrapped w = r.pack->wrap(command, iv, h);
        h[7] = sent;
        EXPECT_EQ(toHex(w.command), toHex(wrapped(k, c, command, iv, h)));
        EXPECT_EQ(toHex(w.command).substr(12, std::string(lc).size()), lc);
        EXPECT_EQ(w.hostChallenge, h);
    }
}

TEST(JavaSm, OpensAnswersAndRefusesFaults) {
    const Keys k = keysOf(kPin);
    const TBytes h = oracle::random(8), iv = oracle::random(8);
    const TBytes badPadding = oracle::evp("DES-EDE3-CBC", k[3], iv, TBytes(8, 1), true);
    TBytes flipped = reply(k, h, hex("010203"));
    flipped[flipped.size() - 3] ^= 1;
    const std::tuple<const char*, TBytes, const char*, long> rows[] = {
        {"data", reply(k, h, hex("010203")), "01 02 03 90 00 ", 0},
        {"no data", reply(k, h, {}), "90 00 ", 0},
        {"12 bytes", framed(k, h, {}), "", code(0x6281)},
        {"MAC mismatch", flipped, "", code(0x6281)},
        {"bare 90 00", kOk, "", code(0x6281)},
        {"TLV past the end", framed(k, h, hex("22 08 01 02 03")), "", code(0x6281)},
        {"bad padding", framed(k, h, cat({{0x22, 8}, iv, {0x32, 8}, badPadding})), "",
         code(0x6281)},
    };
    Rig r(kDialects[1], false, k);
    for (const auto& [what, answer, plain, failure] : rows) {
        TBytes response{0xEE};
        EXPECT_EQ(failureCode([&] { r.pack->unwrap(answer, h, response); }), failure) << what;
        EXPECT_EQ(toHex(response), failure ? "EE " : plain) << what;
    }
    r.pack->keyClear();  // the card's refusal comes first; without keys nothing is sent
    TBytes response;
    EXPECT_EQ(failureCode([&] { r.pack->unwrap(hex("67 07"), h, response); }), code(0x6A82));
    EXPECT_EQ(failureCode([&] { r.pack->sm(hex("00 A4 00 00"), response); }), code(0x6900));
    EXPECT_EQ(failureCode([&] { r.pack->chain(hex("00 A4 00 00"), response); }), code(0xFACE));
}

}  // namespace
