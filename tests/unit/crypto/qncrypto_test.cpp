// The qn* toolkit: triple DES and MACs against OpenSSL, padding modes, size
// queries, the sticky rv, PKCS #12 and the random generator.
#include "qncrypto.h"

#include <openssl/pkcs12.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "oracle.h"

using oracle::hex;

namespace {

constexpr uint32_t kArg = QN_CRYPTO_E_ARGUMENT, kPad = QN_CRYPTO_E_PADDING,
                   kLen = QN_CRYPTO_E_LENGTH;

class Toolkit : public ::testing::Test {
protected:
    void SetUp() override { rv = 0; }
    void TearDown() override { rv = 0; }
};

const char* cbcName(size_t keyLen) { return keyLen == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC"; }
const char* ecbName(size_t keyLen) { return keyLen == 16 ? "DES-EDE-ECB" : "DES-EDE3-ECB"; }

TBytes ecb(const TBytes& key, const TBytes& data, uint32_t direction) {
    qnCryptoContext ctx;
    TBytes out(data.size());
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, direction, key.data(), static_cast<int>(key.size()));
    qnCryptoEcb(&ctx, data.data(), static_cast<int>(data.size()), out.data());
    qnCryptoFree(&ctx);
    return out;
}

// CBC through qnCryptoCbc in pieces of `step` bytes, then qnCryptoCbcFinal.
TBytes cbc(const TBytes& key, const TBytes& iv, const TBytes& data, uint32_t direction, int padding,
           size_t step, uint32_t* status = nullptr) {
    qnCryptoContext ctx;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, direction, key.data(), static_cast<int>(key.size()),
                    iv.empty() ? nullptr : iv.data(), static_cast<int>(iv.size()));
    TBytes out(data.size() + 16);
    size_t at = 0, written = 0;
    while (data.size() - at > step) {
        int n = 0;
        qnCryptoCbc(&ctx, data.data() + at, static_cast<int>(step), out.data() + written, &n);
        at += step;
        written += static_cast<size_t>(n);
    }
    int n = 0;
    uint32_t r = qnCryptoCbcFinal(&ctx, data.data() + at, static_cast<int>(data.size() - at),
                                  padding, out.data() + written, &n);
    if (status != nullptr) *status = r;
    written += static_cast<size_t>(n);
    out.resize(written);
    qnCryptoFree(&ctx);
    return out;
}

TEST_F(Toolkit, TripleDesEcbMatchesOpenSsl) {
    for (size_t keyLen : {16u, 24u}) {
        for (int round = 0; round < 20; ++round) {
            const TBytes key = oracle::random(keyLen);
            const TBytes data = oracle::random(8 * (1 + round % 7));
            const TBytes c = ecb(key, data, QN_CRYPTO_ENCRYPT);
            EXPECT_EQ(c, oracle::evp(ecbName(keyLen), key, {}, data, true)) << keyLen;
            EXPECT_EQ(ecb(key, c, QN_CRYPTO_DECRYPT), data);
        }
    }
    EXPECT_EQ(rv, 0u);
}

TEST_F(Toolkit, TripleDesKnownAnswer) {
    // NIST SP 800-67 example: three distinct keys.
    const TBytes key = hex("0123456789ABCDEF23456789ABCDEF01456789ABCDEF0123");
    const TBytes plain =
        hex("5468652071756663"
            "6B2062726F776E20"
            "666F78206A756D70");
    EXPECT_EQ(ecb(key, plain, QN_CRYPTO_ENCRYPT), hex("A826FD8CE53B855F"
                                                      "CCE21C8112256FE6"
                                                      "68D5C05DD9B6B900"));
}

TEST_F(Toolkit, SixteenByteKeyReusesK1AsK3) {
    const TBytes key16 = oracle::random(16);
    TBytes key24 = key16;
    key24.insert(key24.end(), key16.begin(), key16.begin() + 8);
    const TBytes data = oracle::random(32);
    EXPECT_EQ(ecb(key16, data, QN_CRYPTO_ENCRYPT), ecb(key24, data, QN_CRYPTO_ENCRYPT));
}

