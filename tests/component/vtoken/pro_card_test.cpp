// The virtual Pro card byte by byte, and its stored state. Keys and challenge
// answers are made here with the library's toolkit, which shares nothing with
// the card's OpenSSL recipes.
#include "component/vtoken/card_script.h"
#include "crypto/token_crypto.h"
#include "pro/pro_card.h"

#include <gtest/gtest.h>

#include <string>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using vtoken::toHex;
using namespace vtoken::pro;

ProCard makeCard(Model model) {
    Personalisation p;
    p.model = model;
    p.id = Bytes{0xA1, 0xB2, 0xC3, 0xD4};
    p.adminPin = "admin-pin";
    return ProCard(personalise(p));
}

TEST(ProCard, FileSystemAnswersAsTheCardWould) {
    ProCard card = makeCard(Model::Pro42b);
    play(card, R"(
        00 B0 00 00 01 -> 69 86                      # no file selected
        # tag 80 for a file's size, 81 for a directory's
        00 A4 08 00 04 66 66 00 01 00
          -> 6F 14 82 01 01 83 02 00 01 80 02 00 10 86 07 00 00 FF 00 00 00 00 90 00
        00 A4 08 00 02 66 66 00
          -> 6F 15 82 01 38 83 02 66 66 81 02 00 00 86 08 01 FF 01 01 01 01 01 01 90 00
        00 A4 09 00 04 10 00 00 06 00 -> ... 90 00  # a path from here
        00 B0 00 02 01 -> 6B 00                      # offset past the end
        00 B0 00 00 04 -> 00 62 82                   # less than asked
        00 B0 00 00 00 -> 00 90 00                   # Le 00: all there is
        00 D6 00 00 01 07 -> 69 82                   # the colour is never written
        00 A4 02 00 02 00 05 00 -> ... 90 00         # a file by identifier
        00 D6 00 00 01 41 -> 69 82                   # the label needs the user PIN
        00 A4 03 00 00 -> ... 90 00                  # the parent
        00 A4 02 00 02 10 00 00 -> 6A 82             # 1000 is no file
        00 A4 04 00 07 A0 00 00 03 12 02 02 00 -> 6A 82
        00 A4 08 00 06 66 66 00 01 00 02 00 -> 6A 82 # no path through a file
        00 A4 08 01 02 66 66 00 -> 6A 86
        00 A4 08 00 03 66 66 00 00 -> 67 00
        00 A4 08 00 04 66 66 00 01 00 -> ... 90 00
        00 D6 00 0E 02 AA BB -> 90 00
        00 D6 00 0F 02 AA BB -> 6A 84                # past the end
        00 D6 00 11 01 AA -> 6B 00
        00 D6 00 00 01 AA 00 -> 67 00
        00 CA 01 81 00 -> 04 C8 09 00 4B 52 46 53 56 54 00 00 A1 B2 C3 D4 90 00
        00 CA 01 99 00 -> 6A 88
        00 CA 02 81 00 -> 6A 88
        80 10 00 00 00 -> 67 00
        80 A4 00 00 00 -> 6E 00
        00 20 00 00 00 -> 6D 00
        00 A4 00 -> 67 00
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 80 02 00 20 86 02 00 00 -> 69 82)");
    card.setAssumedVerified({kUserPin});
    play(card, R"(
        # a Pro 4 file gives its size under 80; 3FFF is reserved
        00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 81 02 00 20 86 02 00 00 -> 6A 80
        00 E0 00 00 11 62 0F 82 01 01 83 02 3F FF 80 02 00 20 86 02 00 00 -> 6A 80
        00 E0 01 00 11 62 0F 82 01 01 83 02 05 05 80 02 00 20 86 02 00 00 -> 6A 86
        00 E0 00 00 05 62 07 82 01 01 -> 6A 80       # a cut template
        # 72 KB hold one file of 64 KB, but not two
        00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 80 02 FF FF 86 02 00 00 -> 90 00
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 E0 00 00 11 62 0F 82 01 01 83 02 04 04 80 02 FF FF 86 02 00 00 -> 6A 84
        00 E0 00 00 11 62 0F 82 01 01 83 02 03 03 80 02 00 01 86 02 00 00 -> 6A 89
        00 E0 00 00 1A 62 18 82 01 38 85 01 00 83 02 02 02 81 02 00 00 86 08 01 01 01 01 01 01 01 01
          -> 90 00
        00 E0 00 00 19 62 17 82 01 01 85 01 00 83 02 01 01 80 02 00 04 86 07 00 01 01 01 01 01 01
          -> 90 00
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 E4 00 00 02 02 02 -> 69 81                # not empty
        00 E4 00 00 02 00 01 -> 69 82                # the marker stays
        00 E4 00 00 02 09 09 -> 6A 82
        00 E4 00 00 01 02 -> 67 00
        00 A4 08 00 04 66 66 02 02 00 -> ... 90 00
        00 E4 00 00 02 01 01 -> 90 00
        00 B0 00 00 01 -> 69 86                      # the deleted file is no longer current
        80 16 01 00 00 -> 90 00                      # no files left to list
        80 16 02 00 00 -> 6A 86
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 E4 00 00 02 02 02 -> 90 00
        80 16 00 00 00 -> 6F 04 86 02 10 00 90 00)");
    EXPECT_EQ(card.state().find({0x6666, 0x0202}), nullptr);
}

