// Authentication tickets on untrusted text: the input is what a caller hands
// to login in place of a PIN. Recognition and decoding must stay within the
// decoded data (ASan checks), and a recognised ticket must decode.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "token/appbio/auth_ticket.h"

using libapdu::KrAuthHelper;
using libapdu::KrAuthTicket;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const TBytes text(data, data + size);
    KrAuthTicket ticket{};
    try {
        KrAuthHelper::decode_ticket(text, ticket);
    } catch (int code) {
        FUZZ_CHECK(code == 0 && !KrAuthHelper::is_bio_ticket(text));
    }
    return 0;
}
