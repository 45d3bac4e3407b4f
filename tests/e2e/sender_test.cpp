// The PC/SC sender and the APDU log against a virtual card through pcscd.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "harness/harness.h"
#include "krfs.h"
#include "libapdu/exception.h"
#include "src/SCardSender.h"

namespace {

using namespace krfs::harness;

VTokenOptions scripted() {
    VTokenOptions o;
    o.script =
        "00 A4 00 00 02 3F 00 -> 90 00\n"
        "00 B0 00 00 04 -> 0A 0B 0C 0D 90 00\n"
        "00 CA 01 83 00 -> 6A 88\n";
    return o;
}

// Logs to a fresh file for the life of a test.
class Logged {
public:
    Logged() : path(dir.path() + "/apdu.log") { KREnableLogging(path.c_str()); }
    ~Logged() { KRDisableLogging(); }
    std::string text() const { return readFile(path); }
    TempDir dir{"krfs-log"};
    std::string path;
};

long codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const CAException& e) {
        return e.Code();
    }
    return 0;
}

TEST(Sender, ExchangesApdusAndLogsEachOnce) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    Logged log;
    CSCardSender sender(card.reader(), 3, 0);
    TBytes r(258);
    sender.send({0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}, r);
    EXPECT_EQ(r, (TBytes{0x90, 0x00}));
    r.resize(258);
    sender.send({0x00, 0xB0, 0x00, 0x00, 0x04}, r);
    EXPECT_EQ(r, (TBytes{0x0A, 0x0B, 0x0C, 0x0D, 0x90, 0x00}));
    EXPECT_EQ(log.text(),
              "C-APDU: 00 A4 00 00 02 3F 00 \n"
              "R-APDU: 90 00 \n"
              "C-APDU: 00 B0 00 00 04 \n"
              "R-APDU: 0A 0B 0C 0D 90 00 \n");
    EXPECT_EQ(sender.atr(), card.atr()) << "the ATR comes from the reader's status";
}

TEST(Sender, ResetByAnotherClientIsRecoveredWithOneRetry) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    CSCardSender sender(card.reader(), 3, 0);
    TBytes r(258);
    sender.send({0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}, r);
    ASSERT_PCSC(SCARD_S_SUCCESS, resetCardFromAnotherClient(card.reader()));
    Logged log;
    r.assign(258, 0);
    EXPECT_EQ(codeOf([&] { sender.send({0x00, 0xB0, 0x00, 0x00, 0x04}, r); }), 0);
    EXPECT_EQ(r, (TBytes{0x0A, 0x0B, 0x0C, 0x0D, 0x90, 0x00}));
    EXPECT_EQ(log.text(), "C-APDU: 00 B0 00 00 04 \nR-APDU: 0A 0B 0C 0D 90 00 \n")
        << "the retry writes no second command line";
}

TEST(Sender, LockOnAResetCardReconnects) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    CSCardSender sender(card.reader(), 3, 0);
    ASSERT_PCSC(SCARD_S_SUCCESS, resetCardFromAnotherClient(card.reader()));
    sender.lock();
    Logged log;
    TBytes r(258);
    sender.send({0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}, r);
    EXPECT_EQ(r, (TBytes{0x90, 0x00}));
    sender.unlock();
    // While the sender holds the transaction, another client's exclusive
    // connection must wait; after unlock it can take the card.
    Connection other(card.reader(), SCARD_SHARE_SHARED);
    EXPECT_TRUE(other.connected());
}

TEST(Sender, RemovedCardFailsWithThePcscCodeOfTheRetry) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    CSCardSender sender(card.reader(), 3, 0);
    card.vanish();
    Logged log;
    TBytes r(258);
    const long code = codeOf([&] { sender.send({0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}, r); });
    EXPECT_TRUE(code == 0x80100069L || code == 0x8010000CL || code == 0x80100066L)
        << std::hex << code;
    EXPECT_EQ(log.text(), "C-APDU: 00 A4 00 00 02 3F 00 \n") << "no response line on failure";
}

TEST(Sender, ConnectFailuresReportThePcscCode) {
    Pcscd pcscd;
    EXPECT_EQ(codeOf([] { CSCardSender s("Virtual PCD 00 00", 3, 0); }), 0x8010000CL)
        << "an empty reader";
    EXPECT_EQ(codeOf([] { CSCardSender s("No Such Reader", 3, 0); }), 0x80100009L)
        << "an unknown reader";
    VTokenOptions mute;
    mute.mute = true;
    VToken muted(pcscd, 1, mute);
    EXPECT_EQ(codeOf([&] { CSCardSender s(muted.reader(), 3, 0); }), 0x80100067L)
        << "an unpowered, mute card";
}

TEST(Sender, UnwritableLogPathLogsNothingAndFailsNothing) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    TempDir dir{"krfs-log"};
    const std::string missing = dir.path() + "/no/such/folder/apdu.log";
    KREnableLogging(missing.c_str());
    CSCardSender sender(card.reader(), 3, 0);
    TBytes r(258);
    EXPECT_NO_THROW(sender.send({0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}, r));
    EXPECT_EQ(r, (TBytes{0x90, 0x00}));
    KRDisableLogging();
    EXPECT_NE(access(missing.c_str(), F_OK), 0);
}

TEST(Sender, ZeroLengthResponseBufferLetsPcscDecide) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    CSCardSender sender(card.reader(), 3, 0);
    TBytes r;
    const long code = codeOf([&] { sender.send({0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00}, r); });
    EXPECT_EQ(static_cast<unsigned long>(code) >> 16, 0x8010u) << std::hex << code;
}

TEST(Sender, ReaderControlIsAPcscFailureOnVpcd) {
    Pcscd pcscd;
    VToken card(pcscd, 0, scripted());
    CSCardSender sender(card.reader(), 3, 0);
    TBytes out(64);
    const long code = codeOf([&] { sender.control(0x9C41264C, {}, out); });
    EXPECT_EQ(static_cast<unsigned long>(code) >> 16, 0x8010u) << std::hex << code;
}

}  // namespace
