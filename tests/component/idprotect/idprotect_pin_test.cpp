// The IDProtect PIN driver against the virtual card through libapdu: unblock
// under the administrator's login, carried by secure messaging, which the
// exported API does not offer.
#include "core/card_sender.h"
#include "idprotect/idprotect_applet.h"
#include "javacard/javacard.h"
#include "libapdu/exception.h"
#include "libapdu/token.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace {

long codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const libapdu::IException& e) {
        return e.code();
    }
    return 0;
}

TEST(IdprotectPin, AdministratorUnblocksABlockedUserPinUnderSecureMessaging) {
    vtoken::idprotect::Personalisation p;
    p.userPin = "1234";
    p.adminPin = "87654321";
    p.triesTotal = 2;
    std::vector<std::unique_ptr<vtoken::javacard::Applet>> applets;
    applets.push_back(
        std::make_unique<vtoken::idprotect::IdprotectApplet>(vtoken::idprotect::personalise(p)));
    vtoken::javacard::JavaCard card(vtoken::idprotect::atr(), std::move(applets));
    std::unique_ptr<libapdu::ISender> sender(new vtoken::CardSender(card));
    auto token = libapdu::IToken::create(sender);
    token->selectApplet(0x2101);
    libapdu::IAppPin* pin = token->pin();

    pin->select(pin->pathUser());
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(codeOf([&] { pin->login({'0', '0', '0', '0'}); }), 0x86E06300L);
    EXPECT_EQ(codeOf([&] { pin->login({'1', '2', '3', '4'}); }), 0x86E06983L) << "blocked";
    EXPECT_EQ(codeOf([&] { pin->unblock({'5', '6', '7', '8'}); }), 0x86E06900L) << "no admin";

    pin->select(pin->pathAdmin());
    pin->login({'8', '7', '6', '5', '4', '3', '2', '1'});
    pin->select(pin->pathUser());
    pin->unblock({'5', '6', '7', '8'});
    pin->logout();
    EXPECT_EQ(codeOf([&] { pin->login({'1', '2', '3', '4'}); }), 0x86E06300L) << "the old PIN";
    pin->login({'5', '6', '7', '8'});
    EXPECT_EQ(pin->info().attemptsLeft, 2u) << "the counter is back";
}

}  // namespace
