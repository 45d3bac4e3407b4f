// Byte strings and their hex spelling, as scripts and the command line write them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vtoken {

using Bytes = std::vector<unsigned char>;

// Reads hex digits, ignoring spaces, tabs and colons between bytes; throws
// std::invalid_argument on anything else or an odd number of digits.
Bytes fromHex(std::string_view text);

// Upper case, bytes separated by single spaces ("90 00").
std::string toHex(const Bytes& bytes);

// A status word as the last two bytes of a response.
inline Bytes statusWord(std::uint16_t sw) {
    return Bytes{static_cast<unsigned char>(sw >> 8), static_cast<unsigned char>(sw & 0xFF)};
}

// Appends `more` to `out`. Reserving first also keeps GCC 12's -O3 bounds
// check from a false alarm on small vectors.
inline void append(Bytes& out, const Bytes& more) {
    out.reserve(out.size() + more.size());
    out.insert(out.end(), more.begin(), more.end());
}

}  // namespace vtoken
