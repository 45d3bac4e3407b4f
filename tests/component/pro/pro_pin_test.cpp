// The library's Pro PIN drivers against the virtual card: login, change and
// unblock as the applet runs them, checked on the card side.
#include "pro_token.h"
#include "pro/pro_crypto.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace krfs::component;
using vtoken::pro::PinObject;

TBytes bytes(const std::string& s) { return TBytes(s.begin(), s.end()); }

const std::string kPin = "1234567890";

// The card's status word in a failure, however the layers folded it.
long status(const std::function<void()>& f) { return codeOf(f) & 0xFFFF; }

TEST(ProPinDriver, UnblockUnderTheAdministratorGivesTheUserANewPin) {
    vtoken::pro::Personalisation p = ProToken::personalisation(Model::Pro32, false);
    p.userPin = kPin;
    p.adminPin = "admin-secret";
    ProToken t(p);
    libapdu::IAppPin* pin = t.token->pin();

    pin->select(pin->pathUser());
    for (int i = 0; i < 15; ++i)
        EXPECT_EQ(status([&] { pin->login(bytes("wrong-pin")); }), 0x6300) << i;
    const PinObject& user = *t.card.state().find({0x6666})->pin(0x01);
    EXPECT_EQ(user.tries, 0);
    EXPECT_EQ(status([&] { pin->login(bytes(kPin)); }), 0x6983) << "blocked";
    EXPECT_EQ(pin->info().attemptsLeft, 0);

    pin->select(pin->pathUser());
    EXPECT_NE(codeOf([&] { pin->unblock(bytes("fresh-pin")); }), 0) << "no administrator yet";

    pin->select(pin->pathAdmin());
    EXPECT_EQ(status([&] { pin->login(bytes("admin-secret")); }), 0);
    EXPECT_EQ(status([&] { pin->unblock(bytes("fresh-pin")); }), 0);
    EXPECT_EQ(t.card.state().find({0x6666})->pin(0x01)->tries, 15);
    const auto& counter = t.card.state().find({0x6666, 0x1000, 0x0004})->data;
    EXPECT_EQ(counter[0], 15) << "the host restored the counter file";

    pin->logout();
    pin->select(pin->pathUser());
    EXPECT_EQ(pin->info().attemptsLeft, 15);
    EXPECT_EQ(status([&] { pin->login(bytes(kPin)); }), 0x6300);
    EXPECT_EQ(status([&] { pin->login(bytes("fresh-pin")); }), 0);
    EXPECT_EQ(pin->info().loginState, 0x00FF);
}

TEST(ProPinDriver, FipsChangeLeavesTheShadowSetWithAnUnknownSecret) {
    vtoken::pro::Personalisation p = ProToken::personalisation(Model::Pro42, true);
    p.userPin = kPin;
    ProToken t(p);
    libapdu::IAppPin* pin = t.token->pin();
    const vtoken::pro::Node& home = *t.card.state().find({0x6666, 0x5000});
    const PinObject before = *home.pin(0x11);

    pin->select(pin->pathUser());
    ASSERT_EQ(status([&] { pin->login(bytes(kPin)); }), 0);
    ASSERT_EQ(status([&] { pin->change(bytes("new-fips-pin")); }), 0);

    const vtoken::Bytes salt = t.card.state().salt();
    const vtoken::Bytes mac = vtoken::pro::saltedKey(1, "new-fips-pin", salt);
    const vtoken::Bytes enc = vtoken::pro::saltedKey(3, "new-fips-pin", salt);
    EXPECT_NE(before.key, mac);
    EXPECT_EQ(home.pin(0x11)->key, mac);
    EXPECT_EQ(home.pin(0x12)->key, enc);
    EXPECT_EQ(home.pin(0x13)->key, mac);
    // The shadow set: one secret's keys, none of them the PIN's.
    EXPECT_NE(home.pin(0x1A)->key, mac);
    EXPECT_NE(home.pin(0x1B)->key, enc);
    EXPECT_EQ(home.pin(0x1A)->key, home.pin(0x1C)->key);
    EXPECT_NE(home.pin(0x1A)->key, home.pin(0x1B)->key);

    pin->logout();
    pin->select(TPath{0x001A});
    EXPECT_EQ(status([&] { pin->login(bytes("new-fips-pin")); }), 0x6300) << "shadow: secret";
    pin->select(pin->pathUser());
    EXPECT_EQ(status([&] { pin->login(bytes(kPin)); }), 0x6300);
    EXPECT_EQ(status([&] { pin->login(bytes("new-fips-pin")); }), 0);
}

}  // namespace
