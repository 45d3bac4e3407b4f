// The card recipes, each against a reference built from OpenSSL pieces.
#include "crypto/token_crypto.h"

#include <gtest/gtest.h>

#include <functional>

#include "qncrypto.h"  // rv
#include "unit/oracle.h"

namespace {

using krfs_test::cat;
using krfs_test::hex;
using namespace libapdu;

TBytes md5(const TBytes& d) { return oracle::digest("MD5", d); }
TBytes ecb(const char* name, const TBytes& key, const TBytes& block) {
    return oracle::evp(name, key, {}, block, true);
}

TEST(TokenCrypto, DigestsKeysAndSingleBlocks) {
    rv = 0;  // a failure stuck in the toolkit's rv would change what it computes
    const TBytes data = oracle::random(19), pin = hex("31323334"), salt = oracle::random(20);
    TBytes out(16, 0xA5), out32(32), key(24), java(24), pro(24), block(8), athena(16);
    crypto_qntoken_md5_iterated(data.data(), data.size(), out.data(), 16, 0);
    EXPECT_EQ(out, TBytes(16, 0xA5)) << "0 iterations leave out as it was";
    crypto_qntoken_md5_iterated(data.data(), data.size(), out.data(), 16, 3);
    EXPECT_EQ(out, md5(md5(md5(data))));
    crypto_qntoken_md5_32(data.data(), data.size(), nullptr, 0, out32.data(), 32);
    EXPECT_EQ(out32, cat({md5(data), md5(md5(data))}));
    crypto_qntoken_md5_24(pin.data(), 4, nullptr, 0, key.data(), 24);
    EXPECT_EQ(key, oracle::plainKey(pin));
    const TBytes b0 = md5(hex("00 31323334"));  // guards the reference against a shared slip
    EXPECT_EQ(key[1], ((b0[0] >> 7) | (b0[1] << 1)) & 0x7F);
    for (int id : {1, 3, 0x103}) {  // PKCS #12, 999 rounds, on the low byte of the id
        crypto_qntoken_java_sha1(id, pin.data(), pin.size(), salt.data(), 20, java.data(), 24);
        crypto_qntoken_pro_sha1(id, pin.data(), pin.size(), salt.data(), 20, pro.data(), 24);
        EXPECT_EQ(java, oracle::pkcs12(pin, salt, id & 0xFF, 999, 24)) << id;
        EXPECT_EQ(pro, java);
    }
    const TBytes k16 = oracle::random(16), k24 = oracle::random(24), nine = oracle::random(9);
    const TBytes eight(nine.begin(), nine.end() - 1);
    crypto_qntoken_des3_mac(nine.data(), 8, k24.data(), 24, block.data(), 8);
    EXPECT_EQ(block, ecb("DES-EDE3-ECB", k24, eight)) << "one block: one encryption";
    crypto_qntoken_des3_mac(nine.data(), 9, k24.data(), 24, block.data(), 8);
    EXPECT_EQ(block, oracle::des3CbcMac(k24, oracle::zeroPad(nine)));
    crypto_qntoken_des3cbc_enc(nine.data(), 3, k16.data(), 16, block.data(), 8);
    EXPECT_EQ(block, ecb("DES-EDE-ECB", k16, eight)) << "dataLen is ignored";
    crypto_qntoken_des3_enc(nine.data(), 100, k24.data(), 24, block.data(), 8);
    EXPECT_EQ(block, ecb("DES-EDE3-ECB", k24, eight));
    const TBytes zeros = hex("303030303030"), challenge = oracle::random(16);
    crypto_athena_response(zeros.data(), 6, challenge.data(), 16, athena.data(), 16);
    const TBytes d = oracle::digest("SHA1", zeros);
    EXPECT_EQ(athena, oracle::evp("DES-EDE-CBC", TBytes(d.begin(), d.begin() + 16), TBytes(8, 0),
                                  challenge, true));

    const unsigned char* p = data.data();  // wrong lengths leave the output untouched
    const std::function<void(unsigned char*)> wrong[] = {
        [&](unsigned char* o) { crypto_qntoken_md5_32(p, 8, p, 8, o, 31); },
        [&](unsigned char* o) { crypto_qntoken_md5_24(p, 8, p, 8, o, 25); },
        [&](unsigned char* o) { crypto_qntoken_pro_sha1(1, p, 4, p, 19, o, 24); },  // salt
        [&](unsigned char* o) { crypto_qntoken_des3_mac(p, 8, p, 16, o, 8); },      // key
        [&](unsigned char* o) { crypto_qntoken_des3_enc(p, 8, p, 24, o, 7); },
        [&](unsigned char* o) { crypto_athena_response(p, 4, p, 8, o, 16); },  // challenge
    };
    for (const auto& call : wrong) {
        TBytes untouched(40, 0xA5);
        call(untouched.data());
        EXPECT_EQ(untouched, TBytes(40, 0xA5)) << "call " << &call - wrong;
    }
}

TEST(TokenCrypto, SecureMessagingEncryptionAndMacs) {
    rv = 0;
    for (size_t keyLen : {16u, 24u}) {
        const TBytes key = oracle::random(keyLen), iv = oracle::random(8);
        for (size_t len : {0u, 3u, 8u, 21u}) {
            SCOPED_TRACE(::testing::Message() << keyLen << "/" << len);
            const TBytes data = oracle::random(len), v = len ? iv : TBytes();  // empty IV: zeros
            TBytes out, athena, back(3, 0x11), mac;
            crypto_sm_enc(key, data, out, v);
            EXPECT_EQ(out, oracle::evp(keyLen == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC", key,
                                       len ? iv : TBytes(8, 0), oracle::isoPad(data), true));
            crypto_sm_enc_athena(key, data, athena, v);
            EXPECT_EQ(athena, out);
            crypto_sm_dec(key, out, back, v);
            EXPECT_EQ(back, data);
            crypto_sm_mac(key, data, mac);
            EXPECT_EQ(mac, oracle::des3CbcMac(key, oracle::isoPad(data)));
            crypto_sm_mac_athena(key, data, mac);
            EXPECT_EQ(mac, oracle::retailMac(key, oracle::isoPad(data)));
            crypto_sm_mac_pro(key, data, mac);
            EXPECT_EQ(mac, oracle::retailMac(key, oracle::zeroPad(data)));
        }
    }
    const TBytes key = oracle::random(24),
                 badPad = ecb("DES-EDE3-ECB", key, hex("1122334455667788"));
    TBytes out(5, 0x42);  // faults leave the output as it was
    for (const auto& [k, cipher, iv] :
         {std::tuple{key, badPad, TBytes()}, std::tuple{key, oracle::random(12), TBytes()},
          std::tuple{key, badPad, TBytes(7, 0)}, std::tuple{TBytes(8, 1), badPad, TBytes()}}) {
        crypto_sm_dec(k, cipher, out, iv);
        EXPECT_EQ(out, TBytes(5, 0x42)) << k.size() << " " << cipher.size() << " " << iv.size();
        rv = 0;
    }
    crypto_sm_mac(TBytes(20, 1), {1, 2, 3}, out);
    EXPECT_EQ(out, TBytes(5, 0x42)) << "20-byte key";
}

}  // namespace
