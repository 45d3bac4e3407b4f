// An IDProtect token through pcscd, exported API only: named directories for
// the logical tree, chained listings, the PIN dialogue and changes under
// Diffie-Hellman secure messaging.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

const char kIdprotectAid[] = "A0 00 00 01 64 4C 41 53 45 52 00 01";

TEST(IdprotectStory, NamedTreeChainingPinAndSecureMessaging) {
    Pcscd pcscd;
    VToken card(pcscd, 0,
                madeToken("idprotect", "0102030405060708", "12345678", "idprotect token"));
    ApduLog log;
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HToken* h = s.h;
    const std::string bind = log.take();
    EXPECT_EQ(count(bind, kIdprotectAid), 1) << bind;
    EXPECT_EQ(count(bind, "A0 00 00 04 48"), 0) << "DataStore and Gost are never asked\n" << bind;

    EXPECT_EQ(text(KRTokenIDGet, h), "0102030405060708");
    EXPECT_EQ(text(KRTokenLabelGet, h), "idprotect token");
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 10u);

    EXPECT_EQ(KRTokenLogin(h, "00000000"), kWrongPin);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 9u) << "the card's counter";
    ASSERT_EQ(KRTokenLogin(h, "12345678"), 0);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 10u);

    // Each logical directory is a named directory of the home; eight levels
    // fit in a name.
    __tag_HDir* vendor = nullptr;
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    std::vector<__tag_HDir*> chain{vendor};
    for (WORD level = 2; level <= 8; ++level) {
        __tag_HDir* d = nullptr;
        ASSERT_EQ(KRDirCreate(&d, static_cast<WORD>(0x1000 + level), chain.back()), 0) << level;
        chain.push_back(d);
    }

    // Files in a named directory, written and read; a listing long enough to
    // come back through GET RESPONSE.
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRFileCreate(&f, chain.back(), 0x0001, 600, 0), 0);
    const std::string data = pattern(600);
    ASSERT_EQ(writeText(f, 0, data), 0);
    EXPECT_EQ(readAll(f, 600), data);
    EXPECT_EQ(KRFileClose(f), 0);
    __tag_HDir* many = nullptr;
    ASSERT_EQ(KRDirCreate(&many, 0x2000, vendor), 0);
    std::vector<Entry> expected;
    for (WORD id = 1; id <= 140; ++id) {
        ASSERT_EQ(KRFileCreate(&f, many, id, 1, 0), 0) << id;
        EXPECT_EQ(KRFileClose(f), 0);
        expected.push_back({id, 1, 0});
    }
    log.take();
    EXPECT_EQ(entries(many), expected);
    EXPECT_GE(count(log.take(), "C-APDU: 00 C0"), 1) << "the listing came in parts";

    // A named directory goes with the named directories below it.
    EXPECT_EQ(KRDirDelete(chain[1]), 0);
    for (std::size_t i = chain.size(); i-- > 1;) EXPECT_EQ(KRDirClose(chain[i]), 0);
    EXPECT_EQ(dirs(vendor), std::vector<WORD>{0x2000});

    // Change under secure messaging: the new PIN works, the old does not.
    log.take();
    ASSERT_EQ(KRTokenPinChange(h, "87654321"), 0);
    EXPECT_EQ(count(log.take(), "C-APDU: 80 86 FF FF"), 1) << "the channel is closed";
    ASSERT_EQ(KRTokenLogout(h), 0);
    EXPECT_EQ(KRTokenLogin(h, "12345678"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "87654321"), 0);

    // Selecting the applet again logs out on the card: a model query does.
    EXPECT_EQ(text(KRTokenModelGet, h), "Qntoken");
    EXPECT_EQ(KRTokenPinChange(h, "11112222"), kNoLogin) << "the card forgot the login";
    EXPECT_EQ(KRDirClose(many), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

}  // namespace
