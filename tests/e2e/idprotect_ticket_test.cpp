// Login by ticket on IDProtect tokens through pcscd, exported API only: the
// tickets come from krfs-vtoken as a fingerprint front end would issue them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

const char kPin[] = "12345678";

// A token of login type `type` with finger `n` enrolled, its template in `dir`.
VTokenOptions token(const TempDir& dir, const char* type, const std::string& n) {
    writeFile(dir.file("finger"), "print");
    return madeToken("idprotect", "0102030405060708", kPin, "ticket token",
                     {"--login-type", type, "--finger", n + "=" + dir.file("finger")});
}

std::string ticket(const std::string& state, std::vector<std::string> args) {
    TempDir dir("krfs-ticket-out");
    args.insert(args.begin(), {KRFS_VTOKEN_PATH, "ticket", "--state", state});
    ChildProcess program(args, dir.file("out"));
    EXPECT_TRUE(program.waitExit() && program.exitedWith(0)) << program.log();
    std::string text = program.log();
    text.erase(text.find_last_not_of('\n') + 1);
    EXPECT_EQ(text.size(), 208u) << text;
    return text;
}

TEST(IdprotectTicket, EachTypeOfTicketAndTheCardsRefusals) {
    Pcscd pcscd;
    TempDir dir("krfs-ticket");
    VToken either(pcscd, 0, token(dir, "0x24", "2")), finger(pcscd, 1, token(dir, "0x23", "2"));
    // Another token with finger 2, under another key.
    const std::string other2 = dir.file("other2.json");
    initToken(other2, *token(dir, "0x23", "2").init);
    Session a(either.reader()), b(finger.reader());
    ASSERT_TRUE(a.h && b.h);
    // A private file, made under the PIN; the rows read it after each login.
    __tag_HDir* d = nullptr;
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRTokenLogin(a.h, kPin), 0);
    ASSERT_EQ(KRRootDirOpen(&d, a.h, 0xF001), 0);
    ASSERT_EQ(KRFileCreate(&f, d, 0x0001, 4, 1), 0);
    ASSERT_EQ(writeText(f, 0, "abcd"), 0);
    ASSERT_EQ(KRTokenLogout(a.h), 0);
    const std::string either_ = either.statePath(), finger_ = finger.statePath();
    const struct {
        __tag_HToken* h;
        std::string state;
        std::vector<std::string> args;
        bool tamper;
        long rc;
        DWORD attempts;  // a's PIN behind its login object, b's fingerprint tries
    } rows[] = {
        {a.h, either_, {"--type", "0x23", "--finger", "2"}, false, 0, 10},
        {a.h, either_, {"--type", "0x20", "--pin", kPin}, false, 0, 10},
        {a.h, either_, {"--type", "0x25", "--pin", kPin, "--finger", "2"}, false, 0, 10},
        // A ticket that fails its digest goes to the card as a PIN.
        {a.h, either_, {"--type", "0x23", "--finger", "2"}, true, kWrongPin, 9},
        {b.h, other2, {"--type", "0x23", "--finger", "2"}, false, kWrongPin, 9},
        {b.h, finger_, {"--type", "0x23", "--finger", "2"}, false, 0, 10},
    };
    for (const auto& r : rows) {
        std::string text = ticket(r.state, r.args);
        if (r.tamper) text[100] = text[100] == 'A' ? 'B' : 'A';
        EXPECT_EQ(KRTokenLogin(r.h, text.c_str()), r.rc) << r.args[1] << r.args.back();
        EXPECT_EQ(number(KRTokenPinAttemptsGet, r.h), r.attempts) << r.args[1] << r.args.back();
        if (r.h == a.h) {
            EXPECT_EQ(readAll(f, 4), r.rc ? "error " + std::to_string(kNoLogin) : "abcd");
        }
        EXPECT_EQ(KRTokenLogout(r.h), 0);
    }

    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRDirClose(d), 0);
}

}  // namespace