const std::string kPin = "1234567890";

const unsigned char* text(const std::string& s) {
    return reinterpret_cast<const unsigned char*>(s.data());
}
Bytes plainKey(const std::string& pin) {
    Bytes key(24);
    libapdu::crypto_qntoken_md5_24(text(pin), pin.size(), nullptr, 0, key.data(), key.size());
    return key;
}
// EXTERNAL AUTHENTICATE of PIN `reference` with a fresh challenge answered
// under `key`: the card's status word.
std::string authenticate(ProCard& card, unsigned char reference, const Bytes& key) {
    const Bytes challenge = card.process(fromHex("00 84 00 00 08"));
    Bytes command{0x00, 0x82, 0x00, reference, 0x08, 0, 0, 0, 0, 0, 0, 0, 0};
    libapdu::crypto_qntoken_des3_enc(challenge.data(), 8, key.data(), key.size(), &command[5], 8);
    return toHex(card.process(command));
}
TEST(ProPinCard, LoginCountsWrongAnswersAndLastsWhileTheSessionStaysBelowItsDirectory) {
    ProCard card = makeCard(Model::Pro16);
    const PinObject& user = *card.state().find({0x6666})->pin(0x01);
    play(card, "00 A4 08 00 02 66 66 00 -> ... 90 00");
    EXPECT_EQ(authenticate(card, 0x81, plainKey("0987654321")), "63 00");
    EXPECT_EQ(user.tries, 14);
    EXPECT_EQ(authenticate(card, 0x81, plainKey(kPin)), "90 00");
    EXPECT_EQ(user.tries, 15);
    play(card, R"(
        00 82 00 81 08 00 00 00 00 00 00 00 00 -> 69 85  # the challenge is spent
        00 CA 01 84 00 -> 01 90 00
        00 A4 08 00 04 66 66 10 00 00 -> ... 90 00
        00 CA 01 84 00 -> 01 90 00                   # still below 6666
        00 A4 00 00 00 -> ... 90 00
        00 CA 01 84 00 -> 90 00                      # the master file ends it
        00 A4 08 00 02 66 66 00 -> ... 90 00
        00 82 00 81 07 00 00 00 00 00 00 00 -> 67 00
        00 82 01 81 08 00 00 00 00 00 00 00 00 -> 6A 86)");
    EXPECT_EQ(authenticate(card, 0x85, plainKey("admin-pin")), "90 00") << "its own key";
    play(card, "00 CA 01 84 00 -> 05 90 00");
    EXPECT_EQ(authenticate(card, 0x82, plainKey(kPin)), "6A 88") << "no PIN 02";
    EXPECT_EQ(authenticate(card, 0x01, plainKey(kPin)), "6A 88") << "no PIN 01 in the MF";
    for (int i = 0; i < 15; ++i) EXPECT_EQ(authenticate(card, 0x81, plainKey("x")), "63 00");
    EXPECT_EQ(user.tries, 0);
    EXPECT_EQ(authenticate(card, 0x81, plainKey(kPin)), "69 83") << "blocked for good";
}

