// vlong against OpenSSL's BIGNUM, and the edge cases the class defines.
#include "crypto/vlong.h"

#include <openssl/bn.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "oracle.h"

using oracle::hex;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr int kModexpRounds = 2;
#else
constexpr int kModexpRounds = 6;
#endif

using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
Bn bn() { return Bn(BN_new(), BN_free); }

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
    size_t skip = 0;
    while (skip < out.size() && out[skip] == 0) ++skip;
    return TBytes(out.begin() + static_cast<long>(skip), out.end());
}

Bn randomBn(int bits, int top = BN_RAND_TOP_ANY, int bottom = BN_RAND_BOTTOM_ANY) {
    Bn b = bn();
    BN_rand(b.get(), bits, top, bottom);
    return b;
}

TEST(Vlong, BytesSizeAndToHex) {
    const unsigned char five[] = {1, 2, 3, 4, 5};
    vlong v(five, 5);
    EXPECT_EQ(v.size(), 8u) << "whole units";
    unsigned char buf[8];
    v.to_hex(buf, 8);
    EXPECT_EQ(TBytes(buf, buf + 8), hex("0000000102030405"));

    unsigned char small[5];
    std::memset(small, 0xCC, sizeof small);
    EXPECT_EQ(v.to_hex(small, 5), 5u);
    EXPECT_EQ(TBytes(small, small + 5), TBytes(5, 0)) << "too small a buffer stays zero";

    EXPECT_TRUE(vlong(nullptr, 0).is_zero());
    EXPECT_EQ(static_cast<unsigned>(v), 0x02030405u);
}

TEST(Vlong, PrintIsUpperCaseHexByUnit) {
    const unsigned char bytes[] = {0xAB, 0x00, 0x00, 0x00, 0x0C};
    vlong v(bytes, 5);
    ::testing::internal::CaptureStdout();
    v.print("!\n");
    vlong(0).print("|");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "000000AB0000000C!\n|");
}

TEST(Vlong, ArithmeticMatchesBignum) {
    BN_CTX* ctx = BN_CTX_new();
    for (int round = 0; round < 200; ++round) {
        const int abits = 1 + round * 37 % 700, bbits = 1 + round * 53 % 400;
        Bn a = randomBn(abits), b = randomBn(bbits);
        if (BN_is_zero(b.get())) BN_one(b.get());
        const vlong va = fromBn(a.get()), vb = fromBn(b.get());
        Bn r = bn(), q = bn();
        SCOPED_TRACE(::testing::Message() << "bits " << abits << "/" << bbits);
        BN_add(r.get(), a.get(), b.get());
        EXPECT_EQ(bytesOf(va + vb), bytesOf(r.get()));
        BN_mul(r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(va * vb), bytesOf(r.get()));
        BN_div(q.get(), r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(va / vb), bytesOf(q.get()));
        EXPECT_EQ(bytesOf(va % vb), bytesOf(r.get()));
        BN_gcd(r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(gcd(va, vb)), bytesOf(r.get()));
        BN_lshift(r.get(), a.get(), round % 70);
        EXPECT_EQ(bytesOf(va << static_cast<unsigned>(round % 70)), bytesOf(r.get()));
        BN_rshift(r.get(), a.get(), round % 70);
        EXPECT_EQ(bytesOf(va >> static_cast<unsigned>(round % 70)), bytesOf(r.get()));
    }
    BN_CTX_free(ctx);
}

TEST(Vlong, DivisionCornerPatterns) {
    // Divisors and dividends of all-ones and lone top bits exercise the
    // quotient-estimate correction and the add-back step.
    BN_CTX* ctx = BN_CTX_new();
    const char* patterns[] = {"FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF",
                              "80000000000000000000000000000000",
                              "800000000000000000000001",
                              "FFFFFFFF00000000FFFFFFFF",
                              "7FFFFFFF80000001",
                              "100000000",
                              "FFFFFFFF",
                              "1"};
    for (const char* x : patterns) {
        for (const char* y : patterns) {
            BIGNUM *a = nullptr, *b = nullptr;
            BN_hex2bn(&a, x);
            BN_hex2bn(&b, y);
            Bn q = bn(), r = bn();
            BN_div(q.get(), r.get(), a, b, ctx);
            const vlong va = fromBn(a), vb = fromBn(b);
            EXPECT_EQ(bytesOf(va / vb), bytesOf(q.get())) << x << " / " << y;
            EXPECT_EQ(bytesOf(va % vb), bytesOf(r.get())) << x << " % " << y;
            BN_free(a);
            BN_free(b);
        }
    }
    BN_CTX_free(ctx);
}

