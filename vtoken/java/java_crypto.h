// The cryptography of the Java and Joker applets, all from OpenSSL: the five
// keys of a PIN, the login answer, and the secure messaging cipher and MAC.
#pragma once

#include "core/bytes.h"

#include <optional>
#include <string>

namespace vtoken::java {

constexpr std::size_t kBlock = 8;

// Key `number` (0 to 4) of a PIN: PKCS#12 with SHA-1, 999 rounds, the key
// number as diversifier, salted by the salt file.
Bytes pinKey(unsigned char number, const std::string& pin, const Bytes& salt);
// The administrator's login key: no salt, two MD5 digests packed 7 bits a byte.
Bytes adminKey(const std::string& pin);

// The answer that proves a login: the challenge under the key, one triple
// DES block.
Bytes loginAnswer(const Bytes& key, const Bytes& challenge);

// Triple DES CBC with an 8-byte IV and 80 00.. padding; decryption strips the
// padding and gives nothing on a bad length or bad padding.
Bytes smEncrypt(const Bytes& key, const Bytes& iv, const Bytes& data);
std::optional<Bytes> smDecrypt(const Bytes& key, const Bytes& iv, const Bytes& cipher);
// Full triple DES CBC-MAC, zero IV, over the data padded with 80 00.. always.
Bytes smMac(const Bytes& key, const Bytes& data);

}  // namespace vtoken::java
