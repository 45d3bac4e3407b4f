// The card recipes, each against a reference built from OpenSSL pieces.
#include "crypto/token_crypto.h"

#include <openssl/pkcs12.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "oracle.h"
#include "qncrypto.h"

using namespace libapdu;
using oracle::hex;

namespace {

// The recipes ignore the toolkit's status, but a failure stuck in rv changes
// what the toolkit computes; each case starts clean.
class TokenCrypto : public ::testing::Test {
protected:
    void SetUp() override { rv = 0; }
    void TearDown() override { rv = 0; }
};

TBytes md5(const TBytes& d) { return oracle::digest("MD5", d); }
TBytes cat(TBytes a, const TBytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_F(TokenCrypto, Md5IteratedAnd32) {
    const TBytes data = oracle::random(19);
    TBytes out(16, 0xA5);
    crypto_qntoken_md5_iterated(data.data(), data.size(), out.data(), 16, 0);
    EXPECT_EQ(out, TBytes(16, 0xA5)) << "0 iterations leave out as it was";
    crypto_qntoken_md5_iterated(data.data(), data.size(), out.data(), 16, 3);
    EXPECT_EQ(out, md5(md5(md5(data))));

    TBytes out32(32);
    crypto_qntoken_md5_32(data.data(), data.size(), nullptr, 0, out32.data(), 32);
    EXPECT_EQ(out32, cat(md5(data), md5(md5(data))));
}

// out[i] bit j = bit 7i + j of B, written here through a bit string.
TBytes md5_24Reference(const TBytes& pin) {
    const TBytes b = cat(md5(cat({0x00}, pin)), md5(cat({0x01}, pin)));
    std::string bits;
    for (unsigned char byte : b)
        for (int k = 0; k < 8; ++k) bits.push_back((byte >> k) & 1 ? '1' : '0');
    TBytes out;
    for (size_t i = 0; i < 24; ++i) {
        unsigned v = 0;
        for (size_t j = 0; j < 7; ++j)
            if (bits[7 * i + j] == '1') v += 1u << j;
        out.push_back(static_cast<unsigned char>(v));
    }
    return out;
}

TEST_F(TokenCrypto, Md5_24PacksSevenBitsPerByte) {
    for (size_t len : {0u, 1u, 4u, 8u, 63u, 64u}) {
        const TBytes pin = oracle::random(len);
        TBytes out(24, 0xFF);
        crypto_qntoken_md5_24(pin.data(), pin.size(), nullptr, 0, out.data(), 24);
        EXPECT_EQ(out, md5_24Reference(pin)) << len;
        for (unsigned char c : out) EXPECT_EQ(c & 0x80, 0);
    }
    // A fixed value guards against the reference and the code sharing a slip.
    const TBytes pin{'1', '2', '3', '4'};
    TBytes out(24);
    crypto_qntoken_md5_24(pin.data(), 4, nullptr, 0, out.data(), 24);
    const TBytes b0 = md5(TBytes{0x00, '1', '2', '3', '4'});
    EXPECT_EQ(out[0], b0[0] & 0x7F);
    EXPECT_EQ(out[1], ((b0[0] >> 7) | (b0[1] << 1)) & 0x7F);
}

TBytes pkcs12Reference(int id, const TBytes& pin, const TBytes& salt) {
    TBytes bmp;
    for (unsigned char c : pin) bmp.insert(bmp.end(), {0, c});
    bmp.insert(bmp.end(), {0, 0});
    TBytes out(24);
    PKCS12_key_gen_uni(bmp.data(), static_cast<int>(bmp.size()),
                       const_cast<unsigned char*>(salt.data()), 20, id, 999, 24, out.data(),
                       EVP_sha1());
    return out;
}

TEST_F(TokenCrypto, PinKeysArePkcs12With999Iterations) {
    for (int id : {1, 3, 0x103}) {
        const TBytes pin = oracle::random(static_cast<size_t>(4 + id % 5)),
                     salt = oracle::random(20);
        TBytes java(24), pro(24);
        crypto_qntoken_java_sha1(id, pin.data(), pin.size(), salt.data(), 20, java.data(), 24);
        crypto_qntoken_pro_sha1(id, pin.data(), pin.size(), salt.data(), 20, pro.data(), 24);
        EXPECT_EQ(java, pkcs12Reference(id & 0xFF, pin, salt)) << id;
        EXPECT_EQ(pro, java);
    }
}

TEST_F(TokenCrypto, Des3MacPadsOnlyUnalignedData) {
    const TBytes key = oracle::random(24);
    const TBytes eight = oracle::random(8);
    TBytes mac(8);
    crypto_qntoken_des3_mac(eight.data(), 8, key.data(), 24, mac.data(), 8);
    EXPECT_EQ(mac, oracle::evp("DES-EDE3-ECB", key, {}, eight, true))
        << "one block: one encryption";

    const TBytes nine = oracle::random(9);
    crypto_qntoken_des3_mac(nine.data(), 9, key.data(), 24, mac.data(), 8);
    EXPECT_EQ(mac, oracle::des3CbcMac(key, oracle::zeroPad(nine)));
}

TEST_F(TokenCrypto, SingleBlockEncryptions) {
    const TBytes key16 = oracle::random(16), key24 = oracle::random(24), block = oracle::random(8);
    TBytes out(8);
    crypto_qntoken_des3cbc_enc(block.data(), 3, key16.data(), 16, out.data(), 8);
    EXPECT_EQ(out, oracle::evp("DES-EDE-ECB", key16, {}, block, true)) << "dataLen is ignored";
    crypto_qntoken_des3_enc(block.data(), 100, key24.data(), 24, out.data(), 8);
    EXPECT_EQ(out, oracle::evp("DES-EDE3-ECB", key24, {}, block, true));
}

TEST_F(TokenCrypto, AthenaResponse) {
    const TBytes pin{'0', '0', '0', '0', '0', '0'}, challenge = oracle::random(16);
    TBytes out(16);
    crypto_athena_response(pin.data(), pin.size(), challenge.data(), 16, out.data(), 16);
    const TBytes d = oracle::digest("SHA1", pin);
    const TBytes k(d.begin(), d.begin() + 16);
    EXPECT_EQ(out, oracle::evp("DES-EDE-CBC", k, TBytes(8, 0), challenge, true));
}

// Every raw-buffer recipe with each wrong length leaves the buffer as it was.
TEST_F(TokenCrypto, WrongLengthsLeaveOutputUntouched) {
    const TBytes big = oracle::random(64);
    const unsigned char* d = big.data();
    struct Case {
        const char* name;
        size_t outSize;
        std::function<void(unsigned char*)> call;
    };
    const Case cases[] = {
        {"md5_iterated out 15", 32,
         [&](unsigned char* o) { crypto_qntoken_md5_iterated(d, 8, o, 15, 1); }},
        {"md5_iterated out 17", 32,
         [&](unsigned char* o) { crypto_qntoken_md5_iterated(d, 8, o, 17, 1); }},
        {"md5_32 out 31", 40, [&](unsigned char* o) { crypto_qntoken_md5_32(d, 8, d, 8, o, 31); }},
        {"md5_24 out 23", 32, [&](unsigned char* o) { crypto_qntoken_md5_24(d, 8, d, 8, o, 23); }},
        {"md5_24 out 25", 32, [&](unsigned char* o) { crypto_qntoken_md5_24(d, 8, d, 8, o, 25); }},
        {"pro_sha1 salt 19", 32,
         [&](unsigned char* o) { crypto_qntoken_pro_sha1(1, d, 4, d, 19, o, 24); }},
        {"pro_sha1 salt 21", 32,
         [&](unsigned char* o) { crypto_qntoken_pro_sha1(1, d, 4, d, 21, o, 24); }},
        {"java_sha1 out 20", 32,
         [&](unsigned char* o) { crypto_qntoken_java_sha1(3, d, 4, d, 20, o, 20); }},
        {"des3_mac key 16", 16,
         [&](unsigned char* o) { crypto_qntoken_des3_mac(d, 8, d, 16, o, 8); }},
        {"des3_mac out 16", 16,
         [&](unsigned char* o) { crypto_qntoken_des3_mac(d, 8, d, 24, o, 16); }},
        {"des3cbc_enc key 24", 16,
         [&](unsigned char* o) { crypto_qntoken_des3cbc_enc(d, 8, d, 24, o, 8); }},
        {"des3cbc_enc out 16", 16,
         [&](unsigned char* o) { crypto_qntoken_des3cbc_enc(d, 8, d, 16, o, 16); }},
        {"des3_enc key 16", 16,
         [&](unsigned char* o) { crypto_qntoken_des3_enc(d, 8, d, 16, o, 8); }},
        {"des3_enc out 7", 16,
         [&](unsigned char* o) { crypto_qntoken_des3_enc(d, 8, d, 24, o, 7); }},
        {"athena empty pin", 16,
         [&](unsigned char* o) { crypto_athena_response(d, 0, d, 16, o, 16); }},
        {"athena challenge 8", 16,
         [&](unsigned char* o) { crypto_athena_response(d, 4, d, 8, o, 16); }},
        {"athena out 8", 16, [&](unsigned char* o) { crypto_athena_response(d, 4, d, 16, o, 8); }},
        {"random length 0", 16, [&](unsigned char* o) { crypto_random(o, 0); }},
    };
    for (const auto& c : cases) {
        TBytes out(c.outSize, 0xA5);
        c.call(out.data());
        EXPECT_EQ(out, TBytes(c.outSize, 0xA5)) << c.name;
    }
}

TEST_F(TokenCrypto, SmEncryptionUsesIsoPadding) {
    for (size_t keyLen : {16u, 24u}) {
        const TBytes key = oracle::random(keyLen), iv = oracle::random(8);
        const char* name = keyLen == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC";
        TBytes out;
        crypto_sm_enc(key, {}, out, {});
        EXPECT_EQ(out, oracle::evp(name, key, TBytes(8, 0), hex("8000000000000000"), true))
            << "empty data";
        for (size_t len : {1u, 7u, 8u, 20u}) {
            const TBytes data = oracle::random(len);
            crypto_sm_enc(key, data, out, iv);
            EXPECT_EQ(out, oracle::evp(name, key, iv, oracle::isoPad(data), true)) << len;
            TBytes athena;
            crypto_sm_enc_athena(key, data, athena, iv);
            EXPECT_EQ(athena, out);
            TBytes back(3, 0x11);
            crypto_sm_dec(key, out, back, iv);
            EXPECT_EQ(back, data) << len;
        }
    }
}

TEST_F(TokenCrypto, SmDecryptFaultsLeaveOutAsItWas) {
    const TBytes key = oracle::random(24);
    const TBytes badPad =
        oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), hex("1122334455667788"), true);
    TBytes out(5, 0x42);
    crypto_sm_dec(key, badPad, out, {});
    EXPECT_EQ(out, TBytes(5, 0x42));
    rv = 0;
    crypto_sm_dec(key, oracle::random(12), out, {});
    EXPECT_EQ(out, TBytes(5, 0x42)) << "not a whole number of blocks";
    rv = 0;
    crypto_sm_dec(key, badPad, out, TBytes(7, 0));
    EXPECT_EQ(out, TBytes(5, 0x42)) << "7-byte iv";
    crypto_sm_dec(TBytes(8, 1), badPad, out, {});
    EXPECT_EQ(out, TBytes(5, 0x42)) << "8-byte key";
    rv = 0;
}

TEST_F(TokenCrypto, SmMacVariants) {
    for (size_t keyLen : {16u, 24u}) {
        const TBytes key = oracle::random(keyLen);
        for (size_t len : {3u, 8u, 16u, 21u}) {
            SCOPED_TRACE(::testing::Message() << keyLen << "/" << len);
            const TBytes data = oracle::random(len);
            TBytes mac;
            crypto_sm_mac(key, data, mac);
            EXPECT_EQ(mac, oracle::des3CbcMac(key, oracle::isoPad(data)));
            crypto_sm_mac_athena(key, data, mac);
            EXPECT_EQ(mac, oracle::retailMac(key, oracle::isoPad(data)));
            crypto_sm_mac_pro(key, data, mac);
            EXPECT_EQ(mac, oracle::retailMac(key, oracle::zeroPad(data)));
        }
        TBytes untouched(2, 9);
        crypto_sm_mac(TBytes(20, 1), {1, 2, 3}, untouched);
        EXPECT_EQ(untouched, TBytes(2, 9));
    }
}

TEST_F(TokenCrypto, RandomFillsFromTheToolkit) {
    TBytes a(16, 0), b(16, 0);
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
