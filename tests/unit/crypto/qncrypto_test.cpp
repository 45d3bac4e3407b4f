// The qn* toolkit: triple DES and MACs against OpenSSL, padding modes, size
// queries, the sticky rv, PKCS #12, the random generator and the memory helpers.
#include "qncrypto.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>

#include "unit/oracle.h"

namespace {

using krfs_test::cat;
using krfs_test::hex;

constexpr uint32_t kArg = QN_CRYPTO_E_ARGUMENT, kPad = QN_CRYPTO_E_PADDING,
                   kLen = QN_CRYPTO_E_LENGTH;

// A failure stuck in rv changes what the toolkit computes; each case starts clean.
class Toolkit : public ::testing::Test {
protected:
    void SetUp() override { rv = 0; }
    void TearDown() override { rv = 0; }
};

// CBC through qnCryptoCbc in pieces of `step` bytes, then qnCryptoCbcFinal.
TBytes cbc(const TBytes& key, const TBytes& iv, const TBytes& data, uint32_t direction, int padding,
           size_t step, uint32_t* status = nullptr) {
    qnCryptoContext ctx;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, direction, key.data(), static_cast<int>(key.size()),
                    iv.empty() ? nullptr : iv.data(), static_cast<int>(iv.size()));
    TBytes out(data.size() + 16);
    size_t at = 0, written = 0;
    int n = 0;
    for (; data.size() - at > step; at += step, written += static_cast<size_t>(n))
        qnCryptoCbc(&ctx, data.data() + at, static_cast<int>(step), out.data() + written, &n);
    const uint32_t r = qnCryptoCbcFinal(&ctx, data.data() + at, static_cast<int>(data.size() - at),
                                        padding, out.data() + written, &n);
    if (status != nullptr) *status = r;
    out.resize(written + static_cast<size_t>(n));
    qnCryptoFree(&ctx);
    return out;
}

// The plaintext that each encrypting padding mode produces.
TBytes padded(TBytes data, int mode) {
    const size_t rest = data.size() % 8;
    if (mode == QN_PAD_PKCS5)
        data.insert(data.end(), 8 - rest, static_cast<unsigned char>(8 - rest));
    if (mode == QN_PAD_ISO) return oracle::isoPad(data);
    return oracle::zeroPad(data);
}

TEST_F(Toolkit, TripleDesMatchesOpenSslForBothKeySizesInAnyPiecesAndPaddings) {
    const TBytes nist = hex("0123456789ABCDEF23456789ABCDEF01456789ABCDEF0123");  // SP 800-67
    TBytes block = hex("5468652071756663 6B2062726F776E20 666F78206A756D70");
    qnCryptoContext ctx;
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, nist.data(), 24);
    qnCryptoEcb(&ctx, block.data(), 24, block.data());
    EXPECT_EQ(block, hex("A826FD8CE53B855F CCE21C8112256FE6 68D5C05DD9B6B900"));
    for (size_t keyLen : {16u, 24u}) {
        const char* name = keyLen == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC";
        for (size_t step : {1u, 3u, 8u, 13u}) {
            for (int mode : {QN_PAD_NONE, QN_PAD_PKCS5, QN_PAD_ISO, QN_PAD_ZERO}) {
                for (size_t len : {0u, 7u, 8u, 17u, 32u}) {
                    SCOPED_TRACE(testing::Message()
                                 << keyLen << "/" << step << "/" << mode << "/" << len);
                    rv = 0;
                    const TBytes key = oracle::random(keyLen), data = oracle::random(len);
                    const TBytes iv = step == 3 ? TBytes() : oracle::random(8);  // null: zeros
                    uint32_t status = 0;
                    const TBytes c = cbc(key, iv, data, 0, mode, step, &status);
                    if (mode == QN_PAD_NONE && len % 8) {
                        EXPECT_EQ(status, kLen);
                        continue;
                    }
                    EXPECT_EQ(c, oracle::evp(name, key, iv.empty() ? TBytes(8, 0) : iv,
                                             padded(data, mode), true));
                    if (mode == QN_PAD_ZERO) continue;  // not removable
                    const TBytes back = cbc(key, iv, c, 1, mode, step, &status);
                    EXPECT_EQ(status, c.empty() ? kLen : 0u)
                        << "decrypting nothing has no final block";
                    if (!c.empty()) {
                        EXPECT_EQ(back, data);
                    }
                }
            }
        }
    }
}

