// The RSA helpers: the modulus of a certificate and of cut ones (the fuzz
// target tries the rest), the data check and the padding.
#include <gtest/gtest.h>

#include "crypto/rsa_helpers.h"
#include "unit/scripted_sender.h"

namespace {

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

}  // namespace
