// Readers, binding and the PC/SC sender through a real pcscd: what the
// library makes of each state a reader and its card can be in.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "e2e/api_session.h"
#include "harness/harness.h"
#include "krfs.h"
#include "libapdu/exception.h"
#include "src/SCardSender.h"

namespace {

using namespace krfs::harness;
using krfs::e2e::ApduLog;

const std::string kReader0 = "Virtual PCD 00 00", kReader1 = "Virtual PCD 00 01";
const char kPnP[] = "\\\\?PnP?\\Notification";

VTokenOptions muteCard() {
    VTokenOptions o;
    o.mute = true;
    return o;
}

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

std::vector<Entry> entries(const Family& f, __tag_HReadersEnum* h) {
    std::vector<Entry> out;
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

std::vector<Entry> enumerate(const Family& f = kFamilies[0]) {
    __tag_HReadersEnum* h = nullptr;
    EXPECT_EQ(f.open(&h), 0) << f.name;
    return h ? entries(f, h) : std::vector<Entry>{};
}

long bind(const std::string& reader) {
    __tag_HToken* h = nullptr;
    const long rc = KRTokenBind(&h, reader.c_str());
    if (h) KRTokenUnbind(h);
    return rc;
}

TEST(Readers, OnlyAPresentFreeAnsweringCardIsAUsableToken) {
    Pcscd pcscd;
    VToken muted(pcscd, 0, muteCard());
    VToken card(pcscd, 1);
    for (const Family& f : kFamilies)
        EXPECT_EQ(enumerate(f), (std::vector<Entry>{{kReader0, 0}, {kReader1, 1}, {kPnP, 0}}))
            << f.name;
    EXPECT_EQ(bind(kReader0), 0x8010000CL) << "mute";

    __tag_HReadersEnum* snapshot = nullptr;
    ASSERT_EQ(KRReadersEnumOpen(&snapshot), 0);
    {
        Connection hold(card.reader(), SCARD_SHARE_EXCLUSIVE);
        ASSERT_TRUE(hold.connected()) << pcscText(hold.status());
        EXPECT_EQ(enumerate()[1], (Entry{kReader1, 0})) << "held by another client";
        EXPECT_EQ(bind(kReader1), 0x8010000CL);
    }
    card.vanish();
    EXPECT_EQ(enumerate()[1], (Entry{kReader1, 0}));
    EXPECT_EQ(bind(kReader1), 0x8010000CL) << "empty";
    EXPECT_EQ(entries(kFamilies[0], snapshot)[1], (Entry{kReader1, 1}))
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

TEST(Bind, ExactReaderNamesAndAProtocolPcscLiteTakes) {
    Pcscd pcscd;
    VToken card(pcscd, 0);
    VTokenOptions r2;
    r2.atr = "3B 81 1F 00 CC 52";  // announces T=15 only
    VToken r2Card(pcscd, 1, r2);
    for (const Family& f : kFamilies) {
        __tag_HToken* h = nullptr;
        for (const char* name : {"No Such Reader", "virtual pcd 00 00", "Virtual PCD 00 0"})
            EXPECT_EQ(f.bind(&h, name), 0x80100017L) << f.name << ": " << name;
        EXPECT_EQ(h, nullptr) << "no handle from a failed bind";
    }
    EXPECT_EQ(bind(r2Card.reader()), 0x8010000FL)
        << "pcsc-lite refuses T=0|T=1 for this ATR: the connect failure as PC/SC gave it";
    EXPECT_EQ(KRTokenBind(nullptr, card.reader().c_str()), 0x80000003L);
}

TEST(Bind, UnknownTokenTalksR2AndRebindsOnceItIsBack) {
    Pcscd pcscd;
    VToken card(pcscd, 0);  // an ATR of no known token; every command gets 6D 00
    char id[64];
    DWORD size = sizeof id;
    for (const Family& f : kFamilies) {
        __tag_HToken* h = nullptr;
        ASSERT_EQ(f.bind(&h, card.reader().c_str()), 0) << f.name;
        ASSERT_EQ(KRTokenLock(h), 0);
        // The R2 applet stays current: its identifier comes from the card,
        // whose refusal, read low byte first, is the unknown word 0x006D.
        EXPECT_EQ(KRTokenIDGet(h, id, &size), 0x86E0FFFFL) << f.name;
        EXPECT_EQ(KRTokenUnLock(h), 0);
        EXPECT_EQ(f.unbind(h), 0);
    }

    __tag_HToken* h = nullptr;
    ASSERT_EQ(KRTokenBind(&h, card.reader().c_str()), 0);
    card.vanish();
    ASSERT_EQ(KRTokenLock(h), 0) << "a transaction that can't begin goes unnoticed";
    const long rc = KRTokenIDGet(h, id, &size);
    EXPECT_EQ(static_cast<unsigned long>(rc) >> 16, 0x8010u) << std::hex << rc;
    ASSERT_EQ(KRTokenUnLock(h), 0);
    EXPECT_EQ(KRTokenRebind(h), 0x8010000CL);
    card.comeBack();
    EXPECT_EQ(KRTokenRebind(h), 0);
    ASSERT_EQ(KRTokenLock(h), 0);
    EXPECT_EQ(KRTokenIDGet(h, id, &size), 0x86E0FFFFL) << "talking to the card again";
    ASSERT_EQ(KRTokenUnLock(h), 0);
    EXPECT_EQ(KRTokenUnbind(h), 0);
}

const TBytes kSelect{0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00};
const TBytes kRead{0x00, 0xB0, 0x00, 0x00, 0x04};

VTokenOptions scripted() {
    VTokenOptions o;
    o.script = "00 A4 00 00 02 3F 00 -> 90 00\n00 B0 00 00 04 -> 0A 0B 0C 0D 90 00\n";
    return o;
}

long codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const CAException& e) {
        return e.Code();
    }
    return 0;
}

TEST(Sender, ExchangesLogsRecoversFromAResetAndFailsOnRemoval) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    CSCardSender sender(card.reader(), 3, 0);
    EXPECT_EQ(sender.atr(), card.atr()) << "the ATR comes from the reader's status";
    TBytes r(258);
    {
        ApduLog log;
        sender.send(kSelect, r);
        EXPECT_EQ(r, (TBytes{0x90, 0x00}));
        r.resize(258);
        sender.send(kRead, r);
        EXPECT_EQ(r, (TBytes{0x0A, 0x0B, 0x0C, 0x0D, 0x90, 0x00}));
        EXPECT_EQ(log.take(),
                  "C-APDU: 00 A4 00 00 02 3F 00 \nR-APDU: 90 00 \n"
                  "C-APDU: 00 B0 00 00 04 \nR-APDU: 0A 0B 0C 0D 90 00 \n");
    }
    // Another client resets the card, as any PC/SC client sees it...
    Connection other(card.reader());
    ASSERT_PCSC(SCARD_S_SUCCESS, resetCardFromAnotherClient(card.reader()));
    EXPECT_PCSC(SCARD_W_RESET_CARD, other.transmit(kRead, r));
    {
        // ...and the sender reconnects and sends once more.
        ApduLog log;
        r.assign(258, 0);
        EXPECT_EQ(codeOf([&] { sender.send(kRead, r); }), 0);
        EXPECT_EQ(r, (TBytes{0x0A, 0x0B, 0x0C, 0x0D, 0x90, 0x00}));
        EXPECT_EQ(log.take(), "C-APDU: 00 B0 00 00 04 \nR-APDU: 0A 0B 0C 0D 90 00 \n")
            << "the retry writes no second command line";
    }
    // Taking the transaction on a reset card reconnects too.
    ASSERT_PCSC(SCARD_S_SUCCESS, resetCardFromAnotherClient(card.reader()));
    sender.lock();
    r.resize(258);
    EXPECT_EQ(codeOf([&] { sender.send(kSelect, r); }), 0);
    sender.unlock();

    card.vanish();
    ApduLog log;
    const long code = codeOf([&] { sender.send(kSelect, r); });
    EXPECT_TRUE(code == 0x80100069L || code == 0x8010000CL || code == 0x80100066L)
        << std::hex << code << ": the PC/SC code of the retry";
    EXPECT_EQ(log.take(), "C-APDU: 00 A4 00 00 02 3F 00 \n") << "no response line on failure";
}

}  // namespace
