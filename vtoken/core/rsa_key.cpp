#include "core/rsa_key.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

#include "core/random.h"

namespace vtoken {

namespace {

struct Free {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(BIGNUM* p) const { BN_free(p); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

void need(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

Owned<EVP_PKEY> loadPrivate(const Bytes& der) {
    const unsigned char* p = der.data();
    Owned<EVP_PKEY> key(d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size())));
    need(key != nullptr, "private key unreadable");
    return key;
}

Bytes modulusOf(EVP_PKEY* key) {
    BIGNUM* n = nullptr;
    need(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n) == 1, "modulus");
    Owned<BIGNUM> owned(n);
    Bytes out(static_cast<std::size_t>(BN_num_bytes(n)));
    BN_bn2bin(n, out.data());
    return out;
}

Bytes privateDer(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int len = i2d_PrivateKey(key, &der);
    need(len > 0, "private key encoding");
    Bytes out(der, der + len);
    OPENSSL_free(der);
    return out;
}

Bytes selfSigned(EVP_PKEY* key, const std::string& commonName) {
    Owned<X509> cert(X509_new());
    need(cert != nullptr, "certificate");
    X509_set_version(cert.get(), 2);
    // A random positive 64-bit serial.
    Bytes serial = randomBytes(8);
    serial[0] &= 0x7F;
    serial[0] |= 0x01;
    Owned<BIGNUM> bn(BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr));
    need(bn && BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert.get())), "serial");
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 10L * 365 * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert.get());
    need(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                    -1, 0) == 1,
         "subject");
    X509_set_issuer_name(cert.get(), name);
    need(X509_set_pubkey(cert.get(), key) == 1, "public key");
    need(X509_sign(cert.get(), key, EVP_sha256()) > 0, "signature");
    unsigned char* der = nullptr;
    const int len = i2d_X509(cert.get(), &der);
    need(len > 0, "certificate encoding");
    Bytes out(der, der + len);
    OPENSSL_free(der);
    return out;
}

}  // namespace

RsaKey makeRsaKey(int bits, const std::string& commonName) {
    if (bits != 1024 && bits != 2048) throw std::invalid_argument("key bits: 1024 or 2048");
    Owned<EVP_PKEY> key(EVP_RSA_gen(static_cast<unsigned>(bits)));
    need(key != nullptr, "key generation");
    RsaKey out;
    out.privateKey = privateDer(key.get());
    out.certificate = selfSigned(key.get(), commonName);
    out.modulus = modulusOf(key.get());
    return out;
}

RsaKey rsaKeyFromPrivate(const Bytes& privateKey, const Bytes& certificate) {
    Owned<EVP_PKEY> key = loadPrivate(privateKey);
    RsaKey out;
    out.privateKey = privateKey;
    out.certificate = certificate;
    out.modulus = modulusOf(key.get());
    return out;
}

std::optional<CertificateSummary> summaryOf(const Bytes& certificate) {
    const unsigned char* p = certificate.data();
    Owned<X509> cert(d2i_X509(nullptr, &p, static_cast<long>(certificate.size())));
    if (!cert) return std::nullopt;
    CertificateSummary out;
    if (EVP_PKEY* key = X509_get0_pubkey(cert.get())) out.bits = EVP_PKEY_get_bits(key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    const int at = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    const ASN1_STRING* value =
        at < 0 ? nullptr : X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at));
    if (value) {
        const auto* text = ASN1_STRING_get0_data(value);
        out.commonName.assign(text, text + ASN1_STRING_length(value));
    }
    return out;
}

std::string commonNameOf(const Bytes& certificate) {
    const auto summary = summaryOf(certificate);
    return summary ? summary->commonName : std::string();
}

std::optional<Bytes> rsaPrivateRaw(const Bytes& privateKey, const Bytes& block) {
    Owned<EVP_PKEY> key = loadPrivate(privateKey);
    const Bytes n = modulusOf(key.get());
    if (block.size() != n.size() || !(block < n)) return std::nullopt;
    Owned<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
    if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) != 1)
        return std::nullopt;
    Bytes out(n.size());
    std::size_t len = out.size();
    if (EVP_PKEY_decrypt(ctx.get(), out.data(), &len, block.data(), block.size()) != 1)
        return std::nullopt;
    // Raw RSA gives a block of the modulus length; OpenSSL pads the front.
    out.resize(len);
    if (out.size() < n.size()) out.insert(out.begin(), n.size() - out.size(), 0);
    return out;
}

}  // namespace vtoken
