#include "token/appbio/auth_ticket.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "crypto/token_crypto.h"
#include "conv.h"

namespace libapdu {

namespace {

constexpr std::size_t kTicketText = 208;
constexpr std::size_t kDigestSize = 24;
constexpr unsigned int kTagTicket = 1;
constexpr unsigned long kTicketSize = sizeof(KrAuthTicket);

// Simple TLV: tags that never start one, and the escape to a word length.
constexpr unsigned char kInvalidTag = 0x00;
constexpr unsigned char kReservedTag = 0xFF;
constexpr unsigned char kWordLength = 0xFF;

static_assert(sizeof(wchar_t) == 4, "ticket PINs are 4-byte wide characters");

struct Found {
    std::size_t value;     // where the value starts in the decoded data
    unsigned long length;  // as declared
};

// The object of tag 1 behind the digest. A 208-char text decodes to 156
// bytes, fewer than the object declares, so only its header must lie within
// the data: the value is read as far as the data go, never further.
std::optional<Found> ticketObject(const TBytes& d) {
    std::size_t at = kDigestSize;
    while (at < d.size()) {
        const unsigned char tag = d[at++];
        if (tag == kInvalidTag || tag == kReservedTag || at >= d.size()) return std::nullopt;
        unsigned long length = d[at++];
        if (length == kWordLength) {
            if (d.size() - at < 2) return std::nullopt;
            length = static_cast<unsigned long>(d[at] << 8 | d[at + 1]);
            at += 2;
        }
        if (tag == kTagTicket) return Found{at, length};
        if (d.size() - at < length) return std::nullopt;
        at += length;
    }
    return std::nullopt;
}

TBytes decoded(const TBytes& pin) { return base64_decode(std::string(pin.begin(), pin.end())); }

}  // namespace

std::uint32_t KrAuthTicket::type() const {
    std::uint32_t t;
    std::memcpy(&t, loginType, sizeof t);
    return t;
}

std::wstring KrAuthTicket::pinText() const {
    std::wstring text;
    for (std::size_t i = 0; i < kTicketPinChars; ++i) {
        wchar_t c;
        std::memcpy(&c, pin + 4 * i, sizeof c);
        if (c == 0) break;
        text += c;
    }
    return text;
}

bool KrAuthHelper::is_bio_ticket(const TBytes& pin) {
    if (pin.size() != kTicketText) return false;
    const TBytes d = decoded(pin);
    if (d.size() < kDigestSize) return false;
    unsigned char digest[kDigestSize];
    crypto_qntoken_md5_24(d.data() + kDigestSize, d.size() - kDigestSize, nullptr, 0, digest,
                          sizeof digest);
    if (!std::equal(digest, digest + kDigestSize, d.begin())) return false;
    const std::optional<Found> object = ticketObject(d);
    return object && object->length == kTicketSize;
}

void KrAuthHelper::decode_ticket(const TBytes& pin, KrAuthTicket& ticket) {
    const TBytes d = decoded(pin);
    const std::optional<Found> object = ticketObject(d);
    if (!object) throw 0;
    const std::size_t n = std::min<std::size_t>(kTicketSize, d.size() - object->value);
    std::memcpy(&ticket, d.data() + object->value, n);
}

}  // namespace libapdu
