// Command APDUs as a card reads them: header, body and expected length.
#pragma once

#include "core/bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace vtoken {

// ISO/IEC 7816-4 status words a card model answers with.
namespace sw {
constexpr std::uint16_t kOk = 0x9000;
constexpr std::uint16_t kEndOfFile = 0x6282;
constexpr std::uint16_t kWrongPin = 0x6300;
constexpr std::uint16_t kWrongLength = 0x6700;
constexpr std::uint16_t kIncompatibleStructure = 0x6981;
constexpr std::uint16_t kSecurityNotSatisfied = 0x6982;
constexpr std::uint16_t kBlocked = 0x6983;
constexpr std::uint16_t kConditionsNotSatisfied = 0x6985;
constexpr std::uint16_t kNoCurrentEf = 0x6986;
constexpr std::uint16_t kSmObjectsMissing = 0x6987;
constexpr std::uint16_t kSmObjectsWrong = 0x6988;
constexpr std::uint16_t kWrongData = 0x6A80;
constexpr std::uint16_t kFileNotFound = 0x6A82;
constexpr std::uint16_t kNoRoom = 0x6A84;
constexpr std::uint16_t kWrongP1P2 = 0x6A86;
constexpr std::uint16_t kDataNotFound = 0x6A88;
constexpr std::uint16_t kFileExists = 0x6A89;
constexpr std::uint16_t kOutsideFile = 0x6B00;
constexpr std::uint16_t kUnknownInstruction = 0x6D00;
constexpr std::uint16_t kUnknownClass = 0x6E00;
}  // namespace sw

// A command APDU, short or, where a dialect takes them, extended.
struct Command {
    unsigned char cla = 0;
    unsigned char ins = 0;
    unsigned char p1 = 0;
    unsigned char p2 = 0;
    Bytes data;
    // Absent in cases 1 and 3; an Le byte of 00 means 256, two of 00 65536.
    std::optional<std::size_t> le;

    // Nothing if the length bytes do not add up. Without `extended`, an Lc
    // of 00 is refused.
    static std::optional<Command> parse(const Bytes& apdu, bool extended = false);

    std::uint16_t p1p2() const { return static_cast<std::uint16_t>(p1 << 8 | p2); }
};

// Data followed by a status word, high byte first.
Bytes respond(std::uint16_t status, Bytes data = {});

}  // namespace vtoken
