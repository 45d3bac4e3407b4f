// A Gost token through pcscd, exported API only: the tree the library builds
// from the card's objects, files public and private, the PIN and the limits.
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

// A token that already holds a public file deep in the tree and a private
// one in E00E, made as the library would have made them.
VTokenOptions gostToken() {
    return madeToken("gost", "0102030405060708", "12345678", "gost token",
                     {"--pin-tries", "5", "--memory", "20000", "--file",
                      "3F00/1000/2000/0001=48656C6C6F", "--private-file", "3F00/E00E/0005=AABBCC"});
}

TEST(GostStory, TreeFilesPinLimitsAndRebind) {
    Pcscd pcscd;
    VToken card(pcscd, 0, gostToken());
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

    EXPECT_EQ(text(KRTokenIDGet, h), "0102030405060708");
    EXPECT_EQ(text(KRTokenModelGet, h), "Qntoken");
    EXPECT_EQ(text(KRTokenLabelGet, h), "gost token");
    EXPECT_EQ(number(KRTokenMaxPinGet, h), 32u);
    EXPECT_EQ(number(KRTokenMinPinGet, h), 6u);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 5u);
    log.take();

    // The first tree operation reads the object list and each of the three
    // data objects' attributes; everything after works in memory.
    __tag_HDir* root = nullptr;
    ASSERT_EQ(KRRootDirOpen(&root, h, 0), 0);
    EXPECT_EQ(dirs(root), (std::vector<WORD>{0xE00E, 0x1000}));
    std::string trace = log.take();
    EXPECT_EQ(count(trace, "C-APDU:"), 1 + 3) << trace;
    EXPECT_EQ(count(trace, "C-APDU: 80 13 40 00"), 3) << trace;

    __tag_HDir *d1000 = nullptr, *d2000 = nullptr;
    ASSERT_EQ(KRDirOpen(&d1000, 0x1000, root), 0);
    EXPECT_EQ(dirs(d1000), std::vector<WORD>{0x2000});
    ASSERT_EQ(KRDirOpen(&d2000, 0x2000, d1000), 0);
    EXPECT_EQ(entries(d2000), (std::vector<Entry>{{0x0001, 5, 0}}));
    __tag_HFile* hello = nullptr;
    ASSERT_EQ(KRFileOpen(&hello, d2000, 0x0001), 0);
    EXPECT_EQ(readAll(hello, 5), "Hello") << "a public file reads without a login";

    // Vendor 1 is E00E, which every Gost tree has.
    __tag_HDir* e00e = nullptr;
    ASSERT_EQ(KRRootDirOpen(&e00e, h, 0x0001), 0);
    EXPECT_EQ(entries(e00e), (std::vector<Entry>{{0x0005, 3, 1}}));
    __tag_HFile* secret = nullptr;
    ASSERT_EQ(KRFileOpen(&secret, e00e, 0x0005), 0);
    unsigned char three[3];
    EXPECT_EQ(KRFileRead(secret, 0, 3, three, 3), kNoLogin);

    // PIN: a wrong one costs an attempt, as the card's status record says;
    // one past the maximum never reaches the card.
    EXPECT_EQ(KRTokenLogin(h, "00000000"), kWrongPin);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 4u);
    log.take();
    EXPECT_EQ(KRTokenLogin(h, std::string(33, '1').c_str()), kTooLong);
    EXPECT_EQ(count(log.take(), "C-APDU: 80 10"), 0);
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 5u);
    ASSERT_EQ(KRFileRead(secret, 0, 3, three, 3), 0);
    EXPECT_EQ(std::vector<unsigned char>(three, three + 3),
              (std::vector<unsigned char>{0xAA, 0xBB, 0xCC}));

    // A vendor directory lives in memory until a file is made in it.
    __tag_HDir* vendor = nullptr;
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    __tag_HFile *pub = nullptr, *priv = nullptr;
    ASSERT_EQ(KRFileCreate(&pub, vendor, 0x0101, 1024, 0), 0);
    std::string data = pattern(1024);
    ASSERT_EQ(writeText(pub, 0, data), 0);
    log.take();
    ASSERT_EQ(writeText(pub, 500, "Z"), 0);
    trace = log.take();
    EXPECT_EQ(count(trace, "C-APDU:"), 2) << "the whole value read and written back\n" << trace;
    data[500] = 'Z';
    EXPECT_EQ(readAll(pub, 1024), data);
    ASSERT_EQ(KRFileCreate(&priv, vendor, 0x0102, 16, 1), 0);
    ASSERT_EQ(writeText(priv, 0, "sixteen bytes..."), 0);
    EXPECT_EQ(KRFileCreate(&priv, vendor, 0x0102, 16, 1), kExists);

    // Limits: 0x4000 bytes at most, and free memory for the size and 8 KiB
    // more, which shrinks as files are made.
    __tag_HFile *big = nullptr, *refused = nullptr;
    EXPECT_EQ(KRFileCreate(&refused, vendor, 0x0201, 0x4001, 0), kNoRoom);
    ASSERT_EQ(KRFileCreate(&big, vendor, 0x0202, 0x1800, 0), 0);
    EXPECT_EQ(KRFileCreate(&refused, vendor, 0x0203, 0x1800, 0), kNoRoom);

    // A change quotes the PIN of the login, so a second one in the same
    // login quotes a stale PIN and the card refuses it.
    ASSERT_EQ(KRTokenPinChange(h, "87654321"), 0);
    EXPECT_EQ(KRTokenPinChange(h, "11111111"), kWrongPin);
    ASSERT_EQ(KRTokenLogout(h), 0);
    EXPECT_EQ(KRTokenLogout(h), 0) << "logged out already: the card's answer is tolerated";
    EXPECT_EQ(KRTokenLogin(h, "12345678"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "87654321"), 0);

    // Deletes: the root and a directory with files stay.
    EXPECT_EQ(KRDirDelete(d1000), kNoLogin) << "not empty";
    EXPECT_EQ(KRFileDelete(big), 0);
    EXPECT_EQ(KRFileDelete(hello), 0);
    EXPECT_EQ(KRDirDelete(d2000), 0);
    EXPECT_EQ(KRDirDelete(d1000), 0);
    EXPECT_EQ(dirs(root), (std::vector<WORD>{0xE00E, 0xE001}));
    for (__tag_HFile* f : {hello, secret, pub, priv, big}) EXPECT_EQ(KRFileClose(f), 0);
    for (__tag_HDir* d : {d2000, d1000, e00e, vendor}) EXPECT_EQ(KRDirClose(d), 0);
    EXPECT_EQ(KRDirDelete(root), kNoLogin) << "the root stays";
    EXPECT_EQ(KRDirClose(root), 0);

    // A new binding finds the tree again from the card's objects alone.
    EXPECT_EQ(KRTokenUnLock(h), 0);
    ASSERT_EQ(KRTokenRebind(h), 0);
    EXPECT_EQ(KRTokenLock(h), 0);
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    EXPECT_EQ(entries(vendor), (std::vector<Entry>{{0x0101, 1024, 0}, {0x0102, 16, 1}}));
    ASSERT_EQ(KRFileOpen(&pub, vendor, 0x0101), 0);
    EXPECT_EQ(readAll(pub, 1024), data);
    EXPECT_EQ(KRFileClose(pub), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

}  // namespace
