// The virtual Pro card's PIN commands byte by byte. Keys, challenge answers and
// protected commands are made here with the library's toolkit, which shares
// nothing with the card's OpenSSL recipes, so neither side grades itself.
#include "component/vtoken/transcript.h"
#include "crypto/token_crypto.h"
#include "pro/pro_card.h"
#include "pro/pro_crypto.h"

#include <gtest/gtest.h>

#include <string>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::fromHex;
using vtoken::toHex;
using namespace vtoken::pro;

const std::string kPin = "1234567890";
const Bytes kOk{0x90, 0x00};

const unsigned char* text(const std::string& s) {
    return reinterpret_cast<const unsigned char*>(s.data());
}
Bytes plainKey(const std::string& pin) {
    Bytes key(24);
    libapdu::crypto_qntoken_md5_24(text(pin), pin.size(), nullptr, 0, key.data(), key.size());
    return key;
}
Bytes salted(int id, const std::string& pin, const Bytes& salt) {
    Bytes key(24);
    libapdu::crypto_qntoken_pro_sha1(id, text(pin), pin.size(), salt.data(), salt.size(),
                                     key.data(), key.size());
    return key;
}
Bytes ecb(const Bytes& key, const Bytes& block) {
    Bytes out(8);
    libapdu::crypto_qntoken_des3_enc(block.data(), 8, key.data(), key.size(), out.data(), 8);
    return out;
}
Bytes cbc(const Bytes& key, const Bytes& data) {  // ISO padding, zero IV
    Bytes out;
    libapdu::crypto_sm_enc(key, data, out, {});
    return out;
}
Bytes mac(const Bytes& key, const Bytes& aligned) {
    Bytes out;
    libapdu::crypto_sm_mac_pro(key, aligned, out);
    return out;
}

Bytes challenge(ProCard& card) {
    Bytes r = card.process(fromHex("00 84 00 00 08"));
    EXPECT_EQ(r.size(), 10u);
    return Bytes(r.begin(), r.begin() + 8);
}
// EXTERNAL AUTHENTICATE with the challenge answered under `key`.
Bytes authenticate(ProCard& card, unsigned char reference, const Bytes& key) {
    Bytes apdu{0x00, 0x82, 0x00, reference, 0x08};
    vtoken::append(apdu, ecb(key, challenge(card)));
    return card.process(apdu);
}

ProCard plainCard(Model model) {
    Personalisation p;
    p.model = model;
    p.adminPin = "admin-pin";
    return ProCard(personalise(p));
}

TEST(ProPinKeys, CardRecipesMatchTheLibraryToolkit) {
    const Bytes salt = fromHex("00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF 01 02 03 04");
    for (const std::string pin : {"", "1", "1234567890", "Grüße-über-16-bytes!"}) {
        EXPECT_EQ(md5Key(pin), plainKey(pin)) << pin;
        for (unsigned char id : {1, 3}) EXPECT_EQ(saltedKey(id, pin, salt), salted(id, pin, salt));
    }
    const Bytes key = md5Key("key"), block = fromHex("01 23 45 67 89 AB CD EF");
    EXPECT_EQ(des3Encrypt(key, block), ecb(key, block));
    const Bytes m =
        fromHex("0C 24 00 9A 00 00 00 00 87 21 01 00 00 00 00 00 97 01 FF 00 00 00 00 00");
    EXPECT_EQ(retailMac(key, m), mac(key, m));
    EXPECT_EQ(retailMac(key, block), mac(key, block)) << "one block: no chain before the end";
    for (std::size_t n : {0u, 7u, 8u, 24u}) {
        const Bytes data(n, 0x5A);
        EXPECT_EQ(cbcEncrypt(key, data), cbc(key, data)) << n;
        EXPECT_EQ(cbcDecrypt(key, cbc(key, data)), data) << n;
    }
    const Bytes zeros(8, 0x00), marked = fromHex("41 80 00 00 00 00 00 00");
    Bytes late = ecb(key, marked);
    vtoken::append(late, ecb(key, late));  // a second block of zeros after the marker
    EXPECT_FALSE(cbcDecrypt(key, ecb(key, zeros))) << "no 80 marker";
    EXPECT_FALSE(cbcDecrypt(key, late)) << "padding beyond the last block";
    EXPECT_FALSE(cbcDecrypt(key, Bytes(7, 0x00))) << "partial block";
}

