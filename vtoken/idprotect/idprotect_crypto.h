// The IDProtect card's cryptography, from OpenSSL: the check of a PIN
// answer, and the Diffie-Hellman exchange that keys one secure channel.
#pragma once

#include "core/bytes.h"

#include <openssl/bn.h>

#include <memory>
#include <optional>

namespace vtoken::idprotect {

constexpr std::size_t kChallengeSize = 8;
constexpr std::size_t kAnswerSize = 16;
constexpr std::size_t kSessionKeySize = 16;

Bytes sha256(const Bytes& data);

// Whether `answer` is triple DES CBC, zero IV, under the first 16 bytes of
// SHA-1(pin), of some 8 bytes followed by `challenge`. The card never learns
// the host's 8 bytes: the second block alone proves the PIN.
bool answerMatches(const Bytes& pin, const Bytes& challenge, const Bytes& answer);

struct SessionKeys {
    Bytes enc;
    Bytes mac;
};

// One channel's key agreement in the 1536-bit MODP group of RFC 3526 with
// generator 2, and a fresh private exponent. The host sends its value with a
// one-byte length, so a group's values must stay below 256 bytes.
class KeyExchange {
public:
    KeyExchange();

    Bytes generator() const;
    Bytes prime() const;
    // G to the card's exponent, at the size of the prime.
    Bytes cardValue() const;
    // The keys from the host's value X and the card's 32 random bytes Q:
    // Y = X to the card's exponent, written as the host writes it (big
    // endian, its length rounded up to whole 4-byte words); the encryption
    // key is Q[i] ^ Y[i], the MAC key Q[16 + i] ^ Y[24 + i]. Nothing for an
    // X outside 2 to P - 2.
    std::optional<SessionKeys> agree(const Bytes& hostValue, const Bytes& q) const;

private:
    using Number = std::unique_ptr<BIGNUM, decltype(&BN_clear_free)>;
    Number p_, g_, exponent_, public_;
};

// The secure messaging of a channel: triple DES CBC with 80 00.. padding,
// and the retail MAC (ISO/IEC 9797-1 algorithm 3) over data it pads itself.
Bytes smMac(const Bytes& key, const Bytes& data);
std::optional<Bytes> smDecrypt(const Bytes& key, const Bytes& cipher);

}  // namespace vtoken::idprotect
