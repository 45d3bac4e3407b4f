// Flat TLV lists with one-byte tags, as the applets' command bodies and
// answers carry them. The dialects differ only in how a long length is
// written.
#pragma once

#include "core/bytes.h"

#include <optional>
#include <vector>

namespace vtoken {

struct Tlv {
    unsigned char tag;
    Bytes value;
};
using Tlvs = std::vector<Tlv>;

enum class TlvLengths {
    // 00 to 7F in one byte, then 81 n or 82 and two bytes; any other first
    // byte from 80 up is malformed.
    kBer,
    // 00 to FE in one byte, then FF and two bytes.
    kFfWord,
};

// The objects of `data` in order; nothing on any overrun or malformed length.
std::optional<Tlvs> parseTlvs(const Bytes& data, TlvLengths lengths);

// One object, its length in the shortest form `lengths` allows.
Bytes tlv(unsigned char tag, const Bytes& value, TlvLengths lengths);

// The value of the first object of `tag`, or null.
const Bytes* findTag(const Tlvs& tlvs, unsigned char tag);

}  // namespace vtoken
