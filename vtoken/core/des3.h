// Triple DES from OpenSSL, as the cards' PIN answers and secure messaging
// use it: ECB or CBC over whole blocks, and CBC with 80 00.. padding.
#pragma once

#include "core/bytes.h"

#include <cstddef>
#include <optional>

namespace vtoken {

constexpr std::size_t kDesBlock = 8;

enum class Des3Mode { kEcb, kCbc };

// A 24-byte key as it is; a two-key (16-byte) key with its first half again
// as the third key. Any other size comes back unchanged for des3 to refuse.
Bytes des3Key(const Bytes& key);

// Triple DES without padding over whole blocks, under a 16- or 24-byte key;
// CBC takes an 8-byte IV, ECB ignores it. Throws std::invalid_argument for
// a partial block or a key or IV of another size, std::runtime_error if
// OpenSSL fails.
Bytes des3(Des3Mode mode, bool encrypt, const Bytes& key, const Bytes& iv, const Bytes& data);

// The data, 80, then zeros up to a whole block (always at least one byte).
Bytes pad80(const Bytes& data);

// CBC over the data padded by pad80.
Bytes des3CbcPadded(const Bytes& key, const Bytes& iv, const Bytes& data);
// The inverse: nothing on an empty or partial cipher, or on padding that is
// not 80 00.. within the last block.
std::optional<Bytes> des3CbcUnpadded(const Bytes& key, const Bytes& iv, const Bytes& cipher);

}  // namespace vtoken
