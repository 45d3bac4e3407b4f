// The virtual Pro card's PIN commands byte by byte. Expected answers are made
// here with OpenSSL's DES and PKCS#12 routines, and the key derivations are
// checked against the library's own toolkit, so neither side grades itself.
#define OPENSSL_API_COMPAT 0x10100000L
#include "pro/pro_card.h"
#include "pro/pro_crypto.h"

#include "crypto/token_crypto.h"

#include <gtest/gtest.h>
#include <openssl/des.h>
#include <openssl/md5.h>
#include <openssl/pkcs12.h>

#include <string>

namespace {

using vtoken::Bytes;
using vtoken::append;
using vtoken::fromHex;
using namespace vtoken::pro;

const Bytes kOk{0x90, 0x00};
const std::string kPin = "1234567890";

// --- the test's own cryptography -----------------------------------------

// OpenSSL's DES block type, from eight bytes at `at`.
DES_cblock* cblock(Bytes& b, std::size_t at = 0) { return reinterpret_cast<DES_cblock*>(&b[at]); }

struct Schedule {
    DES_key_schedule k1, k2, k3;
    explicit Schedule(Bytes key) {
        DES_set_key_unchecked(cblock(key, 0), &k1);
        DES_set_key_unchecked(cblock(key, 8), &k2);
        DES_set_key_unchecked(cblock(key, 16), &k3);
    }
};

Bytes ecb3(const Bytes& key, Bytes block) {
    Schedule s(key);
    Bytes out(8);
    DES_ecb3_encrypt(cblock(block), cblock(out), &s.k1, &s.k2, &s.k3, DES_ENCRYPT);
    return out;
}

Bytes cbc3(const Bytes& key, const Bytes& data, int direction) {
    Schedule s(key);
    DES_cblock iv = {};
    Bytes out(data.size());
    DES_ede3_cbc_encrypt(data.data(), out.data(), static_cast<long>(data.size()), &s.k1, &s.k2,
                         &s.k3, &iv, direction);
    return out;
}

Bytes iso2(Bytes data) {
    data.push_back(0x80);
    while (data.size() % 8) data.push_back(0x00);
    return data;
}

// Retail MAC: single DES CBC under the first key, then D(k2), E(k3).
Bytes retail(const Bytes& key, const Bytes& aligned) {
    Schedule s(key);
    DES_cblock chain = {};
    Bytes out(aligned.size());
    DES_ncbc_encrypt(aligned.data(), out.data(), static_cast<long>(aligned.size()), &s.k1, &chain,
                     DES_ENCRYPT);
    Bytes last(out.end() - 8, out.end()), tmp(8), mac(8);
    DES_ecb_encrypt(cblock(last), cblock(tmp), &s.k2, DES_DECRYPT);
    DES_ecb_encrypt(cblock(tmp), cblock(mac), &s.k3, DES_ENCRYPT);
    return mac;
}

void zeros(Bytes& m) { m.insert(m.end(), 8 - m.size() % 8, 0x00); }

Bytes pkcs12(int id, const std::string& pin, const Bytes& salt) {
    Bytes key(24);
    EXPECT_EQ(
        PKCS12_key_gen_asc(pin.c_str(), static_cast<int>(pin.size()),
                           const_cast<unsigned char*>(salt.data()), static_cast<int>(salt.size()),
                           id, 999, 24, key.data(), EVP_sha1()),
        1);
    return key;
}

// The library's toolkit, the other independent source of the recipes.
Bytes libraryMd5Key(const std::string& pin) {
    Bytes key(24);
    libapdu::crypto_qntoken_md5_24(reinterpret_cast<const unsigned char*>(pin.data()), pin.size(),
                                   nullptr, 0, key.data(), key.size());
    return key;
}

// --- the card ----------------------------------------------------------

Bytes send(ProCard& card, const Bytes& apdu) { return card.process(apdu); }
Bytes send(ProCard& card, const char* hex) { return card.process(fromHex(hex)); }
Bytes sw(const Bytes& r) { return Bytes(r.end() - 2, r.end()); }

Bytes challenge(ProCard& card) {
    Bytes r = send(card, "00 84 00 00 08");
    EXPECT_EQ(r.size(), 10u);
    return Bytes(r.begin(), r.begin() + 8);
}

Bytes authenticate(ProCard& card, unsigned char reference, const Bytes& answer) {
    Bytes apdu{0x00, 0x82, 0x00, reference, 0x08};
    append(apdu, answer);
    return send(card, apdu);
}

Bytes counterSalt(const ProCard& card) { return card.state().salt(); }

ProCard plainCard(Model model, const std::string& admin = "admin-pin") {
    Personalisation p;
    p.model = model;
    p.userPin = kPin;
    p.adminPin = admin;
    return ProCard(personalise(p));
}

ProCard fipsCard() {
    Personalisation p;
    p.model = Model::Pro42;
    p.fips = true;
    p.userPin = kPin;
    return ProCard(personalise(p));
}

TEST(ProPinKeys, CardRecipesMatchOpenSslAndTheLibraryToolkit) {
    const Bytes salt = fromHex("00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF 01 02 03 04");
    for (const std::string pin : {"", "1", "1234567890", "Grüße-über-16-bytes!"}) {
        EXPECT_EQ(md5Key(pin), libraryMd5Key(pin)) << pin;
        for (int id : {1, 3}) {
            Bytes library(24);
            libapdu::crypto_qntoken_pro_sha1(id, reinterpret_cast<const unsigned char*>(pin.data()),
                                             pin.size(), salt.data(), salt.size(), library.data(),
                                             library.size());
            EXPECT_EQ(saltedKey(static_cast<unsigned char>(id), pin, salt), library) << pin;
            if (!pin.empty()) {
                EXPECT_EQ(library, pkcs12(id, pin, salt)) << pin;
            }
        }
    }
    // Bit 7 of every byte of the unsalted key stays clear.
    for (unsigned char b : md5Key(kPin)) EXPECT_EQ(b & 0x80, 0);

    const Bytes key = md5Key("key");
    const Bytes block = fromHex("01 23 45 67 89 AB CD EF");
    EXPECT_EQ(des3Encrypt(key, block), ecb3(key, block));
    const Bytes m =
        fromHex("0C 24 00 9A 00 00 00 00 87 21 01 00 00 00 00 00 97 01 FF 00 00 00 00 00");
    TBytes library;
    libapdu::crypto_sm_mac_pro(key, m, library);
    EXPECT_EQ(retailMac(key, m), retail(key, m));
    EXPECT_EQ(retailMac(key, m), Bytes(library.begin(), library.end()));
    EXPECT_EQ(retailMac(key, Bytes(m.begin(), m.begin() + 8)),
              retail(key, Bytes(m.begin(), m.begin() + 8)))
        << "one block: no chain before the final step";
    for (std::size_t n : {0u, 7u, 8u, 24u}) {
        const Bytes data(n, 0x5A);
        EXPECT_EQ(cbcEncrypt(key, data), cbc3(key, iso2(data), DES_ENCRYPT)) << n;
        EXPECT_EQ(cbcDecrypt(key, cbcEncrypt(key, data)), data) << n;
    }
    EXPECT_FALSE(cbcDecrypt(key, cbc3(key, Bytes(8, 0x00), DES_ENCRYPT))) << "no 80 marker";
    EXPECT_FALSE(cbcDecrypt(key, Bytes(7, 0x00))) << "partial block";
    EXPECT_FALSE(cbcDecrypt(
        key, cbc3(key, fromHex("41 80 00 00 00 00 00 00 00 00 00 00 00 00 00 00"), DES_ENCRYPT)))
        << "padding beyond the last block";
}

TEST(ProPinCard, ChallengeAnswerLogsInOnceAndLeavingTheDirectoryLogsOut) {
    ProCard card = plainCard(Model::Pro32);
    EXPECT_EQ(send(card, "00 CA 01 84 00"), kOk) << "nothing verified";
    const Bytes c = challenge(card);
    EXPECT_EQ(send(card, "00 A4 08 00 02 66 66 00").back(), 0x00);
    const Bytes answer = ecb3(libraryMd5Key(kPin), c);
    EXPECT_EQ(authenticate(card, 0x81, answer), kOk);
    EXPECT_EQ(send(card, "00 CA 01 84 00"), fromHex("01 90 00"));
    EXPECT_EQ(authenticate(card, 0x81, answer), fromHex("69 85")) << "the challenge is spent";

    // Writing where PIN 01 is needed works, and stops once the session
    // leaves 6666.
    EXPECT_EQ(sw(send(card, "00 A4 08 00 04 66 66 10 00 00")), kOk);
    EXPECT_EQ(send(card, "00 CA 01 84 00"), fromHex("01 90 00")) << "still below 6666";
    EXPECT_EQ(sw(send(card, "00 A4 00 00 00")), kOk);
    EXPECT_EQ(send(card, "00 CA 01 84 00"), kOk);

    // The administrator PIN has its own key.
    send(card, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(authenticate(card, 0x85, ecb3(libraryMd5Key("admin-pin"), challenge(card))), kOk);
    EXPECT_EQ(send(card, "00 CA 01 84 00"), fromHex("05 90 00"));

    EXPECT_EQ(authenticate(card, 0x81, answer), fromHex("69 85")) << "no challenge";
    challenge(card);
    EXPECT_EQ(authenticate(card, 0x82, answer), fromHex("6A 88")) << "no PIN 02";
    challenge(card);
    EXPECT_EQ(authenticate(card, 0x01, answer), fromHex("6A 88")) << "no PIN 01 in the MF";
    EXPECT_EQ(send(card, "00 82 00 81 07 00 00 00 00 00 00 00"), fromHex("67 00"));
    EXPECT_EQ(send(card, "00 82 01 81 08 00 00 00 00 00 00 00 00"), fromHex("6A 86"));
}

TEST(ProPinCard, WrongAnswersCountDownToBlockedAndARightOneResets) {
    ProCard card = plainCard(Model::Pro16);
    send(card, "00 A4 08 00 02 66 66 00");
    const PinObject& user = *card.state().find({0x6666})->pin(0x01);
    const Bytes wrong = libraryMd5Key("0987654321");

    challenge(card);
    EXPECT_EQ(authenticate(card, 0x81, ecb3(wrong, challenge(card))), fromHex("63 00"));
    EXPECT_EQ(user.tries, 14);
    EXPECT_EQ(authenticate(card, 0x81, ecb3(libraryMd5Key(kPin), challenge(card))), kOk);
    EXPECT_EQ(user.tries, 15);

    for (int i = 0; i < 15; ++i)
        EXPECT_EQ(authenticate(card, 0x81, ecb3(wrong, challenge(card))), fromHex("63 00")) << i;
    EXPECT_EQ(user.tries, 0);
    EXPECT_EQ(authenticate(card, 0x81, ecb3(libraryMd5Key(kPin), challenge(card))),
              fromHex("69 83"))
        << "blocked: even the right PIN";
    EXPECT_EQ(send(card, "00 CA 01 84 00"), kOk);
}

TEST(ProPinCard, ChangeTakesTheNewKeyOnlyFromAVerifiedPinInItsModelsForm) {
    const Bytes fresh = libraryMd5Key("new-pin-42");
    auto withKey = [&](const char* header) {
        Bytes apdu = fromHex(header);
        apdu.insert(apdu.end(), fresh.begin(), fresh.end());
        return apdu;
    };

    ProCard old = plainCard(Model::Pro32);
    send(old, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(old, withKey("00 24 01 81 18")), fromHex("69 82")) << "not logged in";
    authenticate(old, 0x81, ecb3(libraryMd5Key(kPin), challenge(old)));
    EXPECT_EQ(send(old, withKey("90 24 00 81 18")), fromHex("6E 00")) << "a version 4 form";
    EXPECT_EQ(send(old, withKey("00 24 00 81 18")), fromHex("6A 86"));
    EXPECT_EQ(send(old, "00 24 01 81 08 00 00 00 00 00 00 00 00"), fromHex("67 00"));
    EXPECT_EQ(send(old, withKey("00 24 01 81 18")), kOk);
    EXPECT_EQ(old.state().find({0x6666})->pin(0x01)->key, fresh);
    EXPECT_EQ(authenticate(old, 0x81, ecb3(libraryMd5Key(kPin), challenge(old))), fromHex("63 00"));
    EXPECT_EQ(authenticate(old, 0x81, ecb3(fresh, challenge(old))), kOk);

    ProCard pro4 = plainCard(Model::Pro42);
    send(pro4, "00 A4 08 00 02 66 66 00");
    authenticate(pro4, 0x81, ecb3(libraryMd5Key(kPin), challenge(pro4)));
    EXPECT_EQ(send(pro4, withKey("00 24 01 81 18")), fromHex("6E 00"));
    EXPECT_EQ(send(pro4, withKey("90 24 00 85 18")), fromHex("69 82"))
        << "the user may not change the administrator";
    EXPECT_EQ(send(pro4, withKey("90 24 00 81 18")), kOk);
    EXPECT_EQ(pro4.state().find({0x6666})->pin(0x01)->key, fresh);
}

TEST(ProPinCard, UnblockRemakesTheUserPinUnderTheAdministrator) {
    ProCard card = plainCard(Model::Pro42);
    PinObject& user = *card.state().find({0x6666})->pin(0x01);
    user.tries = 0;
    const Bytes fresh = libraryMd5Key("unblocked");
    Bytes apdu =
        fromHex("00 DA 01 6E 2C 83 02 00 01 85 08 02 0F 82 0F FF FF 00 00 86 02 00 01 8F 18");
    apdu.insert(apdu.end(), fresh.begin(), fresh.end());

    send(card, "00 A4 08 00 02 66 66 00");
    EXPECT_EQ(send(card, apdu), fromHex("69 82")) << "no administrator";
    EXPECT_EQ(authenticate(card, 0x85, ecb3(libraryMd5Key("admin-pin"), challenge(card))), kOk);
    Bytes broken = apdu;
    broken[4] = 0x2B;
    broken.pop_back();
    EXPECT_EQ(send(card, broken), fromHex("6A 80")) << "a 23-byte key";
    EXPECT_EQ(send(card, apdu), kOk);
    const PinObject& after = *card.state().find({0x6666})->pin(0x01);
    EXPECT_EQ(after.key, fresh);
    EXPECT_EQ(after.tries, 15);
    EXPECT_EQ(authenticate(card, 0x81, ecb3(fresh, challenge(card))), kOk);
}

// A protected command as the host builds it, made here from the recipe.
Bytes wrap(const Bytes& mac, const Bytes& enc, const Bytes& plain) {
    const Bytes header{0x9C, plain[1], plain[2], plain[3]};
    const Bytes data(plain.begin() + 5, plain.end());
    Bytes d{0x87};
    const Bytes cipher = cbc3(enc, iso2(data), DES_ENCRYPT);
    d.push_back(static_cast<unsigned char>(cipher.size() + 1));
    d.push_back(0x01);
    d.insert(d.end(), cipher.begin(), cipher.end());
    Bytes m = header;
    zeros(m);
    m.insert(m.end(), d.begin(), d.end());
    zeros(m);
    m.insert(m.end(), {0x97, 0x01, 0xFF});
    zeros(m);
    Bytes out = header;
    out.push_back(static_cast<unsigned char>(d.size() + 13));
    out.insert(out.end(), d.begin(), d.end());
    out.insert(out.end(), {0x97, 0x01, 0xFF, 0x8E, 0x08});
    const Bytes tag = retail(mac, m);
    out.insert(out.end(), tag.begin(), tag.end());
    out.push_back(0xFF);
    return out;
}

TEST(ProPinCard, FipsChangeTravelsUnderSecureMessagingOfTheLogin) {
    ProCard card = fipsCard();
    const Bytes salt = counterSalt(card);
    const Bytes mac = pkcs12(1, kPin, salt), enc = pkcs12(3, kPin, salt);
    const Bytes fresh = pkcs12(1, "654321", salt);
    Bytes change = fromHex("90 24 00 9A 18");
    change.insert(change.end(), fresh.begin(), fresh.end());

    send(card, "00 A4 08 00 04 66 66 50 00 00");
    EXPECT_EQ(send(card, wrap(mac, enc, change)), fromHex("69 82")) << "no login, no channel";
    EXPECT_EQ(authenticate(card, 0x91, ecb3(mac, challenge(card))), kOk);
    EXPECT_EQ(send(card, "00 CA 01 84 00"), fromHex("11 90 00"));
    EXPECT_EQ(send(card, change), fromHex("69 82")) << "a FIPS key only under protection";
    challenge(card);
    EXPECT_EQ(authenticate(card, 0x92, ecb3(mac, challenge(card))), fromHex("6A 88"))
        << "a key object answers no challenge";

    // The answer: 87 holding the padding indicator and the encrypted empty
    // data, 8E the MAC over header, four zeros and the 87 object.
    const Bytes answer = send(card, wrap(mac, enc, change));
    Bytes cipher = cbc3(enc, iso2({}), DES_ENCRYPT);
    Bytes expected{0x87, 0x09, 0x01};
    expected.insert(expected.end(), cipher.begin(), cipher.end());
    Bytes m2{0x9C, 0x24, 0x00, 0x9A, 0x00, 0x00, 0x00, 0x00};
    m2.insert(m2.end(), expected.begin(), expected.end());
    zeros(m2);
    const Bytes tag = retail(mac, m2);
    expected.insert(expected.end(), {0x8E, 0x08});
    expected.insert(expected.end(), tag.begin(), tag.end());
    expected.insert(expected.end(), {0x90, 0x00});
    EXPECT_EQ(answer, expected);
    EXPECT_EQ(card.state().find({0x6666, 0x5000})->pin(0x1A)->key, fresh);

    // Kind and object must agree; a changed MAC, a missing object or a
    // wrong key is refused bare.
    Bytes keyKind = change;
    keyKind[2] = 0x10;
    EXPECT_EQ(send(card, wrap(mac, enc, keyKind)), fromHex("6A 86"));
    Bytes tampered = wrap(mac, enc, change);
    tampered[tampered.size() - 2] ^= 0x01;
    EXPECT_EQ(send(card, tampered), fromHex("69 88"));
    EXPECT_EQ(send(card, wrap(enc, enc, change)), fromHex("69 88"));
    EXPECT_EQ(send(card, "9C 24 00 9A 05 97 01 FF 00 00"), fromHex("69 87"));
    EXPECT_EQ(send(card, "9C 24 00 9A 04 87 09 01 00"), fromHex("69 88"));

    // The host's stamp in 6666 0001 keeps the login; the master file ends
    // it, and the channel with it.
    send(card, "00 A4 08 00 04 66 66 00 01 00");
    EXPECT_EQ(send(card, "00 CA 01 84 00"), fromHex("11 90 00"));
    send(card, "00 A4 00 00 00");
    EXPECT_EQ(send(card, "00 CA 01 84 00"), kOk);
    EXPECT_EQ(send(card, wrap(mac, enc, change)), fromHex("69 82"));
}

}  // namespace
