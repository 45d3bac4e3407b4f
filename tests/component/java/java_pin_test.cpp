// The Java and Joker PIN drivers against the virtual card through libapdu:
// the administrator's login and the unblock of a blocked user PIN, which the
// exported API does not offer.
#include "core/card_sender.h"
#include "java/java_applet.h"
#include "javacard/javacard.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"
#include "libapdu/types.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

namespace {

using vtoken::java::Variant;

long codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const libapdu::IException& e) {
        return e.code();
    }
    return 0;
}

TBytes bytes(const char* text) { return TBytes(text, text + strlen(text)); }

struct Card {
    Card(Variant variant, unsigned short number, bool fips) {
        vtoken::java::Personalisation p;
        p.userPin = "123456";
        p.triesTotal = 2;
        p.fips = fips;
        std::vector<std::unique_ptr<vtoken::javacard::Applet>> applets;
        applets.push_back(
            std::make_unique<vtoken::java::JavaApplet>(variant, vtoken::java::personalise(p)));
        card = std::make_unique<vtoken::javacard::JavaCard>(vtoken::javacard::defaultAtr(),
                                                            std::move(applets));
        std::unique_ptr<libapdu::ISender> sender(new vtoken::CardSender(*card));
        token = libapdu::IToken::create(sender);
        token->selectApplet(number);
    }
    // Blocks the user PIN with two wrong ones.
    void block() {
        libapdu::IAppPin* pin = token->pin();
        pin->select(pin->pathUser());
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(codeOf([&] { pin->login(bytes("000000")); }), 0x86E06300L);
        EXPECT_EQ(codeOf([&] { pin->login(bytes("123456")); }), 0x86E06983L) << "blocked";
    }
    std::unique_ptr<vtoken::javacard::JavaCard> card;
    std::unique_ptr<libapdu::IToken> token;
};

TEST(JavaPinOnCard, AdministratorUnblocksABlockedUserPin) {
    Card c(Variant::kJava, 0x2001, false);
    libapdu::IAppPin* pin = c.token->pin();
    c.block();
    EXPECT_EQ(codeOf([&] { pin->unblock(bytes("654321")); }), 0x86E06900L) << "no administrator";

    pin->select(pin->pathAdmin());
    EXPECT_EQ(pin->info().attemptsLeft, 2u);
    pin->login(bytes("87654321"));
    EXPECT_EQ(pin->info().loginState, 0x00FFu) << "the card's verified flag";
    pin->select(pin->pathUser());
    pin->unblock(bytes("654321"));
    EXPECT_EQ(codeOf([&] { pin->login(bytes("123456")); }), 0x86E06300L) << "the old PIN";
    pin->login(bytes("654321"));
    EXPECT_EQ(pin->info().attemptsLeft, 2u) << "the counter is back";
}

// Joker has no unblock; on a FIPS Java token the card takes it only under
// secure messaging, which the unblock does not use.
TEST(JavaPinOnCard, UnblockIsRefusedByJokerAndByAFipsCard) {
    Card joker(Variant::kJoker, 0x2204, false);
    joker.block();
    EXPECT_EQ(codeOf([&] { joker.token->pin()->unblock(bytes("654321")); }), 0x86E0FACEL);

    Card fips(Variant::kJava, 0x2001, true);
    libapdu::IAppPin* pin = fips.token->pin();
    pin->select(pin->pathAdmin());
    pin->login(bytes("87654321"));
    pin->select(pin->pathUser());
    EXPECT_EQ(codeOf([&] { pin->unblock(bytes("654321")); }), 0x86E06900L);
    pin->login(bytes("123456"));
}

}  // namespace