TEST_F(Toolkit, TripleDesCbcMatchesOpenSslInAnyPieces) {
    for (size_t keyLen : {16u, 24u}) {
        for (size_t step : {1u, 3u, 8u, 13u, 64u}) {
            const TBytes key = oracle::random(keyLen), iv = oracle::random(8);
            const TBytes data = oracle::random(8 * (3 + step % 5));
            const TBytes c = cbc(key, iv, data, QN_CRYPTO_ENCRYPT, QN_PAD_NONE, step);
            EXPECT_EQ(c, oracle::evp(cbcName(keyLen), key, iv, data, true))
                << keyLen << "/" << step;
            EXPECT_EQ(cbc(key, iv, c, QN_CRYPTO_DECRYPT, QN_PAD_NONE, step), data) << step;
        }
    }
    EXPECT_EQ(rv, 0u);
}

TEST_F(Toolkit, NullIvMeansZeros) {
    const TBytes key = oracle::random(24), data = oracle::random(24);
    EXPECT_EQ(cbc(key, {}, data, QN_CRYPTO_ENCRYPT, QN_PAD_NONE, 24),
              oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), data, true));
}

// The plaintext that each encrypting padding mode produces.
TBytes padded(TBytes data, int mode) {
    const size_t rest = data.size() % 8;
    switch (mode) {
        case QN_PAD_PKCS5:
            data.insert(data.end(), 8 - rest, static_cast<unsigned char>(8 - rest));
            return data;
        case QN_PAD_ISO:
            return oracle::isoPad(data);
        case QN_PAD_ZERO:
            return oracle::zeroPad(data);
        default:
            return data;
    }
}

TEST_F(Toolkit, PaddingModesOnAlignedAndUnalignedData) {
    const TBytes key = oracle::random(24), iv = oracle::random(8);
    for (int mode : {QN_PAD_NONE, QN_PAD_PKCS5, QN_PAD_ISO, QN_PAD_ZERO}) {
        for (size_t len = 0; len <= 17; ++len) {
            SCOPED_TRACE(::testing::Message() << "mode " << mode << " length " << len);
            rv = 0;
            const TBytes data = oracle::random(len);
            uint32_t status = 0;
            const TBytes c = cbc(key, iv, data, QN_CRYPTO_ENCRYPT, mode, 5, &status);
            if (mode == QN_PAD_NONE && len % 8 != 0) {
                EXPECT_EQ(status, kLen);
                continue;
            }
            ASSERT_EQ(status, 0u);
            EXPECT_EQ(c, oracle::evp("DES-EDE3-CBC", key, iv, padded(data, mode), true));
            if (mode == QN_PAD_ZERO) continue;  // not removable
            const TBytes back = cbc(key, iv, c, QN_CRYPTO_DECRYPT, mode, 5, &status);
            if (c.empty()) {
                EXPECT_EQ(status, kLen) << "decrypting nothing has no final block";
                continue;
            }
            EXPECT_EQ(back, data);
            EXPECT_EQ(status, 0u);
        }
    }
}

TEST_F(Toolkit, ExactBlockGainsAWholeBlockOnlyWhereTheModeSaysSo) {
    const TBytes key = oracle::random(16), data = oracle::random(8);
    EXPECT_EQ(cbc(key, {}, data, 0, QN_PAD_PKCS5, 8).size(), 16u);
    EXPECT_EQ(cbc(key, {}, data, 0, QN_PAD_ISO, 8).size(), 16u);
    EXPECT_EQ(cbc(key, {}, data, 0, QN_PAD_ZERO, 8).size(), 8u);
    // The whole added block for PKCS #5 is eight 08 bytes.
    const TBytes c = cbc(key, {}, data, 0, QN_PAD_PKCS5, 8);
    const TBytes plain = cbc(key, {}, c, 1, QN_PAD_NONE, 16);
    EXPECT_EQ(TBytes(plain.begin() + 8, plain.end()), TBytes(8, 0x08));
}

