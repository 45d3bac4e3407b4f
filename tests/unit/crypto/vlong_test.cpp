// vlong against OpenSSL's BIGNUM, and the edge cases the class defines.
#include "crypto/vlong.h"

#include <openssl/bn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "unit/oracle.h"

namespace {

using krfs_test::hex;

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

TEST(Vlong, BytesUnitsAndPrinting) {
    const TBytes five = hex("0102030405");
    const vlong v(five.data(), 5);
    EXPECT_EQ(v.size(), 8u) << "whole units";
    TBytes buf(8), small(5, 0xCC);
    v.to_hex(buf.data(), 8);
    EXPECT_EQ(buf, hex("0000000102030405"));
    EXPECT_EQ(v.to_hex(small.data(), 5), 5u);
    EXPECT_EQ(small, TBytes(5, 0)) << "too small a buffer stays zero";
    EXPECT_EQ(static_cast<unsigned>(v), 0x02030405u);
    EXPECT_TRUE(vlong(nullptr, 0).is_zero());
    ::testing::internal::CaptureStdout();
    vlong(hex("AB0000000C").data(), 5).print("!\n");
    vlong(0).print("|");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "000000AB0000000C!\n|");
}

TEST(Vlong, ArithmeticMatchesBignumAlsoOnCornerPatterns) {
    BN_CTX* ctx = BN_CTX_new();
    auto check = [&](const BIGNUM* a, const BIGNUM* b, unsigned shift) {
        const vlong va = fromBn(a), vb = fromBn(b);
        Bn r = bn(), q = bn();
        BN_add(r.get(), a, b);
        EXPECT_EQ(bytesOf(va + vb), bytesOf(r.get()));
        BN_mul(r.get(), a, b, ctx);
        EXPECT_EQ(bytesOf(va * vb), bytesOf(r.get()));
        BN_div(q.get(), r.get(), a, b, ctx);
        EXPECT_EQ(bytesOf(va / vb), bytesOf(q.get()));
        EXPECT_EQ(bytesOf(va % vb), bytesOf(r.get()));
        BN_gcd(r.get(), a, b, ctx);
        EXPECT_EQ(bytesOf(gcd(va, vb)), bytesOf(r.get()));
        BN_lshift(r.get(), a, static_cast<int>(shift));
        EXPECT_EQ(bytesOf(va << shift), bytesOf(r.get()));
        BN_rshift(r.get(), a, static_cast<int>(shift));
        EXPECT_EQ(bytesOf(va >> shift), bytesOf(r.get()));
    };
    for (int round = 0; round < 200; ++round) {
        Bn a = bn(1 + round * 37 % 700), b = bn(1 + round * 53 % 400);
        if (BN_is_zero(b.get())) BN_one(b.get());
        SCOPED_TRACE(round);
        check(a.get(), b.get(), static_cast<unsigned>(round % 70));
    }
    // All-ones and lone top bits exercise the quotient estimate's correction and add-back.
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
            SCOPED_TRACE(std::string(x) + " by " + y);
            check(a, b, 33);
            BN_free(a);
            BN_free(b);
        }
    }
    BN_CTX_free(ctx);
    const vlong x = 1234567;
    EXPECT_TRUE((x / vlong(0)).is_zero()) << "division by zero is defined";
    EXPECT_EQ(static_cast<unsigned>(x % vlong(0)), 1234567u);
}

TEST(Vlong, SignsComparisonsAndSharedValues) {
    const vlong five = 5, seven = 7, d = five - seven;
    EXPECT_TRUE(d.is_neg());
    EXPECT_EQ(static_cast<unsigned>(d), 2u);
    EXPECT_TRUE(d < vlong(0));
    EXPECT_TRUE((d + seven) >= five);
    EXPECT_FALSE((d + vlong(2)).is_neg()) << "zero is never negative";
    EXPECT_TRUE((d * seven).is_neg());
    EXPECT_FALSE((d * d).is_neg());
    EXPECT_EQ(d.cf(vlong(0)), -1);
    EXPECT_EQ(seven.cf(five), 1);
    EXPECT_EQ(five.cf(five), 0);
    vlong acc = 3;
    acc -= 10;
    acc += 4;
    EXPECT_TRUE(acc.is_neg());
    EXPECT_EQ(static_cast<unsigned>(acc), 3u);

    const TBytes bytes = hex("090807060504030201");
    vlong a(bytes.data(), 9), b = a;
    EXPECT_EQ(a.value, b.value);  // shared until written
    b += 1;
    EXPECT_NE(a.value, b.value);
    EXPECT_EQ(a.value->share, 0u);
    EXPECT_EQ(bytesOf(a), bytes);

    vlong r;  // reverse swaps only i < used / 2 units, one place off: 1 2 3 becomes 0 2 3 1
    for (unsigned i = 0; i < 3; ++i) r.value->set(i, i + 1);
    r.reverse();
    EXPECT_EQ(r.value->used, 4u);
    EXPECT_EQ(
        (std::vector<unsigned>{r.value->get(0), r.value->get(1), r.value->get(2), r.value->get(3)}),
        (std::vector<unsigned>{0, 2, 3, 1}));
}

