// RSA helpers: the modulus from OpenSSL-made certificates, malformed input,
// and the data checks and padding.
#include "crypto/rsa_helpers.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <functional>

#include "libapdu/apdu.h"
#include "libapdu/exception.h"
#include "oracle.h"

using namespace libapdu;
using oracle::hex;

namespace {

long raisedCode(const std::function<void()>& f) {
    try {
        f();
    } catch (const CAPDUException& e) {
        return e.code();
    }
    return 0;
}

struct Cert {
    TBytes der;
    TBytes modulus;
};

Cert makeCert(unsigned bits) {
    EVP_PKEY* key = EVP_RSA_gen(bits);
    X509* x = X509_new();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 42);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    X509_NAME* name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("krfs test"), -1, -1, 0);
    X509_set_issuer_name(x, name);
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

const Cert& cert1024() {
    static const Cert c = makeCert(1024);
    return c;
}

TEST(RsaHelpers, ModulusOfGeneratedCertificates) {
    for (unsigned bits : {1024u, 2048u}) {
        const Cert c = bits == 1024 ? cert1024() : makeCert(bits);
        const TBytes got = extractPublicKeyFromCert(c.der);
        EXPECT_EQ(got.size(), bits / 8);
        EXPECT_EQ(got, c.modulus) << bits;
    }
}

TEST(RsaHelpers, EveryTruncationIsAFailureNotAnOverread) {
    const TBytes& der = cert1024().der;
    // Up to the end of the modulus every cut loses something that is needed.
    for (size_t n = 0; n < der.size(); n += (n < 400 ? 1 : 17)) {
        TBytes cut(der.begin(), der.begin() + static_cast<long>(n));
        cut.shrink_to_fit();
        EXPECT_EQ(raisedCode([&] { extractPublicKeyFromCert(cut); }), 0x86E06281L)
            << "length " << n;
    }
}

TEST(RsaHelpers, CorruptedBytesFailCleanly) {
    const TBytes& der = cert1024().der;
    // Flipping any one of the first 300 bytes either still parses to some
    // integer or raises 0x6281; under ASan an overread would abort.
    for (size_t i = 0; i < 300 && i < der.size(); ++i) {
        for (unsigned char mask : {0x80, 0x7F, 0xFF}) {
            TBytes bad = der;
            bad[i] ^= mask;
            bad.shrink_to_fit();
            const long code = raisedCode([&] { extractPublicKeyFromCert(bad); });
            EXPECT_TRUE(code == 0 || code == 0x86E06281L) << std::hex << code;
        }
    }
    EXPECT_EQ(raisedCode([] { extractPublicKeyFromCert(hex("3080")); }), 0x86E06281L)
        << "indefinite length";
}

TEST(RsaHelpers, FirstByteIsDroppedEvenWithoutALeadingZero) {
    // A hand-built skeleton: SEQ { SEQ { SEQ SEQ SEQ SEQ SEQ{ SEQ BITSTRING } } }.
    const TBytes modulus = hex("7F112233");
    TBytes rsaKey = hex("30090204");
    rsaKey << modulus;
    rsaKey.insert(rsaKey.end(), {0x02, 0x01, 0x03});
    TBytes bitString{0x03, static_cast<unsigned char>(rsaKey.size() + 1), 0x00};
    bitString << rsaKey;
    TBytes spki{0x30, static_cast<unsigned char>(bitString.size() + 2), 0x30, 0x00};
    spki << bitString;
    TBytes tbs =
        hex("A003020102"
            "020101"
            "3000"
            "3000"
            "3000"
            "3000");
    tbs << spki;
    TBytes tbsSeq{0x30, static_cast<unsigned char>(tbs.size())};
    tbsSeq << tbs;
    TBytes certificate{0x30, static_cast<unsigned char>(tbsSeq.size())};
    certificate << tbsSeq;
    EXPECT_EQ(extractPublicKeyFromCert(certificate), hex("112233"));
}

TEST(RsaHelpers, IsValidDataForRsa) {
    struct Case {
        const char* key;
        const char* data;
        bool valid;
    } cases[] = {
        {"8000", "7FFF", true},  {"8000", "8000", false}, {"8000", "00", false},
        {"8000", "8001", false}, {"0100", "00FF", true},  {"", "", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(isValidDataForRSA(hex(c.key), hex(c.data)), c.valid) << c.key << " " << c.data;
}

TEST(RsaHelpers, Pkcs1Pad) {
    TBytes data = oracle::random(125);
    const TBytes original = data;
    pkcs1pad(data, 128);
    ASSERT_EQ(data.size(), 128u);
    EXPECT_EQ(TBytes(data.begin(), data.begin() + 3), hex("000200"));
    EXPECT_EQ(TBytes(data.begin() + 3, data.end()), original);

    for (size_t len : {0u, 1u, 60u, 200u}) {
        TBytes d = oracle::random(len);
        const TBytes before = d;
        pkcs1pad(d, 64);
        EXPECT_EQ(d.size() % 64, 0u) << len;
        EXPECT_GE(d.size(), len + 3);
        EXPECT_EQ(d[0], 0x00);
        EXPECT_EQ(d[1], 0x02);
        EXPECT_EQ(d[d.size() - len - 1], 0x00) << "separator";
        EXPECT_EQ(TBytes(d.end() - static_cast<long>(len), d.end()), before);
        for (size_t i = 2; i + len + 1 < d.size(); ++i) EXPECT_LT(d[i], 255) << "rand() % 255";
    }
    TBytes any{1};
    EXPECT_EQ(raisedCode([&] { pkcs1pad(any, 0); }), 0x86E06B00L);
}

}  // namespace