TEST_F(Toolkit, DecryptionChecksThePaddingOfTheLastBlock) {
    const TBytes key = oracle::random(24);
    const struct {
        const char* lastBlock;
        int mode;
        uint32_t status;
        size_t kept;  // plaintext bytes kept of this block
    } cases[] = {
        {"1122334455667708", QN_PAD_PKCS5, kPad, 0},  // 08 but not eight of them
        {"0808080808080808", QN_PAD_PKCS5, 0, 0},
        {"1122334455030303", QN_PAD_PKCS5, 0, 5},
        {"1122334455660909", QN_PAD_PKCS5, kPad, 0},  // count above the block
        {"1122334455667700", QN_PAD_PKCS5, 0, 8},     // 00 passes as no padding
        {"1122334455800000", QN_PAD_ISO, 0, 5},
        {"8000000000000000", QN_PAD_ISO, 0, 0},
        {"0000000000000000", QN_PAD_ISO, kPad, 0},  // all zero
        {"1122334455810000", QN_PAD_ISO, kPad, 0},  // not 80 before the zeros
        {"1122334455667788", QN_PAD_NONE, 0, 8},
        {"1122334455667788", QN_PAD_ZERO, kArg, 0},  // not for decryption
    };
    for (const auto& c : cases) {
        rv = 0;
        const TBytes plain = cat({oracle::random(8), hex(c.lastBlock)});
        uint32_t status = 0;
        const TBytes out = cbc(key, {}, oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), plain, true),
                               1, c.mode, 16, &status);
        EXPECT_EQ(status, c.status) << c.lastBlock;
        EXPECT_EQ(rv, c.status);
        if (c.status == 0) {
            EXPECT_EQ(out, TBytes(plain.begin(), plain.begin() + 8 + c.kept));
        }
    }
}

TEST_F(Toolkit, SizeQueriesMatchWhatIsWrittenAndChangeNothing) {
    const TBytes key = oracle::random(24), data = oracle::random(32);
    const struct {
        uint32_t direction;
        int mode;
        int held, length;  // bytes given before the queries, and to them
        int next;          // what qnCryptoCbc would write; decryption keeps a block back
        int final;         // what qnCryptoCbcFinal would write; mode 3 counts one block more
    } rows[] = {{0, QN_PAD_NONE, 0, 16, 16, 16}, {0, QN_PAD_PKCS5, 3, 13, 16, 24},
                {0, QN_PAD_ISO, 8, 0, 0, 8},     {0, QN_PAD_ZERO, 8, 8, 8, 16},
                {0, QN_PAD_ZERO, 5, 1, 0, 8},    {1, QN_PAD_NONE, 8, 16, 16, 24},
                {1, QN_PAD_NONE, 0, 8, 0, 8},    {1, QN_PAD_PKCS5, 16, 16, 16, 22}};
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message()
                     << r.direction << "/" << r.mode << "/" << r.held << "/" << r.length);
        TBytes plain = data;  // decryption gets ciphertext that ends in 02 02
        plain[31] = plain[30] = 0x02;
        const TBytes in =
            r.direction ? oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), plain, true) : data;
        qnCryptoContext ctx;
        qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, r.direction, key.data(), 24, nullptr, 0);
        TBytes out(48);
        int n = 0, next = -1, final = -1;
        qnCryptoCbc(&ctx, in.data(), r.held, out.data(), &n);
        const unsigned char* rest = in.data() + r.held;
        EXPECT_EQ(qnCryptoCbc(&ctx, rest, r.length, nullptr, &next), 0u);
        EXPECT_EQ(qnCryptoCbcFinal(&ctx, rest, r.length, r.mode, nullptr, &final), 0u);
        EXPECT_EQ(next, r.next);
        if (r.mode != QN_PAD_ZERO) {
            EXPECT_EQ(qnCryptoCbcFinal(&ctx, rest, r.length, r.mode, out.data(), &n), 0u);
            EXPECT_EQ(n, final);
        }
        EXPECT_EQ(final, r.final);
        qnCryptoFree(&ctx);
    }
}

