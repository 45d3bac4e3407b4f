// An R2 token through pcscd and the PC/SC shim, exported API only: the whole
// story of an application, then removal and the krfs tool.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

const long kNoLogin = 0x86E06900L;
const long kWrongPin = 0x86E06300L;
const long kInvalid = 0x80000003L;
const long kEnd = 0x80070103L;

VTokenOptions r2Token() {
    VTokenOptions o;
    TokenInit init;
    init.dialect = "r2";
    init.id = "A1B2C3D4";
    init.userPin = "1234";
    init.label = "r2 token";
    o.init = init;
    return o;
}

TEST(R2Story, BindTreeFilesPinAndDeletes) {
    Pcscd pcscd;
    VToken card(pcscd, 0, r2Token());
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HToken* h = s.h;

    EXPECT_EQ(text(KRTokenIDGet, h), "a1b2c3d4");
    EXPECT_EQ(text(KRTokenModelGet, h), "Qntoken");
    EXPECT_EQ(text(KRTokenLabelGet, h), "r2 token");
    DWORD n = 0;
    EXPECT_EQ(KRTokenMaxPinGet(h, &n), 0);
    EXPECT_EQ(n, 16u);
    EXPECT_EQ(KRTokenMinPinGet(h, &n), 0);
    EXPECT_EQ(n, 4u);
    EXPECT_EQ(KRTokenPinAttemptsGet(h, &n), 0);
    EXPECT_EQ(n, 0xFFu);

    // The card refuses to build anything before a login.
    __tag_HDir* vendor = nullptr;
    EXPECT_EQ(KRRootDirOpen(&vendor, h, 0xF001), kNoLogin);
    EXPECT_EQ(KRTokenLogin(h, "9999"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "1234"), 0);

    // The vendor directory is made on first use, only opened afterwards.
    TempDir tmp("krfs-r2");
    const std::string log = tmp.file("apdu.log");
    KREnableLogging(log.c_str());
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    EXPECT_EQ(count(readFile(log), "C-APDU: 00 E0"), 1) << "E001 is made";
    ASSERT_EQ(KRDirClose(vendor), 0);
    std::remove(log.c_str());
    ASSERT_EQ(KRRootDirOpen(&vendor, h, 0xF001), 0);
    EXPECT_EQ(count(readFile(log), "C-APDU: 00 E0"), 0);
    KRDisableLogging();

    __tag_HDir* sub = nullptr;
    ASSERT_EQ(KRDirCreate(&sub, 0x2001, vendor), 0);
    // A public file of 1 KiB: six blocks each way, and reads across their edges.
    __tag_HFile* pub = nullptr;
    ASSERT_EQ(KRFileCreate(&pub, sub, 0x0101, 1024, 0), 0);
    std::vector<unsigned char> data(1024);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + 3);
    ASSERT_EQ(KRFileWrite(pub, 0, data.data(), 1024), 0);
    std::vector<unsigned char> part(300);
    ASSERT_EQ(KRFileRead(pub, 150, 300, part.data(), 300), 0);
    EXPECT_TRUE(std::equal(part.begin(), part.end(), data.begin() + 150));
    __tag_HFile* priv = nullptr;
    ASSERT_EQ(KRFileCreate(&priv, sub, 0x0102, 16, 1), 0);
    ASSERT_EQ(KRFileWrite(priv, 0, data.data(), 16), 0);
    EXPECT_EQ(KRFileCreate(&priv, sub, 0x0102, 16, 1), 0x86E06A89L);

    // Listing and reading the 1 KiB file, counted in the APDU log.
    std::remove(log.c_str());
    KREnableLogging(log.c_str());
    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0101, 1024, 0}, {0x0102, 16, 1}}));
    EXPECT_EQ(dirs(vendor), std::vector<WORD>{0x2001});
    std::vector<unsigned char> back(1024);
    ASSERT_EQ(KRFileRead(pub, 0, 0xFFFF, back.data(), 1024), 0);
    KRDisableLogging();
    EXPECT_EQ(back, data);
    const std::string trace = readFile(log);
    // Files: select, list, a select per file; directories: select, list;
    // the read: select and six blocks of at most 200 bytes.
    EXPECT_EQ(count(trace, "C-APDU: 00 B0"), 6) << trace;
    EXPECT_EQ(count(trace, "C-APDU:"), 4 + 2 + 7) << trace;

    // Logged out: the public file reads, the private one and writes are refused,
    // and nothing changed.
    ASSERT_EQ(KRTokenLogout(h), 0);
    unsigned char sixteen[16];
    EXPECT_EQ(KRFileRead(priv, 0, 16, sixteen, 16), kNoLogin);
    EXPECT_EQ(KRFileWrite(pub, 0, sixteen, 16), kNoLogin);
    EXPECT_EQ(KRFileRead(pub, 1025, 1, back.data(), 1024), kInvalid);
    EXPECT_EQ(KRFileRead(pub, 1000, 25, back.data(), 1024), 0x86E06282L) << "the driver's check";
    EXPECT_EQ(KRFileWrite(pub, 1020, sixteen, 5), kInvalid);
    EXPECT_EQ(KRFileRead(pub, 0, 16, back.data(), 8), kInvalid);
    EXPECT_EQ(KRFileWrite(pub, 0, nullptr, 4), 0x80000005L);
    EXPECT_EQ(KRFileRead(reinterpret_cast<__tag_HFile*>(sub), 0, 1, back.data(), 1), kInvalid);
    ASSERT_EQ(KRFileRead(pub, 0, 0xFFFF, back.data(), 1024), 0);
    EXPECT_EQ(back, data);

    // A changed PIN ends the login; the old one is refused afterwards.
    EXPECT_EQ(KRTokenPinChange(h, "5678"), 0x86E06982L) << "no login in this session";
    ASSERT_EQ(KRTokenLogin(h, "1234"), 0);
    ASSERT_EQ(KRTokenPinChange(h, "5678"), 0);
    EXPECT_EQ(KRFileWrite(pub, 0, sixteen, 16), kNoLogin);
    EXPECT_EQ(KRTokenLogin(h, "1234"), kWrongPin);
    ASSERT_EQ(KRTokenLogin(h, "5678"), 0);
    ASSERT_EQ(KRFileRead(priv, 0, 16, sixteen, 16), 0);
    EXPECT_TRUE(std::equal(sixteen, sixteen + 16, data.begin()));

    // Deletes: the card keeps a directory until it is empty.
    ASSERT_EQ(KRFileDelete(pub), 0);
    EXPECT_EQ(entries(sub), (std::vector<Entry>{{0x0102, 16, 1}}));
    EXPECT_EQ(KRDirDelete(sub), kNoLogin + 0) << "not empty";
    ASSERT_EQ(KRFileDelete(priv), 0);
    ASSERT_EQ(KRDirDelete(sub), 0);
    EXPECT_TRUE(dirs(vendor).empty());
    for (__tag_HFile* f : {pub, priv}) EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRDirClose(sub), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

