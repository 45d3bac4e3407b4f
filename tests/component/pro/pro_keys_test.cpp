// RSA keys on the virtual Pro card: the layout the host searches, read back
// with the card's own commands, and the decipher checked against OpenSSL
// encryption with the certificate's public key.
#include "component/vtoken/card_script.h"
#include "core/card_sender.h"
#include "pro/pro_card.h"
#include "pro/pro_keys.h"
#include "token/applet_pro.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>
#include <string>

namespace krfs::component {
namespace {

using vtoken::Bytes;
using vtoken::RsaKey;
using vtoken::toHex;
using vtoken::pro::ProCard;

const RsaKey& rsaKey(int bits) {
    static const RsaKey k1024 = vtoken::makeRsaKey(1024, "one");
    static const RsaKey k2048 = vtoken::makeRsaKey(2048, "two");
    return bits == 1024 ? k1024 : k2048;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Raw RSA with the certificate's public key, as a host would encrypt.
Bytes encrypt(const Bytes& certificate, const Bytes& block) {
    const unsigned char* p = certificate.data();
    std::unique_ptr<X509, decltype(&X509_free)> cert(
        d2i_X509(nullptr, &p, static_cast<long>(certificate.size())), &X509_free);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
        EVP_PKEY_CTX_new(X509_get0_pubkey(cert.get()), nullptr), &EVP_PKEY_CTX_free);
    Bytes out(block.size());
    std::size_t n = out.size();
    EXPECT_EQ(EVP_PKEY_encrypt_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_encrypt(ctx.get(), out.data(), &n, block.data(), block.size()), 1);
    return out;
}

// The host's decipher: short up to 255 bytes of data, else extended.
Bytes decipherApdu(const Bytes& block) {
    const std::size_t n = block.size() + 1;
    const bool extended = n > 0xFF;
    Bytes apdu = vtoken::fromHex(extended ? "00 2A 80 86 00" : "00 2A 80 86");
    if (extended) apdu.push_back(static_cast<unsigned char>(n >> 8));
    apdu.push_back(static_cast<unsigned char>(n & 0xFF));
    apdu.push_back(0x00);
    vtoken::append(apdu, block);
    vtoken::append(apdu, vtoken::fromHex(extended ? "04 00" : "00"));
    return apdu;
}

// A file's whole content, read in pieces of up to 256 bytes as the host
// does, with the status word of the last full piece.
std::string readFile(ProCard& card, std::string path) {
    path.erase(std::remove(path.begin(), path.end(), ' '), path.end());
    const Bytes select = vtoken::fromHex(
        "00 A4 08 0C " + toHex({static_cast<unsigned char>(path.size() / 2)}) + path);
    EXPECT_EQ(toHex(card.process(select)), "90 00") << path;
    Bytes content, status{0x90, 0x00};
    for (std::size_t offset = 0;; offset += 256) {
        Bytes answer = card.process({0x00, 0xB0, static_cast<unsigned char>(offset >> 8),
                                     static_cast<unsigned char>(offset & 0xFF), 0x00});
        if (answer.size() == 2) break;  // past the end
        status.assign(answer.end() - 2, answer.end());
        content.insert(content.end(), answer.begin(), answer.end() - 2);
    }
    return toHex(content) + " " + toHex(status);
}

ProCard plainCard() {
    ProCard card(vtoken::pro::personalise({}));
    card.addKey(rsaKey(1024), "alpha");
    card.addKey(rsaKey(2048), "beta");
    RsaKey certOnly = rsaKey(1024);
    certOnly.privateKey.clear();
    card.addKey(certOnly, "gamma");
    return card;
}

TEST(ProKeys, PlainLayoutReadsAsTheHostReadsIt) {
    ProCard card = plainCard();
    // No PIN verified: every file of the layout is public.
    for (const auto& [record, key, id] :
         {std::make_tuple("0001", 1024, "alpha"), std::make_tuple("0002", 2048, "beta"),
          std::make_tuple("0003", 1024, "gamma")}) {
        const Bytes& der = rsaKey(key).certificate;
        const std::size_t l = der.size() + 4;
        Bytes expected{0x00, 0x00, static_cast<unsigned char>(l & 0xFF),
                       static_cast<unsigned char>(l >> 8)};
        vtoken::append(expected, der);
        vtoken::append(expected, Bytes(6, 0x00));
        for (const Bytes& s : {text(key == 1024 ? "one" : "two"), text(id)}) {
            vtoken::append(expected, s);
            expected.push_back(0x00);
        }
        EXPECT_EQ(readFile(card, std::string("66661002") + record), toHex(expected) + " 90 00")
            << id;
    }
    EXPECT_EQ(readFile(card, "66666000ECEC"), "00 00 80 00 20 40 90 00");
    EXPECT_EQ(readFile(card, "666660001001"), "01 90 00");
    EXPECT_EQ(readFile(card, "666660001002"), "02 90 00");
    EXPECT_EQ(readFile(card, "666610011001"),
              toHex(text("C1=alpha&1001\nC2=beta&1002\n")) + " 90 00");
    EXPECT_EQ(card.state().keys.size(), 2u) << "the certificate alone brings no key";
    // Writing still needs the PIN.
    EXPECT_EQ(send(card, "00 D6 00 00 01 07"), "69 82");
    EXPECT_EQ(vtoken::pro::countContainers(card.state()), 3u);
}

TEST(ProKeys, DecipherIsRawRsaWithTheKeyTheEnvironmentNames) {
    ProCard card = plainCard();
    struct Case {
        int bits;
        const char* reference;  // kk = (R + 1) * 2 + 1
    };
    for (const Case& c : {Case{1024, "05"}, Case{2048, "07"}}) {
        SCOPED_TRACE(c.bits);
        const RsaKey& key = rsaKey(c.bits);
        Bytes block(key.bytes(), 0x5A);
        block[0] = 0x12;
        const Bytes apdu = decipherApdu(encrypt(key.certificate, block));
        const std::string select = std::string("00 22 01 B8 03 83 01 ") + c.reference + " 00";
        card.reset();
        EXPECT_EQ(send(card, "00 A4 08 0C 04 66 66 10 01"), "90 00");
        EXPECT_EQ(send(card, "00 22 03 FE 00"), "90 00");
        EXPECT_EQ(send(card, select), "90 00");
        EXPECT_EQ(toHex(card.process(apdu)), "69 82") << "no PIN verified";
        card.verify({0x6666}, vtoken::pro::kUserPin);
        EXPECT_EQ(toHex(card.process(apdu)), toHex(block) + " 90 00");

        Bytes modulus = decipherApdu(key.modulus), shorter = apdu, padded = apdu;
        shorter.erase(shorter.end() - (c.bits == 1024 ? 2 : 3));
        shorter[c.bits == 1024 ? 4 : 6]--;
        padded[c.bits == 1024 ? 5 : 7] = 0x02;
        for (const Bytes& wrong : {modulus, shorter, padded})
            EXPECT_EQ(toHex(card.process(wrong)), "6A 80") << toHex(wrong).substr(0, 30);
        EXPECT_EQ(send(card, "00 22 01 B8 03 83 01 09 00"), "6A 88") << "no key R 3";
        EXPECT_EQ(send(card, "00 22 03 FE 00"), "90 00");
        EXPECT_EQ(toHex(card.process(apdu)), "6A 88") << "no key current";
    }
}

TEST(ProKeys, FipsLayoutAndDecipherUnderTheHostsSecureMessaging) {
    vtoken::pro::Personalisation p;
    p.fips = true;
    ProCard card(vtoken::pro::personalise(p));
    const RsaKey& key = rsaKey(1024);
    card.addKey(key, "fips-1");
    card.addKey(rsaKey(2048), "fips-2");

    EXPECT_EQ(readFile(card, "6666500002201001 0002"), toHex(key.certificate) + " 90 00");
    EXPECT_EQ(readFile(card, "6666500002201001 0001"),
              "01 01 03 " + toHex(text("one")) + " 05 06 " + toHex(text("fips-1")) + " 90 00");
    EXPECT_EQ(readFile(card, "6666500002203001 0001"),
              "02 01 04 00 00 00 01 03 " + toHex(text("one")) +
                  " 02 02 04 00 03 01 01 04 02 10 01 05 06 " + toHex(text("fips-1")) + " 90 00");

    // The host's applet logs in, which opens its secure messaging.
    vtoken::CardSender sender(card);
    libapdu::CAppletPro applet(&sender);
    applet.init();
    applet.pin()->select(applet.pin()->pathUser());
    applet.pin()->login(text(p.userPin));

    Bytes block(key.bytes(), 0xA5);
    block[0] = 0x33;
    const Bytes apdu = decipherApdu(encrypt(key.certificate, block));
    EXPECT_EQ(send(card, "00 A4 08 0C 08 66 66 50 00 02 20 30 01"), "90 00");
    EXPECT_EQ(send(card, "00 22 03 33 00"), "90 00");
    EXPECT_EQ(toHex(card.process(apdu)), "69 82") << "outside secure messaging";
    TBytes answer;
    applet.pack()->sm(apdu, answer);
    EXPECT_EQ(toHex(answer), toHex(block) + " 90 00");
    applet.pack()->sm(decipherApdu(key.modulus), answer);
    EXPECT_EQ(toHex(answer), "6A 80");

    // A 256-byte block does not fit the host's wrapping: its lengths wrap
    // at 256, and the card refuses the command it gets.
    EXPECT_EQ(send(card, "00 A4 08 0C 08 66 66 50 00 02 20 30 02"), "90 00");
    EXPECT_EQ(send(card, "00 22 03 33 00"), "90 00");
    Bytes big(256, 0x01);
    applet.pack()->sm(decipherApdu(encrypt(rsaKey(2048).certificate, big)), answer);
    EXPECT_EQ(toHex(answer), "67 00");

    EXPECT_EQ(send(card, "00 A4 08 0C 06 66 66 50 00 02 20"), "90 00");
    EXPECT_EQ(send(card, "00 22 03 33 00"), "6A 88") << "not in a key directory";
    EXPECT_EQ(send(card, "00 22 01 B8 03 83 01 03 00"), "6A 88") << "a FIPS key has no R";
}

TEST(ProKeys, RefusedKeysLeaveTheStateAndStoredKeysSurviveTheStateFile) {
    ProCard card = plainCard();
    const std::string before = vtoken::pro::toJsonText(card.state());
    for (const char* id : {"alpha", "gamma", "a&b", "a=b", "", "line\n"})
        EXPECT_THROW(card.addKey(rsaKey(1024), id), std::invalid_argument) << id;
    EXPECT_EQ(vtoken::pro::toJsonText(card.state()), before);

    ProCard reloaded(vtoken::pro::fromJsonText(before));
    EXPECT_EQ(reloaded.state().keys.size(), 2u);
    reloaded.verify({0x6666}, vtoken::pro::kUserPin);
    EXPECT_EQ(send(reloaded, "00 22 01 B8 03 83 01 07 00"), "90 00");
    Bytes block(256, 0x01);
    EXPECT_EQ(toHex(reloaded.process(decipherApdu(encrypt(rsaKey(2048).certificate, block)))),
              toHex(block) + " 90 00");
    EXPECT_NE(vtoken::pro::describeKeys(reloaded.state())
                  .find("container \"gamma\"  1024 bits  "
                        "certificate only"),
              std::string::npos);
}

}  // namespace
}  // namespace krfs::component
