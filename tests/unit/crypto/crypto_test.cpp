// MD5 and SHA-1 against published vectors; the qn* toolkit (DES inside) against
// OpenSSL, with its padding, size queries and sticky rv; the recipes; RSA
// helpers; big integers against OpenSSL's BIGNUM.
#include <openssl/bn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "crypto/primitives.h"
#include "crypto/rsa_helpers.h"
#include "crypto/token_crypto.h"
#include "crypto/vlong.h"
#include "qncrypto.h"
#include "unit/scripted_sender.h"

namespace {

using krfs_test::cat;
using krfs_test::hex;
using namespace libapdu;

TEST(Primitives, HashesMatchPublishedVectorsHoweverTheDataIsCut) {
    const std::pair<std::string, const char*> hashes[] = {
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"}};
    for (const auto& [message, expected] : hashes) {
        TBytes m(message.begin(), message.end()), out(hex(expected).size());
        for (size_t cut = 0; cut <= m.size(); ++cut) {
            libapdu::SHAstate_st sha;
            libapdu::MD5_CTX md5;
            if (out.size() == 20) {
                SHA1_Init(&sha);
                SHA1_Update(&sha, m.data(), cut);
                SHA1_Update(&sha, m.data() + cut, m.size() - cut);
                SHA1_Final(out.data(), &sha);
            } else {
                MD5Init(&md5);
                MD5Update(&md5, m.data(), static_cast<unsigned>(cut));
                MD5Update(&md5, m.data() + cut, static_cast<unsigned>(m.size() - cut));
                MD5Final(out.data(), &md5);
                const unsigned char* raw = reinterpret_cast<const unsigned char*>(&md5);
                EXPECT_TRUE(std::all_of(raw, raw + sizeof md5, [](unsigned char c) { return !c; }))
                    << "MD5Final wipes its context";
            }
            EXPECT_EQ(out, hex(expected)) << message << " cut at " << cut;
        }
    }
}

constexpr uint32_t kArg = QN_CRYPTO_E_ARGUMENT, kPad = QN_CRYPTO_E_PADDING,
                   kLen = QN_CRYPTO_E_LENGTH;

// A failure stuck in rv changes what the toolkit computes; each case starts clean.
struct Toolkit : ::testing::Test {
    void SetUp() override { rv = 0; }
    void TearDown() override { rv = 0; }
};

// CBC in pieces of `step` bytes, then the final call. Each size query must
// announce what the call then writes, except where decryption's query leaves
// out the waiting block that more input releases, and mode 3's final one more.
TBytes cbc(const TBytes& key, const TBytes& iv, const TBytes& data, uint32_t direction, int mode,
           size_t step, uint32_t* status) {
    qnCryptoContext ctx;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, direction, key.data(), static_cast<int>(key.size()),
                    iv.empty() ? nullptr : iv.data(), static_cast<int>(iv.size()));
    TBytes out(data.size() + 16);
    size_t at = 0, written = 0;
    int n = 0, size = -1;
    for (; data.size() - at > step; at += step, written += static_cast<size_t>(n)) {
        qnCryptoCbc(&ctx, data.data() + at, static_cast<int>(step), nullptr, &size);
        qnCryptoCbc(&ctx, data.data() + at, static_cast<int>(step), out.data() + written, &n);
        EXPECT_TRUE(direction || size == n);
    }
    const int rest = static_cast<int>(data.size() - at);
    qnCryptoCbcFinal(&ctx, data.data() + at, rest, mode, nullptr, &size);
    *status = qnCryptoCbcFinal(&ctx, data.data() + at, rest, mode, out.data() + written, &n);
    if (*status == 0 && mode != QN_PAD_ZERO) {
        EXPECT_EQ(size, n) << "final size query";
    }
    out.resize(written + static_cast<size_t>(n));
    qnCryptoFree(&ctx);
    rv = 0;
    return out;
}

// The plaintext that each encrypting padding mode produces.
TBytes padded(TBytes data, int mode) {
    const size_t rest = data.size() % 8;
    if (mode == QN_PAD_PKCS5)
        data.insert(data.end(), 8 - rest, static_cast<unsigned char>(8 - rest));
    return mode == QN_PAD_ISO ? oracle::isoPad(data) : oracle::zeroPad(data);
}

TEST_F(Toolkit, TripleDesMatchesOpenSslForBothKeySizesInAnyPiecesAndPaddings) {
    for (size_t keyLen : {16u, 24u}) {
        for (size_t step : {1u, 3u, 8u, 13u}) {
            for (int mode : {QN_PAD_NONE, QN_PAD_PKCS5, QN_PAD_ISO, QN_PAD_ZERO}) {
                for (size_t len : {0u, 7u, 8u, 17u, 32u}) {
                    SCOPED_TRACE(testing::Message()
                                 << keyLen << "/" << step << "/" << mode << "/" << len);
                    const TBytes key = oracle::random(keyLen), data = oracle::random(len);
                    const TBytes iv = step == 3 ? TBytes() : oracle::random(8);  // null: zeros
                    uint32_t status = 0;
                    const TBytes c = cbc(key, iv, data, 0, mode, step, &status);
                    if (mode == QN_PAD_NONE && len % 8) {
                        EXPECT_EQ(status, kLen);
                        continue;
                    }
                    EXPECT_EQ(
                        c, oracle::evp(keyLen == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC", key,
                                       iv.empty() ? TBytes(8, 0) : iv, padded(data, mode), true));
                    const TBytes back = cbc(key, iv, c, 1, mode, step, &status);
                    if (mode == QN_PAD_ZERO || c.empty()) {
                        EXPECT_EQ(status, mode == QN_PAD_ZERO ? kArg : kLen)
                            << "mode 3, or nothing to decrypt";
                    } else {
                        EXPECT_EQ(back, data);
                    }
                }
            }
        }
    }
    const TBytes key = oracle::random(24);  // decryption checks the padding of the last block
    const std::pair<const char*, int> badPadding[] = {
        {"1122334455667708", QN_PAD_PKCS5},  // 08 but not eight of them
        {"0000000000000000", QN_PAD_ISO},    // all zero
        {"1122334455810000", QN_PAD_ISO}};   // not 80 before the zeros
    for (const auto& [last, mode] : badPadding) {
        const TBytes plain = cat({oracle::random(8), hex(last)});
        uint32_t status = 0;
        cbc(key, {}, oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), plain, true), 1, mode, 16,
            &status);
        EXPECT_EQ(status, kPad) << last;
    }
}

