// A DataStore token through pcscd, exported API only: the tree kept in a
// table record, whole-content writes, the delete-and-recreate path, the PIN
// and the limits.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

// Record commands as the APDU log shows them.
const char kBegin[] = "C-APDU: 80 20 10 00";
const char kWrite[] = "C-APDU: 80 20 40 00";
const char kFinishNew[] = "C-APDU: 80 20 50 00 04";
const char kFinishOver[] = "C-APDU: 80 20 50 00 03";
const char kRead[] = "C-APDU: 80 20 30 00";
const char kDelete[] = "C-APDU: 80 20 20 00";

TEST(DataStoreStory, TreeFilesPinLimitsAndRebind) {
    Pcscd pcscd;
    VToken card(
        pcscd, 0,
        madeToken("datastore", "1122334455667788", "12345678", "datastore token",
                  {"--pin-tries", "4", "--pin-min", "6", "--pin-max", "12", "--memory", "32768"}));
    ApduLog log;
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HToken* h = s.h;

    // Bind settles on DataStore with the table layout; Gost is never asked.
    const std::string bind = log.take();
    EXPECT_EQ(count(bind, "A0 00 00 04 48 00 03 01"), 1) << bind;
    EXPECT_EQ(count(bind, "A0 00 00 04 48 01 01 01 06 02"), 0) << bind;
    EXPECT_EQ(text(KRTokenIDGet, h), "1122334455667788");
    EXPECT_EQ(text(KRTokenModelGet, h), "Qntoken");
    EXPECT_EQ(text(KRTokenLabelGet, h), "datastore token");
    EXPECT_EQ(number(KRTokenMaxPinGet, h), 12u);
    EXPECT_EQ(number(KRTokenMinPinGet, h), 6u);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 4u);

    // An empty token is a root alone, and nothing is written to show it.
    __tag_HDir* root = nullptr;
    ASSERT_EQ(KRRootDirOpen(&root, h, 0), 0);
    EXPECT_TRUE(dirs(root).empty());
    EXPECT_TRUE(entries(root).empty());
    EXPECT_EQ(count(log.take(), kBegin), 0);

    EXPECT_EQ(KRTokenLogin(h, "00000000"), kWrongPin);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 3u);
    log.take();
    EXPECT_EQ(KRTokenLogin(h, "1234567890123"), kTooLong);
    EXPECT_EQ(count(log.take(), "C-APDU: 80 10 10"), 0) << "longer than the maximum: never sent";
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 4u);

    // The first create at the root makes the root record, the table record,
    // the child, and writes the table a second time: 2,048 bytes in nine
    // blocks each time.
    __tag_HDir* vendor = nullptr;
    log.take();
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    std::string trace = log.take();
    EXPECT_EQ(count(trace, kFinishNew), 3) << trace;
    EXPECT_EQ(count(trace, kFinishOver), 1) << trace;
    EXPECT_EQ(count(trace, kBegin), 4) << trace;
    EXPECT_EQ(count(trace, kWrite), 18) << trace;
    EXPECT_EQ(count(trace, "C-APDU:"), 4 + 18 + 4) << "nothing else: " << trace;

    // Any identifier is allowed, 0x1000 too. A whole write sends no read; a
    // write of one byte reads the file and rewrites it whole.
    __tag_HFile *pub = nullptr, *priv = nullptr;
    ASSERT_EQ(KRFileCreate(&pub, vendor, 0x1000, 1024, 0), 0);
    std::string data = pattern(1024);
    log.take();
    ASSERT_EQ(writeText(pub, 0, data), 0);
    trace = log.take();
    EXPECT_EQ(count(trace, kRead), 0) << trace;
    EXPECT_EQ(count(trace, "C-APDU:"), 1 + 5 + 1) << trace;
    ASSERT_EQ(writeText(pub, 500, "Z"), 0);
    trace = log.take();
    EXPECT_EQ(count(trace, kRead), 5) << trace;
    EXPECT_EQ(count(trace, "C-APDU:"), 5 + 1 + 5 + 1) << trace;
    data[500] = 'Z';
    EXPECT_EQ(readAll(pub, 1024), data);

    ASSERT_EQ(KRFileCreate(&priv, vendor, 0x1001, 16, 1), 0);
    ASSERT_EQ(writeText(priv, 0, "sixteen bytes..."), 0);
    EXPECT_EQ(KRFileCreate(&priv, vendor, 0x1001, 16, 1), kExists);
    __tag_HFile *refused = nullptr, *big = nullptr;
    EXPECT_EQ(KRFileCreate(&refused, vendor, 0x1002, 0x4001, 0), kNoRoom);

    // No room left for a second copy of 16 KiB: the card answers the
    // begin-update with 6F00, and the library deletes the record and makes it
    // anew, under the number the card gives again.
    ASSERT_EQ(KRFileCreate(&big, vendor, 0x1002, 0x4000, 0), 0);
    EXPECT_EQ(KRFileCreate(&refused, vendor, 0x1003, 0x3800, 0), kNoRoom) << "above free memory";
    const std::string bigData = pattern(0x4000);
    log.take();
    ASSERT_EQ(writeText(big, 0, bigData), 0);
    trace = log.take();
    EXPECT_EQ(count(trace, kBegin), 2) << trace;
    EXPECT_EQ(count(trace, kDelete), 1) << trace;
    EXPECT_EQ(count(trace, kFinishNew), 1) << trace;

    ASSERT_EQ(KRTokenLogout(h), 0);
    unsigned char sixteen[16];
    EXPECT_EQ(KRFileRead(priv, 0, 16, sixteen, 16), kNoLogin);
    EXPECT_EQ(readAll(pub, 1024), data) << "public content reads without a login";
    EXPECT_EQ(writeText(pub, 0, "x"), kNoLogin);

    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    ASSERT_EQ(KRTokenPinChange(h, "abcdefgh"), 0);
    ASSERT_EQ(KRTokenLogout(h), 0);
    EXPECT_EQ(KRTokenLogin(h, "12345678"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "abcdefgh"), 0);
    EXPECT_EQ(readAll(priv, 16), "sixteen bytes...");

    // A delete frees the record and rewrites the table with its slot zeroed.
    __tag_HDir* sub = nullptr;
    ASSERT_EQ(KRDirCreate(&sub, 0x2001, vendor), 0);
    __tag_HFile* inner = nullptr;
    ASSERT_EQ(KRFileCreate(&inner, sub, 0x0001, 8, 0), 0);
    EXPECT_EQ(KRDirDelete(sub), kNoLogin) << "not empty";
    log.take();
    ASSERT_EQ(KRFileDelete(pub), 0);
    trace = log.take();
    EXPECT_EQ(count(trace, kDelete), 1) << trace;
    EXPECT_EQ(count(trace, kFinishOver), 1) << trace;
    EXPECT_EQ(count(trace, kWrite), 9) << trace;
    EXPECT_EQ(entries(vendor), (std::vector<Entry>{{0x1001, 16, 1}, {0x1002, 0x4000, 0}}));
    EXPECT_EQ(KRDirDelete(root), kNoLogin) << "the root stays";
    for (__tag_HFile* f : {pub, priv, inner, big}) EXPECT_EQ(KRFileClose(f), 0);
    for (__tag_HDir* d : {sub, vendor, root}) EXPECT_EQ(KRDirClose(d), 0);

    // A new binding finds the tree again from the card's records.
    EXPECT_EQ(KRTokenUnLock(h), 0);
    ASSERT_EQ(KRTokenRebind(h), 0);
    EXPECT_EQ(KRTokenLock(h), 0);
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    EXPECT_EQ(entries(vendor), (std::vector<Entry>{{0x1001, 16, 1}, {0x1002, 0x4000, 0}}));
    EXPECT_EQ(dirs(vendor), std::vector<WORD>{0x2001});
    ASSERT_EQ(KRFileOpen(&big, vendor, 0x1002), 0);
    EXPECT_EQ(readAll(big, 0x4000), bigData);
    EXPECT_EQ(KRFileClose(big), 0);
    ASSERT_EQ(KRDirOpen(&sub, 0x2001, vendor), 0);
    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0001, 8, 0}}));
    EXPECT_EQ(KRDirClose(sub), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

}  // namespace
