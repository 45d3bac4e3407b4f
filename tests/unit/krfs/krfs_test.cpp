// The failure barrier of the exported calls, their handle checks, the reader state
// mask, the APDU log, and CToken: the lock rule and a Pro session down to the APDUs.
#include "src/krfs/barrier.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "krfs.h"
#include "src/Log.h"
#include "src/Object/Object.h"
#include "src/Readers/Readers.h"
#include "src/Token/Token.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

TEST(Barrier, TurnsEveryFailureIntoItsPositiveCode) {
    EXPECT_EQ(krfs::Guard([] {}), 0);
    EXPECT_EQ(krfs::Guard([] { KR_RAISE(0x8010000CL); }), 0x8010000CL);
    EXPECT_EQ(krfs::Guard([] { APDU_RAISE(0xFFFF); }), 0x86E0FFFFL);
    EXPECT_EQ(krfs::Guard([] { throw std::bad_alloc(); }), 0x80004005L);
    EXPECT_EQ(krfs::Guard([] { throw 0; }), 0x80004005L) << "a TLV failure is no CAException";
}

struct FakeFile : CObject<__tag_HFile, FakeFile, eFile> {};

TEST(Barrier, EveryEntryRefusesNullAndOtherKindsOfHandle) {
    FakeFile file;  // same layout as the others, another tag
    auto* readers = reinterpret_cast<__tag_HReadersEnum*>(static_cast<__tag_HFile*>(&file));
    auto* token = reinterpret_cast<__tag_HToken*>(static_cast<__tag_HFile*>(&file));
    __tag_ReaderInf info;
    DWORD n = 0;
    char buf[8];
    EXPECT_EQ(KRReadersEnumNext(readers, &info), 0x80000003L);
    for (__tag_HToken* h : {static_cast<__tag_HToken*>(nullptr), token}) {
        for (long (*entry)(__tag_HToken*) : {KRTokenRebind, KRTokenUnbind, KRTokenLock,
                                             KRTokenUnLock, KRTokenLogout, QNTokenLogout})
            EXPECT_EQ(entry(h), 0x80000003L);
        EXPECT_EQ(KRTokenLogin(h, "x"), 0x80000003L);
        EXPECT_EQ(KRTokenLabelGet(h, buf, &n), 0x80000003L);
    }
    EXPECT_EQ(KRReadersEnumOpen(nullptr), 0x80000003L);
    EXPECT_EQ(KRTokenBind(nullptr, "reader"), 0x80000003L);
    EXPECT_EQ(file.kind, static_cast<unsigned int>(eFile)) << "a refused handle is left alone";
}

TEST(Readers, UsableStateMaskAndNoSnapshot) {
    // Present, in use by another, with pcsc-lite's event counter, with the ATR match bit.
    for (unsigned long state : {0x020ul, 0x120ul, 0x10020ul, 0x060ul})
        EXPECT_TRUE(CReaders::IsUsable(state)) << std::hex << state;
    // Nothing, empty, mute, exclusive, ignore, unknown, unavailable, present and empty.
    for (unsigned long state :
         {0x000ul, 0x010ul, 0x220ul, 0x0A0ul, 0x021ul, 0x024ul, 0x028ul, 0x030ul})
        EXPECT_FALSE(CReaders::IsUsable(state)) << std::hex << state;
    CReaders r;
    __tag_ReaderInf info;
    EXPECT_EQ(krfs::Guard([&] { r.GetNext(&info); }), 0x00000103L);
}

TEST(Log, ExactLinesWholeApdusAndPathsThatCannotBeUsed) {
    char dir[] = "/tmp/krfs-log-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/apdu.log",
                      missing = std::string(dir) + "/no/apdu.log";
    auto logged = [&] {
        std::stringstream s;
        s << std::ifstream(path).rdbuf();
        return s.str();
    };
    KREnableLogging(path.c_str());
    WriteLog("");  // empty lines are not written
    LogAPDU("C-APDU", {0x00, 0xA4, 0x04, 0x00});
    LogAPDU("R-APDU", {0x9A, 0x0b});
    LogAPDU("R-APDU", {});
    EXPECT_EQ(logged(), "C-APDU: 00 A4 04 00 \nR-APDU: 9A 0B \nR-APDU: \n");
    std::remove(path.c_str());
    LogAPDU("C-APDU", TBytes(20000, 0xEE));
    EXPECT_EQ(logged().size(), 8 + 20000 * 3 + 1u) << "a long APDU goes whole";
    std::remove(path.c_str());

    KREnableLogging(missing.c_str());
    LogAPDU("C-APDU", {0x00});
    KREnableLogging(std::string(5000, 'x').c_str());
    EXPECT_EQ(std::string(g_krFSLogging, sizeof(g_krFSLogging)), std::string(4096, 'x'));
    WriteLog("no crash on an unterminated path");
    KREnableLogging(path.c_str());
    EXPECT_EQ(std::string(g_krFSLogging), path) << "a shorter path is terminated again";
    KRDisableLogging();
    EXPECT_FALSE(LoggingEnabled());
    WriteLog("nothing");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_NE(access(missing.c_str(), F_OK), 0);
    rmdir(dir);
}

