// Opening a Pro secure messaging answer. The first input byte picks the form:
// even, the rest is the card's whole answer; odd, the rest is the value of
// object 0x87, which the harness frames with a correct MAC and 90 00, so that
// the decryption of arbitrary ciphertext is reached too. An answer is either
// given back with its status word last, or refused with 0x6281 alone.
#include <cstddef>
#include <cstdint>

#include "crypto/token_crypto.h"
#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/applet.h"
#include "libapdu/error.h"
#include "libapdu/exception.h"
#include "token/apppack/pack_pro.h"

namespace {

using namespace libapdu;

const TBytes kMacKey = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA, 0x98,
                        0x76, 0x54, 0x32, 0x10, 0x89, 0xAB, 0xCD, 0xEF, 0x01, 0x23, 0x45, 0x67};
const TBytes kEncKey = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC,
                        0xDD, 0xEE, 0xFF, 0x00, 0x0F, 0x1E, 0x2D, 0x3C, 0x4B, 0x5A, 0x69, 0x78};
const TBytes kCommand = {0x00, 0xB0, 0x00, 0x00, 0x10};

class FuzzApplet : public IApplet {
public:
    explicit FuzzApplet(ISender* s) : IApplet(s) {
        error_.reset(new CErrorPro);
        pack_.reset(new CPackPro(this));
    }
};

// 87 L value 8E 08 MAC 90 00, with the MAC the card would compute.
TBytes framed(const TBytes& wrappedHeader, const TBytes& value) {
    TBytes object{0x87, static_cast<unsigned char>(value.size())};
    object.insert(object.end(), value.begin(), value.end());
    TBytes m(wrappedHeader.begin(), wrappedHeader.begin() + 4);
    m.insert(m.end(), 4, 0x00);
    m.insert(m.end(), object.begin(), object.end());
    TBytes mac;
    crypto_sm_mac_pro(kMacKey, m, mac);
    TBytes out = object;
    out.push_back(0x8E);
    out.push_back(0x08);
    out.insert(out.end(), mac.begin(), mac.end());
    out.push_back(0x90);
    out.push_back(0x00);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 258) return 0;
    AnswerSender sender;
    FuzzApplet applet(&sender);
    CPackPro* pack = static_cast<CPackPro*>(applet.pack());
    pack->keySet(CPackPro::kKeyMac, kMacKey);
    pack->keySet(CPackPro::kKeyEnc, kEncKey);

    const TBytes body(data + 1, data + size);
    const bool withMac = data[0] & 1;
    if (withMac) {
        if (body.size() > 0xFF - 12) return 0;  // one length byte, within 257
        sender.answer = framed(pack->wrap(kCommand), body);
    } else {
        sender.answer = body;
    }
    const TBytes& answer = sender.answer;

    TBytes response{0xEE};
    try {
        pack->sm(kCommand, response);
    } catch (const IException& e) {
        FUZZ_CHECK(e.code() == static_cast<long>(0x86E06281UL));
        FUZZ_CHECK(answer.size() != 2);
        FUZZ_CHECK(response.size() == 1 && response[0] == 0xEE);  // left as it was
        return 0;
    }
    FUZZ_CHECK(response.size() >= 2);
    FUZZ_CHECK(response[response.size() - 2] == answer[answer.size() - 2]);
    FUZZ_CHECK(response[response.size() - 1] == answer[answer.size() - 1]);
    if (answer.size() == 2) {
        FUZZ_CHECK(response == answer);
    } else {
        // The plaintext is shorter than the ciphertext it came from.
        FUZZ_CHECK(response.size() < answer.size());
        if (withMac) {
            const std::size_t cipher = body.size() - 1;
            FUZZ_CHECK(cipher > 0 && cipher % 8 == 0);
            FUZZ_CHECK(response.size() - 2 < cipher);
        }
    }
    return 0;
}