TEST(ProPinCard, ChallengeAnswerLogsInOnceAndLeavingTheDirectoryLogsOut) {
    ProCard card = plainCard(Model::Pro32);
    play(card, "00 CA 01 84 00 -> 90 00\n00 A4 08 00 02 66 66 00 -> ... 90 00");
    const Bytes c = challenge(card), answer = ecb(plainKey(kPin), c);
    auto answerWith = [&](unsigned char reference) {
        Bytes apdu{0x00, 0x82, 0x00, reference, 0x08};
        vtoken::append(apdu, answer);
        return card.process(apdu);
    };
    EXPECT_EQ(answerWith(0x81), kOk);
    EXPECT_EQ(answerWith(0x81), fromHex("69 85")) << "the challenge is spent";
    play(card, R"(
        00 CA 01 84 00 -> 01 90 00
        00 A4 08 00 04 66 66 10 00 00 -> ... 90 00
        00 CA 01 84 00 -> 01 90 00                   # still below 6666
        00 A4 00 00 00 -> ... 90 00
        00 CA 01 84 00 -> 90 00                      # the master file ends it
        00 A4 08 00 02 66 66 00 -> ... 90 00)");
    EXPECT_EQ(authenticate(card, 0x85, plainKey("admin-pin")), kOk) << "its own key";
    play(card, "00 CA 01 84 00 -> 05 90 00");
    challenge(card);
    EXPECT_EQ(answerWith(0x82), fromHex("6A 88")) << "no PIN 02";
    challenge(card);
    EXPECT_EQ(answerWith(0x01), fromHex("6A 88")) << "no PIN 01 in the master file";
    play(card, R"(
        00 82 00 81 07 00 00 00 00 00 00 00 -> 67 00
        00 82 01 81 08 00 00 00 00 00 00 00 00 -> 6A 86)");
}

TEST(ProPinCard, WrongAnswersCountDownToBlockedAndARightOneResets) {
    ProCard card = plainCard(Model::Pro16);
    play(card, "00 A4 08 00 02 66 66 00 -> ... 90 00");
    const PinObject& user = *card.state().find({0x6666})->pin(0x01);
    EXPECT_EQ(authenticate(card, 0x81, plainKey("0987654321")), fromHex("63 00"));
    EXPECT_EQ(user.tries, 14);
    EXPECT_EQ(authenticate(card, 0x81, plainKey(kPin)), kOk);
    EXPECT_EQ(user.tries, 15);
    for (int i = 0; i < 15; ++i)
        EXPECT_EQ(authenticate(card, 0x81, plainKey("0987654321")), fromHex("63 00")) << i;
    EXPECT_EQ(user.tries, 0);
    EXPECT_EQ(authenticate(card, 0x81, plainKey(kPin)), fromHex("69 83")) << "blocked for good";
    play(card, "00 CA 01 84 00 -> 90 00");
}

TEST(ProPinCard, ChangeAndUnblockTakeANewKeyInTheModelsForm) {
    const std::string fresh = toHex(plainKey("new-pin-42"));
    ProCard old = plainCard(Model::Pro32), pro4 = plainCard(Model::Pro42);
    play(old, "00 A4 08 00 02 66 66 00 -> ... 90 00\n00 24 01 81 18 " + fresh +
                  " -> 69 82  # not logged in");
    authenticate(old, 0x81, plainKey(kPin));
    play(old, "90 24 00 81 18 " + fresh + " -> 6E 00  # a version 4 form\n" +  //
                  "00 24 00 81 18 " + fresh + " -> 6A 86\n" +
                  "00 24 01 81 08 00 00 00 00 00 00 00 00 -> 67 00\n" +  //
                  "00 24 01 81 18 " + fresh + " -> 90 00");
    EXPECT_EQ(old.state().find({0x6666})->pin(0x01)->key, plainKey("new-pin-42"));
    EXPECT_EQ(authenticate(old, 0x81, plainKey(kPin)), fromHex("63 00"));
    EXPECT_EQ(authenticate(old, 0x81, plainKey("new-pin-42")), kOk);

    play(pro4, "00 A4 08 00 02 66 66 00 -> ... 90 00");
    authenticate(pro4, 0x81, plainKey(kPin));
    play(pro4, "00 24 01 81 18 " + fresh + " -> 6E 00\n" +  //
                   "90 24 00 85 18 " + fresh + " -> 69 82  # not the administrator's\n" +
                   "90 24 00 81 18 " + fresh + " -> 90 00");
    EXPECT_EQ(pro4.state().find({0x6666})->pin(0x01)->key, plainKey("new-pin-42"));

    // Unblock remakes the user PIN, under the administrator only.
    pro4.state().find({0x6666})->pin(0x01)->tries = 0;
    const std::string key = toHex(plainKey("unblocked"));
    const std::string unblock =
        "00 DA 01 6E 2C 83 02 00 01 85 08 02 0F 82 0F FF FF 00 00 86 02 00 "
        "01 8F 18 " +
        key;
    play(pro4, unblock + " -> 69 82  # no administrator");
    EXPECT_EQ(authenticate(pro4, 0x85, plainKey("admin-pin")), kOk);
    std::string cut = unblock.substr(0, unblock.size() - 3);  // a 23-byte key
    cut.replace(12, 2, "2B");
    play(pro4, cut + " -> 6A 80\n" + unblock + " -> 90 00");
    EXPECT_EQ(pro4.state().find({0x6666})->pin(0x01)->tries, 15);
    EXPECT_EQ(authenticate(pro4, 0x81, plainKey("unblocked")), kOk);
}

