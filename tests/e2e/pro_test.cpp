// A Pro token end to end: the exported API through pcscd and a virtual token,
// whose saved state shows the card side of each step.
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;
using json = nlohmann::json;

const char kPin[] = "1234567890";
const char kLabel[] = "Caf\xC3\xA9 token of 32 bytes in UTF-8";  // the most a token holds

struct Layout {
    const char* model;
    bool fips;
};

VTokenOptions token(const Layout& l, std::vector<std::string> serve = {}) {
    TokenInit init;
    init.model = l.model;
    init.fips = l.fips;
    init.label = kLabel;
    init.id = "CAFEF00D";
    VTokenOptions o;
    o.init = init;
    o.serveArgs = std::move(serve);
    return o;
}

// A node of the stored tree by its path below the master file, "6666/1000".
const json& node(const json& state, const std::string& path) {
    const json* n = &state["mf"];
    for (std::size_t at = 0; at < path.size(); at += 5) {
        const json& children = (*n)["children"];
        auto it = std::find_if(children.begin(), children.end(),
                               [&](const json& c) { return c["id"] == path.substr(at, 4); });
        if (it == children.end()) throw std::runtime_error("no node " + path);
        n = &*it;
    }
    return *n;
}
json pin(const json& state, bool fips, const std::string& id) {
    for (const auto& p : node(state, fips ? "6666/5000" : "6666")["pins"])
        if (p["id"] == id) return p;
    return json();
}

class ProStory : public ::testing::TestWithParam<Layout> {};

