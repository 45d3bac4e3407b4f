// The qn* toolkit against OpenSSL: triple DES, padding, size queries, MACs,
// hashes, PKCS #12; the sticky rv, refusals and the clock-seeded generator.
#include "qncrypto.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "unit/oracle.h"

namespace {

using krfs_test::cat;
using krfs_test::hex;

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
        if (direction == 0) {
            EXPECT_EQ(size, n);
        }
    }
    const int rest = static_cast<int>(data.size() - at);
    qnCryptoCbcFinal(&ctx, data.data() + at, rest, mode, nullptr, &size);
    *status = qnCryptoCbcFinal(&ctx, data.data() + at, rest, mode, out.data() + written, &n);
    if (*status == 0 && mode != QN_PAD_ZERO) {
        EXPECT_EQ(size, n) << "final size query";
    }
    out.resize(written + static_cast<size_t>(n));
    qnCryptoFree(&ctx);
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
    const TBytes nist = hex("0123456789ABCDEF23456789ABCDEF01456789ABCDEF0123");  // SP 800-67
    TBytes block = hex("5468652071756663 6B2062726F776E20 666F78206A756D70");
    qnCryptoContext ctx;
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, nist.data(), 24);
    qnCryptoEcb(&ctx, block.data(), 24, block.data());
    EXPECT_EQ(block, hex("A826FD8CE53B855F CCE21C8112256FE6 68D5C05DD9B6B900"));
    EXPECT_EQ(qnCryptoEcb(&ctx, block.data(), 12, block.data()), kLen);
    rv = 0;
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
                    rv = 0;
                    if (mode == QN_PAD_NONE && len % 8) {
                        EXPECT_EQ(status, kLen);
                        continue;
                    }
                    EXPECT_EQ(
                        c, oracle::evp(keyLen == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC", key,
                                       iv.empty() ? TBytes(8, 0) : iv, padded(data, mode), true));
                    const TBytes back = cbc(key, iv, c, 1, mode, step, &status);
                    rv = 0;
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
    const struct {
        const char* lastBlock;
        int mode;
        size_t kept;  // plaintext bytes kept of this block; 9: a padding failure
    } cases[] = {{"1122334455667708", QN_PAD_PKCS5, 9},  // 08 but not eight of them
                 {"1122334455030303", QN_PAD_PKCS5, 5},
                 {"1122334455660909", QN_PAD_PKCS5, 9},  // count above the block
                 {"1122334455667700", QN_PAD_PKCS5, 8},  // 00 passes as no padding
                 {"8000000000000000", QN_PAD_ISO, 0},
                 {"1122334455667780", QN_PAD_ISO, 7},
                 {"0000000000000000", QN_PAD_ISO, 9},   // all zero
                 {"1122334455810000", QN_PAD_ISO, 9}};  // not 80 before the zeros
    for (const auto& c : cases) {
        const TBytes plain = cat({oracle::random(8), hex(c.lastBlock)});
        uint32_t status = 0;
        const TBytes out = cbc(key, {}, oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), plain, true),
                               1, c.mode, 16, &status);
        EXPECT_EQ(status, c.kept == 9 ? kPad : 0u) << c.lastBlock;
        EXPECT_EQ(rv, status);
        if (c.kept != 9) {
            EXPECT_EQ(out, TBytes(plain.begin(), plain.begin() + 8 + c.kept));
        }
        rv = 0;
    }
}