TEST(Vlong, DivisionByZeroIsDefined) {
    const vlong x = 1234567;
    EXPECT_TRUE((x / vlong(0)).is_zero());
    EXPECT_EQ(static_cast<unsigned>(x % vlong(0)), 1234567u);
}

TEST(Vlong, SignedArithmetic) {
    const vlong five = 5, seven = 7;
    const vlong d = five - seven;
    EXPECT_TRUE(d.is_neg());
    EXPECT_EQ(static_cast<unsigned>(d), 2u);
    EXPECT_TRUE(d < vlong(0));
    EXPECT_TRUE((d + seven) >= five);
    EXPECT_FALSE((d + seven).is_neg());
    EXPECT_EQ((d + vlong(2)).is_neg(), false) << "zero is never negative";
    EXPECT_TRUE((d * seven).is_neg());
    EXPECT_EQ(static_cast<unsigned>(d * seven), 14u);
    EXPECT_FALSE((d * d).is_neg());
    EXPECT_EQ(d.cf(vlong(0)), -1);
    EXPECT_EQ(seven.cf(five), 1);
    EXPECT_EQ(five.cf(five), 0);
    vlong acc = 3;
    acc -= 10;
    acc += 4;
    EXPECT_TRUE(acc.is_neg());
    EXPECT_EQ(static_cast<unsigned>(acc), 3u);
}

TEST(Vlong, CopiesShareUntilWritten) {
    const unsigned char bytes[] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
    vlong a(bytes, 9);
    vlong b = a;
    EXPECT_EQ(a.value, b.value);
    EXPECT_EQ(a.value->share, 1u);
    b += 1;
    EXPECT_NE(a.value, b.value);
    EXPECT_EQ(a.value->share, 0u);
    EXPECT_EQ(bytesOf(a), TBytes(bytes, bytes + 9));
    {
        vlong c = a, d = a;
        EXPECT_EQ(a.value->share, 2u);
        d = b;
        EXPECT_EQ(a.value->share, 1u);
    }
    EXPECT_EQ(a.value->share, 0u);
}

TEST(FlexUnit, SetGetAndUsed) {
    flex_unit f;
    EXPECT_EQ(f.get(5), 0u);
    f.set(3, 0);
    EXPECT_EQ(f.used, 0u) << "storing 0 beyond used does nothing";
    f.set(3, 7);
    EXPECT_EQ(f.used, 4u);
    EXPECT_EQ(f.get(0), 0u) << "the gap is zero-filled";
    f.set(1, 2);
    f.set(3, 0);
    EXPECT_EQ(f.used, 2u) << "top zeros are dropped";
    f.clear();
    EXPECT_EQ(f.used, 0u);
}

TEST(FlexUnit, FastMulKeepsTheLowBits) {
    BN_CTX* ctx = BN_CTX_new();
    for (unsigned keep : {1u, 31u, 32u, 33u, 64u, 100u, 500u}) {
        Bn a = randomBn(300), b = randomBn(260), r = bn(), mod = bn();
        BN_mul(r.get(), a.get(), b.get(), ctx);
        BN_mask_bits(r.get(), static_cast<int>(keep));
        vlong va = fromBn(a.get()), vb = fromBn(b.get()), out;
        out.value->fast_mul(*va.value, *vb.value, keep);
        EXPECT_EQ(bytesOf(out), bytesOf(r.get())) << keep;
    }
    BN_CTX_free(ctx);
}

