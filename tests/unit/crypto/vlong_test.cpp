// Big numbers against OpenSSL's BIGNUM, and the RSA helpers: the modulus of a
// certificate and of cut ones (the fuzz target tries the rest), the data check
// and the padding.
#include <openssl/bn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "crypto/rsa_helpers.h"
#include "crypto/vlong.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

#if defined(__SANITIZE_ADDRESS__)
constexpr int kModexpRounds = 2;
#else
constexpr int kModexpRounds = 6;
#endif

using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
Bn bn(int bits = 0, int top = BN_RAND_TOP_ANY, int bottom = BN_RAND_BOTTOM_ANY) {
    Bn b(BN_new(), BN_free);
    if (bits > 0) BN_rand(b.get(), bits, top, bottom);
    return b;
}
Bn bn(const char* digits) {
    BIGNUM* b = nullptr;
    BN_hex2bn(&b, digits);
    return Bn(b, BN_free);
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
// The magnitude of v as minimal big-endian bytes.
TBytes bytesOf(const vlong& v) {
    TBytes out(v.size());
    v.to_hex(out.data(), static_cast<unsigned>(out.size()));
    return TBytes(std::find_if(out.begin(), out.end(), [](unsigned char c) { return c != 0; }),
                  out.end());
}

TEST(Vlong, ArithmeticMatchesBignumOnRandomNumbersAndCornerPatterns) {
    BN_CTX* ctx = BN_CTX_new();
    std::vector<std::pair<Bn, Bn>> pairs;
    for (int round = 0; round < 200; ++round)
        pairs.emplace_back(bn(1 + round * 37 % 700), bn(1 + round * 53 % 400));
    // All-ones and lone top bits exercise the quotient estimate's correction and add-back.
    for (const char* x :
         {"FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF", "80000000000000000000000000000000",
          "800000000000000000000001", "FFFFFFFF00000000FFFFFFFF", "7FFFFFFF80000001", "1"})
        for (const char* y :
             {"FFFFFFFF", "100000000", "7FFFFFFF80000001", "800000000000000000000001"})
            pairs.emplace_back(bn(x), bn(y));
    for (const auto& [a, b] : pairs) {
        if (BN_is_zero(b.get())) BN_one(b.get());
        SCOPED_TRACE(&a - &pairs[0].first);
        const vlong va = fromBn(a.get()), vb = fromBn(b.get());
        const unsigned shift = BN_num_bits(b.get()) % 70;
        Bn r = bn(), q = bn();
        BN_add(r.get(), a.get(), b.get());
        EXPECT_EQ(bytesOf(va + vb), bytesOf(r.get()));
        BN_mul(r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(va * vb), bytesOf(r.get()));
        BN_div(q.get(), r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(va / vb), bytesOf(q.get()));
        EXPECT_EQ(bytesOf(va % vb), bytesOf(r.get()));
        BN_gcd(r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(gcd(va, vb)), bytesOf(r.get()));
        BN_lshift(r.get(), a.get(), static_cast<int>(shift));
        EXPECT_EQ(bytesOf(va << shift), bytesOf(r.get()));
        BN_rshift(r.get(), a.get(), static_cast<int>(shift));
        EXPECT_EQ(bytesOf(va >> shift), bytesOf(r.get()));
    }
    BN_CTX_free(ctx);
}

TEST(Vlong, ModularArithmeticMatchesBignumAndTheEdgesAreDefined) {
    BN_CTX* ctx = BN_CTX_new();
    for (int bits : {64, 300, 521, 1024, 1536, 2048}) {
        for (int round = 0; round < (bits > 1024 ? kModexpRounds : 2 * kModexpRounds); ++round) {
            SCOPED_TRACE(testing::Message() << bits << " bits, round " << round);
            Bn m = bn(bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), x = bn(), r = bn();
            Bn e = bn(round % 2 ? 160 : bits);
            BN_rand_range(x.get(), m.get());
            BN_mod_exp(r.get(), x.get(), e.get(), m.get(), ctx);
            const vlong vx = fromBn(x.get()), vm = fromBn(m.get());
            EXPECT_EQ(bytesOf(modexp(vx, fromBn(e.get()), vm)), bytesOf(r.get()));
            if (BN_mod_inverse(r.get(), x.get(), m.get(), ctx) != nullptr) {
                EXPECT_EQ(bytesOf(modinv(vx, vm)), bytesOf(r.get()));
            }
        }
    }
    BN_CTX_free(ctx);
    const vlong d = vlong(5) - vlong(7), x = 1234567;
    EXPECT_TRUE(d.is_neg() && d < vlong(0) && (d * vlong(7)).is_neg());
    EXPECT_EQ(static_cast<unsigned>(d), 2u);
    EXPECT_FALSE((d + vlong(2)).is_neg()) << "zero is never negative";
    EXPECT_TRUE((x / vlong(0)).is_zero()) << "division by zero is defined";
    EXPECT_EQ(static_cast<unsigned>(x % vlong(0)), 1234567u);
    EXPECT_EQ(static_cast<unsigned>(modexp(2, 10, 1000)), 24u) << "even modulus: plain";
    EXPECT_EQ(static_cast<unsigned>(modexp(7, 0, 1001)), 1u);
    EXPECT_TRUE(modexp(7, 5, 0).is_zero()) << "m = 0 is defined as 0";
}

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

}  // namespace
