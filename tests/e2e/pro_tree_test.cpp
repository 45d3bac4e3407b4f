// A Pro token's tree worked through the exported API, pcscd and a virtual
// token: vendor directories, sub-directories, files, enumerations, errors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using krfs::e2e::count;
using krfs::e2e::Session;

// The user PIN counts as verified on these tokens, so the tree can be built
// without the PIN protocol; the refusals below use tokens without it.
VTokenOptions token(const std::string& model, bool pinVerified = true) {
    VTokenOptions o;
    TokenInit init;
    init.model = model;
    init.id = "CAFEF00D";
    o.init = init;
    if (pinVerified) o.serveArgs = {"--assume-verified", "01"};
    return o;
}

std::vector<WORD> listFiles(__tag_HDir* dir) {
    std::vector<WORD> ids;
    __tag_HFilesEnum* e = nullptr;
    EXPECT_EQ(KRFilesEnumOpen(&e, dir), 0);
    __tag_FileInfo info;
    long rc;
    while ((rc = KRFilesEnumNext(e, &info)) == 0) ids.push_back(info.id);
    EXPECT_EQ(rc, 0x80070103L);
    EXPECT_EQ(KRFilesEnumClose(e), 0);
    return ids;
}

std::vector<WORD> listDirs(__tag_HDir* dir) {
    std::vector<WORD> ids;
    __tag_HDirEnum* e = nullptr;
    EXPECT_EQ(KRDirEnumOpen(&e, dir), 0);
    __tag_DirInfo info;
    long rc;
    while ((rc = KRDirEnumNext(e, &info)) == 0) ids.push_back(info.id);
    EXPECT_EQ(rc, 0x80070103L);
    EXPECT_EQ(KRDirEnumClose(e), 0);
    return ids;
}

class ProTree : public ::testing::TestWithParam<const char*> {};

TEST_P(ProTree, BuildReadEnumerateAndDelete) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token(GetParam()));
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);

    // The vendor directory is made on first use and only opened afterwards.
    TempDir dir("krfs-e2e");
    const std::string log = dir.file("apdu.log");
    __tag_HDir* vendor = nullptr;
    KREnableLogging(log.c_str());
    ASSERT_EQ(KRRootDirOpen(&vendor, s.h, 0xF001), 0);
    const std::string first = readFile(log);
    ASSERT_EQ(KRDirClose(vendor), 0);
    std::remove(log.c_str());
    ASSERT_EQ(KRRootDirOpen(&vendor, s.h, 0xF001), 0);
    const std::string second = readFile(log);
    KRDisableLogging();
    EXPECT_EQ(count(first, "C-APDU: 00 E0"), 1) << "one create on first use:\n" << first;
    EXPECT_EQ(count(second, "C-APDU: 00 E0"), 0) << "opened the second time:\n" << second;
    EXPECT_EQ(count(second, "C-APDU:"), count(second, "R-APDU:"));

    // Sub-directories: the identifier's low 16 bits; creating one that
    // exists opens it.
    __tag_HDir* sub = nullptr;
    ASSERT_EQ(KRDirCreate(&sub, 0x12345, vendor), 0);
    __tag_DirInfo di{};
    EXPECT_EQ(KRDirGetInfo(sub, &di), 0);
    EXPECT_EQ(di.id, 0x2345);
    __tag_HDir* again = nullptr;
    EXPECT_EQ(KRDirCreate(&again, 0x2345, vendor), 0);
    EXPECT_EQ(KRDirClose(again), 0);
    __tag_HDir* other = nullptr;
    ASSERT_EQ(KRDirCreate(&other, 0x2346, vendor), 0);

    // A public file of 600 bytes: three blocks each way.
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRFileCreate(&f, sub, 0x0101, 600, 0), 0);
    std::vector<unsigned char> data(600);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7);
    ASSERT_EQ(KRFileWrite(f, 0, data.data(), 600), 0);
    std::vector<unsigned char> back(600, 0);
    ASSERT_EQ(KRFileRead(f, 0, 600, back.data(), 600), 0);
    EXPECT_EQ(back, data);
    std::vector<unsigned char> whole(700, 0xEE);
    ASSERT_EQ(KRFileRead(f, 0, 0xFFFF, whole.data(), 700), 0) << "0xFFFF asks for the whole file";
    EXPECT_TRUE(std::equal(data.begin(), data.end(), whole.begin()));
    EXPECT_EQ(whole[600], 0xEE) << "nothing past the file's size";
    unsigned char two[2];
    ASSERT_EQ(KRFileRead(f, 598, 2, two, 2), 0);
    EXPECT_EQ(two[0], data[598]);
    EXPECT_EQ(two[1], data[599]);
    __tag_FileInfo fi{};
    ASSERT_EQ(KRFileGetInfo(f, &fi), 0);
    EXPECT_EQ(fi.id, 0x0101);
    EXPECT_EQ(fi.size, 600);
    EXPECT_EQ(fi.isPrivate, 0);

    __tag_HFile* priv = nullptr;
    ASSERT_EQ(KRFileCreate(&priv, sub, 0x0102, 16, 1), 0);
    __tag_HFile* reopened = nullptr;
    ASSERT_EQ(KRFileOpen(&reopened, sub, 0x0102), 0);
    ASSERT_EQ(KRFileRead(reopened, 0, 0, nullptr, 0), 0) << "selects, reads nothing";
    ASSERT_EQ(KRFileGetInfo(reopened, &fi), 0);
    EXPECT_EQ(fi.isPrivate, 1);
    EXPECT_EQ(fi.size, 16);

    EXPECT_EQ(listFiles(sub), (std::vector<WORD>{0x0101, 0x0102}));
    EXPECT_EQ(listDirs(vendor), (std::vector<WORD>{0x2345, 0x2346}));
    EXPECT_TRUE(listDirs(sub).empty());

    // The wrong kind of node is as good as missing.
    __tag_HDir* notDir = nullptr;
    EXPECT_EQ(KRDirOpen(&notDir, 0x0101, sub), 0x86E06A82L);
    __tag_HFile* notFile = nullptr;
    EXPECT_EQ(KRFileOpen(&notFile, vendor, 0x2345), 0x86E06A82L);
    EXPECT_EQ(KRFileOpen(&notFile, sub, 0x0999), 0x86E06A82L);

    // Delete leaves the handle open; its later calls fail on the card.
    ASSERT_EQ(KRFileDelete(f), 0);
    EXPECT_EQ(KRFileRead(f, 0, 1, two, 2), 0x86E06A82L);
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(listFiles(sub), (std::vector<WORD>{0x0102}));
    ASSERT_EQ(KRFileDelete(priv), 0);
    EXPECT_EQ(KRFileClose(priv), 0);
    EXPECT_EQ(KRFileClose(reopened), 0);
    ASSERT_EQ(KRDirDelete(other), 0);
    EXPECT_EQ(KRDirClose(other), 0);
    EXPECT_EQ(listDirs(vendor), (std::vector<WORD>{0x2345}));
    EXPECT_EQ(KRDirClose(sub), 0);
    EXPECT_EQ(KRDirClose(vendor), 0);
}