// An R2 card that refuses every command with 6D 00.
struct RefusingCard : ISender {
    void send(const TBytes&, TBytes& r) override { r = {0x6D, 0x00}; }
    TBytes atr() override { return hex("3B 81 1F 00 CC 52"); }
};

// The lock rule aborts with the standard assertion text, in every build.
TEST(SessionDeathTest, CallsAgainstTheLockRuleAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto t = std::make_unique<::CToken>();
    t->Attach(std::make_unique<RefusingCard>());
    DWORD n = 0;
    EXPECT_DEATH(t->Login("1"),
                 "void CToken::Login\\(const char\\*\\): Assertion `IsLocked \\(\\)' failed");
    EXPECT_DEATH(t->GetPinAttempts(&n), "GetPinAttempts\\(DWORD\\*\\): Assertion `IsLocked");
    t->Lock();
    EXPECT_DEATH(t->Rebind(), "void CToken::Rebind\\(\\): Assertion `!IsLocked \\(\\)' failed");
    EXPECT_DEATH(t->Lock(), "void CToken::Lock\\(\\): Assertion `!IsLocked \\(\\)' failed");
    ::CToken unbound;
    EXPECT_DEATH(unbound.Lock(), "void CToken::Lock\\(\\): Assertion `IsBound \\(\\)' failed");
}

// One session on a Pro token of each model: login, change, logout.
TEST(ProSession, LoginCountChangeAndLogoutOnEachModel) {
    const struct {
        const char* atr;
        std::string change;  // the model's command
    } models[] = {{"3B E2 00 FF C1 10 31 FE 55 C8 02 9C", "00 24 01 81 18 "},
                  {"3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00", "90 24 00 81 18 "}};
    for (const auto& m : models) {
        SCOPED_TRACE(m.atr);
        auto* card = new ScriptedSender;  // the token owns it once attached
        ProPinScript script{*card};
        auto pinFile = [&](const std::string& counter) {
            card->expect("00 CA 01 84 00", "90 00");
            script.counter(false, 0, counter);
            script.salt(false);
        };
        auto login = [&](const std::string& sw, const std::string& counter) {
            pinFile(counter);
            script.answer(false, 0x81, oracle::plainKey(kPin), sw);
            script.counter(false, 0, counter);
        };
        // Bind's applet search: R2 refuses by the ATR alone, Pro runs its init.
        card->setAtr(m.atr);
        card->expect(kHome, kDirFcp);
        card->expect("00 CA 01 83 00", "00 90 00");
        card->expect("00 A4 00 00 00", kDirFcp);
        card->expect(kFipsLabel, "6A 82");  // not FIPS
        ::CToken token;
        token.Attach(std::unique_ptr<ISender>(card));
        ASSERT_EQ(token.AppletId(), 0x1002);
        token.Lock();

        EXPECT_EQ(krfs::Guard([&] { token.ChangePin("654321"); }), 0x86E06982L);
        EXPECT_EQ(card->offered.size(), 4u) << "a change before any login sends nothing";

        login("90 00", "0A 0A");
        EXPECT_EQ(krfs::Guard([&] { token.Login("123456"); }), 0);
        EXPECT_EQ(token.LoginCount(), 1u);
        login("63 00", "0A 0A");
        card->expect("00 D6 00 00 02 09 0A", "90 00");
        EXPECT_EQ(krfs::Guard([&] { token.Login("123456"); }), 0x86E06300L);
        EXPECT_EQ(token.LoginCount(), 1u) << "only a successful login counts";

        pinFile("09 0A");
        card->expect(kHome, kDirFcp);
        card->expect(m.change + toHex(oracle::plainKey(kNewPin)), "90 00");
        EXPECT_EQ(krfs::Guard([&] { token.ChangePin("654321"); }), 0);

        card->expect("00 A4 00 00 00", kDirFcp);
        EXPECT_EQ(krfs::Guard([&] { token.Logout(); }), 0);
        EXPECT_EQ(token.LoginCount(), 0u);
    }
}

}  // namespace
