// The failure barrier of the exported calls, their handle checks, and the
// reader state mask.
#include "src/krfs/barrier.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "krfs.h"
#include "src/Object/Object.h"
#include "src/Readers/Readers.h"

namespace {

TEST(Barrier, TurnsEveryFailureIntoItsPositiveCode) {
    EXPECT_EQ(krfs::Guard([] {}), 0);
    EXPECT_EQ(krfs::Guard([] { KR_RAISE(0x8010000CL); }), 0x8010000CL);
    EXPECT_EQ(krfs::Guard([] { APDU_RAISE(0xFFFF); }), 0x86E0FFFFL);
    EXPECT_EQ(krfs::Guard([] { throw std::bad_alloc(); }), 0x80004005L);
    EXPECT_EQ(krfs::Guard([] { throw 0; }), 0x80004005L) << "a TLV failure is no CAException";
    EXPECT_EQ(krfs::Guard([] { throw std::runtime_error("x"); }), 0x80004005L);
}

struct FakeDir : CObject<__tag_HDir, FakeDir, eDir> {};
struct FakeFile : CObject<__tag_HFile, FakeFile, eFile> {};

TEST(Handles, EveryEntryRefusesNullAndOtherKindsAndLeavesThemAlone) {
    FakeDir dir;
    EXPECT_EQ(FakeDir::CheckObjectType(static_cast<__tag_HDir*>(&dir)), &dir);
    EXPECT_EQ(krfs::Guard([] { FakeDir::CheckObjectType(nullptr); }), 0x80000003L);

    // Same layout, other tag.
    auto* readers = reinterpret_cast<__tag_HReadersEnum*>(static_cast<__tag_HDir*>(&dir));
    __tag_ReaderInf info;
    for (__tag_HReadersEnum* h : {static_cast<__tag_HReadersEnum*>(nullptr), readers}) {
        EXPECT_EQ(KRReadersEnumNext(h, &info), 0x80000003L);
        EXPECT_EQ(KRReadersEnumClose(h), 0x80000003L);
        EXPECT_EQ(QNReadersEnumNext(h, &info), 0x80000003L);
        EXPECT_EQ(QNReadersEnumClose(h), 0x80000003L);
    }
    EXPECT_EQ(KRReadersEnumOpen(nullptr), 0x80000003L);
    EXPECT_EQ(QNReadersEnumOpen(nullptr), 0x80000003L);
    EXPECT_EQ(dir.kind, static_cast<unsigned int>(eDir));

    FakeFile file;
    auto* token = reinterpret_cast<__tag_HToken*>(static_cast<__tag_HFile*>(&file));
    DWORD n = 0;
    char buf[8];
    for (__tag_HToken* h : {static_cast<__tag_HToken*>(nullptr), token}) {
        EXPECT_EQ(KRTokenRebind(h), 0x80000003L);
        EXPECT_EQ(KRTokenUnbind(h), 0x80000003L);
        EXPECT_EQ(KRTokenLock(h), 0x80000003L);
        EXPECT_EQ(KRTokenUnLock(h), 0x80000003L);
        EXPECT_EQ(KRSelectApplet(h, 0x1002), 0x80000003L);
        EXPECT_EQ(KRTokenLogin(h, "x"), 0x80000003L);
        EXPECT_EQ(KRTokenLogout(h), 0x80000003L);
        EXPECT_EQ(KRTokenPinChange(h, "x"), 0x80000003L);
        EXPECT_EQ(KRTokenPinAttemptsGet(h, &n), 0x80000003L);
        EXPECT_EQ(KRTokenLabelGet(h, buf, &n), 0x80000003L);
        EXPECT_EQ(KRTokenIDGet(h, buf, &n), 0x80000003L);
        EXPECT_EQ(KRTokenModelGet(h, buf, &n), 0x80000003L);
        EXPECT_EQ(KRTokenMaxPinGet(h, &n), 0x80000003L);
        EXPECT_EQ(KRTokenMinPinGet(h, &n), 0x80000003L);
        EXPECT_EQ(QNTokenLogin(h, "x"), 0x80000003L);
        EXPECT_EQ(QNTokenIDGet(h, buf, &n), 0x80000003L);
    }
    EXPECT_EQ(KRTokenBind(nullptr, "reader"), 0x80000003L);
    EXPECT_EQ(QNTokenBind(nullptr, "reader"), 0x80000003L);
    EXPECT_EQ(file.kind, static_cast<unsigned int>(eFile));
}

TEST(Readers, UsableStateMaskAndNoSnapshot) {
    const struct {
        unsigned long state;
        bool usable;
    } cases[] = {
        {0x020, true},                    // present
        {0x120, true},                    // present and in use by someone else
        {0x10020, true},                  // pcsc-lite's event counter in the high word
        {0x060, true},                    // the ATR match bit does not matter
        {0x000, false},  {0x010, false},  // nothing, empty
        {0x220, false},  {0x0A0, false},  // mute, held exclusively
        {0x021, false},  {0x024, false},  // ignore, unknown
        {0x028, false},  {0x030, false},  // unavailable, present and empty at once
    };
    for (const auto& c : cases)
        EXPECT_EQ(CReaders::IsUsable(c.state), c.usable) << std::hex << c.state;
    CReaders r;
    __tag_ReaderInf info;
    EXPECT_EQ(krfs::Guard([&] { r.GetNext(&info); }), 0x00000103L);
}

}  // namespace