TEST_F(Toolkit, DecryptPaddingChecks) {
    const TBytes key = oracle::random(24);
    struct Case {
        const char* lastBlock;
        int mode;
        uint32_t status;
        size_t kept;  // plaintext bytes kept of this block
    };
    const Case cases[] = {
        {"1122334455667708", QN_PAD_PKCS5, kPad, 0},  // 08 but not eight of them
        {"0808080808080808", QN_PAD_PKCS5, 0, 0},
        {"1122334455030303", QN_PAD_PKCS5, 0, 5},
        {"1122334455660909", QN_PAD_PKCS5, kPad, 0},  // count above the block
        {"1122334455667700", QN_PAD_PKCS5, 0, 8},     // 00 passes as no padding
        {"1122334455800000", QN_PAD_ISO, 0, 5},
        {"8000000000000000", QN_PAD_ISO, 0, 0},
        {"1122334455667780", QN_PAD_ISO, 0, 7},
        {"0000000000000000", QN_PAD_ISO, kPad, 0},  // all zero
        {"1122334455810000", QN_PAD_ISO, kPad, 0},  // not 80 before the zeros
        {"1122334455667788", QN_PAD_NONE, 0, 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lastBlock);
        rv = 0;
        const TBytes first = oracle::random(8);
        TBytes plain = first;
        const TBytes last = hex(c.lastBlock);
        plain.insert(plain.end(), last.begin(), last.end());
        const TBytes cipher = oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), plain, true);
        uint32_t status = 0;
        const TBytes out = cbc(key, {}, cipher, QN_CRYPTO_DECRYPT, c.mode, 16, &status);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(rv, c.status);
        if (c.status == 0) {
            EXPECT_EQ(out, TBytes(plain.begin(), plain.begin() + 8 + static_cast<long>(c.kept)));
        }
    }
}

TEST_F(Toolkit, DecryptFinalNeedsAWaitingBlockAndNoMode3) {
    const TBytes key = oracle::random(24);
    qnCryptoContext ctx;
    unsigned char out[16];
    int n = 0;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 1, key.data(), 24, nullptr, 0);
    EXPECT_EQ(qnCryptoCbcFinal(&ctx, nullptr, 0, QN_PAD_ISO, out, &n), kLen) << "empty input";
    rv = 0;
    const TBytes c = oracle::random(12);
    EXPECT_EQ(qnCryptoCbcFinal(&ctx, c.data(), 12, QN_PAD_NONE, out, &n), kLen) << "partial block";
    rv = 0;
    EXPECT_EQ(qnCryptoCbcFinal(&ctx, c.data(), 8, QN_PAD_ZERO, out, &n), kArg);
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, SizeQueriesMatchWhatIsWrittenAndChangeNothing) {
    const TBytes key = oracle::random(24);
    for (uint32_t dir : {0u, 1u}) {
        for (int mode : {QN_PAD_NONE, QN_PAD_PKCS5, QN_PAD_ISO}) {
            for (size_t held : {0u, 3u, 8u}) {
                for (size_t len : {0u, 5u, 8u, 16u, 21u}) {
                    SCOPED_TRACE(::testing::Message() << "dir " << dir << " mode " << mode
                                                      << " held " << held << " len " << len);
                    rv = 0;
                    TBytes data = oracle::random(held + len);
                    if (dir == 1) {
                        // Valid ciphertext of whole blocks for the final step.
                        if ((held + len) % 8 != 0 || held + len == 0) continue;
                        // Valid padding for modes 1 and 2: ... 02 02, or ... 02 80.
                        TBytes plain = oracle::random(held + len);
                        plain[plain.size() - 2] = 0x02;
                        plain.back() = mode == QN_PAD_ISO ? 0x80 : 0x02;
                        data = oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), plain, true);
                    }
                    qnCryptoContext ctx;
                    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, dir, key.data(), 24, nullptr, 0);
                    TBytes out(data.size() + 16);
                    int n = 0;
                    qnCryptoCbc(&ctx, data.data(), static_cast<int>(held), out.data(), &n);
                    int quick = -1, size = -1;
                    const uint32_t q1 = qnCryptoCbc(&ctx, data.data() + held, static_cast<int>(len),
                                                    nullptr, &quick);
                    const uint32_t q2 = qnCryptoCbcFinal(
                        &ctx, data.data() + held, static_cast<int>(len), mode, nullptr, &size);
                    EXPECT_EQ(q1, 0u);
                    if (mode == QN_PAD_NONE && (held + len) % 8 != 0) {
                        EXPECT_EQ(q2, kLen);
                        qnCryptoFree(&ctx);
                        continue;
                    }
                    ASSERT_EQ(q2, 0u);
                    const uint32_t status = qnCryptoCbcFinal(
                        &ctx, data.data() + held, static_cast<int>(len), mode, out.data(), &n);
                    ASSERT_EQ(status, 0u);
                    EXPECT_EQ(size, n) << "final size query";
                    // Bytes held in the context after the first call.
                    const int pos = static_cast<int>(
                        dir == 0 || held % 8 != 0 ? held % 8 : (held == 0 ? 0 : 8));
                    const int total = pos + static_cast<int>(len);
                    const int before = dir == 0 ? total / 8 * 8 : std::max(0, total - 8) / 8 * 8;
                    EXPECT_EQ(quick, before) << "non-final size query";
                    qnCryptoFree(&ctx);
                }
            }
        }
    }
}