// One token from binding to a PIN change: information, login, a tree of
// directories and files, bad arguments, logout, and the card pulled out in
// between.
TEST_P(ProStory, FromBindToPinChange) {
    const Layout l = GetParam();
    const std::string user = l.fips ? "11" : "01";
    // The label comes in the locale's encoding: a UTF-8 one keeps the é.
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    Pcscd pcscd;
    VToken card(pcscd, 0, token(l));
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    ApduLog log;

    // The text getters' size protocols: what a null buffer asks for, and what
    // a buffer of 3 gets ('#' is untouched). No control channel through vpcd:
    // the identifier of the second form.
    const struct {
        long (*get)(__tag_HToken*, char*, DWORD*);
        std::string text;
        DWORD asked;
        std::string cut;
    } getters[] = {
        {KRTokenLabelGet, kLabel, 33, "Caf##"},                        // cut without a terminator
        {KRTokenIDGet, "0000cafef00d", 13, std::string("000\0#", 5)},  // a zero past the size
        {KRTokenModelGet, "Qntoken", 7, std::string("Qnt\0#", 5)},     // no terminator counted
    };
    for (const auto& g : getters) {
        DWORD size = 0;
        char buffer[64];
        std::fill(std::begin(buffer), std::end(buffer), '#');
        EXPECT_EQ(g.get(s.h, nullptr, &size), 0) << g.text;
        EXPECT_EQ(size, g.asked) << g.text;
        size = 3;
        EXPECT_EQ(g.get(s.h, buffer, &size), 0);
        EXPECT_EQ(std::string(buffer, 5), g.cut) << g.text;
        EXPECT_EQ(size, 3u);
        size = sizeof buffer;
        EXPECT_EQ(g.get(s.h, buffer, &size), 0);
        EXPECT_EQ(std::string(buffer), g.text);
    }
    EXPECT_EQ(number(KRTokenMinPinGet, s.h), 6u);
    EXPECT_EQ(number(KRTokenMaxPinGet, s.h), 16u);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, s.h), 15u);

    // Before a login the home directory takes no vendor directory.
    __tag_HDir* vendor = nullptr;
    EXPECT_EQ(KRRootDirOpen(&vendor, s.h, 0xF001), kNoLogin) << "the card's 6982, folded";
    EXPECT_EQ(KRTokenPinChange(s.h, "new-pin-1"), 0x86E06982L);

    // A wrong PIN: the card's verdict, its retry counter and the host's
    // counter file (the attempts left) all move by one; the right PIN puts
    // both back.
    EXPECT_EQ(KRTokenLogin(s.h, "000000"), kWrongPin);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, s.h), 14u);
    EXPECT_EQ(pin(card.state(), l.fips, user)["tries"], 14);
    ASSERT_EQ(KRTokenLogin(s.h, kPin), 0);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, s.h), 15u);
    EXPECT_EQ(pin(card.state(), l.fips, user)["tries"], 15);

    ASSERT_EQ(KRRootDirOpen(&vendor, s.h, 0xF001), 0);

    // Sub-directories take the identifier's low 16 bits; making one that
    // exists opens it.
    __tag_HDir *sub = nullptr, *again = nullptr, *other = nullptr;
    ASSERT_EQ(KRDirCreate(&sub, 0x12345, vendor), 0);
    __tag_DirInfo di{};
    EXPECT_EQ(KRDirGetInfo(sub, &di), 0);
    EXPECT_EQ(di.id, 0x2345);
    EXPECT_EQ(KRDirCreate(&again, 0x2345, vendor), 0);
    EXPECT_EQ(KRDirClose(again), 0);
    ASSERT_EQ(KRDirCreate(&other, 0x2346, vendor), 0);

    // A public file of 600 bytes goes in three blocks each way.
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRFileCreate(&f, sub, 0x0101, 600, 0), 0);
    std::vector<unsigned char> data(600), back(700, 0xEE);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7);
    ASSERT_EQ(KRFileWrite(f, 0, data.data(), 600), 0);
    ASSERT_EQ(KRFileRead(f, 0, 0xFFFF, back.data(), 700), 0) << "0xFFFF asks for the whole file";
    EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
    EXPECT_EQ(back[600], 0xEE) << "nothing past the file's size";
    ASSERT_EQ(KRFileRead(f, 598, 2, back.data(), 2), 0);
    EXPECT_EQ(back[1], data[599]);

    // A private file, read back through a second handle.
    __tag_HFile *secret = nullptr, *reopenedFile = nullptr;
    ASSERT_EQ(KRFileCreate(&secret, sub, 0x0102, 16, 1), 0);
    const unsigned char payload[] = "private payload";
    ASSERT_EQ(KRFileWrite(secret, 0, payload, 16), 0);
    ASSERT_EQ(KRFileOpen(&reopenedFile, sub, 0x0102), 0);
    __tag_FileInfo fi{};
    ASSERT_EQ(KRFileGetInfo(reopenedFile, &fi), 0);
    EXPECT_EQ(std::make_tuple(fi.id, fi.size, fi.isPrivate), std::make_tuple(0x0102, 16, 1));
    ASSERT_EQ(KRFileRead(reopenedFile, 0, 16, back.data(), 16), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(back.data())), "private payload");

    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0101, 600, 0}, {0x0102, 16, 1}}));
    EXPECT_EQ(dirs(vendor), (std::vector<WORD>{0x2345, 0x2346}));
    EXPECT_TRUE(dirs(sub).empty());
    // The wrong kind of node is as good as missing.
    __tag_HDir* notDir = nullptr;
    __tag_HFile* notFile = nullptr;
    EXPECT_EQ(KRDirOpen(&notDir, 0x0101, sub), kNotFound);
    EXPECT_EQ(KRFileOpen(&notFile, vendor, 0x2345), kNotFound);
    EXPECT_EQ(KRFileOpen(&notFile, sub, 0x0999), kNotFound);

    // Bad arguments change nothing.
    unsigned char buf[16] = {};
    const struct {
        const char* what;
        long expected;
        std::function<long()> call;
    } bad[] = {
        {"offset past the end", kBadArgument, [&] { return KRFileRead(secret, 17, 1, buf, 16); }},
        {"one byte past the end: the driver's read range", 0x86E06282L,
         [&] { return KRFileRead(secret, 8, 9, buf, 16); }},
        {"buffer too small", kBadArgument, [&] { return KRFileRead(secret, 0, 16, buf, 15); }},
        {"whole file, small buffer", kBadArgument,
         [&] { return KRFileRead(secret, 0, 0xFFFF, buf, 15); }},
        {"write past the end", kBadArgument, [&] { return KRFileWrite(secret, 8, buf, 9); }},
        {"write at 0xFFFF, not cut to 16 bits", kBadArgument,
         [&] { return KRFileWrite(secret, 0xFFFF, buf, 2); }},
        {"null data", kNullPointer, [&] { return KRFileWrite(secret, 0, nullptr, 1); }},
        {"null file info", kNullPointer, [&] { return KRFileGetInfo(secret, nullptr); }},
        {"null dir info", kNullPointer, [&] { return KRDirGetInfo(sub, nullptr); }},
        {"file as a directory", kBadArgument,
         [&] { return KRDirDelete(reinterpret_cast<__tag_HDir*>(secret)); }},
        {"directory as a file", kBadArgument,
         [&] { return KRFileDelete(reinterpret_cast<__tag_HFile*>(sub)); }},
        {"token as a directory", kBadArgument,
         [&] { return KRDirClose(reinterpret_cast<__tag_HDir*>(s.h)); }},
        {"null parent", kBadArgument, [&] { return KRDirCreate(&notDir, 1, nullptr); }},
        {"null out after the work", kNullPointer,
         [&] { return KRDirCreate(nullptr, 0x0777, sub); }},
        {"read of nothing at the end", 0L, [&] { return KRFileRead(secret, 16, 0, buf, 0); }},
    };
    log.take();
    for (const auto& c : bad) EXPECT_EQ(c.call(), c.expected) << c.what;
    EXPECT_EQ(count(log.take(), "C-APDU: 00 B0"), 0) << "no read went to the card";
    EXPECT_EQ(dirs(sub), (std::vector<WORD>{0x0777})) << "made before the null out was seen";

    // Delete leaves the handle open; its later calls fail on the card.
    ASSERT_EQ(KRFileDelete(f), 0);
    EXPECT_EQ(KRFileRead(f, 0, 1, back.data(), 2), kNotFound);
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0102, 16, 1}}));
    ASSERT_EQ(KRDirDelete(other), 0);
    EXPECT_EQ(KRDirClose(other), 0);
    EXPECT_EQ(dirs(vendor), (std::vector<WORD>{0x2345}));

    // Pulled out mid-session: PC/SC codes until a rebind finds it back.
    card.vanish();
    const long removed = KRFileRead(secret, 0, 16, back.data(), 16);
    EXPECT_EQ(static_cast<unsigned long>(removed) >> 16, 0x8010u) << std::hex << removed;
    card.comeBack();
    ASSERT_EQ(KRTokenUnLock(s.h), 0);
    ASSERT_EQ(KRTokenRebind(s.h), 0);
    ASSERT_EQ(KRTokenLock(s.h), 0);
    ASSERT_EQ(KRTokenLogin(s.h, kPin), 0);
    EXPECT_EQ(KRFileRead(reopenedFile, 0, 16, back.data(), 16), 0) << "handles follow the rebind";
    ASSERT_EQ(KRTokenLogout(s.h), 0);
    EXPECT_EQ(KRFileRead(secret, 0, 16, back.data(), 16), kNoLogin) << "private once out";
    for (__tag_HFile* h : {secret, reopenedFile}) EXPECT_EQ(KRFileClose(h), 0);
    for (__tag_HDir* h : {sub, vendor}) EXPECT_EQ(KRDirClose(h), 0);

    const json before = card.state();
    ASSERT_EQ(KRTokenLogin(s.h, kPin), 0);
    log.take();
    ASSERT_EQ(KRTokenPinChange(s.h, "new-pin-1"), 0);
    EXPECT_EQ(count(log.take(), "C-APDU: 9C 24"), l.fips ? 9 : 0) << "protected key writes";
    ASSERT_EQ(KRTokenLogout(s.h), 0);
    EXPECT_EQ(KRTokenLogin(s.h, kPin), kWrongPin) << "the old PIN";
    EXPECT_EQ(KRTokenLogin(s.h, "new-pin-1"), 0);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, s.h), 15u);
    const json after = card.state();
    auto key = [&](const json& state, const char* id) { return pin(state, l.fips, id)["key"]; };
    if (!l.fips) {
        EXPECT_NE(key(after, "01"), key(before, "01"));
        EXPECT_EQ(key(after, "05"), key(before, "05")) << "the administrator keeps his";
        return;
    }
    // Both key sets were rewritten: the live one holds the new PIN's keys (the
    // login proved it), the shadow one a secret's.
    for (const char* id : {"11", "12", "13", "1A", "1B", "1C"})
        EXPECT_NE(key(after, id), key(before, id)) << id;
    EXPECT_EQ(key(after, "11"), key(after, "13"));
    EXPECT_EQ(key(after, "1A"), key(after, "1C"));
    EXPECT_NE(key(after, "1A"), key(after, "11"));
    EXPECT_NE(key(after, "1B"), key(after, "12"));
}