// A protected command as the host builds it: 87 holding the padding indicator
// and the encrypted data, 97 the expected length, 8E the MAC over the header,
// four zeros and those objects.
Bytes wrap(const Bytes& macKey, const Bytes& encKey, const Bytes& plain) {
    const Bytes header{0x9C, plain[1], plain[2], plain[3]}, le{0x97, 0x01, 0xFF};
    const Bytes cipher = cbc(encKey, Bytes(plain.begin() + 5, plain.end()));
    Bytes data{0x87, static_cast<unsigned char>(cipher.size() + 1), 0x01};
    vtoken::append(data, cipher);
    Bytes m = header;
    padZeros(m);
    vtoken::append(m, data);
    padZeros(m);
    vtoken::append(m, le);
    padZeros(m);
    Bytes out{0x9C, plain[1], plain[2], plain[3], static_cast<unsigned char>(data.size() + 13)};
    vtoken::append(out, data);
    vtoken::append(out, le);
    out.insert(out.end(), {0x8E, 0x08});
    vtoken::append(out, mac(macKey, m));
    out.push_back(0xFF);
    return out;
}

TEST(ProPinCard, FipsChangeTravelsUnderSecureMessagingOfTheLogin) {
    Personalisation p;
    p.fips = true;
    ProCard card(personalise(p));
    const Bytes salt = card.state().salt();
    const Bytes macKey = salted(1, kPin, salt), encKey = salted(3, kPin, salt);
    Bytes change = fromHex("90 24 00 9A 18");
    vtoken::append(change, salted(1, "654321", salt));

    play(card, "00 A4 08 00 04 66 66 50 00 00 -> ... 90 00\n" +
                   toHex(wrap(macKey, encKey, change)) + " -> 69 82  # no login, no channel");
    EXPECT_EQ(authenticate(card, 0x91, macKey), kOk);
    play(card, "00 CA 01 84 00 -> 11 90 00\n" + toHex(change) + " -> 69 82  # only protected");
    EXPECT_EQ(authenticate(card, 0x92, macKey), fromHex("6A 88")) << "a key object, no PIN";

    // The answer: 87 with the encrypted empty data, 8E the MAC over the
    // header, four zeros and the 87 object.
    Bytes expected{0x87, 0x09, 0x01}, m{0x9C, 0x24, 0x00, 0x9A, 0x00, 0x00, 0x00, 0x00};
    vtoken::append(expected, cbc(encKey, {}));
    vtoken::append(m, expected);
    padZeros(m);
    expected.insert(expected.end(), {0x8E, 0x08});
    vtoken::append(expected, mac(macKey, m));
    vtoken::append(expected, kOk);
    EXPECT_EQ(card.process(wrap(macKey, encKey, change)), expected);
    EXPECT_EQ(card.state().find({0x6666, 0x5000})->pin(0x1A)->key, salted(1, "654321", salt));

    // Kind and object must agree; a changed MAC, a wrong key or a missing
    // object is refused bare.
    Bytes keyKind = change, tampered = wrap(macKey, encKey, change);
    keyKind[2] = 0x10;
    tampered[tampered.size() - 2] ^= 0x01;
    EXPECT_EQ(card.process(wrap(macKey, encKey, keyKind)), fromHex("6A 86"));
    EXPECT_EQ(card.process(tampered), fromHex("69 88"));
    EXPECT_EQ(card.process(wrap(encKey, encKey, change)), fromHex("69 88"));
    // The host's stamp in 6666 0001 keeps the login; the master file ends
    // it, and the channel with it.
    play(card, R"(
        9C 24 00 9A 05 97 01 FF 00 00 -> 69 87
        9C 24 00 9A 04 87 09 01 00 -> 69 88
        00 A4 08 00 04 66 66 00 01 00 -> ... 90 00
        00 CA 01 84 00 -> 11 90 00
        00 A4 00 00 00 -> ... 90 00
        00 CA 01 84 00 -> 90 00)");
    EXPECT_EQ(card.process(wrap(macKey, encKey, change)), fromHex("69 82"));
}

}  // namespace
}  // namespace krfs::component