TEST_F(Toolkit, Mode3SizeQueryCountsAPaddingBlockEvenWhenAligned) {
    const TBytes key = oracle::random(24), data = oracle::random(8);
    qnCryptoContext ctx;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24, nullptr, 0);
    int size = 0;
    qnCryptoCbcFinal(&ctx, data.data(), 8, QN_PAD_ZERO, nullptr, &size);
    EXPECT_EQ(size, 16);
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, EcbRejectsPartialBlocks) {
    const TBytes key = oracle::random(24), data = oracle::random(12);
    qnCryptoContext ctx;
    unsigned char out[16];
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24);
    EXPECT_EQ(qnCryptoEcb(&ctx, data.data(), 12, out), kLen);
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, KeySetupRefusesBadArguments) {
    const TBytes key = oracle::random(24);
    qnCryptoContext ctx;
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 8), kArg) << "8-byte key";
    rv = 0;
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 2, key.data(), 24), kArg) << "direction 2";
    rv = 0;
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgMD5, 0, key.data(), 24), kArg) << "a hash as cipher";
    rv = 0;
    EXPECT_EQ(qnCryptoHashInit(&ctx, qnCryptoAlgDES3), kArg) << "a cipher as hash";
    rv = 0;
    EXPECT_EQ(qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24, key.data(), 7), kArg)
        << "7-byte IV";
    rv = 0;
    EXPECT_EQ(qnCryptoMacResult(&ctx, 0, nullptr, nullptr), kArg) << "padding 0";
    rv = 0;
    EXPECT_EQ(qnCryptoHashResult(&ctx, nullptr, nullptr), kArg);
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, HashesThroughTheContext) {
    const TBytes data = oracle::random(150);
    struct {
        qnCryptoAlgorithm alg;
        const char* name;
        int size;
    } algs[] = {{qnCryptoAlgMD5, "MD5", 16}, {qnCryptoAlgSHA1, "SHA1", 20}};
    for (const auto& a : algs) {
        qnCryptoContext ctx;
        EXPECT_EQ(qnCryptoHashInit(&ctx, a.alg), 0u);
        EXPECT_EQ(ctx.digestSize, static_cast<uint32_t>(a.size));
        EXPECT_EQ(ctx.blockSize, 0u);
        qnCryptoHashUpdate(&ctx, data.data(), 70);
        qnCryptoHashUpdate(&ctx, data.data() + 70, 80);
        int size = 0;
        qnCryptoHashResult(&ctx, nullptr, &size);
        EXPECT_EQ(size, a.size);
        TBytes out(static_cast<size_t>(a.size));
        size = 0;
        qnCryptoHashResult(&ctx, out.data(), &size);
        EXPECT_EQ(size, a.size);
        EXPECT_EQ(out, oracle::digest(a.name, data)) << a.name;
        qnCryptoFree(&ctx);
    }
}

