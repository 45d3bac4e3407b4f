// The card recipes, each against a reference built from OpenSSL pieces.
#include "crypto/token_crypto.h"

#include <gtest/gtest.h>

#include <functional>

#include "qncrypto.h"
#include "unit/oracle.h"

namespace {

using krfs_test::cat;
using krfs_test::hex;
using namespace libapdu;

// A failure stuck in the toolkit's rv changes what it computes; each case starts clean.
class TokenCrypto : public ::testing::Test {
protected:
    void SetUp() override { rv = 0; }
    void TearDown() override { rv = 0; }
};

TBytes md5(const TBytes& d) { return oracle::digest("MD5", d); }

TEST_F(TokenCrypto, DigestsKeysAndSingleBlocks) {
    const TBytes data = oracle::random(19);
    TBytes out(16, 0xA5), out32(32);
    crypto_qntoken_md5_iterated(data.data(), data.size(), out.data(), 16, 0);
    EXPECT_EQ(out, TBytes(16, 0xA5)) << "0 iterations leave out as it was";
    crypto_qntoken_md5_iterated(data.data(), data.size(), out.data(), 16, 3);
    EXPECT_EQ(out, md5(md5(md5(data))));
    crypto_qntoken_md5_32(data.data(), data.size(), nullptr, 0, out32.data(), 32);
    EXPECT_EQ(out32, cat({md5(data), md5(md5(data))}));
    for (size_t len : {0u, 1u, 8u, 64u}) {
        const TBytes pin = oracle::random(len);
        TBytes key(24, 0xFF);
        crypto_qntoken_md5_24(pin.data(), pin.size(), nullptr, 0, key.data(), 24);
        EXPECT_EQ(key, oracle::plainKey(pin)) << len;
    }
    // A fixed value guards against the reference and the code sharing a slip.
    const TBytes b0 = md5(hex("00 31323334")), pin = hex("31323334");
    TBytes key(24);
    crypto_qntoken_md5_24(pin.data(), 4, nullptr, 0, key.data(), 24);
    EXPECT_EQ(key[1], ((b0[0] >> 7) | (b0[1] << 1)) & 0x7F);

    for (int id : {1, 3, 0x103}) {  // PKCS #12, 999 rounds, on the low byte of the id
        const TBytes pin = oracle::random(4 + id % 5), salt = oracle::random(20);
        TBytes java(24), pro(24);
        crypto_qntoken_java_sha1(id, pin.data(), pin.size(), salt.data(), 20, java.data(), 24);
        crypto_qntoken_pro_sha1(id, pin.data(), pin.size(), salt.data(), 20, pro.data(), 24);
        EXPECT_EQ(java, oracle::pkcs12(pin, salt, id & 0xFF, 999, 24)) << id;
        EXPECT_EQ(pro, java);
    }

    const TBytes key16 = oracle::random(16), key24 = oracle::random(24), nine = oracle::random(9);
    TBytes block(8);
    crypto_qntoken_des3_mac(nine.data(), 8, key24.data(), 24, block.data(), 8);
    EXPECT_EQ(block,
              oracle::evp("DES-EDE3-ECB", key24, {}, TBytes(nine.begin(), nine.end() - 1), true))
        << "one block: one encryption, no padding";
    crypto_qntoken_des3_mac(nine.data(), 9, key24.data(), 24, block.data(), 8);
    EXPECT_EQ(block, oracle::des3CbcMac(key24, oracle::zeroPad(nine)));
    crypto_qntoken_des3cbc_enc(nine.data(), 3, key16.data(), 16, block.data(), 8);
    EXPECT_EQ(block,
              oracle::evp("DES-EDE-ECB", key16, {}, TBytes(nine.begin(), nine.end() - 1), true))
        << "dataLen is ignored";
    crypto_qntoken_des3_enc(nine.data(), 100, key24.data(), 24, block.data(), 8);
    EXPECT_EQ(block,
              oracle::evp("DES-EDE3-ECB", key24, {}, TBytes(nine.begin(), nine.end() - 1), true));

    const TBytes zeros = hex("303030303030"), challenge = oracle::random(16);
    TBytes athena(16);
    crypto_athena_response(zeros.data(), 6, challenge.data(), 16, athena.data(), 16);
    const TBytes d = oracle::digest("SHA1", zeros);
    EXPECT_EQ(athena, oracle::evp("DES-EDE-CBC", TBytes(d.begin(), d.begin() + 16), TBytes(8, 0),
                                  challenge, true));
}

TEST_F(TokenCrypto, WrongLengthsLeaveTheOutputUntouched) {
    const TBytes big = oracle::random(64);
    const unsigned char* d = big.data();
    const std::function<void(unsigned char*)> calls[] = {
        [&](unsigned char* o) { crypto_qntoken_md5_iterated(d, 8, o, 15, 1); },
        [&](unsigned char* o) { crypto_qntoken_md5_iterated(d, 8, o, 17, 1); },
        [&](unsigned char* o) { crypto_qntoken_md5_32(d, 8, d, 8, o, 31); },
        [&](unsigned char* o) { crypto_qntoken_md5_24(d, 8, d, 8, o, 23); },
        [&](unsigned char* o) { crypto_qntoken_md5_24(d, 8, d, 8, o, 25); },
        [&](unsigned char* o) { crypto_qntoken_pro_sha1(1, d, 4, d, 19, o, 24); },  // salt
        [&](unsigned char* o) { crypto_qntoken_pro_sha1(1, d, 4, d, 21, o, 24); },
        [&](unsigned char* o) { crypto_qntoken_java_sha1(3, d, 4, d, 20, o, 20); },
        [&](unsigned char* o) { crypto_qntoken_des3_mac(d, 8, d, 16, o, 8); },  // key
        [&](unsigned char* o) { crypto_qntoken_des3_mac(d, 8, d, 24, o, 16); },
        [&](unsigned char* o) { crypto_qntoken_des3cbc_enc(d, 8, d, 24, o, 8); },
        [&](unsigned char* o) { crypto_qntoken_des3cbc_enc(d, 8, d, 16, o, 16); },
        [&](unsigned char* o) { crypto_qntoken_des3_enc(d, 8, d, 16, o, 8); },
        [&](unsigned char* o) { crypto_qntoken_des3_enc(d, 8, d, 24, o, 7); },
        [&](unsigned char* o) { crypto_athena_response(d, 0, d, 16, o, 16); },  // PIN
        [&](unsigned char* o) { crypto_athena_response(d, 4, d, 8, o, 16); },   // challenge
        [&](unsigned char* o) { crypto_athena_response(d, 4, d, 16, o, 8); },
        [&](unsigned char* o) { crypto_random(o, 0); },
    };
    for (const auto& call : calls) {
        TBytes out(40, 0xA5);
        call(out.data());
        EXPECT_EQ(out, TBytes(40, 0xA5)) << "call " << &call - calls;
    }
}

TEST_F(TokenCrypto, SecureMessagingEncryptionAndMacs) {
    for (size_t keyLen : {16u, 24u}) {
        const TBytes key = oracle::random(keyLen), iv = oracle::random(8);
        const char* name = keyLen == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC";
        for (size_t len : {0u, 3u, 8u, 21u}) {
            SCOPED_TRACE(::testing::Message() << keyLen << "/" << len);
            const TBytes data = oracle::random(len);
            TBytes out, athena, back(3, 0x11), mac;
            crypto_sm_enc(key, data, out, len ? iv : TBytes());
            EXPECT_EQ(out,
                      oracle::evp(name, key, len ? iv : TBytes(8, 0), oracle::isoPad(data), true));
            crypto_sm_enc_athena(key, data, athena, len ? iv : TBytes());
            EXPECT_EQ(athena, out);
            crypto_sm_dec(key, out, back, len ? iv : TBytes());
            EXPECT_EQ(back, data);
            crypto_sm_mac(key, data, mac);
            EXPECT_EQ(mac, oracle::des3CbcMac(key, oracle::isoPad(data)));
            crypto_sm_mac_athena(key, data, mac);
            EXPECT_EQ(mac, oracle::retailMac(key, oracle::isoPad(data)));
            crypto_sm_mac_pro(key, data, mac);
            EXPECT_EQ(mac, oracle::retailMac(key, oracle::zeroPad(data)));
        }
    }
    // Faults leave the output as it was: bad padding, partial block, 7-byte IV, 8-byte key.
    const TBytes key = oracle::random(24);
    const TBytes badPad =
        oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), hex("1122334455667788"), true);
    TBytes out(5, 0x42);
    for (const auto& [k, cipher, iv] :
         {std::tuple{key, badPad, TBytes()}, std::tuple{key, oracle::random(12), TBytes()},
          std::tuple{key, badPad, TBytes(7, 0)}, std::tuple{TBytes(8, 1), badPad, TBytes()}}) {
        rv = 0;
        crypto_sm_dec(k, cipher, out, iv);
        EXPECT_EQ(out, TBytes(5, 0x42));
    }
    crypto_sm_mac(TBytes(20, 1), {1, 2, 3}, out);
    EXPECT_EQ(out, TBytes(5, 0x42)) << "20-byte key";

    TBytes a(16, 0), b(16, 0);  // random bytes come from the toolkit
    time_t before, after;
    do {
        before = std::time(nullptr);
        crypto_random(a.data(), 16);
        qnCryptoRandomGenerate(nullptr, b.data(), 16);
        after = std::time(nullptr);
    } while (before != after);
    EXPECT_EQ(a, b);
}

}  // namespace