TEST_F(Toolkit, AFailureSticksAndOnlyTheCbcCoresStoreAFreshResult) {
    qnCryptoContext ctx;
    const TBytes data = oracle::random(40), key = oracle::random(24);
    const unsigned char* k = key.data();
    TBytes out(24, 0xEE);
    int n = 0;
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, k, 8), kArg) << "8-byte key";
    EXPECT_EQ(qnCryptoHashInit(&ctx, qnCryptoAlgSHA1), kArg);
    EXPECT_EQ(qnCryptoHashUpdate(&ctx, data.data(), 40), kArg);
    EXPECT_EQ(qnCryptoHashResult(&ctx, out.data(), &n), kArg);
    EXPECT_EQ(TBytes(out.begin(), out.begin() + 20), oracle::digest("SHA1", data)) << "still done";
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, k, 24);
    EXPECT_EQ(qnCryptoEcb(&ctx, data.data(), 12, out.data()), kLen) << "no whole block";
    rv = kPad;  // ECB stops after its first block
    out.assign(24, 0xEE);
    EXPECT_EQ(qnCryptoEcb(&ctx, data.data(), 24, out.data()), kPad);
    const TBytes first(data.begin(), data.begin() + 8);
    EXPECT_EQ(out, cat({oracle::evp("DES-EDE3-ECB", key, {}, first, true), TBytes(16, 0xEE)}));
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, k, 24, nullptr, 0);
    rv = kArg;  // three bytes complete no block: the core's own 0 is stored
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 3, out.data(), &n), 0u);
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, k, 24, nullptr, 0);
    rv = kArg;  // a completed block comes back with the old code, unwritten
    out.assign(16, 0xEE);
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 8, out.data(), &n), kArg);
    EXPECT_EQ(out, TBytes(16, 0xEE));
    rv = 0;  // and refusals of bad arguments
    EXPECT_EQ(qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, k, 24, k, 7), kArg) << "7-byte IV";
    rv = 0;
    EXPECT_EQ(qnZeroMemory(nullptr, 4), kArg);
    EXPECT_EQ(rv, 0u) << "qnZeroMemory reports without storing";
    qnCryptoFree(&ctx);
}