TEST_F(Toolkit, AFailureSticksThroughGoodHashAndKeySetupCalls) {
    qnCryptoContext bad, ctx;
    ASSERT_EQ(qnCryptoHashInit(&bad, qnCryptoAlgDES3), kArg);
    const TBytes data = oracle::random(40);
    EXPECT_EQ(qnCryptoHashInit(&ctx, qnCryptoAlgSHA1), kArg);
    EXPECT_EQ(qnCryptoHashUpdate(&ctx, data.data(), 40), kArg);
    TBytes out(20);
    int n = 0;
    EXPECT_EQ(qnCryptoHashResult(&ctx, out.data(), &n), kArg);
    EXPECT_EQ(out, oracle::digest("SHA1", data)) << "the work was still done";
    const TBytes key = oracle::random(24);
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24), kArg);
    EXPECT_EQ(rv, kArg);
    qnCryptoFree(&ctx);
    qnCryptoFree(&bad);
}

TEST_F(Toolkit, StuckFailureStopsEcbAfterItsFirstBlock) {
    const TBytes key = oracle::random(24), data = oracle::random(24);
    qnCryptoContext ctx;
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24);
    rv = kPad;
    TBytes out(24, 0xEE);
    EXPECT_EQ(qnCryptoEcb(&ctx, data.data(), 24, out.data()), kPad);
    const TBytes expected = oracle::evp("DES-EDE3-ECB", key, {}, data, true);
    EXPECT_EQ(TBytes(out.begin(), out.begin() + 8), TBytes(expected.begin(), expected.begin() + 8));
    EXPECT_EQ(TBytes(out.begin() + 8, out.end()), TBytes(16, 0xEE));
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, CbcCoresClearOrKeepTheFailure) {
    const TBytes key = oracle::random(24), data = oracle::random(8);
    qnCryptoContext ctx;
    unsigned char out[16];
    std::memset(out, 0xEE, sizeof out);
    int n = -1;

    // Three bytes complete no block: the core's own result, 0, is stored.
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24, nullptr, 0);
    rv = kArg;
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 3, out, &n), 0u);
    EXPECT_EQ(rv, 0u);
    EXPECT_EQ(n, 0);

    // Eight bytes complete a block that comes back with the old code.
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24, nullptr, 0);
    rv = kArg;
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 8, out, &n), kArg);
    EXPECT_EQ(rv, kArg);
    EXPECT_EQ(out[0], 0xEE) << "output not written";
    EXPECT_EQ(out[7], 0xEE);

    // A size query stores its own result.
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 8, nullptr, &n), 0u);
    EXPECT_EQ(n, 8);
    EXPECT_EQ(rv, 0u);

    // MAC updates are CBC cores as well.
    qnCryptoMacInit(&ctx, qnCryptoAlgDES3, key.data(), 24);
    rv = kLen;
    EXPECT_EQ(qnCryptoMacUpdate(&ctx, data.data(), 5), 0u);
    rv = kLen;
    EXPECT_EQ(qnCryptoMacUpdate(&ctx, data.data(), 5), kLen) << "completes a block";
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, MemoryHelpers) {
    unsigned char* p = static_cast<unsigned char*>(qnAllocateMemory(40));
    ASSERT_NE(p, nullptr);
    uint32_t stored = 0;
    std::memcpy(&stored, p - 4, 4);
    EXPECT_EQ(stored, 40u) << "size kept in the 4 bytes ahead";
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t), 0u);
    std::memset(p, 0xAB, 40);
    qnFreeMemory(p);
    EXPECT_EQ(qnAllocateMemory(0), nullptr);
    EXPECT_EQ(qnAllocateMemory(-3), nullptr);
    EXPECT_EQ(qnFreeMemory(nullptr), 0u);

    unsigned char buf[8];
    std::memset(buf, 0x11, sizeof buf);
    rv = 0;
    EXPECT_EQ(qnZeroMemory(buf, -1), kArg);
    EXPECT_EQ(qnZeroMemory(nullptr, 4), kArg);
    EXPECT_EQ(rv, 0u) << "qnZeroMemory reports without storing";
    EXPECT_EQ(buf[0], 0x11);
    EXPECT_EQ(qnZeroMemory(nullptr, 0), 0u);
    EXPECT_EQ(qnZeroMemory(buf, 8), 0u);
    EXPECT_EQ(TBytes(buf, buf + 8), TBytes(8, 0));
}

