// Login by ticket on IDProtect tokens through pcscd, exported API only: the
// tickets come from krfs-vtoken as a fingerprint front end would issue them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

const char kPin[] = "12345678";

struct Tokens {
    TempDir dir{"krfs-ticket"};
    // A token of login type `type` with fingers 2 (and 7) enrolled from `templ`.
    VTokenOptions make(const char* type, const std::string& templ, bool seven = false) {
        writeFile(dir.file("f2"), templ);
        writeFile(dir.file("f7"), templ + "7");
        std::vector<std::string> more{"--login-type", type, "--finger", "2=" + dir.file("f2")};
        if (seven) more.insert(more.end(), {"--finger", "7=" + dir.file("f7")});
        return madeToken("idprotect", "0102030405060708", kPin, "ticket token", more);
    }
};

std::string ticket(const std::string& state, std::vector<std::string> args) {
    TempDir dir("krfs-ticket-out");
    args.insert(args.begin(), {KRFS_VTOKEN_PATH, "ticket", "--state", state});
    ChildProcess program(args, dir.file("out"));
    EXPECT_TRUE(program.waitExit() && program.exitedWith(0)) << program.log();
    std::string text = program.log();
    if (!text.empty() && text.back() == '\n') text.pop_back();
    EXPECT_EQ(text.size(), 208u) << text;
    return text;
}

// Makes the private file 0001 of 0xF001 under `secret`, then logs out.
void privateFile(__tag_HToken* h, const std::string& secret) {
    ASSERT_EQ(KRTokenLogin(h, secret.c_str()), 0);
    __tag_HDir* d = nullptr;
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRRootDirOpen(&d, h, 0xF001), 0);
    ASSERT_EQ(KRFileCreate(&f, d, 0x0001, 4, 1), 0);
    EXPECT_EQ(writeText(f, 0, "abcd"), 0);
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRDirClose(d), 0);
    EXPECT_EQ(KRTokenLogout(h), 0);
}

std::string readPrivate(__tag_HToken* h) {
    __tag_HDir* d = nullptr;
    __tag_HFile* f = nullptr;
    EXPECT_EQ(KRRootDirOpen(&d, h, 0xF001), 0);
    EXPECT_EQ(KRFileOpen(&f, d, 0x0001), 0);
    const std::string data = readAll(f, 4);
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRDirClose(d), 0);
    return data;
}

TEST(IdprotectTicket, EachTypeOfTicketMeetsTheLoginItCallsFor) {
    Pcscd pcscd;
    Tokens t;
    VToken either(pcscd, 0, t.make("0x24", "print")), both(pcscd, 1, t.make("0x25", "print"));
    Session a(either.reader()), b(both.reader());
    ASSERT_TRUE(a.h && b.h);
    privateFile(a.h, kPin);
    privateFile(b.h, ticket(both.statePath(), {"--type", "0x25", "--pin", kPin, "--finger", "2"}));
    const std::string denied = "error " + std::to_string(kNoLogin);
    const struct {
        VToken& token;
        __tag_HToken* h;
        std::vector<std::string> args;
        bool tamper;
        long rc;
        std::string read;
        DWORD attempts;  // of the PIN behind the login object
    } rows[] = {
        {either, a.h, {"--type", "0x23", "--finger", "2"}, false, 0, "abcd", 10},
        {either, a.h, {"--type", "0x20", "--pin", kPin}, false, 0, "abcd", 10},
        {either, a.h, {"--type", "0x24", "--finger", "2"}, false, 0, "abcd", 10},
        {either, a.h, {"--type", "0x24", "--pin", kPin}, false, 0, "abcd", 10},
        // A ticket that fails its digest goes to the card as a PIN.
        {either, a.h, {"--type", "0x23", "--finger", "2"}, true, kWrongPin, denied, 9},
        {both, b.h, {"--type", "0x25", "--pin", kPin, "--finger", "2"}, false, 0, "abcd", 10},
        // The card takes the fingerprint, but the login object wants the PIN too.
        {both, b.h, {"--type", "0x23", "--finger", "2"}, false, 0, denied, 10},
    };
    for (const auto& r : rows) {
        std::string text = ticket(r.token.statePath(), r.args);
        if (r.tamper) text[100] = text[100] == 'A' ? 'B' : 'A';
        EXPECT_EQ(KRTokenLogin(r.h, text.c_str()), r.rc) << r.args[1];
        EXPECT_EQ(readPrivate(r.h), r.read) << r.args[1];
        EXPECT_EQ(number(KRTokenPinAttemptsGet, r.h), r.attempts) << r.args[1];
        EXPECT_EQ(KRTokenLogout(r.h), 0);
    }

    // PIN and fingerprint: the fingerprint proof, then the PIN object selected
    // again, then the PIN's answer.
    ApduLog log;
    ASSERT_EQ(KRTokenLogin(b.h, ticket(both.statePath(), rows[5].args).c_str()), 0);
    const std::string sent = log.take();
    const std::size_t proof = sent.find("C-APDU: 00 22 03 00 0C 00 00 00 02");
    const std::size_t again = sent.find("C-APDU: 80 A4 08 0C 04 3F 00 00 25", proof);
    ASSERT_NE(again, std::string::npos) << sent;
    EXPECT_NE(sent.find("C-APDU: 80 20 00 00 10", again), std::string::npos) << sent;
}

TEST(IdprotectTicket, TheCardRefusesAnotherFingerOrKeyAndCountsTries) {
    Pcscd pcscd;
    Tokens t, other;
    VToken card(pcscd, 0, t.make("0x23", "print"));
    const std::string otherState = other.dir.file("other.json");
    initToken(otherState, *other.make("0x23", "print", true).init);
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    // The fingerprint object's counter is the one the host reports here.
    const std::pair<std::string, DWORD> tries[] = {
        {ticket(otherState, {"--type", "0x23", "--finger", "7"}), 9},  // not enrolled here
        {ticket(otherState, {"--type", "0x23", "--finger", "2"}), 8},  // another key
    };
    for (const auto& [text, left] : tries) {
        EXPECT_EQ(KRTokenLogin(s.h, text.c_str()), kWrongPin);
        EXPECT_EQ(number(KRTokenPinAttemptsGet, s.h), left);
    }
    EXPECT_EQ(card.state()["applets"][0]["state"]["finger_tries_left"], 8);
    privateFile(s.h, ticket(card.statePath(), {"--type", "0x23", "--finger", "2"}));
    EXPECT_EQ(number(KRTokenPinAttemptsGet, s.h), 10u);
    EXPECT_EQ(readPrivate(s.h), "error " + std::to_string(kNoLogin));
    ASSERT_EQ(
        KRTokenLogin(s.h, ticket(card.statePath(), {"--type", "0x23", "--finger", "2"}).c_str()),
        0);
    EXPECT_EQ(readPrivate(s.h), "abcd");
}

}  // namespace