TEST(TokenCrypto, RecipesWithWrongLengthsLeaveTheOutputUntouched) {
    rv = 0;  // the recipes' values come with the component tests against the card model
    const TBytes data = oracle::random(19);
    const unsigned char* p = data.data();
    TBytes untouched(40, 0xA5);
    crypto_qntoken_md5_24(p, 8, p, 8, untouched.data(), 25);
    crypto_qntoken_pro_sha1(1, p, 4, p, 19, untouched.data(), 24);  // salt
    crypto_qntoken_des3_mac(p, 8, p, 16, untouched.data(), 8);      // key
    crypto_athena_response(p, 4, p, 8, untouched.data(), 16);       // challenge
    EXPECT_EQ(untouched, TBytes(40, 0xA5));
}

using namespace krfs_test;

// A certificate skeleton, SEQ { SEQ { [0] INT SEQ SEQ SEQ SEQ SEQ { SEQ BITSTRING
// { SEQ { INT modulus INT 3 } } } } }, around a four-byte modulus.
TBytes certificate(const char* modulus) {
    return hex("30 24 30 22 A003020102 020101 3000 3000 3000 3000 30 10 3000 03 0C 00 30 09 02 04" +
               std::string(modulus) + "020103");
}

TEST(RsaHelpers, ModulusOfACertificateAndEveryCutOneIsRefused) {
    EXPECT_EQ(extractPublicKeyFromCert(certificate("00C11223")), hex("C11223"));
    // Without the leading zero the first byte is dropped all the same.
    EXPECT_EQ(extractPublicKeyFromCert(certificate("7F112233")), hex("112233"));
    const TBytes der = certificate("00C11223");
    for (size_t n = 0; n < der.size(); ++n) {
        const TBytes cut(der.begin(), der.begin() + n);
        EXPECT_EQ(failureCode([&] { extractPublicKeyFromCert(cut); }), code(0x6281)) << n;
    }
    EXPECT_EQ(failureCode([] { extractPublicKeyFromCert(hex("3080")); }), code(0x6281));

    const std::pair<const char*, bool> below8000[] = {
        {"7FFF", true}, {"8000", false}, {"00", false}, {"8001", false}};
    for (const auto& [data, valid] : below8000)
        EXPECT_EQ(isValidDataForRSA(hex("8000"), hex(data)), valid) << data;
    for (size_t len : {0u, 60u, 125u}) {
        const TBytes data = oracle::random(len);
        TBytes d = data;
        pkcs1pad(d, len == 125 ? 128 : 64);
        EXPECT_EQ(d.size(), len == 125 ? 128u : 64u) << len;
        EXPECT_EQ(TBytes(d.begin(), d.begin() + 2), hex("0002"));
        EXPECT_EQ(d[d.size() - len - 1], 0x00) << "separator";
        EXPECT_EQ(TBytes(d.end() - len, d.end()), data);
        for (size_t i = 2; i + len + 1 < d.size(); ++i) EXPECT_LT(d[i], 255) << "rand() % 255";
    }
    TBytes any{1};
    EXPECT_EQ(failureCode([&] { pkcs1pad(any, 0); }), code(0x6B00));
}

using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

Bn randomBn(int bits, int bottom = BN_RAND_BOTTOM_ANY) {
    Bn b(BN_new(), BN_free);
    BN_rand(b.get(), bits, BN_RAND_TOP_ANY, bottom);
    return b;
}

TBytes bytesOf(const BIGNUM* b) {
    TBytes out(static_cast<size_t>(BN_num_bytes(b)));
    BN_bn2bin(b, out.data());
    return out;
}

vlong fromBn(const BIGNUM* b) {
    const TBytes bytes = bytesOf(b);
    return vlong(bytes.data(), static_cast<unsigned>(bytes.size()));
}