TEST_F(Toolkit, BadArgumentsAreRefused) {
    const TBytes key = oracle::random(24);
    const unsigned char* k = key.data();
    qnCryptoContext ctx;
    unsigned char out[16];
    int n = 0;
    TBytes untouched(8, 0x77);
    unsigned char* kept = untouched.data();
    const struct {
        const char* what;
        uint32_t status;
        std::function<uint32_t()> call;
    } calls[] = {
        {"8-byte key", kArg, [&] { return qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, k, 8); }},
        {"direction 2", kArg, [&] { return qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 2, k, 24); }},
        {"hash as cipher", kArg, [&] { return qnCryptoEcbInit(&ctx, qnCryptoAlgMD5, 0, k, 24); }},
        {"cipher as hash", kArg, [&] { return qnCryptoHashInit(&ctx, qnCryptoAlgDES3); }},
        {"7-byte IV", kArg, [&] { return qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, k, 24, k, 7); }},
        {"MAC padding 0", kArg, [&] { return qnCryptoMacResult(&ctx, 0, nullptr, nullptr); }},
        {"hash result of a cipher", kArg,
         [&] { return qnCryptoHashResult(&ctx, nullptr, nullptr); }},
        {"partial ECB block", kLen,
         [&] {
             qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, k, 24);
             return qnCryptoEcb(&ctx, k, 12, out);
         }},
        {"nothing to decrypt", kLen,
         [&] {
             qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 1, k, 24, nullptr, 0);
             return qnCryptoCbcFinal(&ctx, nullptr, 0, QN_PAD_ISO, out, &n);
         }},
        {"partial block to decrypt", kLen,
         [&] { return qnCryptoCbcFinal(&ctx, k, 12, QN_PAD_NONE, out, &n); }},
        {"PKCS #12 null password", kArg,
         [&] { return qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, nullptr, 3, k, 4, 1, 1, kept, 8); }},
        {"PKCS #12 negative password", kArg,
         [&] { return qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, k, -1, k, 4, 1, 1, kept, 8); }},
        {"PKCS #12 no iterations", kArg,
         [&] { return qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, k, 4, k, 4, 0, 1, kept, 8); }},
        {"PKCS #12 with a cipher", kArg,
         [&] { return qnCryptoPbePkcs12_Raw(qnCryptoAlgDES3, k, 4, k, 4, 1, 1, kept, 8); }},
        {"random with a handle: nothing", 0, [&] { return qnCryptoRandomGenerate(&n, kept, 4); }},
        {"random of nothing", kArg, [&] { return qnCryptoRandomGenerate(nullptr, out, 0); }},
        {"random into null", kArg, [&] { return qnCryptoRandomGenerate(nullptr, nullptr, 4); }},
    };
    for (const auto& c : calls) {
        rv = 0;
        EXPECT_EQ(c.call(), c.status) << c.what;
    }
    EXPECT_EQ(untouched, TBytes(8, 0x77));
    rv = 0;
    EXPECT_EQ(qnZeroMemory(out, -1), kArg);
    EXPECT_EQ(qnZeroMemory(nullptr, 4), kArg);
    EXPECT_EQ(rv, 0u) << "qnZeroMemory reports without storing";
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, AFailureSticksThroughGoodCallsWhileOnlyTheCbcCoresStoreAFreshResult) {
    qnCryptoContext ctx;
    const TBytes data = oracle::random(40), key = oracle::random(24);
    rv = kArg;
    EXPECT_EQ(qnCryptoHashInit(&ctx, qnCryptoAlgSHA1), kArg);
    EXPECT_EQ(qnCryptoHashUpdate(&ctx, data.data(), 40), kArg);
    TBytes out(24, 0xEE);
    int n = 0;
    EXPECT_EQ(qnCryptoHashResult(&ctx, out.data(), &n), kArg);
    EXPECT_EQ(TBytes(out.begin(), out.begin() + 20), oracle::digest("SHA1", data))
        << "the work was still done";

    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24);
    rv = kPad;  // ECB stops after its first block
    out.assign(24, 0xEE);
    EXPECT_EQ(qnCryptoEcb(&ctx, data.data(), 24, out.data()), kPad);
    EXPECT_EQ(
        out,
        cat({oracle::evp("DES-EDE3-ECB", key, {}, TBytes(data.begin(), data.begin() + 8), true),
             TBytes(16, 0xEE)}));

    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24, nullptr, 0);
    rv = kArg;  // three bytes complete no block: the core's own 0 is stored
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 3, out.data(), &n), 0u);
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, 0, key.data(), 24, nullptr, 0);
    rv = kArg;  // a completed block comes back with the old code, unwritten
    out.assign(16, 0xEE);
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 8, out.data(), &n), kArg);
    EXPECT_EQ(out, TBytes(16, 0xEE));
    EXPECT_EQ(qnCryptoCbc(&ctx, data.data(), 8, nullptr, &n), 0u) << "a size query stores 0";
    qnCryptoMacInit(&ctx, qnCryptoAlgDES3, key.data(), 24);
    rv = kLen;
    EXPECT_EQ(qnCryptoMacUpdate(&ctx, data.data(), 5), 0u);
    rv = kLen;
    EXPECT_EQ(qnCryptoMacUpdate(&ctx, data.data(), 5), kLen) << "completes a block";
    qnCryptoFree(&ctx);
}

