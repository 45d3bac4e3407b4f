#include "src/krfs/barrier.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "krfs.h"
#include "src/Object/Object.h"
#include "src/Readers/Readers.h"

namespace {

TEST(Barrier, TurnsEveryFailureIntoItsCode) {
    EXPECT_EQ(krfs::Guard([] {}), 0);
    EXPECT_EQ(krfs::Guard([] { KR_RAISE(0x8010000CL); }), 0x8010000CL);
    EXPECT_EQ(krfs::Guard([] { APDU_RAISE(0x6A82); }), 0x86E06A82L);
    EXPECT_EQ(krfs::Guard([] { throw std::bad_alloc(); }), 0x80004005L);
    EXPECT_EQ(krfs::Guard([] { throw 0; }), 0x80004005L) << "a TLV failure is no CAException";
    EXPECT_EQ(krfs::Guard([] { throw std::runtime_error("x"); }), 0x80004005L);
}

TEST(Barrier, LibraryCodesArePositive) {
    const long code = krfs::Guard([] { APDU_RAISE(0xFFFF); });
    EXPECT_GT(code, 0);
    EXPECT_EQ(static_cast<unsigned long>(code), 0x86E0FFFFul);
}

TEST(Barrier, ApduExceptionIsCaughtAsBothKinds) {
    try {
        APDU_RAISE(0x6300);
    } catch (const libapdu::IException& e) {
        EXPECT_EQ(e.code(), 0x86E06300L);
    }
    try {
        APDU_RAISE(0x6300);
    } catch (const CAException& e) {
        EXPECT_EQ(e.Code(), 0x86E06300L);
    }
}

struct Fake : CObject<__tag_HDir, Fake, eDir> {};

TEST(Handles, CheckObjectTypeRefusesNullAndOtherKinds) {
    Fake dir;
    __tag_HDir* h = &dir;
    EXPECT_EQ(h->kind, static_cast<unsigned int>(eDir));
    EXPECT_EQ(Fake::CheckObjectType(h), &dir);
    EXPECT_EQ(Fake::GetType(h), static_cast<unsigned int>(eDir));
    EXPECT_EQ(krfs::Guard([] { Fake::CheckObjectType(nullptr); }), 0x80000003L);
    // A directory handle where a readers handle is expected: same layout, other tag.
    auto* forged = reinterpret_cast<__tag_HReadersEnum*>(h);
    EXPECT_EQ(krfs::Guard([&] { CReaders::CheckObjectType(forged); }), 0x80000003L);
}

TEST(Handles, ReaderEntriesCheckTheirHandle) {
    Fake dir;
    auto* wrongKind = reinterpret_cast<__tag_HReadersEnum*>(static_cast<__tag_HDir*>(&dir));
    __tag_ReaderInf info;
    EXPECT_EQ(KRReadersEnumOpen(nullptr), 0x80000003L);
    EXPECT_EQ(KRReadersEnumNext(nullptr, &info), 0x80000003L);
    EXPECT_EQ(KRReadersEnumNext(wrongKind, &info), 0x80000003L);
    EXPECT_EQ(KRReadersEnumClose(nullptr), 0x80000003L);
    EXPECT_EQ(KRReadersEnumClose(wrongKind), 0x80000003L);
    EXPECT_EQ(QNReadersEnumOpen(nullptr), 0x80000003L);
    EXPECT_EQ(QNReadersEnumNext(wrongKind, &info), 0x80000003L);
    EXPECT_EQ(QNReadersEnumClose(nullptr), 0x80000003L);
    EXPECT_EQ(dir.kind, static_cast<unsigned int>(eDir)) << "a refused handle is left alone";
}

TEST(Readers, UsableStateMask) {
    struct Case {
        unsigned long state;
        bool usable;
    } cases[] = {
        {0x020, true},          // present
        {0x120, true},          // present and in use by someone else
        {0x10020, true},        // pcsc-lite's event counter in the high word
        {0x000, false},         // nothing
        {0x010, false},         // empty
        {0x220, false},         // present but mute
        {0x0A0, false},         // present, held exclusively
        {0x021, false},         // ignore
        {0x024, false},         // unknown
        {0x028, false},         // unavailable
        {0x030, false},         // present and empty at once
        {0x040 | 0x020, true},  // atr match bit does not matter
    };
    for (const Case& c : cases)
        EXPECT_EQ(CReaders::IsUsable(c.state), c.usable) << std::hex << c.state;
}

TEST(Readers, GetNextBeforeASnapshotIsTheEnd) {
    CReaders r;
    __tag_ReaderInf info;
    EXPECT_EQ(krfs::Guard([&] { r.GetNext(&info); }), 0x00000103L);
}

}  // namespace
