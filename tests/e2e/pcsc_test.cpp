// Readers and binding through a real pcscd: what the library makes of each
// state a reader and its card can be in.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"

namespace {

using namespace krfs::harness;
using krfs::e2e::ApduLog;

const std::string kReader0 = "Virtual PCD 00 00", kReader1 = "Virtual PCD 00 01";
const char kPnP[] = "\\\\?PnP?\\Notification";

using Entries = std::vector<std::pair<std::string, int>>;  // name, token present

const struct Family {
    const char* name;
    long (*open)(__tag_HReadersEnum**);
    long (*next)(__tag_HReadersEnum*, __tag_ReaderInf*);
    long (*close)(__tag_HReadersEnum*);
    long (*bind)(__tag_HToken**, const char*);
    long (*unbind)(__tag_HToken*);
} kFamilies[] = {
    {"KR", KRReadersEnumOpen, KRReadersEnumNext, KRReadersEnumClose, KRTokenBind, KRTokenUnbind},
    {"QN", QNReadersEnumOpen, QNReadersEnumNext, QNReadersEnumClose, QNTokenBind, QNTokenUnbind},
};

Entries entries(const Family& f, __tag_HReadersEnum* h) {
    Entries out;
    __tag_ReaderInf info;
    long rc;
    while ((rc = f.next(h, &info)) == 0)
        out.push_back(
            {std::string(info.name, strnlen(info.name, sizeof info.name)), info.tokenPresent});
    EXPECT_EQ(rc, 0x00000103L) << f.name << ": the end of the readers is positive";
    EXPECT_EQ(f.next(h, &info), 0x00000103L) << "and stays the end";
    EXPECT_EQ(f.close(h), 0);
    return out;
}

Entries enumerate(const Family& f = kFamilies[0]) {
    __tag_HReadersEnum* h = nullptr;
    EXPECT_EQ(f.open(&h), 0) << f.name;
    return h ? entries(f, h) : Entries{};
}

long bind(const std::string& reader) {
    __tag_HToken* h = nullptr;
    const long rc = KRTokenBind(&h, reader.c_str());
    if (h) KRTokenUnbind(h);
    return rc;
}

TEST(Readers, OnlyAPresentFreeAnsweringCardIsAUsableToken) {
    Pcscd pcscd;
    VTokenOptions mute;
    mute.mute = true;
    VToken muted(pcscd, 0, mute);
    VToken card(pcscd, 1);
    for (const Family& f : kFamilies)
        EXPECT_EQ(enumerate(f), (Entries{{kReader0, 0}, {kReader1, 1}, {kPnP, 0}})) << f.name;
    EXPECT_EQ(bind(kReader0), 0x8010000CL) << "mute";

    __tag_HReadersEnum* snapshot = nullptr;
    ASSERT_EQ(KRReadersEnumOpen(&snapshot), 0);
    {
        Connection hold(card.reader(), SCARD_SHARE_EXCLUSIVE);
        ASSERT_TRUE(hold.connected()) << pcscText(hold.status());
        EXPECT_EQ(enumerate().at(1), std::make_pair(kReader1, 0)) << "held by another client";
        EXPECT_EQ(bind(kReader1), 0x8010000CL);
    }
    card.vanish();
    EXPECT_EQ(enumerate().at(1), std::make_pair(kReader1, 0));
    EXPECT_EQ(bind(kReader1), 0x8010000CL) << "empty";
    EXPECT_EQ(entries(kFamilies[0], snapshot).at(1), std::make_pair(kReader1, 1))
        << "a snapshot taken before the card went";
}

TEST(Readers, NoPcscdThenNoReaders) {
    for (const Family& f : kFamilies) {
        __tag_HReadersEnum* h = nullptr;
        EXPECT_EQ(f.open(&h), 0x86E0001DL) << f.name;
        EXPECT_EQ(h, nullptr);
    }
    EXPECT_EQ(bind(kReader0), 0x86E0001DL) << "the enumeration's failure";
    Pcscd pcscd(0);
    for (const Family& f : kFamilies) {
        auto* h = reinterpret_cast<__tag_HReadersEnum*>(0x1);
        EXPECT_EQ(f.open(&h), 0x86E0002EL) << f.name;
        EXPECT_EQ(h, reinterpret_cast<__tag_HReadersEnum*>(0x1)) << "no handle written";
    }
}

TEST(Bind, ByExactNameToAnyTokenPcscLiteConnectsAndAgainAfterRemoval) {
    Pcscd pcscd;
    VToken card(pcscd, 0);  // an ATR of no known token; every command gets 6D 00
    VTokenOptions r2;
    r2.atr = "3B 81 1F 00 CC 52";  // announces T=15 only
    VToken r2Card(pcscd, 1, r2);
    char id[64];
    DWORD size = sizeof id;
    for (const Family& f : kFamilies) {
        __tag_HToken* h = nullptr;
        for (const char* name : {"No Such Reader", "virtual pcd 00 00", "Virtual PCD 00 0"})
            EXPECT_EQ(f.bind(&h, name), 0x80100017L) << f.name << ": " << name;
        EXPECT_EQ(h, nullptr) << "no handle from a failed bind";
        ASSERT_EQ(f.bind(&h, card.reader().c_str()), 0) << f.name;
        ASSERT_EQ(KRTokenLock(h), 0);
        // The R2 applet stays current: its identifier comes from the card,
        // whose refusal, read low byte first, is the unknown word 0x006D.
        EXPECT_EQ(KRTokenIDGet(h, id, &size), 0x86E0FFFFL) << f.name;
        EXPECT_EQ(KRTokenUnLock(h), 0);
        EXPECT_EQ(f.unbind(h), 0);
    }
    EXPECT_EQ(bind(r2Card.reader()), 0x8010000FL)
        << "pcsc-lite refuses T=0|T=1 for this ATR: the connect failure as PC/SC gave it";

    // Reset by another client, then pulled out: the library reconnects and
    // sends once more, logging each of the identifier's two forms once; then
    // the PC/SC code of its retry and no answer lines.
    __tag_HToken* h = nullptr;
    ASSERT_EQ(KRTokenBind(&h, card.reader().c_str()), 0);
    ApduLog log;
    const std::string command = "C-APDU: 00 DA 00 00 01 00 00 \n", answer = "R-APDU: 6D 00 \n";
    ASSERT_EQ(resetCardFromAnotherClient(card.reader()), SCARD_S_SUCCESS);
    ASSERT_EQ(KRTokenLock(h), 0);
    EXPECT_EQ(KRTokenIDGet(h, id, &size), 0x86E0FFFFL);
    EXPECT_EQ(log.take(), command + answer + command + answer);
    ASSERT_EQ(KRTokenUnLock(h), 0);
    card.vanish();
    ASSERT_EQ(KRTokenLock(h), 0) << "a transaction that can't begin goes unnoticed";
    const long rc = KRTokenIDGet(h, id, &size);
    EXPECT_EQ(static_cast<unsigned long>(rc) >> 16, 0x8010u) << std::hex << rc;
    EXPECT_EQ(log.take(), command + command);
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
