// CToken: the lock rule, and the session calls on a Pro token down to the APDUs.
#include "src/Token/Token.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "src/krfs/barrier.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

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