TEST_F(Toolkit, HashesMacsAndPkcs12MatchOpenSsl) {
    const TBytes data = oracle::random(150);
    const std::pair<qnCryptoAlgorithm, const char*> hashes[] = {{qnCryptoAlgMD5, "MD5"},
                                                                {qnCryptoAlgSHA1, "SHA1"}};
    for (const auto& [alg, name] : hashes) {
        qnCryptoContext ctx;
        EXPECT_EQ(qnCryptoHashInit(&ctx, alg), 0u);
        qnCryptoHashUpdate(&ctx, data.data(), 70);
        qnCryptoHashUpdate(&ctx, data.data() + 70, 80);
        int n = 0;
        qnCryptoHashResult(&ctx, nullptr, &n);
        TBytes out(static_cast<size_t>(n));
        qnCryptoHashResult(&ctx, out.data(), &n);
        EXPECT_EQ(out, oracle::digest(name, data)) << name;
        qnCryptoFree(&ctx);
    }
    for (size_t keyLen : {16u, 24u}) {
        for (size_t len : {1u, 8u, 15u, 40u}) {
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
                qnCryptoFree(&ctx);
            }
        }
    }
    for (int round = 0; round < 24; ++round) {
        const TBytes pass = oracle::random(round * 7 % 70),
                     salt = oracle::random(1 + round * 11 % 80);
        const int id = 1 + round % 3, iter = 1 + round * 13 % 40, n = 1 + round * 5 % 70;
        TBytes out(static_cast<size_t>(n));
        EXPECT_EQ(
            qnCryptoPbePkcs12(qnCryptoAlgSHA1, pass.data(), static_cast<int>(pass.size()),
                              salt.data(), static_cast<int>(salt.size()), iter, id, out.data(), n),
            0u);
        EXPECT_EQ(out, oracle::pkcs12(pass, salt, id, iter, static_cast<size_t>(n))) << round;
    }
    // With no password and no salt, only the diversifier block is hashed.
    TBytes sha(20), md5(16);
    qnCryptoPbePkcs12_Raw(qnCryptoAlgSHA1, nullptr, 0, nullptr, 0, 1, 3, sha.data(), 20);
    EXPECT_EQ(sha, oracle::digest("SHA1", TBytes(64, 3)));
    qnCryptoPbePkcs12_Raw(qnCryptoAlgMD5, nullptr, 0, nullptr, 0, 2, 1, md5.data(), 16);
    EXPECT_EQ(md5, oracle::digest("MD5", oracle::digest("MD5", TBytes(64, 1))));
}

TEST_F(Toolkit, RandomIsReseededFromTheClockAndMemoryIsWiped) {
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
    ASSERT_NE(p, nullptr);
    uint32_t stored = 0;
    std::memcpy(&stored, p - 4, 4);
    EXPECT_EQ(stored, 40u) << "size kept in the 4 bytes ahead";
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t), 0u);
    qnFreeMemory(p);
    EXPECT_EQ(qnAllocateMemory(0), nullptr);
    static int finalized = 0;
    qnCryptoContext ctx;
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, 0, a.data(), 24);
    ctx.finalize = [](qnCryptoContext*) { ++finalized; };
    qnCryptoFree(&ctx);
    EXPECT_EQ(finalized, 1);
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&ctx);
    EXPECT_TRUE(std::all_of(raw, raw + sizeof ctx, [](unsigned char c) { return c == 0; }));
}

}  // namespace