TEST(VlongValue, ReverseIsOnePlaceOff) {
    vlong v;
    v.value->set(0, 1);
    v.value->set(1, 2);
    v.value->set(2, 3);
    v.reverse();
    // Unit 0 swaps with unit 3 (beyond the top), unit 1 with unit 2... only
    // i < used / 2 = 1, so just the first swap happens.
    EXPECT_EQ(v.value->used, 4u);
    EXPECT_EQ(v.value->get(0), 0u);
    EXPECT_EQ(v.value->get(1), 2u);
    EXPECT_EQ(v.value->get(2), 3u);
    EXPECT_EQ(v.value->get(3), 1u);
}

TEST(Vlong, ModinvMatchesBignum) {
    BN_CTX* ctx = BN_CTX_new();
    for (int round = 0; round < 30; ++round) {
        Bn m = randomBn(64 + round * 17, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), a = bn(), inv = bn();
        do {
            BN_rand_range(a.get(), m.get());
        } while (BN_is_zero(a.get()) ||
                 BN_mod_inverse(inv.get(), a.get(), m.get(), ctx) == nullptr);
        EXPECT_EQ(bytesOf(modinv(fromBn(a.get()), fromBn(m.get()))), bytesOf(inv.get()));
    }
    BN_CTX_free(ctx);
}

TEST(Vlong, ModexpSmallCases) {
    EXPECT_EQ(static_cast<unsigned>(modexp(2, 10, 1001)), 23u);
    EXPECT_EQ(static_cast<unsigned>(modexp(2, 10, 1000)), 24u)
        << "even modulus: plain, and it ends";
    EXPECT_EQ(static_cast<unsigned>(modexp(7, 0, 1001)), 1u) << "e = 0 is defined as 1 mod m";
    EXPECT_TRUE(modexp(7, 0, 1).is_zero());
    EXPECT_TRUE(modexp(7, 5, 0).is_zero()) << "m = 0 is defined as 0";
    EXPECT_EQ(static_cast<unsigned>(modexp(5000, 3, 7)), 5000u * 5000 % 7 * 5000 % 7)
        << "x above m";
}

TEST(Vlong, ModexpMatchesBignum) {
    BN_CTX* ctx = BN_CTX_new();
    for (int bits : {512, 521, 1024, 1536, 2047, 2048}) {
        for (int round = 0; round < (bits > 1024 ? kModexpRounds : 2 * kModexpRounds); ++round) {
            Bn m = randomBn(bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), x = bn(), r = bn();
            Bn e = randomBn(round % 2 ? 160 : bits);
            BN_rand_range(x.get(), m.get());
            BN_mod_exp(r.get(), x.get(), e.get(), m.get(), ctx);
            EXPECT_EQ(bytesOf(modexp(fromBn(x.get()), fromBn(e.get()), fromBn(m.get()))),
                      bytesOf(r.get()))
                << bits << " bits, round " << round;
        }
    }
    BN_CTX_free(ctx);
}

TEST(Monty, FieldsAndProduct) {
    BN_CTX* ctx = BN_CTX_new();
    for (int bits : {65, 128, 300}) {
        Bn m = randomBn(bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD);
        const vlong vm = fromBn(m.get());
        monty mt(vm);
        EXPECT_EQ(mt.N, static_cast<unsigned>(bits));
        EXPECT_EQ(bytesOf(mt.R), bytesOf(vlong(1) << static_cast<unsigned>(bits)));
        // R1 = R^-1 mod m and n1 = R - m^-1 mod R, as modinv gives them.
        EXPECT_EQ(bytesOf(mt.R1), bytesOf(modinv(mt.R - vm, vm)));
        EXPECT_EQ(bytesOf(mt.n1), bytesOf(mt.R - modinv(vm, mt.R)));
        Bn a = bn(), b = bn();
        BN_rand_range(a.get(), m.get());
        BN_rand_range(b.get(), m.get());
        vlong x = fromBn(a.get());
        const vlong y = fromBn(b.get());
        const vlong expected = (x * y * mt.R1) % vm;
        mt.mul(x, y);
        EXPECT_EQ(bytesOf(x), bytesOf(expected)) << bits;
    }
    BN_CTX_free(ctx);
}

}  // namespace