TEST_F(Toolkit, HashesMacsAndPkcs12MatchOpenSsl) {
    const TBytes data = oracle::random(150);
    for (const auto& [alg, name] :
         {std::pair{&qnCryptoAlgMD5, "MD5"}, std::pair{&qnCryptoAlgSHA1, "SHA1"}}) {
        qnCryptoContext ctx;
        EXPECT_EQ(qnCryptoHashInit(&ctx, alg), 0u);
        qnCryptoHashUpdate(&ctx, data.data(), 70);
        qnCryptoHashUpdate(&ctx, data.data() + 70, 80);
        int n = 0;
        qnCryptoHashResult(&ctx, nullptr, &n);
        TBytes out(static_cast<size_t>(n));
        qnCryptoHashResult(&ctx, out.data(), &n);
        EXPECT_EQ(out, oracle::digest(name, data)) << name;
    }
    for (size_t keyLen : {16u, 24u}) {
        for (size_t len : {1u, 8u, 15u}) {
            for (int mode : {QN_PAD_ISO, QN_PAD_ZERO, QN_PAD_PKCS5}) {
                SCOPED_TRACE(testing::Message() << keyLen << "/" << len << "/" << mode);
                const TBytes key = oracle::random(keyLen), msg(data.begin(), data.begin() + len);
                TBytes full(8), retail(8);
                qnCryptoContext ctx;
                int n = 0;
                qnCryptoMacInit(&ctx, qnCryptoAlgDES3, key.data(), static_cast<int>(keyLen));
                qnCryptoMacUpdate(&ctx, msg.data(), static_cast<int>(len));
                EXPECT_EQ(qnCryptoMacResult(&ctx, mode, full.data(), &n), 0u);
                EXPECT_EQ(full, oracle::des3CbcMac(key, padded(msg, mode)));
                qnCryptoMacInit(&ctx, qnCryptoAlgDES3_Lite, key.data(), static_cast<int>(keyLen));
                qnCryptoMacUpdate(&ctx, msg.data(), 1);
                qnCryptoMacUpdatePadded(&ctx, msg.data() + 1, static_cast<int>(len - 1), mode);
                qnCryptoMacResult(&ctx, QN_PAD_ZERO, retail.data(), &n);  // nothing more to add
                EXPECT_EQ(retail, oracle::retailMac(key, padded(msg, mode)));
            }
        }
    }
    for (int round = 0; round < 24; ++round) {
        const TBytes pass = oracle::random(round * 7 % 70),
                     salt = oracle::random(1 + round * 11 % 80);
        const int id = 1 + round % 3, iter = 1 + round * 13 % 40, n = 1 + round * 5 % 70;
        TBytes out(static_cast<size_t>(n));
        qnCryptoPbePkcs12(qnCryptoAlgSHA1, pass.data(), static_cast<int>(pass.size()), salt.data(),
                          static_cast<int>(salt.size()), iter, id, out.data(), n);
        EXPECT_EQ(out, oracle::pkcs12(pass, salt, id, iter, static_cast<size_t>(n))) << round;
    }
    TBytes sha(20);  // no password, no salt: only the diversifier block is hashed
    qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, nullptr, 0, nullptr, 0, 1, 3, sha.data(), 20);
    EXPECT_EQ(sha, oracle::digest("SHA1", TBytes(64, 3)));
    EXPECT_EQ(rv, 0u);
}

TEST_F(Toolkit, AFailureSticksAndOnlyTheCbcCoresStoreAFreshResult) {
    qnCryptoContext ctx;
    const TBytes data = oracle::random(40), key = oracle::random(24);
    TBytes out(24, 0xEE);
    int n = 0;
    const unsigned char* k = key.data();
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, k, 8), kArg) << "8-byte key";
    EXPECT_EQ(qnCryptoHashInit(&ctx, qnCryptoAlgSHA1), kArg);
    EXPECT_EQ(qnCryptoHashUpdate(&ctx, data.data(), 40), kArg);
    EXPECT_EQ(qnCryptoHashResult(&ctx, out.data(), &n), kArg);
    EXPECT_EQ(TBytes(out.begin(), out.begin() + 20), oracle::digest("SHA1", data)) << "still done";
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, k, 24);
    rv = kPad;  // ECB stops after its first block
    out.assign(24, 0xEE);
    EXPECT_EQ(qnCryptoEcb(&ctx, data.data(), 24, out.data()), kPad);
    EXPECT_EQ(
        out,
        cat({oracle::evp("DES-EDE3-ECB", key, {}, TBytes(data.begin(), data.begin() + 8), true),
             TBytes(16, 0xEE)}));
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, k, 24, nullptr, 0);
    rv = kArg;  // three bytes complete no block: the core's own 0 is stored
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 3, out.data(), &n), 0u);
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, k, 24, nullptr, 0);
    rv = kArg;  // a completed block comes back with the old code, unwritten
    out.assign(16, 0xEE);
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 8, out.data(), &n), kArg);
    EXPECT_EQ(out, TBytes(16, 0xEE));

    rv = 0;  // and the refusals of bad arguments
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 2, k, 24), kArg) << "direction 2";
    EXPECT_EQ(qnCryptoEcbInit(&ctx, qnCryptoAlgMD5, 0, k, 24), kArg) << "a hash as cipher";
    EXPECT_EQ(qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, k, 24, k, 7), kArg) << "7-byte IV";
    EXPECT_EQ(qnCryptoMacResult(&ctx, 0, nullptr, nullptr), kArg) << "padding 0";
    EXPECT_EQ(qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, nullptr, 3, k, 4, 1, 1, out.data(), 8), kArg);
    EXPECT_EQ(qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, k, 4, k, 4, 0, 1, out.data(), 8), kArg);
    EXPECT_EQ(out, TBytes(16, 0xEE));
    EXPECT_EQ(qnCryptoRandomGenerate(nullptr, nullptr, 4), kArg);
    rv = 0;
    EXPECT_EQ(qnZeroMemory(nullptr, 4), kArg);
    EXPECT_EQ(rv, 0u) << "qnZeroMemory reports without storing";
    qnCryptoFree(&ctx);
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
    unsigned char* p = static_cast<unsigned char*>(qnAllocateMemory(40));
    uint32_t stored = 0;
    std::memcpy(&stored, p - 4, 4);
    EXPECT_EQ(stored, 40u) << "size kept in the 4 bytes ahead";
    qnFreeMemory(p);
}

}  // namespace
