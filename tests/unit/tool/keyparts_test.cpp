// The token-free pieces of krfs keys and krfs decrypt: key paths, PKCS#1
// unpadding (against OpenSSL's own padding too) and certificate fields.
#include "keyparts.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using namespace krfstool;

TEST(KeyPath, ParsesHexElementsAndPrintsThemBack) {
    const TPath path = parseKeyPath("3F00/6666/6000/1001/0001");
    EXPECT_EQ(path, (TPath{0x3F00, 0x6666, 0x6000, 0x1001, 0x0001}));
    EXPECT_EQ(formatKeyPath(path), "3F00/6666/6000/1001/0001");
    EXPECT_EQ(parseKeyPath("3f00/3000/3002/205"), (TPath{0x3F00, 0x3000, 0x3002, 0x0205}));
    EXPECT_EQ(formatKeyPath({0x3F00, 0x0205}), "3F00/0205");
    for (const char* bad : {"", "/", "3F00/zz", "3F00/10000", "3F00/+1", "3F00/0x12"})
        EXPECT_THROW(parseKeyPath(bad), std::invalid_argument) << bad;
}

TEST(KeyParts, HexText) {
    EXPECT_EQ(hexText({}), "");
    EXPECT_EQ(hexText({0x00, 0x0A, 0xF0, 0xFF}), "000AF0FF");
}

TBytes block(std::initializer_list<unsigned char> head, std::size_t nonzero,
             std::initializer_list<unsigned char> tail) {
    TBytes b(head);
    b.insert(b.end(), nonzero, 0xA5);
    b.insert(b.end(), tail);
    return b;
}

TEST(Pkcs1, Type2UnpaddingTakesOnlyWellFormedBlocks) {
    struct Row {
        const char* what;
        TBytes block;
        bool good;
        TBytes message;
    };
    const Row rows[] = {
        {"eight bytes of padding", block({0x00, 0x02}, 8, {0x00, 'h', 'i'}), true, {'h', 'i'}},
        {"an empty message", block({0x00, 0x02}, 117, {0x00}), true, {}},
        {"a message with zero bytes",
         block({0x00, 0x02}, 9, {0x00, 0x00, 0x01, 0x00}),
         true,
         {0x00, 0x01, 0x00}},
        {"block type 1 (signature)", block({0x00, 0x01}, 8, {0x00, 'h'}), false, {}},
        {"seven bytes of padding", block({0x00, 0x02}, 7, {0x00, 'h'}), false, {}},
        {"no 00 after the padding", block({0x00, 0x02}, 20, {}), false, {}},
        {"first byte not 00", block({0x01, 0x02}, 8, {0x00, 'h'}), false, {}},
        {"too short for a header", {0x00}, false, {}},
        {"nothing", {}, false, {}},
    };
    for (const Row& r : rows) {
        if (r.good) {
            EXPECT_EQ(unpadPkcs1Type2(r.block), r.message) << r.what;
        } else {
            EXPECT_THROW(unpadPkcs1Type2(r.block), std::invalid_argument) << r.what;
        }
    }
}

struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Ctx = std::unique_ptr<EVP_PKEY_CTX, CtxFree>;

TBytes transform(EVP_PKEY* key, bool encrypt, int padding, const TBytes& in) {
    Ctx ctx(EVP_PKEY_CTX_new(key, nullptr));
    EXPECT_EQ(encrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_decrypt_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding), 1);
    std::size_t n = 0;
    auto run = encrypt ? EVP_PKEY_encrypt : EVP_PKEY_decrypt;
    EXPECT_EQ(run(ctx.get(), nullptr, &n, in.data(), in.size()), 1);
    TBytes out(n);
    EXPECT_EQ(run(ctx.get(), out.data(), &n, in.data(), in.size()), 1);
    out.resize(n);
    return out;
}

// What a token's raw private-key operation gives for a block OpenSSL padded.
TEST(Pkcs1, UnpadsWhatOpenSslPadded) {
    Pkey key(EVP_RSA_gen(1024));
    ASSERT_TRUE(key);
    const TBytes message = {'t', 'o', 'k', 'e', 'n', 0x00, 0xFF};
    for (int round = 0; round < 4; ++round) {  // fresh random padding each time
        const TBytes sealed = transform(key.get(), true, RSA_PKCS1_PADDING, message);
        const TBytes raw = transform(key.get(), false, RSA_NO_PADDING, sealed);
        ASSERT_EQ(raw.size(), 128u);
        EXPECT_EQ(unpadPkcs1Type2(raw), message);
    }
}

TEST(Certificate, SubjectAndSerialOfDerCertificates) {
    Pkey key(EVP_EC_gen("P-256"));
    ASSERT_TRUE(key);
    std::unique_ptr<X509, X509Free> cert(X509_new());
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert.get()), 0x0102ABCDEFull);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Example, Ltd"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("krFS key 1"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
    X509_set_pubkey(cert.get(), key.get());
    ASSERT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
    unsigned char* der = nullptr;
    const int n = i2d_X509(cert.get(), &der);
    ASSERT_GT(n, 0);
    TBytes bytes(der, der + n);
    OPENSSL_free(der);

    const auto fields = certificateFields(bytes);
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->subject, "CN=krFS key 1,O=Example\\, Ltd");
    EXPECT_EQ(fields->serial, "0102ABCDEF");

    EXPECT_FALSE(certificateFields({}));
    EXPECT_FALSE(certificateFields({0x30, 0x82, 0x01}));
    bytes.resize(bytes.size() / 2);
    EXPECT_FALSE(certificateFields(bytes)) << "a cut certificate";
}

}  // namespace