INSTANTIATE_TEST_SUITE_P(Layouts, ProStory,
                         ::testing::Values(Layout{"pro16", false}, Layout{"pro42", false},
                                           Layout{"pro42", true}),
                         [](const auto& info) {
                             return std::string(info.param.model) + (info.param.fips ? "Fips" : "");
                         });

// The older QN family: its own directory record, zeroed at the end of an
// enumeration and on failures.
TEST(ProStory, OlderFamily) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token({"pro42", false}, {"--assume-verified", "01"}));
    __tag_HToken* h = nullptr;
    ASSERT_EQ(QNTokenBind(&h, card.reader().c_str()), 0);
    ASSERT_EQ(QNTokenLock(h), 0);
    __tag_HDir *vendor = nullptr, *sub = nullptr;
    ASSERT_EQ(QNRootDirOpen(&vendor, h, 0xF005), 0);
    ASSERT_EQ(QNDirCreate(&sub, 0x10301, vendor, 0xBEEF), 0) << "the fourth word is discarded";
    QNDirInfo di{0xAAAA, 0xAAAA, 0xAAAA};
    ASSERT_EQ(QNDirGetInfo(sub, &di), 0);
    EXPECT_EQ(di.id, 0x0301);
    EXPECT_EQ(di.reserved, 0);
    __tag_HDirEnum* e = nullptr;
    ASSERT_EQ(QNDirEnumOpen(&e, vendor), 0);
    ASSERT_EQ(QNDirEnumNext(e, &di), 0);
    EXPECT_EQ(di.id, 0x0301);
    di = {0xAAAA, 0xAAAA, 0xAAAA};
    EXPECT_EQ(QNDirEnumNext(e, &di), kEnd);
    EXPECT_EQ(std::make_tuple(di.id, di.reserved, di.size), std::make_tuple(0, 0, 0));
    EXPECT_EQ(QNDirEnumClose(e), 0);
    di = {0xAAAA, 0xAAAA, 0xAAAA};
    EXPECT_EQ(QNDirGetInfo(reinterpret_cast<__tag_HDir*>(h), &di), kBadArgument);
    EXPECT_EQ(std::make_tuple(di.id, di.reserved, di.size), std::make_tuple(0, 0, 0));
    ASSERT_EQ(QNDirDelete(sub), 0);
    for (__tag_HDir* d : {sub, vendor}) EXPECT_EQ(QNDirClose(d), 0);
    EXPECT_EQ(QNTokenUnLock(h), 0);
    EXPECT_EQ(QNTokenUnbind(h), 0);
}