TEST(Vlong, ModularArithmeticMatchesBignum) {
    BN_CTX* ctx = BN_CTX_new();
    for (int round = 0; round < 30; ++round) {
        Bn m = bn(64 + round * 17, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), a = bn(), inv = bn();
        do {
            BN_rand_range(a.get(), m.get());
        } while (BN_is_zero(a.get()) ||
                 BN_mod_inverse(inv.get(), a.get(), m.get(), ctx) == nullptr);
        EXPECT_EQ(bytesOf(modinv(fromBn(a.get()), fromBn(m.get()))), bytesOf(inv.get()));
    }
    for (int bits : {512, 521, 1024, 1536, 2047, 2048}) {
        for (int round = 0; round < (bits > 1024 ? kModexpRounds : 2 * kModexpRounds); ++round) {
            Bn m = bn(bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), x = bn(), r = bn();
            Bn e = bn(round % 2 ? 160 : bits);
            BN_rand_range(x.get(), m.get());
            BN_mod_exp(r.get(), x.get(), e.get(), m.get(), ctx);
            EXPECT_EQ(bytesOf(modexp(fromBn(x.get()), fromBn(e.get()), fromBn(m.get()))),
                      bytesOf(r.get()))
                << bits << " bits, round " << round;
        }
    }
    for (unsigned keep : {1u, 31u, 32u, 33u, 64u, 500u}) {  // the low bits of a product
        Bn a = bn(300), b = bn(260), r = bn();
        BN_mul(r.get(), a.get(), b.get(), ctx);
        BN_mask_bits(r.get(), static_cast<int>(keep));
        vlong out;
        out.value->fast_mul(*fromBn(a.get()).value, *fromBn(b.get()).value, keep);
        EXPECT_EQ(bytesOf(out), bytesOf(r.get())) << keep;
    }
    BN_CTX_free(ctx);
    EXPECT_EQ(static_cast<unsigned>(modexp(2, 10, 1001)), 23u);
    EXPECT_EQ(static_cast<unsigned>(modexp(2, 10, 1000)), 24u) << "even modulus: plain";
    EXPECT_EQ(static_cast<unsigned>(modexp(7, 0, 1001)), 1u);
    EXPECT_TRUE(modexp(7, 0, 1).is_zero());
    EXPECT_TRUE(modexp(7, 5, 0).is_zero()) << "m = 0 is defined as 0";
    EXPECT_EQ(static_cast<unsigned>(modexp(5000, 3, 7)), 5000u * 5000 % 7 * 5000 % 7);

    Bn m = bn(300, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD), a = bn(), b = bn();
    const vlong vm = fromBn(m.get());
    monty mt(vm);  // R1 = R^-1 mod m and n1 = R - m^-1 mod R, as modinv gives them
    EXPECT_EQ(mt.N, 300u);
    EXPECT_EQ(bytesOf(mt.R), bytesOf(vlong(1) << 300u));
    EXPECT_EQ(bytesOf(mt.R1), bytesOf(modinv(mt.R - vm, vm)));
    EXPECT_EQ(bytesOf(mt.n1), bytesOf(mt.R - modinv(vm, mt.R)));
    BN_rand_range(a.get(), m.get());
    BN_rand_range(b.get(), m.get());
    vlong x = fromBn(a.get());
    const vlong y = fromBn(b.get()), expected = (x * y * mt.R1) % vm;
    mt.mul(x, y);
    EXPECT_EQ(bytesOf(x), bytesOf(expected));
}

}  // namespace
