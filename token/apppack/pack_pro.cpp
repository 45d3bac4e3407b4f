#include "token/apppack/pack_pro.h"

#include "crypto/token_crypto.h"
#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned char kClassSm = 0x0C;
constexpr unsigned char kTagData = 0x87;
constexpr unsigned char kTagLe = 0x97;
constexpr unsigned char kTagMac = 0x8E;
constexpr unsigned char kPaddingIndicator = 0x01;
constexpr unsigned char kMacSize = 8;
constexpr std::size_t kAnswerSize = 257;

// Always adds: a whole block when the data is already aligned.
void zeroFill(TBytes& m) { m.insert(m.end(), 8 - m.size() % 8, 0x00); }

}  // namespace

TBytes CPackPro::wrap(const TBytes& apdu) {
    TBytes header, data;
    unsigned short le = 0;
    parse_capdu(apdu, header, data, le);  // the command's Le is replaced by 97 01 FF
    header[0] |= kClassSm;

    TBytes m = header;
    zeroFill(m);

    TBytes cipher;
    crypto_sm_enc(keyGet(kKeyEnc), data, cipher, TBytes());
    TBytes d{kTagData, static_cast<unsigned char>((cipher.size() + 1) & 0xFF), kPaddingIndicator};
    d << cipher;

    TBytes wrapped = header;
    wrapped << static_cast<unsigned char>((d.size() + 13) & 0xFF) << d;
    m << d;
    zeroFill(m);

    const TBytes expected{kTagLe, 0x01, 0xFF};
    wrapped << expected;
    m << expected;
    zeroFill(m);

    TBytes mac;
    crypto_sm_mac_pro(keyGet(kKeyMac), m, mac);
    wrapped << kTagMac << kMacSize << mac << 0xFF;
    return wrapped;
}

void CPackPro::unwrap(const TBytes& header, const TBytes& answer, TBytes& response) {
    // A bare status word was not protected: card errors come back this way.
    if (answer.size() == 2) {
        response = answer;
        return;
    }
    TBytes plain;
    bool good = false;
    try {
        good = open(header, answer, plain);
    } catch (const IException&) {
        // Whatever failed inside, the caller sees a bad answer.
    } catch (int) {
        // A TLV that runs past the answer.
    }
    if (!good) APDU_RAISE(0x6281);
    response = plain;
    response << answer[answer.size() - 2] << answer[answer.size() - 1];
}

bool CPackPro::open(const TBytes& header, const TBytes& answer, TBytes& plain) {
    if (answer.size() < 2 || header.size() < 4) return false;
    const CTLV all(answer.data(), answer.size() - 2);
    const TBytes value = all.getChild(kTagData).asBytes();
    const TBytes mac = all.getChild(kTagMac).asBytes();
    if (value.empty()) return false;  // not even the padding indicator

    TBytes m2(header.begin(), header.begin() + 4);
    m2 << 0x00 << 0x00 << 0x00 << 0x00 << kTagData
       << static_cast<unsigned char>(value.size() & 0xFF) << value;
    TBytes check;
    crypto_sm_mac_pro(keyGet(kKeyMac), m2, check);
    if (check.size() != kMacSize || check != mac) return false;

    // The padding indicator is skipped unread.
    const TBytes cipher(value.begin() + 1, value.end());
    // Broken blocks or padding leave this impossible length in place.
    plain.assign(cipher.size() + 1, 0);
    crypto_sm_dec(keyGet(kKeyEnc), cipher, plain, TBytes());
    return !cipher.empty() && plain.size() <= cipher.size();
}

void CPackPro::sm(const TBytes& apdu, TBytes& response) {
    const TBytes wrapped = wrap(apdu);
    TBytes answer(kAnswerSize);
    send(wrapped, answer);
    unwrap(wrapped, answer, response);
}

void CPackPro::chain(const TBytes&, TBytes&) { APDU_RAISE(0xFACE); }

}  // namespace libapdu
