// The IDProtect drivers against a scripted card, and against a live one that checks
// the PIN answer and wrapped commands with keys it agrees through OpenSSL.
#include "token/applet_idprotect.h"

#include <openssl/bn.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>

#include "libapdu/token.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

const std::string kOk = "90 00", kNotFound = "6A 82", kDir = "62 03 87 01 38 90 00";
const std::string kSelectAid = "00 A4 04 00 0C A0 00 00 01 64 4C 41 53 45 52 00 01 00";
const std::string kListDirs = "80 30 38 00 00";

std::string word(WORD w) { return apdu("%02X %02X ", w >> 8, w & 0xFF); }
TPath home(TPath rest = {}) {
    TPath p{0x3F00, 0x3000, 0x3002, 0x5000};
    p.insert(p.end(), rest.begin(), rest.end());
    return p;
}
std::string sel(const TPath& p) {
    std::string s = apdu("80 A4 08 0C %02X ", 2 * p.size());
    for (WORD id : p) s += word(id);
    return s + "00";
}
// Eight identifiers, low byte first.
std::string name(const TPath& relative) {
    std::string s;
    for (std::size_t i = 0; i < 8; ++i) {
        const WORD id = i < relative.size() ? relative[i] : 0;
        s += apdu("%02X %02X ", id & 0xFF, id >> 8);
    }
    return s;
}
std::string byName(const TPath& relative) { return "80 A4 04 0C 10 " + name(relative) + "00"; }
std::string realId(WORD n) { return "62 04 83 02 " + word(n) + kOk; }
std::string file(WORD n) { return "62 0D 87 01 01 80 02 " + word(n) + "86 04 00 02 00 03 90 00"; }
// The home's real directories 1, 3, 4 and 6.
const std::string kHomeDirs = "D2 02 00 01 D2 02 00 03 D2 02 00 04 D2 02 00 06 90 00";
// The login object names the user PIN 0x24.
const std::vector<std::string> kNames = {"80 A4 08 0C 06 3F 00 30 00 30 02 00",
                                         "62 04 86 02 00 24 90 00"};

struct Idprotect : ::testing::Test {
    Idprotect() {
        card.expect(kSelectAid, kOk);
        applet.reset(new CAppletIdprotect(&card));
        fs = applet->fs();
    }
    // Exchanges of a select of `relative` below the home whose real number is `real`.
    std::vector<std::string> selectDir(const TPath& relative, WORD real,
                                       const std::string& answer) {
        return {sel(home()), kDir, byName(relative), realId(real), sel(home({real})), answer};
    }
    ScriptedSender card;
    std::unique_ptr<CAppletIdprotect> applet;
    IAppFS* fs;
};

