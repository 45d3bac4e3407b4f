// The session calls of CToken on Pro tokens, down to the APDUs.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "src/Token/Token.h"
#include "src/krfs/barrier.h"
#include "unit/apppack/pack_pro_oracle.h"

namespace {

using namespace krfs_test;
using namespace pro_oracle;

const std::string kPro16Atr = "3B E2 00 FF C1 10 31 FE 55 C8 02 9C";
const std::string kPro42Atr = "3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00";
const TBytes kPin{'1', '2', '3', '4', '5', '6'};
const TBytes kSalt = hex("0A0A0505 1122334455667788 99AABBCCDDEEFF00");
const TBytes kChallenge = hex("F0E1D2C3B4A59687");
const std::string kCounter = "00 A4 08 00 06 66 66 10 00 00 04 00";

struct ProSession : ::testing::Test {
    // Bind's applet search: R2 refuses by the ATR alone, Pro runs its init.
    void attach(const std::string& atr) {
        card->setAtr(atr);
        card->expect("00 A4 08 00 02 66 66 00", kDirFcp);
        card->expect("00 CA 01 83 00", "00 90 00");
        card->expect("00 A4 00 00 00", kDirFcp);
        card->expect("00 A4 08 00 06 66 66 50 00 00 02 00", "6A 82");  // not FIPS
        token->Attach(std::unique_ptr<ISender>(card));
        ASSERT_EQ(token->AppletId(), 0x1002);
        token->Lock();
    }
    void TearDown() override { EXPECT_TRUE(card->allConsumed()) << card->exchanges(); }

    void selectUser(const std::string& counter) {
        card->expect("00 CA 01 84 00", "90 00");
        card->expect(kCounter, fileFcp(0x40));
        card->expect("00 B0 00 00 02", counter + " 90 00");
    }
    void salt() {
        card->expect(kCounter, fileFcp(0x40));
        card->expect("00 B0 00 00 14", hexOf(kSalt) + "90 00");
    }
    // The whole login, with the card's verdict `sw` and the counter after it.
    void login(const std::string& sw, const std::string& counter, const std::string& write) {
        selectUser(counter);
        salt();
        card->expect("00 84 00 00 08", hexOf(kChallenge) + "90 00");
        card->expect("00 A4 08 00 02 66 66 00", kDirFcp);
        card->expect("00 82 00 81 08 " + hexOf(challengeMac(plainKey(kPin), kChallenge)), sw);
        card->expect(kCounter, fileFcp(0x40));
        card->expect("00 B0 00 00 02", counter + " 90 00");
        if (!write.empty()) card->expect("00 D6 00 00 02 " + write, "90 00");
    }

    ScriptedSender* card = new ScriptedSender;  // the token owns it once attached
    std::unique_ptr<CToken> token{new CToken};
};

TEST_F(ProSession, OnlyASuccessfulLoginCounts) {
    attach(kPro16Atr);
    login("90 00", "0A 0A", "");
    EXPECT_EQ(krfs::Guard([&] { token->Login("123456"); }), 0);
    EXPECT_EQ(token->LoginCount(), 1u);

    login("63 00", "0A 0A", "09 0A");
    EXPECT_EQ(krfs::Guard([&] { token->Login("123456"); }), 0x86E06300L);
    EXPECT_EQ(token->LoginCount(), 1u);

    card->expect("00 CA 01 84 00", "90 00");
    card->expect(kCounter, fileFcp(0x40));
    card->expect("00 B0 00 00 02", "09 0A 90 00");
    DWORD attempts = 0;
    EXPECT_EQ(krfs::Guard([&] { token->GetPinAttempts(&attempts); }), 0);
    EXPECT_EQ(attempts, 9u);

    card->expect("00 A4 00 00 00", kDirFcp);
    EXPECT_EQ(krfs::Guard([&] { token->Logout(); }), 0);
    EXPECT_EQ(token->LoginCount(), 0u);
}

TEST_F(ProSession, ChangePinBeforeLoginSendsNothing) {
    attach(kPro16Atr);
    const std::size_t before = card->exchanges();
    EXPECT_EQ(krfs::Guard([&] { token->ChangePin("654321"); }), 0x86E06982L);
    EXPECT_EQ(card->exchanges(), before);
}

TEST_F(ProSession, ChangePinTakesTheCommandOfTheModel) {
    const TBytes newPin{'6', '5', '4', '3', '2', '1'};
    const struct {
        std::string atr;
        std::string change;
    } rows[] = {{kPro16Atr, "00 24 01 81 18 "}, {kPro42Atr, "90 24 00 81 18 "}};
    for (const auto& r : rows) {
        if (&r != rows) {  // a fresh session on the next card
            token.reset(new CToken);
            card = new ScriptedSender;
        }
        attach(r.atr);
        login("90 00", "0A 0A", "");
        ASSERT_EQ(krfs::Guard([&] { token->Login("123456"); }), 0);
        selectUser("0A 0A");
        salt();
        card->expect("00 A4 08 00 02 66 66 00", kDirFcp);
        card->expect(r.change + hexOf(plainKey(newPin)), "90 00");
        EXPECT_EQ(krfs::Guard([&] { token->ChangePin("654321"); }), 0) << r.change;
        EXPECT_TRUE(card->allConsumed());
    }
}

TEST_F(ProSession, LabelComesFromTheUtf8File) {
    attach(kPro16Atr);
    TBytes stored{'T', 'o', 'k', 'e', 'n', ' ', 'A'};
    stored.resize(32, 0);
    card->expect("00 A4 08 00 06 66 66 10 00 00 05 00", fileFcp(32));
    card->expect("00 B0 00 00 20", hexOf(stored) + "90 00");
    char buffer[40] = {};
    DWORD size = sizeof buffer;
    EXPECT_EQ(krfs::Guard([&] { token->GetLabel(buffer, &size); }), 0);
    EXPECT_STREQ(buffer, "Token A");
}

}  // namespace