int finalized = 0;
void countFinalize(qnCryptoContext*) { ++finalized; }

TEST_F(Toolkit, FreeRunsTheFinalizerAndWipesTheContext) {
    const TBytes key = oracle::random(24);
    qnCryptoContext ctx;
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24);
    ctx.finalize = countFinalize;
    finalized = 0;
    qnCryptoFree(&ctx);
    EXPECT_EQ(finalized, 1);
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&ctx);
    for (size_t i = 0; i < sizeof ctx; ++i) ASSERT_EQ(raw[i], 0) << i;
}

TEST_F(Toolkit, TripleDesMacIsTheLastCbcBlock) {
    for (size_t keyLen : {16u, 24u}) {
        for (size_t len : {0u, 1u, 8u, 9u, 23u, 64u}) {
            const TBytes key = oracle::random(keyLen), data = oracle::random(len);
            qnCryptoContext ctx;
            qnCryptoMacInit(&ctx, qnCryptoAlgDES3, key.data(), static_cast<int>(keyLen));
            qnCryptoMacUpdate(&ctx, data.data(), static_cast<int>(len));
            TBytes mac(8);
            int n = 0;
            EXPECT_EQ(qnCryptoMacResult(&ctx, QN_PAD_ISO, mac.data(), &n), 0u);
            EXPECT_EQ(n, 8);
            EXPECT_EQ(mac, oracle::des3CbcMac(key, oracle::isoPad(data))) << keyLen << "/" << len;
            qnCryptoFree(&ctx);
        }
    }
}

TEST_F(Toolkit, RetailMacMatchesSingleDesComposition) {
    for (size_t keyLen : {16u, 24u}) {
        for (int mode : {QN_PAD_ISO, QN_PAD_ZERO, QN_PAD_PKCS5}) {
            for (size_t len : {1u, 8u, 15u, 40u}) {
                const TBytes key = oracle::random(keyLen), data = oracle::random(len);
                qnCryptoContext ctx;
                qnCryptoMacInit(&ctx, qnCryptoAlgDES3_Lite, key.data(), static_cast<int>(keyLen));
                qnCryptoMacUpdate(&ctx, data.data(), 3 < len ? 3 : static_cast<int>(len));
                if (len > 3) qnCryptoMacUpdate(&ctx, data.data() + 3, static_cast<int>(len - 3));
                TBytes mac(8);
                int n = 0;
                qnCryptoMacResult(&ctx, mode, mac.data(), &n);
                EXPECT_EQ(mac, oracle::retailMac(key, padded(data, mode)))
                    << keyLen << "/" << mode << "/" << len;
                qnCryptoFree(&ctx);
            }
        }
    }
}

TEST_F(Toolkit, MacUpdatePaddedFinishesTheData) {
    const TBytes key = oracle::random(24), data = oracle::random(13);
    qnCryptoContext ctx;
    qnCryptoMacInit(&ctx, qnCryptoAlgDES3_Lite, key.data(), 24);
    qnCryptoMacUpdatePadded(&ctx, data.data(), 13, QN_PAD_ISO);
    TBytes mac(8);
    int n = 0;
    // Mode 3 on the now aligned chain adds nothing more.
    qnCryptoMacResult(&ctx, QN_PAD_ZERO, mac.data(), &n);
    EXPECT_EQ(mac, oracle::retailMac(key, oracle::isoPad(data)));
    qnCryptoFree(&ctx);
}