TEST_F(Idprotect, SelectAndCreateWalkTheNamedDirectories) {
    enum Op { Select, Create, List };
    const CFileInfo dir(2, 0, 0x10, 0x11), privateFile(1, 0x20, 0x02, 0x24);
    const TPath eight{1, 2, 3, 4, 5, 6, 7, 8}, outside{0x3F00, 0x3000, 0xC000};
    const std::string dirAccess = "86 0C " + bytes(3, "00 11") + "00 24 ";
    // Select `path`, then the operation; the exchanges and the code.
    const struct Row {
        TPath path;
        Op op;
        WORD id;
        CFileInfo info;
        std::vector<std::vector<std::string>> exchange;  // in parts
        unsigned short sw = 0;
    } rows[] = {
        // clang-format off
        // A missing home is made in 3F00 3000 3002 under the user PIN.
        {{}, Select, 0, {}, {{sel(home()), kNotFound, sel({0x3F00, 0x3000, 0x3002}), kDir}, kNames,
            {"00 E0 38 00 1C 62 81 19 8A 01 04 83 02 50 00 80 02 00 00 86 0C " + bytes(6, "00 24"),
             kOk, sel(home()), kDir}}},
        // No file is reachable directly in the home; a name holds eight levels.
        {{0x000A}, Select, 0, {}, {{sel(home()), kDir, byName({0x000A}), kNotFound}}, 0x6A82},
        {{1, 2, 3, 4, 5, 6, 7, 8, 9}, Select, 0, {}, {{sel(home()), kDir, byName(eight), kNotFound}}, 0x6A82},
        {outside, Select, 0, {}, {{sel(outside), file(0x62)}}},
        // Case A: at the home even a file comes out as a named directory, with
        // the smallest free number.
        {{}, Create, 0x1234, CFileInfo(1, 0x10, 0x10, 0x11), {{sel(home()), kDir, sel(home()), kDir,
            byName({0x1234}), kNotFound, sel(home()), kDir, kListDirs, kHomeDirs,
            "00 E0 38 00 2E 62 81 2B 8A 01 04 83 02 00 02 80 02 00 00 84 10 " + name({0x1234}) +
                dirAccess + "00 10 00 FF", kOk}}},
        {{}, Create, 0x0777, dir, {{sel(home()), kDir, sel(home()), kDir, byName({0x0777}), realId(5),
            sel(home({5})), kDir}}, 0x6A89},
        {eight, Create, 9, dir, {selectDir(eight, 9, kDir)}, 0x6400},
        // Case B: a file in a named directory, after the probe and a return.
        {{0x1234}, Create, 0x000A, privateFile, {selectDir({0x1234}, 3, kDir),
            {sel(home()), kDir, byName({0x1234, 0x000A}), kNotFound, byName({0x1234}), realId(3),
             sel(home({3, 0x000A})), kNotFound}, selectDir({0x1234}, 3, kDir),
            {"00 E0 01 00 18 62 81 15 8A 01 04 83 02 00 0A 80 02 00 20 86 08 00 02 " + bytes(3, "00 24"), kOk}}},
        // Real number equal to the logical one: the plain road; 6A80 is no room.
        {{1}, Create, 0x000B, dir, {selectDir({1}, 1, kDir),
            {"00 E0 38 00 1C 62 81 19 8A 01 04 83 02 00 0B 80 02 00 00 " + dirAccess + "00 11 00 11",
             "6A 80"}}, 0x6400},
        // A file has no list.
        {outside, List, 0, {}, {{sel(outside), file(0x62)}}, 0x6283},
        // clang-format on
    };
    for (const Row& r : rows) {
        for (const auto& part : r.exchange) card.play(part);
        const long failed = failureCode([&] {
            fs->select(r.path);
            if (r.op == Create) fs->create(r.id, r.info);
            if (r.op == List) fs->list(1);
        });
        EXPECT_EQ(failed, r.sw ? code(r.sw) : 0) << r.exchange[0][0];
        EXPECT_TRUE(card.allConsumed()) << r.exchange[0][0];
    }
}

TEST_F(Idprotect, ChainSplitsLongDataAndFollowsContinuations) {
    const std::string a255 = bytes(255, "AA");
    TBytes answer;
    // Command, exchanges, the collected answer (empty: a failure).
    const std::tuple<std::string, std::vector<std::string>, std::string> rows[] = {
        // clang-format off
        {"80 E2 00 00 FF " + a255, {"80 E2 00 00 FF " + a255 + "00", "01 02 90 00"}, "01 02 90 00 "},
        {"80 E2 00 00 00 01 00 " + a255 + "BB", {"90 E2 00 00 FF " + a255, kOk, "80 E2 00 00 01 BB 00",
            "11 61 03", "00 C0 00 00 03", "22 33 44 90 00"}, "11 22 33 44 90 00 "},
        {"80 E2 00 00 00 01 00 " + a255 + "BB", {"90 E2 00 00 FF " + a255, kNotFound}, ""},
        // clang-format on
    };
    for (const auto& [command, exchange, collected] : rows) {
        card.play(exchange);
        const long failed = failureCode([&] { applet->pack()->chain(hex(command), answer); });
        EXPECT_EQ(failed, collected.empty() ? code(0x6A82) : 0) << command.substr(0, 20);
        EXPECT_EQ(toHex(answer), collected);
    }
}

