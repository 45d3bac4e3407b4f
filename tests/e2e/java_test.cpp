// Java-card tokens through pcscd, exported API only: the Java applet and its
// Joker near copy (the same story with other instruction bytes), the card
// manager's model text and CryptoPro beside Java, and the FIPS PIN change.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

constexpr long kNotOffered = 0x86E0FACEL;

struct Dialect {
    const char* name;
    WORD applet;
    const char* aid;
    const char* listPage2;  // the list command that asks from entry 100
};
const Dialect kJava{"java", 0x2001, "A0 00 00 03 12 02 02", "80 01 02 00 04 09 02 00 64"};
const Dialect kJoker{"joker", 0x2204, "A0 00 00 04 48 00 04 01", "80 0D 02 00 04 09 02 00 64"};

VTokenOptions javaToken(const Dialect& d, std::vector<std::string> more = {}) {
    more.insert(more.end(), {"--pin-tries", "5"});
    return madeToken(d.name, "0102030405060708", "12345678", "java token", std::move(more));
}

// The whole life of a file tree and a PIN, the same on both applets.
void treeFilesAndPin(__tag_HToken* h, const Dialect& d, ApduLog& log) {
    EXPECT_EQ(text(KRTokenIDGet, h), "0102030405060708");
    EXPECT_EQ(text(KRTokenLabelGet, h), "java token");
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 5u) << "from the card's status";

    EXPECT_EQ(KRTokenLogin(h, "00000000"), kWrongPin);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 4u);
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 5u);

    __tag_HDir* vendor = nullptr;
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0x1000), 0);
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRFileCreate(&f, vendor, 0x0001, 700, 0), 0);
    const std::string data = pattern(700);
    ASSERT_EQ(writeText(f, 0, data), 0);
    EXPECT_EQ(readAll(f, 700), data) << "three blocks of at most 245 bytes";
    EXPECT_EQ(KRFileClose(f), 0);
    ASSERT_EQ(KRFileCreate(&f, vendor, 0x0002, 5, 1), 0);
    ASSERT_EQ(writeText(f, 0, "hello"), 0);
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRFileCreate(&f, vendor, 0x0001, 1, 0), kExists);

    // A directory of more files than one list answer holds.
    __tag_HDir* many = nullptr;
    ASSERT_EQ(KRDirCreate(&many, 0x2000, vendor), 0);
    std::vector<Entry> expected;
    for (WORD id = 1; id <= 101; ++id) {
        ASSERT_EQ(KRFileCreate(&f, many, id, 1, 0), 0) << id;
        EXPECT_EQ(KRFileClose(f), 0);
        expected.push_back({id, 1, 0});
    }
    log.take();
    EXPECT_EQ(entries(many), expected);
    EXPECT_EQ(count(log.take(), d.listPage2), 1) << "the second page";
    EXPECT_EQ(dirs(vendor), std::vector<WORD>{0x2000});
    EXPECT_EQ(entries(vendor), (std::vector<Entry>{{1, 700, 0}, {2, 5, 1}}));

    // Logging out sends nothing to the card, which keeps the login until its
    // applet is selected again.
    ASSERT_EQ(KRTokenLogout(h), 0);
    ASSERT_EQ(KRFileOpen(&f, vendor, 0x0002), 0);
    EXPECT_EQ(readAll(f, 5), "hello");
    EXPECT_EQ(KRFileClose(f), 0);
    ASSERT_EQ(KRSelectApplet(h, d.applet), 0);
    ASSERT_EQ(KRFileOpen(&f, vendor, 0x0002), 0);
    EXPECT_EQ(readAll(f, 5), "error " + std::to_string(kNoLogin));
    EXPECT_EQ(KRFileDelete(f), kNoLogin);
    EXPECT_EQ(KRFileClose(f), 0);

    // A plain change: afterwards the new PIN works and the old does not.
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    ASSERT_EQ(KRTokenPinChange(h, "abcdef12"), 0);
    ASSERT_EQ(KRSelectApplet(h, d.applet), 0);
    EXPECT_EQ(KRTokenLogin(h, "12345678"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "abcdef12"), 0);

    // The card deletes empty directories only.
    EXPECT_EQ(KRDirDelete(many), kNoLogin);
    for (WORD id = 1; id <= 101; ++id) {
        ASSERT_EQ(KRFileOpen(&f, many, id), 0) << id;
        EXPECT_EQ(KRFileDelete(f), 0) << id;
        EXPECT_EQ(KRFileClose(f), 0);
    }
    EXPECT_EQ(KRDirDelete(many), 0);
    EXPECT_EQ(dirs(vendor), std::vector<WORD>{});
    EXPECT_EQ(KRDirClose(many), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

TEST(JavaStory, JavaTokenWithItsManagerAndCryptoPro) {
    Pcscd pcscd;
    VToken card(pcscd, 0,
                javaToken(kJava, {"--applets", "manager,cryptopro", "--model-name", "Java Token"}));
    ApduLog log;
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    const std::string bind = log.take();
    EXPECT_EQ(count(bind, kJava.aid), 1) << bind;
    EXPECT_EQ(count(bind, "A0 00 00 01 64"), 0) << "IDProtect comes after Java\n" << bind;

    EXPECT_EQ(text(KRTokenModelGet, s.h), "Java Token");
    ASSERT_EQ(KRSelectApplet(s.h, 0x2203), 0);  // CryptoPro can only be selected
    DWORD size = 0;
    EXPECT_EQ(KRTokenLabelGet(s.h, nullptr, &size), kNotOffered);
    ASSERT_EQ(KRSelectApplet(s.h, kJava.applet), 0);
    treeFilesAndPin(s.h, kJava, log);
}

TEST(JavaStory, JokerTokenIsReachedBySelectingIt) {
    Pcscd pcscd;
    VToken card(pcscd, 0, javaToken(kJoker));
    ApduLog log;
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    EXPECT_EQ(count(log.take(), kJoker.aid), 0) << "binding passes Joker by";
    ASSERT_EQ(KRSelectApplet(s.h, 0x2204), 0);
    EXPECT_EQ(text(KRTokenModelGet, s.h), "Qntoken") << "no manager on this card";
    treeFilesAndPin(s.h, kJoker, log);
}

TEST(JavaStory, FipsChangeUnderSecureMessaging) {
    Pcscd pcscd;
    VToken card(pcscd, 0, javaToken(kJava, {"--fips"}));
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HToken* h = s.h;
    EXPECT_EQ(KRTokenLogin(h, "00000000"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    ASSERT_EQ(KRTokenPinChange(h, "87654321"), 0);  // the card takes it wrapped only
    ASSERT_EQ(KRTokenLogout(h), 0);
    EXPECT_EQ(KRTokenLogin(h, "12345678"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "87654321"), 0);
    ASSERT_EQ(KRTokenPinChange(h, "12345678"), 0) << "and back, from the new keys";
    ASSERT_EQ(KRTokenLogout(h), 0);
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
}

}  // namespace