TBytes opensslPkcs12(const TBytes& pass, const TBytes& salt, int id, int iter, int n) {
    TBytes bmp;
    for (unsigned char c : pass) {
        bmp.push_back(0);
        bmp.push_back(c);
    }
    bmp.push_back(0);
    bmp.push_back(0);
    TBytes out(static_cast<size_t>(n));
    EXPECT_EQ(PKCS12_key_gen_uni(
                  bmp.data(), static_cast<int>(bmp.size()), const_cast<unsigned char*>(salt.data()),
                  static_cast<int>(salt.size()), id, iter, n, out.data(), EVP_sha1()),
              1);
    return out;
}

TEST_F(Toolkit, Pkcs12MatchesOpenSsl) {
    for (int round = 0; round < 24; ++round) {
        const TBytes pass = oracle::random(static_cast<size_t>(round * 7 % 70));
        const TBytes salt = oracle::random(static_cast<size_t>(1 + round * 11 % 80));
        const int id = 1 + round % 3, iter = 1 + round * 13 % 40, n = 1 + round * 5 % 70;
        TBytes out(static_cast<size_t>(n));
        EXPECT_EQ(
            qnCryptoPbePkcs12(qnCryptoAlgSHA1, pass.data(), static_cast<int>(pass.size()),
                              salt.data(), static_cast<int>(salt.size()), iter, id, out.data(), n),
            0u);
        EXPECT_EQ(out, opensslPkcs12(pass, salt, id, iter, n))
            << "pass " << pass.size() << " salt " << salt.size() << " id " << id << " iter " << iter
            << " n " << n;
    }
}

TEST_F(Toolkit, Pkcs12RawWithNothingHashesDAlone) {
    TBytes out(20);
    EXPECT_EQ(qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, nullptr, 0, nullptr, 0, 1, 3, out.data(), 20),
              0u);
    EXPECT_EQ(out, oracle::digest("SHA1", TBytes(64, 3)));
    TBytes md5(16);
    qnCryptoPbePkcs12_Raw(qnCryptoAlgMD5, nullptr, 0, nullptr, 0, 2, 1, md5.data(), 16);
    EXPECT_EQ(md5, oracle::digest("MD5", oracle::digest("MD5", TBytes(64, 1))));
}

TEST_F(Toolkit, Pkcs12RefusesBadArguments) {
    TBytes out(8, 0x77);
    const unsigned char salt[4] = {1, 2, 3, 4};
    EXPECT_EQ(qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, nullptr, 3, salt, 4, 1, 1, out.data(), 8),
              kArg);
    rv = 0;
    EXPECT_EQ(qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, salt, -1, salt, 4, 1, 1, out.data(), 8), kArg);
    rv = 0;
    EXPECT_EQ(qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, salt, 4, salt, 4, 0, 1, out.data(), 8), kArg);
    rv = 0;
    EXPECT_EQ(qnCryptoPbePkcs12_Raw(qnCryptoAlgDES3, salt, 4, salt, 4, 1, 1, out.data(), 8), kArg);
    EXPECT_EQ(out, TBytes(8, 0x77));
}

TEST_F(Toolkit, RandomIsReseededFromTheClockAtEachCall) {
    TBytes a(32), b(32);
    time_t before, after;
    do {
        before = std::time(nullptr);
        qnCryptoRandomGenerate(nullptr, a.data(), 32);
        qnCryptoRandomGenerate(nullptr, b.data(), 32);
        after = std::time(nullptr);
    } while (before != after);
    EXPECT_EQ(a, b) << "same second, same bytes";
    std::srand(static_cast<unsigned>(before));
    for (size_t i = 0; i < 32; ++i) EXPECT_EQ(a[i], static_cast<unsigned char>(std::rand())) << i;

    TBytes untouched(4, 0x5C);
    int handle = 0;
    EXPECT_EQ(qnCryptoRandomGenerate(&handle, untouched.data(), 4), 0u);
    EXPECT_EQ(untouched, TBytes(4, 0x5C));
    EXPECT_EQ(qnCryptoRandomGenerate(nullptr, untouched.data(), 0), kArg);
    rv = 0;
    EXPECT_EQ(qnCryptoRandomGenerate(nullptr, nullptr, 4), kArg);
}

}  // namespace