TEST_P(ProTree, IdentifierFallsBackAndModelIsQntoken) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token(GetParam(), false));
    Session s(card.reader());
    ASSERT_NE(s.h, nullptr);
    DWORD size = 0;
    ASSERT_EQ(KRTokenIDGet(s.h, nullptr, &size), 0);
    std::vector<char> id(size + 1, 'x');
    DWORD bufSize = static_cast<DWORD>(id.size());
    ASSERT_EQ(KRTokenIDGet(s.h, id.data(), &bufSize), 0);
    EXPECT_EQ(std::string(id.data()).size() + 1, size);
    EXPECT_NE(std::string(id.data()).find("cafef00d"), std::string::npos)
        << "lower-case hex of the identifier, read without the reader's control channel: "
        << id.data();

    ASSERT_EQ(KRTokenModelGet(s.h, nullptr, &size), 0);
    EXPECT_EQ(size, 7u) << "no room counted for the terminator";
    char model[16];
    size = sizeof(model);
    ASSERT_EQ(KRTokenModelGet(s.h, model, &size), 0);
    EXPECT_STREQ(model, "Qntoken");
    // GetModel went back to the Pro applet: the tree still works.
    __tag_HDir* home = nullptr;
    ASSERT_EQ(KRRootDirOpen(&home, s.h, 0), 0);
    EXPECT_EQ(listFiles(home), (std::vector<WORD>{0x0001}));
    EXPECT_EQ(KRDirClose(home), 0);
}

INSTANTIATE_TEST_SUITE_P(Models, ProTree, ::testing::Values("pro42", "pro32"));

TEST(ProAccess, WritesAndPrivateReadsWithoutLoginAreRefused) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token("pro42", false));
    Session s(card.reader());
    __tag_HDir* home = nullptr;
    ASSERT_EQ(KRRootDirOpen(&home, s.h, 0), 0);
    __tag_HDir* sys = nullptr;
    ASSERT_EQ(KRDirOpen(&sys, 0x1000, home), 0);
    __tag_HFile* label = nullptr;
    ASSERT_EQ(KRFileOpen(&label, sys, 0x0005), 0);
    const unsigned char text[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(KRFileWrite(label, 0, text, 4), 0x86E06900L) << "the card's 6982, folded";
    __tag_HDir* made = nullptr;
    EXPECT_EQ(KRRootDirOpen(&made, s.h, 0xF002), 0x86E06900L)
        << "creating in the home directory needs the user PIN";
    const auto state = card.state();
    EXPECT_EQ(state.dump().find("E002"), std::string::npos) << "nothing made on the token";
    EXPECT_EQ(KRFileClose(label), 0);
    EXPECT_EQ(KRDirClose(sys), 0);
    EXPECT_EQ(KRDirClose(home), 0);
}

