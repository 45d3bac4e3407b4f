// The Java-family answers a token can shape: the PIN status, and protected
// answers of secure messaging. The first input byte picks the case: 0 the
// status answer (bit 3: the Joker dialect), 1 a whole protected answer, 2 the
// part before the MAC, which the harness frames with a correct MAC and 90 00
// so that TLV parsing and decryption are reached. The rest is the answer.
#include <cstddef>
#include <cstdint>

#include "crypto/token_crypto.h"
#include "fuzz_check.h"
#include "fuzz_sender.h"
#include "libapdu/applet.h"
#include "libapdu/error.h"
#include "libapdu/exception.h"
#include "token/apppack/pack_java.h"
#include "token/apppin/pin_joker.h"

namespace {

using namespace libapdu;

const TBytes kHostChallenge = {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE};
constexpr long kBadAnswer = static_cast<long>(0x86E06281UL);

struct QuietFS : IAppFS {
    void select(TPath) override {}
};
struct PlainInfo : IAppInfo {
    bool isFips() override { return false; }
};

class FuzzApplet : public IApplet {
public:
    FuzzApplet(ISender* s, bool joker) : IApplet(s) {
        error_.reset(new CErrorJava);
        pack_.reset(new CPackJava(this));
        pin_.reset(joker ? new CPinJoker(this) : new CPinJava(this));
        fs_.reset(new QuietFS);
        info_.reset(new PlainInfo);
        for (unsigned long i = 0; i < 5; ++i) pack()->keySet(i, TBytes(24, 0x11 * (i + 1)));
    }
};

bool libraryCode(long code) { return (code & 0xFFFF0000L) == static_cast<long>(0x86E00000UL); }

void status(FuzzApplet& applet) {
    IAppPin* pin = applet.pin();
    try {
        pin->select(pin->pathUser());
    } catch (const IException& e) {
        FUZZ_CHECK(libraryCode(e.code()));
        return;
    }
    const CPinInfo info = pin->info();
    FUZZ_CHECK(info.loginState == 0 || info.loginState == 0xFF);
    FUZZ_CHECK(info.attemptsTotal == 0x7F || (info.attemptsTotal >= 1 && info.attemptsTotal <= 15));
}

void unwrap(FuzzApplet& applet, const TBytes& answer) {
    TBytes response{0xEE};
    try {
        static_cast<CPackJava*>(applet.pack())->unwrap(answer, kHostChallenge, response);
    } catch (const IException& e) {
        FUZZ_CHECK(libraryCode(e.code()));
        FUZZ_CHECK(response.size() == 1 && response[0] == 0xEE);  // left as it was
        return;
    }
    // Only a checked answer comes back: MAC, IV and status word.
    FUZZ_CHECK(answer.size() >= 12 && response.size() >= 2);
    FUZZ_CHECK(response.size() <= answer.size() - 12);
    FUZZ_CHECK(response[response.size() - 2] == answer[answer.size() - 2]);
    FUZZ_CHECK(response[response.size() - 1] == answer[answer.size() - 1]);
}

// part 0D 08 MAC 90 00, with the MAC the card would compute under key 4.
TBytes framed(FuzzApplet& applet, const TBytes& part) {
    TBytes check = part;
    check.insert(check.end(), kHostChallenge.begin(), kHostChallenge.end());
    check.insert(check.end(), {0x90, 0x00, 0x0D, 0x08});
    TBytes mac;
    crypto_sm_mac(applet.pack()->keyGet(4), check, mac);
    TBytes out = part;
    out.insert(out.end(), {0x0D, 0x08});
    out.insert(out.end(), mac.begin(), mac.end());
    out.insert(out.end(), {0x90, 0x00});
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 600) return 0;
    AnswerSender sender;
    FuzzApplet applet(&sender, data[0] & 0x08);
    const TBytes body(data + 1, data + size);
    switch (data[0] & 0x07) {
        case 0:
            sender.answer = body;
            status(applet);
            break;
        case 1:
            unwrap(applet, body);
            break;
        case 2: {
            const TBytes answer = framed(applet, body);
            TBytes response;
            try {
                static_cast<CPackJava*>(applet.pack())->unwrap(answer, kHostChallenge, response);
            } catch (const IException& e) {
                FUZZ_CHECK(e.code() == kBadAnswer);  // the MAC holds: only the form can fail
                break;
            }
            FUZZ_CHECK(response.size() >= 2 && response.size() - 2 < body.size());
            break;
        }
        default:
            break;
    }
    return 0;
}
