#include "keyparts.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

#include "session.h"

namespace krfstool {

namespace {

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
struct BioFree {
    void operator()(BIO* b) const { BIO_free(b); }
};
struct BnFree {
    void operator()(BIGNUM* n) const { BN_free(n); }
};
struct OpensslFree {
    void operator()(char* s) const { OPENSSL_free(s); }
};

// 00, block type 2, at least eight bytes of nonzero padding, 00.
constexpr unsigned char kType2 = 0x02;
constexpr std::size_t kMinPadding = 8;

}  // namespace

TPath parseKeyPath(const std::string& text) {
    TPath path = parsePath(text);
    if (path.empty()) throw std::invalid_argument("a key path needs at least one identifier");
    return path;
}

std::string formatKeyPath(const TPath& path) {
    std::string s;
    for (WORD id : path) s += (s.empty() ? "" : "/") + formatId(id);
    return s;
}

std::string hexText(const TBytes& bytes) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(bytes.size() * 2);
    for (unsigned char b : bytes) {
        s += kDigits[b >> 4];
        s += kDigits[b & 0x0F];
    }
    return s;
}

TBytes unpadPkcs1Type2(const TBytes& block) {
    if (block.size() < 2 || block[0] != 0x00 || block[1] != kType2)
        throw std::invalid_argument("the block does not start 00 02 (PKCS#1 v1.5 encryption)");
    std::size_t separator = 2;
    while (separator < block.size() && block[separator] != 0x00) ++separator;
    if (separator == block.size())
        throw std::invalid_argument("the PKCS#1 padding has no 00 separator");
    if (separator - 2 < kMinPadding)
        throw std::invalid_argument("the PKCS#1 padding is shorter than 8 bytes");
    return TBytes(block.begin() + static_cast<long>(separator) + 1, block.end());
}

std::optional<CertificateFields> certificateFields(const TBytes& der) {
    const unsigned char* p = der.data();
    std::unique_ptr<X509, X509Free> cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (!cert) return std::nullopt;

    CertificateFields out;
    std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
    if (!bio ||
        X509_NAME_print_ex(bio.get(), X509_get_subject_name(cert.get()), 0, XN_FLAG_RFC2253) < 0)
        return std::nullopt;
    char* text = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &text);
    out.subject.assign(text, static_cast<std::size_t>(n));

    std::unique_ptr<BIGNUM, BnFree> serial(
        ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert.get()), nullptr));
    if (!serial) return std::nullopt;
    std::unique_ptr<char, OpensslFree> hex(BN_bn2hex(serial.get()));
    if (!hex) return std::nullopt;
    out.serial = hex.get();
    return out;
}

}  // namespace krfstool