TEST(ProBadInput, RangesBuffersAndNullsChangeNothing) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token("pro42"));
    Session s(card.reader());
    __tag_HDir* dir = nullptr;
    ASSERT_EQ(KRRootDirOpen(&dir, s.h, 0xF003), 0);
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRFileCreate(&f, dir, 0x0001, 10, 0), 0);
    const unsigned char ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    ASSERT_EQ(KRFileWrite(f, 0, ten, 10), 0);
    unsigned char buf[16] = {0};

    struct Case {
        const char* what;
        long expected;
        std::function<long()> call;
    } cases[] = {
        {"offset past the end", 0x80000003L, [&] { return KRFileRead(f, 11, 1, buf, 16); }},
        {"buffer too small", 0x80000003L, [&] { return KRFileRead(f, 0, 10, buf, 9); }},
        {"whole file into a small buffer", 0x80000003L,
         [&] { return KRFileRead(f, 0, 0xFFFF, buf, 9); }},
        {"write past the end", 0x80000003L, [&] { return KRFileWrite(f, 5, ten, 6); }},
        {"write at 0xFFFF is not cut to 16 bits", 0x80000003L,
         [&] { return KRFileWrite(f, 0xFFFF, ten, 2); }},
        {"null data", 0x80000005L, [&] { return KRFileWrite(f, 0, nullptr, 1); }},
        {"null file info", 0x80000005L, [&] { return KRFileGetInfo(f, nullptr); }},
        {"null dir info", 0x80000005L, [&] { return KRDirGetInfo(dir, nullptr); }},
        {"null PIN length", 0x80000005L, [&] { return KRTokenMaxPinGet(s.h, nullptr); }},
        {"null id size", 0x80000005L, [&] { return KRTokenIDGet(s.h, nullptr, nullptr); }},
        {"file handle as a directory", 0x80000003L,
         [&] { return KRDirDelete(reinterpret_cast<__tag_HDir*>(f)); }},
        {"directory handle as a file", 0x80000003L,
         [&] { return KRFileDelete(reinterpret_cast<__tag_HFile*>(dir)); }},
        {"token handle as a directory", 0x80000003L,
         [&] { return KRDirClose(reinterpret_cast<__tag_HDir*>(s.h)); }},
        {"null parent", 0x80000003L,
         [&] {
             __tag_HDir* d = nullptr;
             return KRDirCreate(&d, 1, nullptr);
         }},
        {"null out after the work", 0x80000005L, [&] { return KRDirCreate(nullptr, 0x0777, dir); }},
        {"end offset read of nothing", 0L, [&] { return KRFileRead(f, 10, 0, buf, 0); }},
    };
    for (const Case& c : cases) EXPECT_EQ(c.call(), c.expected) << c.what;

    unsigned char back[10];
    ASSERT_EQ(KRFileRead(f, 0, 10, back, 10), 0);
    EXPECT_TRUE(std::equal(back, back + 10, ten)) << "the file is as written";
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRDirClose(dir), 0);
}

TEST(ProFaults, ResetBetweenCallsAndRemovalMidSession) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token("pro42"));
    Session s(card.reader());
    __tag_HDir* dir = nullptr;
    ASSERT_EQ(KRRootDirOpen(&dir, s.h, 0xF004), 0);
    __tag_HFile* f = nullptr;
    ASSERT_EQ(KRFileCreate(&f, dir, 0x0001, 4, 0), 0);
    const unsigned char four[4] = {9, 8, 7, 6};
    ASSERT_EQ(KRFileWrite(f, 0, four, 4), 0);

    // Another application resets the card, once our transaction is over
    // (while it lasts, pcscd makes the other client wait). The next call
    // reconnects and goes on, as every file call selects its path anew.
    ASSERT_EQ(KRTokenUnLock(s.h), 0);
    ASSERT_PCSC(SCARD_S_SUCCESS, resetCardFromAnotherClient(card.reader()));
    ASSERT_EQ(KRTokenLock(s.h), 0);
    unsigned char back[4] = {0};
    EXPECT_EQ(KRFileRead(f, 0, 4, back, 4), 0);
    EXPECT_EQ(back[3], 6);

    card.vanish();
    const long rc = KRFileRead(f, 0, 4, back, 4);
    EXPECT_EQ(static_cast<unsigned long>(rc) >> 16, 0x8010u) << std::hex << rc;
    card.comeBack();
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRDirClose(dir), 0);
    EXPECT_EQ(KRTokenUnLock(s.h), 0);
    EXPECT_EQ(KRTokenRebind(s.h), 0) << "a rebind reaches the card again";
    EXPECT_EQ(KRTokenLock(s.h), 0);
    ASSERT_EQ(KRRootDirOpen(&dir, s.h, 0xF004), 0);
    ASSERT_EQ(KRFileOpen(&f, dir, 0x0001), 0);
    EXPECT_EQ(KRFileRead(f, 0, 4, back, 4), 0);
    EXPECT_EQ(KRFileClose(f), 0);
    EXPECT_EQ(KRDirClose(dir), 0);
}

