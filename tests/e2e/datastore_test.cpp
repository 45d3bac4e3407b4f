// Gost and DataStore tokens through pcscd, exported API only: one story over
// both record-keeping applets, from binding to a rebind that finds the tree
// again. The exact record and attribute commands are pinned by the unit tests.
#include <gtest/gtest.h>

#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

// What differs between the two applets.
struct Applet {
    const char *name, *dialect, *aid;
    DWORD maxPin, attempts;
    WORD pub, priv, big, bigSize, tooBig;  // tooBig: refused once big is made
    int recreated;                         // records deleted to write the big file anew
    const char* init;                      // more init options
};

const Applet kApplets[] = {
    {"Gost", "gost", "A0 00 00 04 48 01 01 01 06 02", 32, 5, 0x0101, 0x0102, 0x0202, 0x1800, 0x1800,
     0, "--pin-tries 5 --memory 20000"},
    // Any identifier, 0x1000 too; no room for a second copy of the big file, so
    // the card refuses to begin its update and the library deletes and remakes it.
    {"DataStore", "datastore", "A0 00 00 04 48 00 03 01", 12, 4, 0x1000, 0x1001, 0x1002, 0x4000,
     0x3800, 1, "--pin-tries 4 --pin-min 6 --pin-max 12 --memory 32768"},
};

void PrintTo(const Applet& a, std::ostream* out) { *out << a.name; }

class RecordStory : public ::testing::TestWithParam<Applet> {};

TEST_P(RecordStory, TreeFilesPinLimitsAndRebind) {
    const Applet& a = GetParam();
    std::istringstream init(a.init);
    const std::vector<std::string> more{std::istream_iterator<std::string>(init), {}};
    Pcscd pcscd;
    VToken card(pcscd, 0,
                madeToken(a.dialect, "1122334455667788", "12345678", "record token", more));
    ApduLog log;
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HToken* h = s.h;

    // The search stops at the applet that answers.
    const std::string bind = log.take();
    ASSERT_NE(bind.find(a.aid), std::string::npos) << bind;
    EXPECT_EQ(bind.find("C-APDU: 00 A4 04 00", bind.find(a.aid)), std::string::npos) << bind;
    EXPECT_EQ(text(KRTokenIDGet, h), "1122334455667788");
    EXPECT_EQ(text(KRTokenModelGet, h), "Qntoken");
    EXPECT_EQ(text(KRTokenLabelGet, h), "record token");
    EXPECT_EQ(number(KRTokenMaxPinGet, h), a.maxPin);
    EXPECT_EQ(number(KRTokenMinPinGet, h), 6u);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), a.attempts);

    __tag_HDir *root = nullptr, *vendor = nullptr, *sub = nullptr;
    ASSERT_EQ(KRRootDirOpen(&root, h, 0), 0);
    EXPECT_EQ(KRTokenLogin(h, "00000000"), kWrongPin);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), a.attempts - 1);
    log.take();
    EXPECT_EQ(KRTokenLogin(h, std::string(a.maxPin + 1, '1').c_str()), kTooLong);
    EXPECT_EQ(count(log.take(), "C-APDU: 80 10"), 0) << "longer than the maximum: never sent";
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), a.attempts);

    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    __tag_HFile *pub = nullptr, *priv = nullptr, *big = nullptr, *refused = nullptr;
    ASSERT_EQ(KRFileCreate(&pub, vendor, a.pub, 1024, 0), 0);
    std::string data = pattern(1024);
    ASSERT_EQ(writeText(pub, 0, data), 0);
    ASSERT_EQ(writeText(pub, 500, "Z"), 0);
    data[500] = 'Z';
    EXPECT_EQ(readAll(pub, 1024), data);
    ASSERT_EQ(KRFileCreate(&priv, vendor, a.priv, 16, 1), 0);
    ASSERT_EQ(writeText(priv, 0, "sixteen bytes..."), 0);
    EXPECT_EQ(KRFileCreate(&priv, vendor, a.priv, 16, 1), kExists);
    EXPECT_EQ(KRFileCreate(&refused, vendor, 0x0201, 0x4001, 0), kNoRoom);
    ASSERT_EQ(KRFileCreate(&big, vendor, a.big, a.bigSize, 0), 0);
    EXPECT_EQ(KRFileCreate(&refused, vendor, 0x0203, a.tooBig, 0), kNoRoom) << "above free memory";
    const std::string bigData = pattern(a.bigSize);
    log.take();
    ASSERT_EQ(writeText(big, 0, bigData), 0);
    EXPECT_EQ(count(log.take(), "C-APDU: 80 20 20 00"), a.recreated);
    ASSERT_EQ(KRDirCreate(&sub, 0x2001, vendor), 0);
    __tag_HFile* inner = nullptr;
    ASSERT_EQ(KRFileCreate(&inner, sub, 0x0001, 8, 0), 0);
    EXPECT_EQ(KRDirDelete(sub), kNoLogin) << "not empty";

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

    ASSERT_EQ(KRFileDelete(pub), 0);
    EXPECT_EQ(entries(vendor), (std::vector<Entry>{{a.priv, 16, 1}, {a.big, a.bigSize, 0}}));
    EXPECT_EQ(KRDirDelete(root), kNoLogin) << "the root stays";
    for (__tag_HFile* f : {pub, priv, inner, big}) EXPECT_EQ(KRFileClose(f), 0);
    for (__tag_HDir* d : {sub, vendor, root}) EXPECT_EQ(KRDirClose(d), 0);

    // A new binding finds the tree again from the card alone.
    EXPECT_EQ(KRTokenUnLock(h), 0);
    ASSERT_EQ(KRTokenRebind(h), 0);
    EXPECT_EQ(KRTokenLock(h), 0);
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    EXPECT_EQ(entries(vendor), (std::vector<Entry>{{a.priv, 16, 1}, {a.big, a.bigSize, 0}}));
    EXPECT_EQ(dirs(vendor), std::vector<WORD>{0x2001});
    ASSERT_EQ(KRFileOpen(&big, vendor, a.big), 0);
    EXPECT_EQ(readAll(big, a.bigSize), bigData);
    EXPECT_EQ(KRFileClose(big), 0);
    ASSERT_EQ(KRDirOpen(&sub, 0x2001, vendor), 0);
    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0001, 8, 0}}));
    EXPECT_EQ(KRDirClose(sub), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

INSTANTIATE_TEST_SUITE_P(Applets, RecordStory, ::testing::ValuesIn(kApplets),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