TEST(IdprotectApplet, InitRefusesShortOrOldInformationFiles) {
    // File size, byte 97, the code of selectApplet.
    const std::tuple<WORD, std::string, long> rows[] = {
        {97, "", code(0x6400)}, {98, "03", code(0x6400)}, {98, "04", 0}};
    for (const auto& [size, generation, failed] : rows) {
        auto* card = new ScriptedSender;
        card->play({kSelectAid, kOk, "80 28 00 00 04 00 00 00 00", kOk,
                    sel({0x3F00, 0x3000, 0xC000}), file(size)});
        if (!generation.empty()) {
            card->expect(apdu("00 B0 00 00 %02X", size), bytes(97, "20") + generation + kOk);
        }
        card->expect(kSelectAid, "6A 82");
        std::unique_ptr<ISender> sender(card);
        std::unique_ptr<IToken> token = IToken::create(sender);
        EXPECT_EQ(failureCode([&] { token->selectApplet(0x2101); }), failed) << size;
        EXPECT_FALSE(token->checkIfExist(0x2101));
    }
}

const TBytes kPin = hex("313233343536");

using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
Bn bn(const TBytes& b) { return Bn(BN_bin2bn(b.data(), int(b.size()), nullptr), &BN_free); }
// base^e mod m, big-endian in whole 32-bit units, as the host sizes its numbers.
TBytes power(const TBytes& base, const TBytes& e, const TBytes& m) {
    Bn r(BN_new(), &BN_free);
    BN_CTX* ctx = BN_CTX_new();
    BN_mod_exp(r.get(), bn(base).get(), bn(e).get(), bn(m).get(), ctx);
    BN_CTX_free(ctx);
    TBytes out((BN_num_bytes(r.get()) + 3) / 4 * 4);
    BN_bn2binpad(r.get(), out.data(), static_cast<int>(out.size()));
    return out;
}
TBytes des3(const TBytes& key16, const TBytes& data, bool encrypt) {
    return oracle::evp("DES-EDE3-CBC", cat({key16, TBytes(key16.begin(), key16.begin() + 8)}),
                       TBytes(8, 0), data, encrypt);
}

// The card's side of one channel for the command `plain` (header and data):
// `reach` 0 sends a group without the card's value, 1 a short key answer,
// 2 goes through the wrapped command, answered `word`, and the close.
void channel(ScriptedSender& card, const TBytes& plain, const std::string& word,
             const std::string& closed, int reach) {
    const TBytes p = cat({{0xC1}, oracle::random(62), {0x01}}), secret = oracle::random(20);
    const std::string group = "80 01 02 81 40 " + toHex(p);
    if (reach == 0) {
        card.expect("80 48 00 80 00", group + kOk);
        return;
    }
    TBytes cardValue = power({0x02}, secret, p);
    cardValue.insert(cardValue.begin(), 64 - cardValue.size(), 0);
    card.expect("80 48 00 80 00", group + "82 40 " + toHex(cardValue) + kOk);
    const TBytes q = oracle::random(reach == 1 ? 31 : 32);
    auto shared = std::make_shared<TBytes>();
    card.respond([=](const TBytes& c) {
        EXPECT_EQ(toHex(TBytes(c.begin(), c.begin() + 4)), "80 86 00 00 ");
        *shared = power(TBytes(c.begin() + 5, c.end() - 1), secret, p);
        return cat({q, {0x90, 0x00}});
    });
    if (reach == 1) return;
    card.respond([=](const TBytes& wrapped) {
        const TBytes& y = *shared;
        TBytes enc(16), mac(16), header(plain.begin(), plain.begin() + 4);
        for (int i = 0; i < 16; ++i) enc[i] = q[i] ^ y[i], mac[i] = q[16 + i] ^ y[24 + i];
        header[0] |= 0x0C;
        const TBytes cipher =
            des3(enc, oracle::isoPad(TBytes(plain.begin() + 4, plain.end())), true);
        const TBytes d = cat({{0x87, static_cast<unsigned char>(cipher.size() + 1), 0x01}, cipher});
        const TBytes m = oracle::retailMac(
            mac, oracle::isoPad(cat({TBytes(7, 0), {0x01}, header, {0x80, 0, 0, 0}, d})));
        EXPECT_EQ(
            toHex(wrapped),
            toHex(cat({header, {static_cast<unsigned char>(d.size() + 10)}, d, {0x8E, 0x08}, m})));
        return hex(word);
    });
    card.expect("80 86 FF FF", closed);
}

