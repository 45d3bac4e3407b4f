// Authentication tickets: a Base64 text that a biometric front end issues
// after a fingerprint matched, handed to the PIN driver in place of a PIN.
#pragma once

#include <cstdint>
#include <string>

#include "libapdu/types.h"

namespace libapdu {

// Login types, as the login object and a ticket give them.
namespace login_type {
constexpr std::uint32_t Pin = 0x20;
constexpr std::uint32_t Finger = 0x23;
constexpr std::uint32_t PinOrFinger = 0x24;
constexpr std::uint32_t PinAndFinger = 0x25;
}  // namespace login_type

// The value of the ticket's object with tag 1, field by field as it is
// decoded. Every member is bytes, so the record has no padding.
struct KrAuthTicket {
    unsigned char loginType[4];     // unsigned 32 bits, host byte order
    unsigned char bioReference[4];  // names the enrolled finger to the card
    unsigned char bioKey[16];       // two-key triple DES key
    unsigned char pin[120];         // 30 wide characters of 4 bytes, zero ended if shorter
    unsigned char reserved[45];

    std::uint32_t type() const;
    // The PIN up to its first zero character.
    std::wstring pinText() const;
};
static_assert(sizeof(KrAuthTicket) == 189, "the ticket record is 189 bytes");

constexpr std::size_t kTicketPinChars = sizeof(KrAuthTicket::pin) / 4;

class KrAuthHelper {
public:
    // A text of 208 chars whose Base64 decodes to a 24-byte digest, then
    // TLV data with an object of tag 1 declared 189 bytes long.
    static bool is_bio_ticket(const TBytes& pin);
    // The object of tag 1 into `ticket`, as far as the decoded data reach:
    // the fields beyond stay as they were. Throws the integer 0, as the TLV
    // readers do, when there is no such object.
    static void decode_ticket(const TBytes& pin, KrAuthTicket& ticket);
};

}  // namespace libapdu
