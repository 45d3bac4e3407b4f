// An R2 token through pcscd and the PC/SC shim, exported API only: the whole
// story of an application with a removal, and the krfs tool.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

VTokenOptions r2Token() { return madeToken("r2", "A1B2C3D4", "1234", "r2 token"); }

TEST(R2Story, BindTreeFilesPinDeletesAndRemoval) {
    Pcscd pcscd;
    VToken card(pcscd, 0, r2Token());
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HToken* h = s.h;

    EXPECT_EQ(text(KRTokenIDGet, h), "a1b2c3d4");
    EXPECT_EQ(text(KRTokenModelGet, h), "Qntoken");
    EXPECT_EQ(text(KRTokenLabelGet, h), "r2 token");
    EXPECT_EQ(number(KRTokenMaxPinGet, h), 16u);
    EXPECT_EQ(number(KRTokenMinPinGet, h), 4u);
    EXPECT_EQ(number(KRTokenPinAttemptsGet, h), 0xFFu);

    // The card refuses to build anything before a login.
    __tag_HDir *root = nullptr, *vendor = nullptr;
    ASSERT_EQ(KRRootDirOpen(&root, h, 0), 0);
    EXPECT_EQ(KRRootDirOpen(&vendor, h, 0xF001), kNoLogin);
    EXPECT_EQ(KRTokenLogin(h, "9999"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "1234"), 0);

    // The vendor directory is made on first use, only opened afterwards.
    ApduLog log;
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    EXPECT_EQ(count(log.take(), "C-APDU: 00 E0"), 1) << "E001 is made";
    ASSERT_EQ(KRDirClose(vendor), 0);
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    EXPECT_EQ(count(log.take(), "C-APDU: 00 E0"), 0);

    __tag_HDir* sub = nullptr;
    ASSERT_EQ(KRDirCreate(&sub, 0x2001, vendor), 0);
    // A public file of 1 KiB: six blocks each way, and reads across their edges.
    __tag_HFile *pub = nullptr, *priv = nullptr;
    ASSERT_EQ(KRFileCreate(&pub, sub, 0x0101, 1024, 0), 0);
    const std::string data = pattern(1024);
    ASSERT_EQ(writeText(pub, 0, data), 0);
    std::string part(300, '\0');
    ASSERT_EQ(KRFileRead(pub, 150, 300, reinterpret_cast<unsigned char*>(part.data()), 300), 0);
    EXPECT_EQ(part, data.substr(150, 300));
    ASSERT_EQ(KRFileCreate(&priv, sub, 0x0102, 16, 1), 0);
    ASSERT_EQ(writeText(priv, 0, data.substr(0, 16)), 0);
    EXPECT_EQ(KRFileCreate(&priv, sub, 0x0102, 16, 1), kExists);

    // Files: select, list, a select per file; directories: select, list; the
    // whole read: select and six blocks of at most 200 bytes.
    log.take();
    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0101, 1024, 0}, {0x0102, 16, 1}}));
    EXPECT_EQ(dirs(vendor), std::vector<WORD>{0x2001});
    EXPECT_EQ(readAll(pub, 1024), data);
    const std::string trace = log.take();
    EXPECT_EQ(count(trace, "C-APDU: 00 B0"), 6) << trace;
    EXPECT_EQ(count(trace, "C-APDU:"), 4 + 2 + 7) << trace;

    // Logged out: the public file reads, the private one and writes are refused.
    ASSERT_EQ(KRTokenLogout(h), 0);
    unsigned char sixteen[16];
    EXPECT_EQ(KRFileRead(priv, 0, 16, sixteen, 16), kNoLogin);
    EXPECT_EQ(KRFileWrite(pub, 0, sixteen, 16), kNoLogin);
    EXPECT_EQ(readAll(pub, 1024), data);

    // A changed PIN ends the login; the old one is refused afterwards.
    EXPECT_EQ(KRTokenPinChange(h, "5678"), 0x86E06982L) << "no login in this session";
    ASSERT_EQ(KRTokenLogin(h, "1234"), 0);
    ASSERT_EQ(KRTokenPinChange(h, "5678"), 0);
    EXPECT_EQ(KRFileWrite(pub, 0, sixteen, 16), kNoLogin);
    EXPECT_EQ(KRTokenLogin(h, "1234"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "5678"), 0);
    EXPECT_EQ(readAll(priv, 16), data.substr(0, 16));

    // Deletes: the card keeps a directory until it is empty.
    ASSERT_EQ(KRFileDelete(pub), 0);
    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0102, 16, 1}}));
    EXPECT_EQ(KRDirDelete(sub), kNoLogin) << "not empty";
    ASSERT_EQ(KRFileDelete(priv), 0);
    ASSERT_EQ(KRDirDelete(sub), 0);
    EXPECT_TRUE(dirs(vendor).empty());
    for (__tag_HFile* f : {pub, priv}) EXPECT_EQ(KRFileClose(f), 0);

    // Pulled out: PC/SC codes through the shim until a rebind finds the card.
    __tag_HDir* label = nullptr;
    card.vanish();
    const long rc = KRDirOpen(&label, 0x8000, root);
    EXPECT_EQ(rc & 0xFFFF0000L, 0x80100000L) << std::hex << rc;
    card.comeBack();
    EXPECT_EQ(KRTokenUnLock(h), 0);
    ASSERT_EQ(KRTokenRebind(h), 0);
    EXPECT_EQ(KRTokenLock(h), 0);
    ASSERT_EQ(KRDirOpen(&label, 0x8000, root), 0);
    EXPECT_EQ(entries(label), (std::vector<Entry>{{0xAAAA, 8, 0}}));
    for (__tag_HDir* d : {label, sub, vendor, root}) EXPECT_EQ(KRDirClose(d), 0);
}

// The krfs tool's tour of an R2 token; the shim comes to it through the
// environment, as it would from a developer's shell.
TEST(R2Story, TheKrfsToolWorksTheToken) {
    Pcscd pcscd;
    VToken card(pcscd, 0, r2Token());
    TempDir tmp("krfs-r2-cli");
    const std::string content = pattern(500);
    writeFile(tmp.file("notes"), content);
    const std::string login = "--login --pin-env KRFS_PIN --vendor F001 ", pin = "KRFS_PIN=1234";
    const Call calls[] = {
        {"info", 0, "Identifier: a1b2c3d4\nModel: Qntoken"},
        // Without the shim pcsc-lite refuses the card.
        {"info", 1, "0x8010000F: PC/SC failure", "", "env -u LD_PRELOAD"},
        {login + "put " + tmp.file("notes") + " 0001", 0, "", "", pin},
        {"--vendor F001 cat 0001", 0, content},
        {"--vendor F001 rm 0001", 1, "0x86E06900"},
        {login + "rm 0001", 0, "", "", pin},
        {"--vendor F001 cat 0001", 1, "0x86E06A82"},
    };
    for (std::size_t i = 0; i < 4; ++i) krfsTool(calls[i]);
    const std::string tree = krfsTool({"ls -l -R", 0, "500"});
    for (const char* name : {"8000", "AAAA", "E001", "0001"})
        EXPECT_NE(tree.find(name), std::string::npos) << name << " in\n" << tree;
    for (std::size_t i = 4; i < std::size(calls); ++i) krfsTool(calls[i]);
}

}  // namespace