// The magnitude as minimal big-endian bytes.
TBytes bytesOf(const vlong& v) {
    TBytes out(v.size());
    v.to_hex(out.data(), static_cast<unsigned>(out.size()));
    size_t skip = 0;
    while (skip < out.size() && out[skip] == 0) ++skip;
    return TBytes(out.begin() + static_cast<long>(skip), out.end());
}

TEST(Vlong, ArithmeticAndModexpMatchBignum) {
    BN_CTX* ctx = BN_CTX_new();
    Bn r(BN_new(), BN_free);
    for (int round = 0; round < 60; ++round) {
        const int bits = 8 + round * 17;
        const Bn a = randomBn(bits), b = randomBn(bits / 2 + 1);
        const vlong x = fromBn(a.get()), y = fromBn(b.get());
        SCOPED_TRACE(bits);
        BN_add(r.get(), a.get(), b.get());
        EXPECT_EQ(bytesOf(x + y), bytesOf(r.get()));
        BN_sub(r.get(), a.get(), b.get());
        EXPECT_EQ(bytesOf(x - y), bytesOf(r.get()));
        EXPECT_EQ((x - y).is_neg(), BN_is_negative(r.get()) != 0);
        BN_mul(r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(x * y), bytesOf(r.get()));
        if (!BN_is_zero(b.get())) {
            BN_div(r.get(), nullptr, a.get(), b.get(), ctx);
            EXPECT_EQ(bytesOf(x / y), bytesOf(r.get()));
            BN_mod(r.get(), a.get(), b.get(), ctx);
            EXPECT_EQ(bytesOf(x % y), bytesOf(r.get()));
        }
        BN_lshift(r.get(), a.get(), round % 70);
        EXPECT_EQ(bytesOf(x << static_cast<unsigned>(round % 70)), bytesOf(r.get()));
        BN_rshift(r.get(), a.get(), round % 70);
        EXPECT_EQ(bytesOf(x >> static_cast<unsigned>(round % 70)), bytesOf(r.get()));

        // Odd moduli take the Montgomery path, even ones the plain one.
        for (int bottom : {BN_RAND_BOTTOM_ODD, BN_RAND_BOTTOM_ANY}) {
            const int mbits = round % 8 == 0 ? 2048 : 16 + round * 9;
            const Bn m = randomBn(mbits, bottom), e = randomBn(round % 3 == 0 ? 17 : 64);
            if (BN_is_zero(m.get()) || BN_is_one(m.get())) continue;
            BN_mod_exp(r.get(), a.get(), e.get(), m.get(), ctx);
            EXPECT_EQ(bytesOf(modexp(x, fromBn(e.get()), fromBn(m.get()))), bytesOf(r.get()))
                << "modulus of " << mbits << " bits, bottom " << bottom;
            BN_mod(r.get(), a.get(), m.get(), ctx);
            if (bottom == BN_RAND_BOTTOM_ODD && !BN_is_zero(r.get()) &&
                BN_mod_inverse(r.get(), r.get(), m.get(), ctx) != nullptr) {
                EXPECT_EQ(bytesOf(modinv(x % fromBn(m.get()), fromBn(m.get()))), bytesOf(r.get()));
            }
        }
    }
    BN_CTX_free(ctx);
}

TEST(Vlong, EdgesTheClassDefines) {
    const unsigned char five[] = {1, 2, 3, 4, 5};
    const vlong v(five, 5);
    unsigned char small[4] = {0xCC, 0xCC, 0xCC, 0xCC};
    v.to_hex(small, 4);
    EXPECT_EQ(TBytes(small, small + 4), TBytes(4, 0)) << "too small a buffer stays zero";
    EXPECT_EQ(static_cast<unsigned>(v), 0x02030405u);
    EXPECT_TRUE(vlong(nullptr, 0).is_zero());
    EXPECT_EQ(bytesOf(modexp(v, vlong(0), vlong(7))), TBytes{1});
    EXPECT_TRUE(modexp(v, vlong(3), vlong(0)).is_zero());
    EXPECT_EQ(bytesOf(v / vlong(0)), TBytes{}) << "a zero divisor gives quotient 0";
    EXPECT_EQ(bytesOf(v % vlong(0)), bytesOf(v)) << "and the dividend as remainder";
}

}  // namespace
