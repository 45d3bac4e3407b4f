// Binding to tokens through the exported API and a real pcscd.
#include <gtest/gtest.h>

#include <string>

#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;

struct BindFamily {
    const char* name;
    long (*bind)(__tag_HToken**, const char*);
    long (*unbind)(__tag_HToken*);
};

const BindFamily kFamilies[] = {{"KR", KRTokenBind, KRTokenUnbind},
                                {"QN", QNTokenBind, QNTokenUnbind}};

TEST(Bind, ReaderMustExistByItsExactName) {
    Pcscd pcscd;
    VToken card(pcscd, 0);
    for (const BindFamily& f : kFamilies) {
        __tag_HToken* h = nullptr;
        EXPECT_EQ(f.bind(&h, "No Such Reader"), 0x80100017L) << f.name;
        EXPECT_EQ(f.bind(&h, "virtual pcd 00 00"), 0x80100017L) << f.name << ": case counts";
        EXPECT_EQ(f.bind(&h, "Virtual PCD 00 0"), 0x80100017L) << f.name << ": no prefixes";
        EXPECT_EQ(h, nullptr) << "no handle from a failed bind";
    }
}

TEST(Bind, EmptyOrMuteReaderHasNoSmartCard) {
    Pcscd pcscd;
    VTokenOptions mute;
    mute.mute = true;
    VToken muted(pcscd, 1, mute);
    __tag_HToken* h = nullptr;
    EXPECT_EQ(KRTokenBind(&h, "Virtual PCD 00 00"), 0x8010000CL);
    EXPECT_EQ(KRTokenBind(&h, muted.reader().c_str()), 0x8010000CL);
    EXPECT_EQ(h, nullptr);
}

TEST(Bind, ExclusivelyHeldReaderHasNoSmartCard) {
    Pcscd pcscd;
    VToken card(pcscd, 0);
    ExclusiveHold hold(card.reader());
    __tag_HToken* h = nullptr;
    EXPECT_EQ(KRTokenBind(&h, card.reader().c_str()), 0x8010000CL);
}

TEST(Bind, NoPcscdReportsTheEnumerationFailure) {
    __tag_HToken* h = nullptr;
    EXPECT_EQ(KRTokenBind(&h, "Virtual PCD 00 00"), 0x86E0001DL);
    EXPECT_EQ(KRTokenBind(nullptr, "Virtual PCD 00 00"), 0x80000003L)
        << "a null out is refused before any PC/SC call";
}

TEST(Bind, UnknownTokenBindsAndTalksTheR2Dialect) {
    Pcscd pcscd;
    VToken card(pcscd, 0);  // an ATR of no known token; every command gets 6D 00
    TempDir dir("krfs-log");
    const std::string log = dir.path() + "/apdu.log";
    for (const BindFamily& f : kFamilies) {
        __tag_HToken* h = nullptr;
        ASSERT_EQ(f.bind(&h, card.reader().c_str()), 0) << f.name;
        ASSERT_NE(h, nullptr);
        ASSERT_EQ(KRTokenLock(h), 0);
        KREnableLogging(log.c_str());
        char id[64];
        DWORD size = sizeof(id);
        // The R2 applet stays current: its identifier comes from the card,
        // whose refusal, read low byte first, is the unknown word 0x006D.
        EXPECT_EQ(KRTokenIDGet(h, id, &size), 0x86E0FFFFL) << f.name;
        KRDisableLogging();
        EXPECT_EQ(KRTokenUnLock(h), 0);
        EXPECT_EQ(f.unbind(h), 0);
    }
}

TEST(Bind, R2AtrCannotCrossPcscLite) {
    Pcscd pcscd;
    VTokenOptions o;
    o.atr = "3B 81 1F 00 CC 52";  // announces T=15 only
    VToken card(pcscd, 0, o);
    __tag_HToken* h = nullptr;
    EXPECT_EQ(KRTokenBind(&h, card.reader().c_str()), 0x8010000FL)
        << "pcsc-lite refuses T=0|T=1 for this ATR: the connect failure as PC/SC gave it";
    EXPECT_EQ(h, nullptr);
}

TEST(Bind, RemovedCardFailsCallsAndRebindUntilItIsBack) {
    Pcscd pcscd;
    VToken card(pcscd, 0);
    __tag_HToken* h = nullptr;
    ASSERT_EQ(KRTokenBind(&h, card.reader().c_str()), 0);
    card.vanish();
    ASSERT_EQ(KRTokenLock(h), 0) << "a transaction that can't begin goes unnoticed";
    char id[64];
    DWORD size = sizeof(id);
    const long rc = KRTokenIDGet(h, id, &size);
    EXPECT_EQ(static_cast<unsigned long>(rc) >> 16, 0x8010u)
        << std::hex << rc << ": the PC/SC code of the retry";
    ASSERT_EQ(KRTokenUnLock(h), 0);
    EXPECT_EQ(KRTokenRebind(h), 0x8010000CL);
    card.comeBack();
    EXPECT_EQ(KRTokenRebind(h), 0);
    ASSERT_EQ(KRTokenLock(h), 0);
    EXPECT_EQ(KRTokenIDGet(h, id, &size), 0x86E0FFFFL) << "talking to the card again";
    ASSERT_EQ(KRTokenUnLock(h), 0);
    EXPECT_EQ(KRTokenUnbind(h), 0);
}

}  // namespace