TEST(ProFaults, MuteCardAndMalformedAnswersFailCleanly) {
    Pcscd pcscd;
    const Layout fips{"pro42", true};
    {
        VToken card(pcscd, 0, token(fips, {"--refuse", "0084=9000"}));  // a challenge, no bytes
        Session s(card.reader());
        EXPECT_EQ(KRTokenLogin(s.h, kPin), 0x86E06281L);
        EXPECT_EQ(pin(card.state(), true, "11")["tries"], 15) << "no answer reached the card";
    }
    {
        // Mute from the 7th command, the login's second: PC/SC's code for
        // its retry, and again once pcscd shows the card mute.
        VToken card(pcscd, 0, token(fips, {"--mute-after", "6"}));
        Session s(card.reader());
        EXPECT_EQ(KRTokenLogin(s.h, kPin), 0x80100016L);
        waitForReader(card.reader(), cardMute, "the card to show mute");
        EXPECT_EQ(static_cast<unsigned long>(KRTokenLogin(s.h, kPin)) >> 16, 0x8010u);
    }
    // The protected answers of a FIPS change lose their last MAC bytes.
    VToken card(pcscd, 0, token(fips, {"--truncate", "9C24=19"}));
    Session s(card.reader());
    ASSERT_EQ(KRTokenLogin(s.h, kPin), 0);
    EXPECT_EQ(KRTokenPinChange(s.h, "new-pin-2"), 0x86E06281L);
    EXPECT_EQ(KRTokenLogin(s.h, kPin), 0) << "the live set was not touched";
}

}  // namespace
