// Big integers against OpenSSL's BIGNUM, on random operands of many sizes.
#include "crypto/vlong.h"

#include <openssl/bn.h>

#include <gtest/gtest.h>

#include <memory>

#include "unit/oracle.h"

namespace {

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
    EXPECT_EQ(bytesOf(gcd(vlong(84), vlong(36))), TBytes{12});
}

}  // namespace
