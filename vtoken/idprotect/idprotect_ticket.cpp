#include "idprotect/idprotect_ticket.h"

#include "pro/pro_crypto.h"

#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace vtoken::idprotect {

namespace {

constexpr std::size_t kDigestSize = 24;
constexpr std::size_t kRecordSize = 189;
constexpr std::size_t kDecodedSize = kTicketText / 4 * 3;
constexpr unsigned char kTagTicket = 0x01;
// Record offsets.
constexpr std::size_t kReferenceAt = 4;
constexpr std::size_t kKeyAt = 8;
constexpr std::size_t kPinAt = 24;
constexpr std::size_t kWideSize = 4;
// What of the record fits behind the digest and the object's header.
constexpr std::size_t kRecordKept = kDecodedSize - kDigestSize - 2;
// The PIN with its ending zero character must fit.
constexpr std::size_t kPinCharsMax = (kRecordKept - kPinAt) / kWideSize - 1;

void put32(Bytes& record, std::size_t at, std::uint32_t value) {
    std::memcpy(record.data() + at, &value, sizeof value);
}

std::string base64(const Bytes& data) {
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data.data(),
                                  static_cast<int>(data.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

}  // namespace

std::string issueTicket(const IdprotectState& state, const TicketRequest& r) {
    const bool finger = r.type == kLoginFinger || r.type == kLoginPinAndFinger;
    const bool pin = r.type == kLoginPin || r.type == kLoginPinAndFinger;
    if (r.type != kLoginPin && r.type != kLoginFinger && r.type != kLoginPinOrFinger &&
        r.type != kLoginPinAndFinger)
        throw std::invalid_argument("the ticket's type is 0x20, 0x23, 0x24 or 0x25");
    if ((finger && !r.finger) || (pin && !r.pin) || (!r.finger && !r.pin))
        throw std::invalid_argument("this type of ticket needs --finger, --pin or both");

    Bytes record(kRecordSize, 0x00);
    put32(record, 0, r.type);
    if (r.finger) {
        const Finger* f = state.finger(*r.finger);
        if (!f) throw std::invalid_argument("the token has no finger " + std::to_string(*r.finger));
        const Bytes reference = f->reference();
        std::copy(reference.begin(), reference.end(), record.begin() + kReferenceAt);
        std::copy(f->ticketKey.begin(), f->ticketKey.end(), record.begin() + kKeyAt);
    }
    if (r.pin) {
        if (r.pin->empty() || r.pin->size() > kPinCharsMax)
            throw std::invalid_argument("a ticket's PIN has 1 to " + std::to_string(kPinCharsMax) +
                                        " characters");
        for (std::size_t i = 0; i < r.pin->size(); ++i) {
            const unsigned char c = static_cast<unsigned char>((*r.pin)[i]);
            if (c == 0 || c > 0x7F) throw std::invalid_argument("a ticket's PIN is seven-bit text");
            put32(record, kPinAt + kWideSize * i, c);
        }
    }

    Bytes body{kTagTicket, static_cast<unsigned char>(kRecordSize)};
    body.insert(body.end(), record.begin(), record.begin() + kRecordKept);
    Bytes decoded = pro::md5Key(std::string(body.begin(), body.end()));
    append(decoded, body);
    return base64(decoded);
}

}  // namespace vtoken::idprotect
