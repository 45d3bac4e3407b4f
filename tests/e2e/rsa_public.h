// The public half of a token's key, from its certificate, with OpenSSL: what
// an application does to seal a block for the token, or to check its result.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace krfs::e2e {

using Pkey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

// The certificate's public key; null if the DER does not parse.
inline Pkey publicKeyOf(const std::string& der) {
    const auto* p = reinterpret_cast<const unsigned char*>(der.data());
    std::unique_ptr<X509, decltype(&X509_free)> cert(
        d2i_X509(nullptr, &p, static_cast<long>(der.size())), X509_free);
    return Pkey(cert ? X509_get_pubkey(cert.get()) : nullptr, EVP_PKEY_free);
}

// Seals `in` with `padding`, or with `recover` takes a raw private-key result
// back to its block; empty if OpenSSL refuses.
inline std::string publicOp(EVP_PKEY* key, bool recover, int padding, const std::string& in) {
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr),
                                                                    EVP_PKEY_CTX_free);
    auto op = recover ? EVP_PKEY_verify_recover : EVP_PKEY_encrypt;
    const auto* data = reinterpret_cast<const unsigned char*>(in.data());
    std::string out(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
    std::size_t n = out.size();
    if (!ctx ||
        (recover ? EVP_PKEY_verify_recover_init(ctx.get()) : EVP_PKEY_encrypt_init(ctx.get())) !=
            1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) != 1 ||
        op(ctx.get(), reinterpret_cast<unsigned char*>(out.data()), &n, data, in.size()) != 1)
        return {};
    out.resize(n);
    return out;
}

}  // namespace krfs::e2e
