// The Pro card's cryptography, all from OpenSSL: PIN keys, the answer to a
// challenge, and the secure messaging cipher and MAC.
#pragma once

#include "core/bytes.h"

#include <optional>
#include <string>

namespace vtoken::pro {

constexpr std::size_t kPinKeySize = 24;
constexpr std::size_t kSaltSize = 20;
constexpr std::size_t kBlock = 8;

// The unsalted key of a PIN: two MD5 digests, 7 bits of them per key byte.
Bytes md5Key(const std::string& pin);
// A salted key: PKCS#12 derivation with SHA-1, 999 rounds, diversifier `id`
// (1 for the MAC key, 3 for the encryption key).
Bytes saltedKey(unsigned char id, const std::string& pin, const Bytes& salt);

// Two-key or three-key triple DES of one block.
Bytes des3Encrypt(const Bytes& key, const Bytes& block);
// ISO/IEC 9797-1 MAC algorithm 3 over data already a multiple of 8 bytes.
Bytes retailMac(const Bytes& key, const Bytes& aligned);
// Triple DES CBC with a zero IV; encryption pads with 80 00.., decryption
// strips it and gives nothing on a bad length or bad padding.
Bytes cbcEncrypt(const Bytes& key, const Bytes& data);
std::optional<Bytes> cbcDecrypt(const Bytes& key, const Bytes& cipher);

// Zeros up to the next multiple of 8, a whole block when already aligned.
void padZeros(Bytes& m);

}  // namespace vtoken::pro