TEST(ProPinCard, ChangeAndUnblockTakeANewKeyInTheModelsForm) {
    const Bytes fresh = plainKey("new-pin-42");
    ProCard old = makeCard(Model::Pro32), pro4 = makeCard(Model::Pro42);
    play(old, "00 A4 08 00 02 66 66 00 -> ... 90 00\n00 24 01 81 18 KEY -> 69 82", fresh);
    EXPECT_EQ(authenticate(old, 0x81, plainKey(kPin)), "90 00");
    play(old, R"(
        90 24 00 81 18 KEY -> 6E 00                  # a version 4 form
        00 24 00 81 18 KEY -> 6A 86
        00 24 01 81 08 00 00 00 00 00 00 00 00 -> 67 00)",
         fresh);
    play(pro4, "00 A4 08 00 02 66 66 00 -> ... 90 00");
    EXPECT_EQ(authenticate(pro4, 0x81, plainKey(kPin)), "90 00");
    play(pro4, R"(
        00 24 01 81 18 KEY -> 6E 00
        90 24 00 85 18 KEY -> 69 82                  # not the administrator's)",
         fresh);

    // Unblock remakes the user PIN, under the administrator only.
    pro4.state().find({0x6666})->pin(0x01)->tries = 0;
    const std::string unblock =
        "00 DA 01 6E 2C 83 02 00 01 85 08 02 0F 82 0F FF FF 00 00 86 02 00 01 8F 18 KEY";
    play(pro4, unblock + " -> 69 82", fresh);
    EXPECT_EQ(authenticate(pro4, 0x85, plainKey("admin-pin")), "90 00");
    const Bytes cut(fresh.begin(), fresh.end() - 1);
    play(pro4, "00 DA 01 6E 2B" + unblock.substr(14) + " -> 6A 80  # a 23-byte key", cut);
    play(pro4, unblock + " -> 90 00", fresh);
    EXPECT_EQ(pro4.state().find({0x6666})->pin(0x01)->tries, 15);
    EXPECT_EQ(authenticate(pro4, 0x81, fresh), "90 00");
}

TEST(ProStateJson, BrokenStatesAreRefused) {
    const std::pair<std::string, std::string> faults[] = {
        {"\"pro42\"", "\"pro99\""},
        {"\"dialect\": \"pro\"", "\"dialect\": \"r2\""},
        {"\"id\": \"", "\"id\": \"0"},
        {"\"type\": \"file\"", "\"type\": \"link\""},
        {"\"0004\"", "\"0005\""},  // two children 0005
        {"\"key\": \"", "\"key\": \"00"},
        {"\"tries\": 15", "\"tries\": 16"},  // above max_tries
        {"\"max_tries\": 15", "\"max_tries\": 300"},
        {"\"fips\": false", "\"fips\": 0"},
        {"{", "{{"},
    };
    for (const auto& [from, to] : faults) {
        std::string broken = toJsonText(personalise({}));
        ASSERT_NE(broken.find(from), std::string::npos) << from;
        broken.replace(broken.find(from), from.size(), to);
        EXPECT_THROW(fromJsonText(broken), std::invalid_argument) << to;
    }
}

}  // namespace
}  // namespace krfs::component