TEST(R2Story, RemovalMidSessionFailsCleanlyAndRebindRecovers) {
    Pcscd pcscd;
    VToken card(pcscd, 0, r2Token());
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    __tag_HDir* root = nullptr;
    ASSERT_EQ(KRRootDirOpen(&root, s.h, 0), 0);
    card.vanish();
    __tag_HDir* label = nullptr;
    const long rc = KRDirOpen(&label, 0x8000, root);
    EXPECT_EQ(rc & 0xFFFF0000L, 0x80100000L) << std::hex << rc;
    card.comeBack();
    EXPECT_EQ(KRTokenUnLock(s.h), 0);
    ASSERT_EQ(KRTokenRebind(s.h), 0);
    EXPECT_EQ(KRTokenLock(s.h), 0);
    ASSERT_EQ(KRDirOpen(&label, 0x8000, root), 0);
    EXPECT_EQ(entries(label), (std::vector<Entry>{{0xAAAA, 8, 0}}));
    EXPECT_EQ(KRDirClose(label), 0);
    EXPECT_EQ(KRDirClose(root), 0);
}

// The krfs tool's tour of an R2 token; the shim comes to it through the
// environment, as it would from a developer's shell.
TEST(R2Story, TheKrfsToolWorksTheToken) {
    Pcscd pcscd;
    VToken card(pcscd, 0, r2Token());
    TempDir tmp("krfs-r2-cli");
    std::string content(500, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>('a' + i % 26);
    writeFile(tmp.file("notes"), content);
    const std::string login = "--login --pin-env KRFS_PIN --vendor F001 ", pin = "KRFS_PIN=1234";
    const Call calls[] = {
        {"info", 0, "r2 token"},
        {"info", 0, "Identifier: a1b2c3d4\nModel: Qntoken"},
        // Without the shim pcsc-lite refuses the card.
        {"info", 1, "0x8010000F: PC/SC failure", "", "env -u LD_PRELOAD"},
        {login + "put " + tmp.file("notes") + " 0001", 0, "", "", pin},
        {"--vendor F001 cat 0001", 0, content},
        {"--vendor F001 rm 0001", 1, "0x86E06900"},
        {login + "rm 0001", 0, "", "", pin},
        {"--vendor F001 cat 0001", 1, "0x86E06A82"},
    };
    for (std::size_t i = 0; i < 5; ++i) krfsTool(calls[i]);
    const std::string tree = krfsTool({"ls -l -R", 0, "500"});
    for (const char* name : {"8000", "AAAA", "E001", "0001"})
        EXPECT_NE(tree.find(name), std::string::npos) << name << " in\n" << tree;
    for (std::size_t i = 5; i < std::size(calls); ++i) krfsTool(calls[i]);
}

}  // namespace
