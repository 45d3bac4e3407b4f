// What only a Gost token shows through pcscd: its place in the applet search,
// a tree made by personalisation, and the PIN its change quotes. The story it
// shares with DataStore is in datastore_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

const char kGostAid[] = "A0 00 00 04 48 01 01 01 06 02";

TEST(GostStory, SearchOrderPersonalisedTreeAndTheQuotedPin) {
    Pcscd pcscd;
    VToken card(pcscd, 0,
                madeToken("gost", "0102030405060708", "12345678", "gost token",
                          {"--file", "3F00/1000/2000/0001=48656C6C6F", "--private-file",
                           "3F00/E00E/0005=AABBCC"}));
    ApduLog log;
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HToken* h = s.h;

    // Bind asks the applets before Gost in its order (those the library
    // has), each refused; then Gost answers.
    const std::string bind = log.take();
    std::size_t last = 0;
    for (const char* aid : {"A0 00 00 03 12 02 02", "A0 00 00 01 64 4C 41 53 45 52 00 01",
                            "A0 00 00 04 48 00 03 01", kGostAid}) {
        const std::size_t at = bind.find(aid);
        if (at == std::string::npos && aid != kGostAid) continue;
        ASSERT_NE(at, std::string::npos) << bind;
        EXPECT_GE(at, last) << aid << " out of order:\n" << bind;
        last = at;
    }
    EXPECT_EQ(count(bind, "R-APDU: 6A 82"), count(bind, "C-APDU: 00 A4 04 00") - 1) << bind;

    __tag_HDir *root = nullptr, *d1000 = nullptr, *d2000 = nullptr, *e00e = nullptr;
    ASSERT_EQ(KRRootDirOpen(&root, h, 0), 0);
    EXPECT_EQ(dirs(root), (std::vector<WORD>{0xE00E, 0x1000}));
    ASSERT_EQ(KRDirOpen(&d1000, 0x1000, root), 0);
    EXPECT_EQ(dirs(d1000), std::vector<WORD>{0x2000});
    ASSERT_EQ(KRDirOpen(&d2000, 0x2000, d1000), 0);
    EXPECT_EQ(entries(d2000), (std::vector<Entry>{{0x0001, 5, 0}}));
    __tag_HFile *hello = nullptr, *secret = nullptr;
    ASSERT_EQ(KRFileOpen(&hello, d2000, 0x0001), 0);
    EXPECT_EQ(readAll(hello, 5), "Hello") << "a public file reads without a login";

    // Vendor 1 is E00E, which every Gost tree has.
    ASSERT_EQ(KRRootDirOpen(&e00e, h, 0x0001), 0);
    EXPECT_EQ(entries(e00e), (std::vector<Entry>{{0x0005, 3, 1}}));
    ASSERT_EQ(KRFileOpen(&secret, e00e, 0x0005), 0);
    EXPECT_EQ(readAll(secret, 3), "error " + std::to_string(kNoLogin));
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    EXPECT_EQ(readAll(secret, 3), "\xAA\xBB\xCC");

    // A change quotes the PIN of the login, so a second one in the same login
    // quotes a stale PIN and the card refuses it.
    ASSERT_EQ(KRTokenPinChange(h, "87654321"), 0);
    EXPECT_EQ(KRTokenPinChange(h, "11111111"), kWrongPin);
    ASSERT_EQ(KRTokenLogout(h), 0);
    ASSERT_EQ(KRTokenLogin(h, "87654321"), 0);

    // Directories go without a command, and only once empty.
    EXPECT_EQ(KRDirDelete(d1000), kNoLogin) << "not empty";
    EXPECT_EQ(KRFileDelete(hello), 0);
    EXPECT_EQ(KRDirDelete(d2000), 0);
    EXPECT_EQ(KRDirDelete(d1000), 0);
    EXPECT_EQ(dirs(root), (std::vector<WORD>{0xE00E}));
    for (__tag_HFile* f : {hello, secret}) EXPECT_EQ(KRFileClose(f), 0);
    for (__tag_HDir* d : {d2000, d1000, e00e, root}) EXPECT_EQ(KRDirClose(d), 0);
}

}  // namespace
