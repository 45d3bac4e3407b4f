// Big numbers against OpenSSL's BIGNUM, and the RSA helpers: the modulus of a
// certificate and of cut ones (the fuzz target tries the rest), the data check
// and the padding.
#include <openssl/bn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "crypto/rsa_helpers.h"
#include "crypto/vlong.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

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

TEST(Vlong, ArithmeticMatchesBignum) {
    BN_CTX* ctx = BN_CTX_new();
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        // Lone top bits exercise the quotient estimate's correction and add-back.
        Bn a = bn(1 + round * 37 % 700, round % 3 ? BN_RAND_TOP_ANY : BN_RAND_TOP_ONE),
           b = bn(1 + round * 53 % 400),
           m = bn(64 + round * 9, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD);
        if (BN_is_zero(b.get())) BN_one(b.get());
        const vlong va = fromBn(a.get()), vb = fromBn(b.get()), vm = fromBn(m.get());
        Bn r = bn(), q = bn();
        BN_add(r.get(), a.get(), b.get());
        EXPECT_EQ(bytesOf(va + vb), bytesOf(r.get()));
        BN_mul(r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(va * vb), bytesOf(r.get()));
        BN_div(q.get(), r.get(), a.get(), b.get(), ctx);
        EXPECT_EQ(bytesOf(va / vb), bytesOf(q.get()));
        EXPECT_EQ(bytesOf(va % vb), bytesOf(r.get()));
        BN_lshift(r.get(), a.get(), round % 70);
        EXPECT_EQ(bytesOf(va << static_cast<unsigned>(round % 70)), bytesOf(r.get()));
        if (round % 10 == 0) {  // the slow ones less often
            BN_mod_exp(r.get(), a.get(), b.get(), m.get(), ctx);
            EXPECT_EQ(bytesOf(modexp(va, vb, vm)), bytesOf(r.get()));
        }
    }
    BN_CTX_free(ctx);
    EXPECT_TRUE((vlong(1234567) / vlong(0)).is_zero()) << "division by zero is defined";
    EXPECT_TRUE((vlong(5) - vlong(7)).is_neg());
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