TEST(ProQN, OlderFamilyOnTheSameScenario) {
    Pcscd pcscd;
    VToken card(pcscd, 0, token("pro42"));
    __tag_HToken* h = nullptr;
    ASSERT_EQ(QNTokenBind(&h, card.reader().c_str()), 0);
    ASSERT_EQ(QNTokenLock(h), 0);
    __tag_HDir* vendor = nullptr;
    ASSERT_EQ(QNRootDirOpen(&vendor, h, 0xF005), 0);
    __tag_HDir* sub = nullptr;
    ASSERT_EQ(QNDirCreate(&sub, 0x10301, vendor, 0xBEEF), 0) << "the fourth word is discarded";
    QNDirInfo di{0xAAAA, 0xAAAA, 0xAAAA};
    ASSERT_EQ(QNDirGetInfo(sub, &di), 0);
    EXPECT_EQ(di.id, 0x0301);
    EXPECT_EQ(di.reserved, 0);
    __tag_HFile* f = nullptr;
    ASSERT_EQ(QNFileCreate(&f, sub, 0x0001, 3, 0), 0);
    const unsigned char abc[3] = {'a', 'b', 'c'};
    ASSERT_EQ(QNFileWrite(f, 0, abc, 3), 0);
    unsigned char back[3];
    ASSERT_EQ(QNFileRead(f, 0, 3, back, 3), 0);
    EXPECT_EQ(back[2], 'c');
    __tag_FileInfo fi{};
    ASSERT_EQ(QNFileGetInfo(f, &fi), 0);
    EXPECT_EQ(fi.size, 3);

    __tag_HDirEnum* e = nullptr;
    ASSERT_EQ(QNDirEnumOpen(&e, vendor), 0);
    ASSERT_EQ(QNDirEnumNext(e, &di), 0);
    EXPECT_EQ(di.id, 0x0301);
    di = {0xAAAA, 0xAAAA, 0xAAAA};
    EXPECT_EQ(QNDirEnumNext(e, &di), 0x80070103L);
    EXPECT_EQ(di.id, 0);
    EXPECT_EQ(di.reserved, 0);
    EXPECT_EQ(di.size, 0) << "the end zeroes the record";
    EXPECT_EQ(QNDirEnumClose(e), 0);
    __tag_HFilesEnum* fe = nullptr;
    ASSERT_EQ(QNFilesEnumOpen(&fe, sub), 0);
    ASSERT_EQ(QNFilesEnumNext(fe, &fi), 0);
    EXPECT_EQ(fi.id, 1);
    EXPECT_EQ(QNFilesEnumNext(fe, &fi), 0x80070103L);
    EXPECT_EQ(QNFilesEnumClose(fe), 0);
    __tag_HFile* opened = nullptr;
    ASSERT_EQ(QNFileOpen(&opened, sub, 0x0001), 0);
    ASSERT_EQ(QNFileDelete(opened), 0);
    EXPECT_EQ(QNFileClose(opened), 0);
    EXPECT_EQ(QNFileClose(f), 0);
    __tag_HDir* byOpen = nullptr;
    ASSERT_EQ(QNDirOpen(&byOpen, 0x0301, vendor), 0);
    ASSERT_EQ(QNDirDelete(byOpen), 0);
    EXPECT_EQ(QNDirClose(byOpen), 0);
    di = {0xAAAA, 0xAAAA, 0xAAAA};
    EXPECT_EQ(QNDirGetInfo(reinterpret_cast<__tag_HDir*>(h), &di), 0x80000003L);
    EXPECT_EQ(di.id, 0) << "a failure zeroes the record too";
    EXPECT_EQ(QNDirClose(sub), 0);
    EXPECT_EQ(QNDirClose(vendor), 0);
    char id[32];
    DWORD size = sizeof(id);
    EXPECT_EQ(QNTokenIDGet(h, id, &size), 0);
    EXPECT_EQ(QNTokenUnLock(h), 0);
    EXPECT_EQ(QNTokenUnbind(h), 0);
}

}  // namespace
