// RSA keys of the virtual tokens: made with OpenSSL together with a
// self-signed certificate, kept in the state file, and used only on the card.
#pragma once

#include "core/bytes.h"

#include <optional>
#include <string>

namespace vtoken {

struct RsaKey {
    Bytes privateKey;   // PKCS#8 DER; stays in the state, no command reveals it
    Bytes certificate;  // DER X.509, self-signed, subject CN = the given name
    Bytes modulus;      // big-endian, without a leading zero byte

    std::size_t bytes() const { return modulus.size(); }
};

// A new key pair of `bits` (1024 or 2048) with its certificate; throws
// std::invalid_argument for another size, std::runtime_error if OpenSSL fails.
RsaKey makeRsaKey(int bits, const std::string& commonName);

// The key from its stored private part (the certificate is the caller's).
RsaKey rsaKeyFromPrivate(const Bytes& privateKey, const Bytes& certificate);

// What a card's view shows of a DER certificate: the subject's common name
// (empty if it has none) and the public key's bits; nothing if it does not
// parse.
struct CertificateSummary {
    std::string commonName;
    int bits = 0;
};
std::optional<CertificateSummary> summaryOf(const Bytes& certificate);

// The subject's common name; empty if it has none or does not parse.
std::string commonNameOf(const Bytes& certificate);

// The raw private-key operation: `block` must be as long as the modulus and
// smaller than it, else nothing.
std::optional<Bytes> rsaPrivateRaw(const Bytes& privateKey, const Bytes& block);

}  // namespace vtoken
