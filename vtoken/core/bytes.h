// Byte strings and their hex spelling, as scripts and the command line write them.
#pragma once

#include <cstddef>
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

// `w` in `digits` upper-case hex digits, zero padded ("3F00").
std::string hexNumber(unsigned long w, int digits);

// The low 16 bits of `w`, high byte first.
inline Bytes word(std::size_t w) {
    return Bytes{static_cast<unsigned char>(w >> 8 & 0xFF), static_cast<unsigned char>(w & 0xFF)};
}

// The low 32 bits of `w`, high byte first.
inline Bytes dword(std::size_t w) {
    return Bytes{static_cast<unsigned char>(w >> 24 & 0xFF),
                 static_cast<unsigned char>(w >> 16 & 0xFF),
                 static_cast<unsigned char>(w >> 8 & 0xFF), static_cast<unsigned char>(w & 0xFF)};
}

// The big-endian word at `at`; the caller has checked that two bytes are there.
inline std::uint16_t wordAt(const Bytes& data, std::size_t at) {
    return static_cast<std::uint16_t>(data[at] << 8 | data[at + 1]);
}

// Appends `w` to `out` as word() spells it.
inline void putWord(Bytes& out, std::size_t w) {
    out.push_back(static_cast<unsigned char>(w >> 8 & 0xFF));
    out.push_back(static_cast<unsigned char>(w & 0xFF));
}

// Appends `more` to `out`. Reserving first also keeps GCC 12's -O3 bounds
// check from a false alarm on small vectors.
inline void append(Bytes& out, const Bytes& more) {
    out.reserve(out.size() + more.size());
    out.insert(out.end(), more.begin(), more.end());
}

}  // namespace vtoken
