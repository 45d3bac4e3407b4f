// Protected answers of the Java secure messaging. The first input byte picks
// the form: 2, the rest is the part before the MAC, which the harness frames
// with a correct MAC and 90 00 so that TLV parsing and decryption are reached;
// anything else, the rest is the card's whole answer.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "crypto/token_crypto.h"
#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/exception.h"
#include "token/applet_java.h"
#include "token/apppack/pack_java.h"

using namespace libapdu;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 600) return 0;
    AnswerSender card;
    card.answer = {0x90, 0x00};  // the selection
    CAppletJava applet(&card);
    auto* pack = static_cast<CPackJava*>(applet.pack());
    for (unsigned long i = 1; i <= 4; ++i) pack->keySet(i, TBytes(24, 0x11 * (i + 1)));
    const TBytes h(8, 0x5A);
    TBytes answer(data + 1, data + size), check = answer, mac, response{0xEE};
    const bool framed = (data[0] & 0x07) == 2;
    if (framed) {  // part 0D 08 MAC 90 00, MAC over part H 90 00 0D 08
        check.insert(check.end(), h.begin(), h.end());
        check.insert(check.end(), {0x90, 0x00, 0x0D, 0x08});
        crypto_sm_mac(pack->keyGet(CPackJava::kKeyAnswerMac), check, mac);
        answer.insert(answer.end(), {0x0D, 0x08});
        answer.insert(answer.end(), mac.begin(), mac.end());
        answer.insert(answer.end(), {0x90, 0x00});
    }
    try {
        pack->unwrap(answer, h, response);
    } catch (const IException& e) {
        // With a good MAC only the form can fail.
        FUZZ_CHECK(framed ? e.code() == static_cast<long>(0x86E06281UL)
                          : (e.code() & 0xFFFF0000L) == static_cast<long>(0x86E00000UL));
        FUZZ_CHECK(response == TBytes{0xEE});  // left as it was
        return 0;
    }
    FUZZ_CHECK(response.size() >= 2 && response.size() + 12 <= answer.size());
    FUZZ_CHECK(std::equal(response.end() - 2, response.end(), answer.end() - 2));
    return 0;
}
