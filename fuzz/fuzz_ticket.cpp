// Authentication tickets on untrusted text: the input is what a caller hands
// to login in place of a PIN. Recognition and decoding must stay within the
// decoded data (ASan checks), and a recognised ticket must decode.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_check.h"
#include "token/appbio/auth_ticket.h"

using libapdu::KrAuthHelper;
using libapdu::KrAuthTicket;

namespace {
volatile std::uint32_t sink;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const TBytes text(data, data + size);
    const bool ticket = KrAuthHelper::is_bio_ticket(text);
    KrAuthTicket t;
    std::memset(&t, 0, sizeof t);
    try {
        KrAuthHelper::decode_ticket(text, t);
    } catch (int code) {
        FUZZ_CHECK(code == 0);
        FUZZ_CHECK(!ticket);
        return 0;
    }
    sink = t.type() + static_cast<std::uint32_t>(t.pinText().size());
    return 0;
}
