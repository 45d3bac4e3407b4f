// Reader enumeration through the exported API and a real pcscd.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;

const char kPnP[] = "\\\\?PnP?\\Notification";

struct Entry {
    std::string name;
    WORD tokenPresent;
    bool operator==(const Entry& o) const {
        return name == o.name && tokenPresent == o.tokenPresent;
    }
};

std::ostream& operator<<(std::ostream& os, const Entry& e) {
    return os << "{" << e.name << ", " << e.tokenPresent << "}";
}

using OpenFn = long (*)(__tag_HReadersEnum**);
using NextFn = long (*)(__tag_HReadersEnum*, __tag_ReaderInf*);
using CloseFn = long (*)(__tag_HReadersEnum*);

struct Family {
    const char* name;
    OpenFn open;
    NextFn next;
    CloseFn close;
};

const Family kFamilies[] = {
    {"KR", KRReadersEnumOpen, KRReadersEnumNext, KRReadersEnumClose},
    {"QN", QNReadersEnumOpen, QNReadersEnumNext, QNReadersEnumClose},
};

std::vector<Entry> enumerate(const Family& f) {
    __tag_HReadersEnum* h = nullptr;
    EXPECT_EQ(f.open(&h), 0) << f.name;
    std::vector<Entry> out;
    if (h == nullptr) return out;
    __tag_ReaderInf info;
    long rc;
    while ((rc = f.next(h, &info)) == 0)
        out.push_back(
            {std::string(info.name, strnlen(info.name, sizeof(info.name))), info.tokenPresent});
    EXPECT_EQ(rc, 0x00000103L) << f.name << ": the end of the readers is positive";
    EXPECT_EQ(f.next(h, &info), 0x00000103L) << "and stays the end";
    EXPECT_EQ(f.close(h), 0);
    return out;
}

TEST(Readers, TwoReadersOneWithATokenThenThePseudoReader) {
    Pcscd pcscd(1);
    VToken card(pcscd, 0);
    for (const Family& f : kFamilies) {
        EXPECT_EQ(enumerate(f), (std::vector<Entry>{
                                    {"Virtual PCD 00 00", 1}, {"Virtual PCD 00 01", 0}, {kPnP, 0}}))
            << f.name;
    }
}

TEST(Readers, TokenInTheSecondReaderOnly) {
    Pcscd pcscd(1);
    VToken card(pcscd, 1);
    EXPECT_EQ(enumerate(kFamilies[0]),
              (std::vector<Entry>{{"Virtual PCD 00 00", 0}, {"Virtual PCD 00 01", 1}, {kPnP, 0}}));
}

TEST(Readers, MuteCardAndExclusivelyHeldReaderHaveNoUsableToken) {
    Pcscd pcscd(1);
    VTokenOptions mute;
    mute.mute = true;
    VToken muted(pcscd, 0, mute);
    VToken held(pcscd, 1);
    ExclusiveHold hold(held.reader());
    EXPECT_EQ(enumerate(kFamilies[0]),
              (std::vector<Entry>{{"Virtual PCD 00 00", 0}, {"Virtual PCD 00 01", 0}, {kPnP, 0}}));
}

TEST(Readers, NoReadersConfiguredFailsWithNoHandle) {
    Pcscd pcscd(0);
    for (const Family& f : kFamilies) {
        __tag_HReadersEnum* h = reinterpret_cast<__tag_HReadersEnum*>(0x1);
        EXPECT_EQ(f.open(&h), 0x86E0002EL) << f.name;
        EXPECT_EQ(h, reinterpret_cast<__tag_HReadersEnum*>(0x1)) << "no handle written";
    }
}

TEST(Readers, NoPcscdIsNoService) {
    for (const Family& f : kFamilies) {
        __tag_HReadersEnum* h = nullptr;
        EXPECT_EQ(f.open(&h), 0x86E0001DL) << f.name;
        EXPECT_EQ(h, nullptr);
    }
}

TEST(Readers, ASnapshotDoesNotFollowTheReader) {
    Pcscd pcscd(1);
    VToken card(pcscd, 0);
    __tag_HReadersEnum* h = nullptr;
    ASSERT_EQ(KRReadersEnumOpen(&h), 0);
    card.vanish();
    __tag_ReaderInf info;
    ASSERT_EQ(KRReadersEnumNext(h, &info), 0);
    EXPECT_EQ(info.tokenPresent, 1) << "taken before the card went";
    EXPECT_EQ(KRReadersEnumClose(h), 0);
    EXPECT_EQ(enumerate(kFamilies[0]).front(), (Entry{"Virtual PCD 00 00", 0}));
}

}  // namespace
