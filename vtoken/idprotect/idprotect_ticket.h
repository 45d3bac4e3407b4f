// The front end's part of a login by ticket, for tests and developers: after
// a fingerprint matched it issues a Base64 text that the host hands in place
// of the PIN.
//
// Decoded, a ticket is 156 bytes: a 24-byte digest (two MD5 digests packed
// 7 bits to the byte, over the rest), then 01 BD and the first 130 bytes of
// the 189-byte record: the login type (4 bytes, host order), the finger's
// reference (4), its ticket key (16), the PIN as 4-byte wide characters
// (host order) ended by a zero character. The record declares more than the
// text holds; the host reads what there is.
#pragma once

#include "idprotect/idprotect_state.h"

#include <optional>
#include <string>

namespace vtoken::idprotect {

constexpr std::size_t kTicketText = 208;

struct TicketRequest {
    unsigned type = kLoginFinger;
    std::optional<std::string> pin;
    std::optional<unsigned> finger;
};

// Throws std::invalid_argument when the request does not fit the type or
// names a finger the token has not enrolled.
std::string issueTicket(const IdprotectState& state, const TicketRequest& request);

}  // namespace vtoken::idprotect
