// RSA helpers: the modulus of an OpenSSL-made certificate and of cut ones
// (the fuzz target tries the rest), and the data checks and padding.
#include "crypto/rsa_helpers.h"

#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

struct Cert {
    TBytes der, modulus;
};

Cert makeCert(unsigned bits) {
    EVP_PKEY* key = EVP_RSA_gen(bits);
    X509* x = X509_new();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 42);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    X509_set_pubkey(x, key);
    X509_sign(x, key, EVP_sha256());
    Cert c;
    unsigned char* p = nullptr;
    const int n = i2d_X509(x, &p);
    c.der.assign(p, p + n);
    OPENSSL_free(p);
    BIGNUM* mod = nullptr;
    EVP_PKEY_get_bn_param(key, "n", &mod);
    c.modulus.resize(static_cast<size_t>(BN_num_bytes(mod)));
    BN_bn2bin(mod, c.modulus.data());
    BN_free(mod);
    X509_free(x);
    EVP_PKEY_free(key);
    return c;
}

TEST(RsaHelpers, ModulusOfACertificateAndEveryCutOneIsRefused) {
    const Cert c = makeCert(1024);
    EXPECT_EQ(extractPublicKeyFromCert(c.der), c.modulus);
    // Up to the end of the modulus every cut loses something that is needed.
    for (size_t n = 0; n < c.der.size(); n += (n < 400 ? 1 : 17)) {
        const TBytes cut(c.der.begin(), c.der.begin() + n);
        EXPECT_EQ(failureCode([&] { extractPublicKeyFromCert(cut); }), code(0x6281)) << n;
    }
    EXPECT_EQ(failureCode([] { extractPublicKeyFromCert(hex("3080")); }), code(0x6281));
    // A skeleton whose modulus lacks the leading zero: its first byte is dropped all the same.
    EXPECT_EQ(extractPublicKeyFromCert(hex("30 24 30 22 A003020102 020101 3000 3000 3000 3000 "
                                           "30 10 3000 03 0C 00 30 09 02 04 7F112233 020103")),
              hex("112233"));
}

TEST(RsaHelpers, DataBelowTheModulusAndPkcs1Padding) {
    const struct {
        const char* key;
        const char* data;
        bool valid;
    } cases[] = {{"8000", "7FFF", true},  {"8000", "8000", false}, {"8000", "00", false},
                 {"8000", "8001", false}, {"0100", "00FF", true},  {"", "", false}};
    for (const auto& c : cases)
        EXPECT_EQ(isValidDataForRSA(hex(c.key), hex(c.data)), c.valid) << c.key << " " << c.data;

    for (size_t len : {0u, 1u, 60u, 125u, 200u}) {
        const TBytes data = oracle::random(len);
        TBytes d = data;
        pkcs1pad(d, len == 125 ? 128 : 64);
        EXPECT_EQ(d.size(), len == 125 ? 128u : (len + 3 + 63) / 64 * 64) << len;
        EXPECT_EQ(TBytes(d.begin(), d.begin() + 2), hex("0002"));
        EXPECT_EQ(d[d.size() - len - 1], 0x00) << "separator";
        EXPECT_EQ(TBytes(d.end() - len, d.end()), data);
        for (size_t i = 2; i + len + 1 < d.size(); ++i) EXPECT_LT(d[i], 255) << "rand() % 255";
    }
    TBytes any{1};
    EXPECT_EQ(failureCode([&] { pkcs1pad(any, 0); }), code(0x6B00));
}

}  // namespace
