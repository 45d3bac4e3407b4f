// The failure barrier of the exported calls, their handle checks, the APDU log,
// the lock rule of CToken; the shared pointer and text conversion.
#include "src/krfs/barrier.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "conv.h"
#include "krfs.h"
#include "sh_ptr.h"
#include "src/Log.h"
#include "src/Object/Object.h"
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

// A bound R2 token on a scripted card; R2 binds by its ATR alone.
std::unique_ptr<::CToken> r2Token(ScriptedSender*& card) {
    card = new ScriptedSender;  // the token owns it once attached
    card->setAtr("3B 81 1F 00 CC 52");
    auto t = std::make_unique<::CToken>();
    t->Attach(std::unique_ptr<ISender>(card));
    EXPECT_EQ(t->AppletId(), 0x1001);
    return t;
}

// The lock rule aborts with the standard assertion text, in every build.
TEST(SessionDeathTest, CallsAgainstTheLockRuleAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ScriptedSender* card;
    auto t = r2Token(card);
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

// A change needs a successful login of this session, still held; a refused
// one is not sent.
TEST(Session, OnlyASuccessfulLoginLetsAChangeThrough) {
    ScriptedSender* card;
    auto t = r2Token(card);
    t->Lock();
    const std::string login = "00 20 00 00 05 04 31 32 33 34", logout = "00 DC 00 00 01 00";
    card->play({login, "16 64"});  // a wrong PIN, low byte first
    EXPECT_EQ(krfs::Guard([&] { t->Login("1234"); }), 0x86E06300L);
    EXPECT_EQ(krfs::Guard([&] { t->ChangePin("4321"); }), 0x86E06982L);
    card->play({login, "00 90", "00 D4 00 00 05 04 34 33 32 31", "00 90", logout, "00 90"});
    EXPECT_EQ(krfs::Guard([&] { t->Login("1234"); }), 0);
    EXPECT_EQ(krfs::Guard([&] { t->ChangePin("4321"); }), 0);
    card->play({logout, "00 90"});
    EXPECT_EQ(krfs::Guard([&] { t->Logout(); }), 0);
    EXPECT_EQ(krfs::Guard([&] { t->ChangePin("4321"); }), 0x86E06982L);
}

TEST(Support, SharedPointerSetMovesAllCopies) {
    static int alive = 0;
    struct Counted {
        Counted() { ++alive; }
        ~Counted() { --alive; }
    };
    Counted* first = new Counted;
    {
        sh_ptr<Counted> a(first), b(nullptr);
        b = a;
        a.set(new Counted);
        EXPECT_EQ(b.use_count(), 2);
        EXPECT_NE(b.get(), first) << "set reaches every copy";
        EXPECT_EQ(alive, 2) << "and leaves the old target to its owner";
    }
    EXPECT_EQ(alive, 1) << "the last copy deletes the current target";
    delete first;
}

using libapdu::IConv;
using libapdu::IConvert;

TEST(Conv, LocaleTextAndTokenBytesByEncoding) {
    IConv::init();  // must not override the locale set here
    const std::string saved = std::setlocale(LC_ALL, nullptr);
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    const std::string raw("\xE9t\xE9\x00x", 5);  // encoding 2, the locale's: unchanged
    EXPECT_EQ(IConvert::string_to_bytes(raw, 2), TBytes(raw.begin(), raw.end()));
    // Encoding 3, UTF-8: each char goes to mbtowc alone, so only ASCII passes...
    EXPECT_EQ(IConvert::string_to_bytes("Tk 1", 3), (TBytes{'T', 'k', ' ', '1'}));
    EXPECT_EQ(krfs::Guard([] { IConvert::string_to_bytes("\xC3\xA9", 3); }), 0x86E06281L);
    EXPECT_EQ(IConvert::string_to_bytes("Tk 2", 3), (TBytes{'T', 'k', ' ', '2'}))
        << "a failed lead byte leaves nothing behind";
    // ...while UTF-8 from a token comes back whole, up to the first zero.
    const TBytes label{0xC3, 0xA9, 't', 0, 'x'};
    EXPECT_EQ(IConvert::bytes_to_string(label, 3), "\xC3\xA9t");
    EXPECT_EQ(IConvert::bytes_to_wstring(label, 3), (std::wstring{0xE9, L't'}));
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({0xFF, 0xFE}, 3); }), 0x86E06281L);
    EXPECT_EQ(krfs::Guard([] { IConv::wchar2utf8(std::wstring{0xD800}); }), 0x86E06281L);
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_string({'x'}, 4); }), 0x86E0FACEL);
    EXPECT_EQ(krfs::Guard([] { IConvert::bytes_to_wstring({'a', 0xE9}, 2); }), 0x86E06281L);

    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    EXPECT_EQ(IConvert::bytes_to_wstring({'a', 'b', 0, 'c', 0}, 2), L"ab");
    EXPECT_EQ(krfs::Guard([] { IConv::wchar2char(std::wstring{L'a', 0x20AC}); }), 0x86E06281L);
    std::setlocale(LC_ALL, saved.c_str());

    EXPECT_EQ(libapdu::base64_encode({'f', 'o', 0xFB, 0xFF, 0xBF}), "Zm/7/78=");
    EXPECT_EQ(libapdu::base64_decode("Zm/7/78=\nYmFy"), (TBytes{'f', 'o', 0xFB, 0xFF, 0xBF}));
}

}  // namespace
