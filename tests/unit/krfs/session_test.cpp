#include "src/Token/Token.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "libapdu/sender.h"
#include "src/krfs/barrier.h"
#include "token/applet_pro.h"
#include "token/applet_r2.h"
#include "token/libapdu/ctoken.h"

namespace {

// A card that presents an ATR and refuses every command with 6D 00, recording
// what it was sent.
struct RefusingCard : libapdu::ISender {
    TBytes atrBytes;
    std::vector<TBytes>* sent;
    RefusingCard(TBytes atr, std::vector<TBytes>* log) : atrBytes(std::move(atr)), sent(log) {}
    void send(const TBytes& c, TBytes& r) override {
        sent->push_back(c);
        r = {0x6D, 0x00};
    }
    TBytes atr() override { return atrBytes; }
};

const TBytes kR2Atr{0x3B, 0x81, 0x1F, 0x00, 0xCC, 0x52};
const TBytes kUnknownAtr{0x3B, 0x02, 0x14, 0x50};

std::unique_ptr<CToken> attached(const TBytes& atr, std::vector<TBytes>* sent) {
    std::unique_ptr<CToken> t(new CToken);
    t->Attach(std::unique_ptr<libapdu::ISender>(new RefusingCard(atr, sent)));
    return t;
}

libapdu::IApplet* currentApplet(CToken& t) {
    return static_cast<libapdu::CToken*>(t.Token().get())->current();
}

TEST(Session, R2TokenIsAcceptedByTheFirstCandidate) {
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    EXPECT_TRUE(t->IsBound());
    EXPECT_EQ(t->AppletId(), 0x1001);
    EXPECT_NE(dynamic_cast<libapdu::CAppletR2*>(currentApplet(*t)), nullptr);
    EXPECT_TRUE(sent.empty()) << "R2 is told by its ATR alone";
}

TEST(Session, UnknownTokenBindsWithNoAppletAcceptedAndR2Current) {
    std::vector<TBytes> sent;
    auto t = attached(kUnknownAtr, &sent);
    EXPECT_TRUE(t->IsBound());
    EXPECT_EQ(t->AppletId(), 0) << "no applet accepted the card";
    EXPECT_NE(dynamic_cast<libapdu::CAppletR2*>(currentApplet(*t)), nullptr)
        << "the last candidate whose construction succeeded stays current";
}

TEST(Session, UnknownAppletNumberLeavesTheCurrentApplet) {
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    libapdu::IApplet* before = currentApplet(*t);
    t->Lock();
    EXPECT_EQ(krfs::Guard([&] { t->SelectApplet(0x1234); }), 0x86E0FACEL);
    EXPECT_EQ(currentApplet(*t), before);
    EXPECT_EQ(t->AppletId(), 0x1001);
}

TEST(Session, ProOnAnR2CardFailsInTheConstructorAndKeepsR2) {
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    t->Lock();
    EXPECT_EQ(krfs::Guard([&] { t->SelectApplet(0x1002); }), 0x86E0FACEL);
    EXPECT_NE(dynamic_cast<libapdu::CAppletR2*>(currentApplet(*t)), nullptr);
}

TEST(Session, R2OnAnotherCardFailsInInitAndStaysCurrent) {
    std::vector<TBytes> sent;
    auto t = attached(kUnknownAtr, &sent);
    t->Lock();
    EXPECT_EQ(krfs::Guard([&] { t->SelectApplet(0x1001); }), 0x86E0FACEL);
    EXPECT_NE(dynamic_cast<libapdu::CAppletR2*>(currentApplet(*t)), nullptr);
    EXPECT_EQ(t->AppletId(), 0) << "appletId is set only after a successful selection";
}

TEST(Session, ChangePinBeforeLoginSendsNothing) {
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    t->Lock();
    sent.clear();
    EXPECT_EQ(krfs::Guard([&] { t->ChangePin("123456"); }), 0x86E06982L);
    EXPECT_TRUE(sent.empty());
}

TEST(Session, NullPointersAreRefusedBeforeAnyWork) {
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    t->Lock();
    sent.clear();
    EXPECT_EQ(krfs::Guard([&] { t->GetID(nullptr, nullptr); }), 0x80000005L);
    EXPECT_EQ(krfs::Guard([&] { t->GetLabel(nullptr, nullptr); }), 0x80000005L);
    EXPECT_EQ(krfs::Guard([&] { t->GetModel(nullptr, nullptr); }), 0x80000005L);
    EXPECT_EQ(krfs::Guard([&] { t->GetMaxPinLen(nullptr); }), 0x80000005L);
    EXPECT_EQ(krfs::Guard([&] { t->GetMinPinLen(nullptr); }), 0x80000005L);
    EXPECT_EQ(krfs::Guard([&] { t->GetPinAttempts(nullptr); }), 0x80000005L);
    EXPECT_EQ(krfs::Guard([&] { t->Login(nullptr); }), 0x80000005L);
    EXPECT_TRUE(sent.empty());
}

TEST(Session, UnbindLeavesNoTokenForHandles) {
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    TSharedTokenPtr handleCopy = t->Token();
    EXPECT_NE(handleCopy.get(), nullptr);
    t->Unbind();
    EXPECT_FALSE(t->IsBound());
    EXPECT_EQ(handleCopy.get(), nullptr) << "open handles follow the session's pointer";
}

TEST(Session, TokenEntriesCheckTheirHandle) {
    struct Other : CObject<__tag_HFile, Other, eFile> {};
    Other file;
    auto* wrong = reinterpret_cast<__tag_HToken*>(static_cast<__tag_HFile*>(&file));
    DWORD n = 0;
    char buf[8];
    for (__tag_HToken* h : {static_cast<__tag_HToken*>(nullptr), wrong}) {
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
    __tag_HToken* out = reinterpret_cast<__tag_HToken*>(&file);
    EXPECT_EQ(KRTokenBind(nullptr, "reader"), 0x80000003L);
    EXPECT_EQ(QNTokenBind(nullptr, "reader"), 0x80000003L);
    EXPECT_EQ(out, reinterpret_cast<__tag_HToken*>(&file)) << "no handle written";
}

// The lock rule aborts with the standard assertion text, in every build.
using SessionDeathTest = ::testing::Test;

TEST(SessionDeathTest, TokenCallsWithoutTheLockAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    DWORD n = 0;
    char buf[4];
    const struct {
        std::function<void()> call;
        const char* signature;
    } cases[] = {
        {[&] { t->Login("1234"); }, "void CToken::Login\\(const char\\*\\)"},
        {[&] { t->Logout(); }, "void CToken::Logout\\(\\)"},
        {[&] { t->ChangePin("1234"); }, "void CToken::ChangePin\\(const char\\*\\)"},
        {[&] { t->SelectApplet(0x1002); }, "void CToken::SelectApplet\\(WORD\\)"},
        {[&] { t->GetID(buf, &n); }, "void CToken::GetID\\(char\\*, DWORD\\*\\)"},
        {[&] { t->GetLabel(buf, &n); }, "void CToken::GetLabel\\(char\\*, DWORD\\*\\)"},
        {[&] { t->GetModel(buf, &n); }, "void CToken::GetModel\\(char\\*, DWORD\\*\\)"},
        {[&] { t->GetMaxPinLen(&n); }, "void CToken::GetMaxPinLen\\(DWORD\\*\\)"},
        {[&] { t->GetMinPinLen(&n); }, "void CToken::GetMinPinLen\\(DWORD\\*\\)"},
        {[&] { t->GetPinAttempts(&n); }, "void CToken::GetPinAttempts\\(DWORD\\*\\)"},
        {[&] { t->Unlock(); }, "void CToken::Unlock\\(\\)"},
    };
    for (const auto& c : cases)
        EXPECT_DEATH(c.call(), std::string(c.signature) + ": Assertion `IsLocked \\(\\)' failed");
}

TEST(SessionDeathTest, BindAndRebindWhileLockedAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<TBytes> sent;
    auto t = attached(kR2Atr, &sent);
    t->Lock();
    EXPECT_DEATH(t->Rebind(), "void CToken::Rebind\\(\\): Assertion `!IsLocked \\(\\)' failed");
    EXPECT_DEATH(t->Bind("r"),
                 "void CToken::Bind\\(const char\\*\\): Assertion `!IsLocked \\(\\)' failed");
    EXPECT_DEATH(t->Lock(), "void CToken::Lock\\(\\): Assertion `!IsLocked \\(\\)' failed");
}

TEST(SessionDeathTest, LockWithoutATokenAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CToken t;
    EXPECT_DEATH(t.Lock(), "void CToken::Lock\\(\\): Assertion `IsBound \\(\\)' failed");
    EXPECT_DEATH(t.Unlock(), "void CToken::Unlock\\(\\): Assertion `IsBound \\(\\)' failed");
}

}  // namespace

namespace {

TEST(AppletFactory, CheckIfExistByAtrSendsNothing) {
    std::vector<TBytes> sent;
    std::unique_ptr<libapdu::ISender> s(new RefusingCard(kR2Atr, &sent));
    std::unique_ptr<libapdu::IToken> t = libapdu::IToken::create(s);
    EXPECT_EQ(s, nullptr) << "the token takes the sender over";
    EXPECT_TRUE(t->checkIfExist(0x1001));
    EXPECT_FALSE(t->checkIfExist(0x1002));
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(krfs::Guard([&] { t->checkIfExist(0x4242); }), 0x86E0FACEL);
}

TEST(AppletFactory, TokenWithoutSenderFailsCleanly) {
    std::unique_ptr<libapdu::ISender> none;
    std::unique_ptr<libapdu::IToken> t = libapdu::IToken::create(none);
    EXPECT_EQ(krfs::Guard([&] { t->selectApplet(0x1001); }), 0x86E0FACEL);
    EXPECT_EQ(krfs::Guard([&] { t->checkIfExist(0x1001); }), 0x86E0FACEL);
    EXPECT_EQ(krfs::Guard([&] { t->fs()->select({0x3F00}); }), 0x86E0FACEL)
        << "a fresh token holds a plain applet of stubs";
}

}  // namespace