TEST_F(Idprotect, SecureMessagingAgreesKeysWrapsAndAlwaysCloses) {
    const TBytes newPin = cat({hex("80 24 00 00 62 81 08 81 06"), kPin});
    TBytes response;
    const auto sm = [&](const char* c) { return [&, c] { applet->pack()->sm(hex(c), response); }; };
    // The call, unblock's first exchange, the command the card must decrypt (header,
    // data), its word, the close's word, how far the card goes, the code, sm's answer.
    const std::tuple<std::function<void()>, bool, TBytes, std::string, std::string, int, long,
                     std::string>
        rows[] = {
            {[&] { applet->pin()->unblock(kPin); }, true, newPin, kOk, kOk, 2, 0, ""},
            {[&] { applet->pin()->change(kPin); }, false, newPin, "63 C1", kOk, 2, code(0x6300),
             ""},
            // No data still makes one block; the command's word comes back as it is.
            {sm("80 2C 00 00"), false, hex("80 2C 00 00"), "6A 82", kOk, 2, 0, "6A 82 "},
            // Le is dropped; a failed close wins over the command's word.
            {sm("00 2A 00 00 03 01 02 03 00"), false, hex("00 2A 00 00 01 02 03"), kOk, "6A 82", 2,
             code(0x6A82), "90 00 "},
            {sm("80 2C 00 00"), false, {}, "", "", 1, code(0x6281), ""},
            {sm("80 2C 00 00"), false, {}, "", "", 0, code(0x6281), ""},
        };
    for (const auto& [call, prepare, plain, word, closed, reach, failed, answer] : rows) {
        if (prepare) card.expect("80 2C 00 00 00", "69 85");
        channel(card, plain, word, closed, reach);
        response.clear();
        EXPECT_EQ(failureCode(call), failed) << toHex(plain);
        EXPECT_EQ(toHex(response), answer);
        EXPECT_TRUE(card.allConsumed());
    }
}

TEST_F(Idprotect, PinSelectReadsCountersAndTheVerifiedList) {
    IAppPin* pin = applet->pin();
    const std::string list = "80 CE 00 00 00";
    const auto select = [&](TPath p) { return [=] { pin->select(p); }; };
    const auto pinObject = [](WORD id) { return "80 A4 08 0C 04 3F 00 " + word(id) + "00"; };
    run(card,
        {
            // clang-format off
            {select({0x3F00, 0x24}), {pinObject(0x24), "62 07 85 05 00 00 01 00 35 90 00", list,
                "00 00 11 00 00 24 90 00"}, 0, 3, 0xFF},
            // A composite object takes its counters from the plain PIN 0020.
            {select({0x3F00, 0x10}), {pinObject(0x10), "62 07 85 05 00 00 0F 00 00 90 00", kNames[0], kNames[1],
                pinObject(0x20), "62 07 85 05 00 00 00 00 A5 90 00", list,
                "00 00 24 90 00"}, 0, 10, 0},
            {select({0x3F00, 0x11}), {pinObject(0x11), "62 04 85 02 00 01 90 00"}, code(0x6281), 10, 0},
            {[&] { pin->logout(); }, {"80 28 00 00 04 00 00 00 11", kOk}, 0, 10, 0},
            {select({0x3F00, 0x01}), {pinObject(0x01), "62 07 85 05 00 00 01 00 33 90 00", list, kOk}, 0, 3, 0},
            {[&] { pin->login(kPin); }, {}, code(0xFACE), 3, 0},
            {[&] { pin->change({}); }, {}, code(0x6300), 3, 0},
            {[&] { pin->change(hex("31 32 B3 34")); }, {}, code(0x6300), 3, 0},
            {[&] { pin->unblock(hex("31 00 33 34")); }, {}, code(0x6300), 3, 0},
            // clang-format on
        },
        pin);
}

}  // namespace
