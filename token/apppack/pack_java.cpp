#include "token/apppack/pack_java.h"

#include <algorithm>

#include "crypto/token_crypto.h"
#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned char kForSecureMessaging = 0x01;  // P1: the challenge guards one wrapped command
constexpr unsigned char kClassSm = 0x04;
constexpr std::size_t kBlock = 8;

constexpr unsigned char kTagCipher = 0x32;
constexpr unsigned char kTagIv = 0x22;
constexpr unsigned char kTagHostChallenge = 0x33;
constexpr unsigned char kTagMac = 0x0D;
const TBytes kFixedObject = {0x34, 0x02, 0x01, 0x3E};
constexpr unsigned char kTlvLongLength = 0xFF;  // then two length bytes
constexpr unsigned char kExtendedLc = 0x00;     // likewise for Lc

constexpr unsigned short kAnswerGrowth = 0x20;  // what protection adds to an answer
constexpr std::size_t kMacTrailer = 12;         // 0D 08 MAC SW1 SW2
constexpr std::size_t kNoDataPart = 4;          // 99 02 SW1 SW2 in place of IV and data

}  // namespace

TBytes JavaChallengeGet(IApplet* applet, const TBytes& command) {
    TBytes answer(kBlock + 2);
    applet->send(command, answer);
    if (answer.size() < 2) APDU_RAISE(0x6281);  // not even a status word
    applet->checkSW(answer);
    if (answer.size() != kBlock + 2) APDU_RAISE(0x6281);
    answer.resize(kBlock);
    return answer;
}

CPackJava::CPackJava(IApplet* owner) : CPackJava(owner, kJavaCommands) {}

CPackJava::CPackJava(IApplet* owner, const JavaFamilyCommands& commands)
    : CPackCommon(owner), commands(commands) {}

TBytes CPackJava::challengeGet() {
    const JavaFamilyCommands::Header& h = commands.random;
    return JavaChallengeGet(
        applet, {h[0], h[1], kForSecureMessaging, 0x00, static_cast<unsigned char>(kBlock)});
}

CPackJava::CWrapped CPackJava::wrap(const TBytes& apdu, const TBytes& iv, TBytes hostChallenge) {
    TBytes header, data;
    unsigned short le = 0;
    parse_capdu(apdu, header, data, le);
    header[0] |= kClassSm;
    if (iv.size() != kBlock || hostChallenge.size() != kBlock) APDU_RAISE(0x6B00);
    ++hostChallenge[kBlock - 1];  // 0xFF wraps to 0x00
    TBytes card = challengeGet();
    ++card[kBlock - 1];

    TBytes cipher;
    crypto_sm_enc(keyGet(kKeyEnc), data, cipher, iv);
    TBytes body;
    add_tag12(body, kTagCipher, cipher, kTlvLongLength);
    add_tag1(body, kTagIv, iv);
    body << kFixedObject;
    add_tag1(body, kTagHostChallenge, hostChallenge);
    add_tag1(body, kTagMac, card);  // the MAC covers the card's challenge in its own place

    CWrapped out{header, hostChallenge, le + kAnswerGrowth + std::size_t{2}};
    add_12(out.command, body, kExtendedLc);
    TBytes mac;
    crypto_sm_mac(keyGet(kKeyMac), out.command, mac);
    if (mac.size() != kBlock) APDU_RAISE(0x6900);  // a key the cipher refuses
    std::copy(mac.begin(), mac.end(), out.command.end() - kBlock);
    add_w(out.command, static_cast<unsigned short>(le + kAnswerGrowth));
    return out;
}

void CPackJava::unwrap(const TBytes& answer, const TBytes& hostChallenge, TBytes& response) {
    if (answer.size() < 2) APDU_RAISE(0x6281);
    checkSW(answer);  // a refusal comes back bare
    TBytes plain;
    try {
        plain = open(answer, hostChallenge);
    } catch (int) {
        APDU_RAISE(0x6281);  // a TLV that runs past the answer
    }
    response = plain;
    response << answer[answer.size() - 2] << answer[answer.size() - 1];
}

TBytes CPackJava::open(const TBytes& answer, const TBytes& hostChallenge) {
    if (answer.size() < kMacTrailer) APDU_RAISE(0x6281);
    const auto sw = answer.end() - 2;
    const TBytes part(answer.begin(), answer.end() - kMacTrailer);
    TBytes check = part;
    check << hostChallenge << sw[0] << sw[1] << kTagMac << static_cast<unsigned char>(kBlock);
    TBytes mac;
    crypto_sm_mac(keyGet(kKeyAnswerMac), check, mac);
    if (mac != TBytes(sw - kBlock, sw)) APDU_RAISE(0x6281);

    if (part.size() == kNoDataPart) return {};
    const CTLV all(part.data(), part.size());
    const TBytes iv = all.getChild(kTagIv).asBytes();
    const TBytes cipher = all.getChild(kTagCipher).asBytes();
    if (iv.size() != kBlock) APDU_RAISE(0x6281);
    // Broken blocks or padding leave this impossible length in place.
    TBytes plain(cipher.size() + 1, 0);
    crypto_sm_dec(keyGet(kKeyDec), cipher, plain, iv);
    if (cipher.empty() || plain.size() >= cipher.size()) APDU_RAISE(0x6281);
    return plain;
}

void CPackJava::sm(const TBytes& apdu, TBytes& response) {
    // Every key before anything goes out: the card would run a command whose
    // answer could not be read.
    for (unsigned long k = kKeyEnc; k <= kKeyAnswerMac; ++k) keyGet(k);
    TBytes iv(kBlock), hostChallenge(kBlock);
    // IV first, H second: drawn in one second they are equal but for H's increment.
    crypto_random(iv.data(), iv.size());
    crypto_random(hostChallenge.data(), hostChallenge.size());
    const CWrapped wrapped = wrap(apdu, iv, hostChallenge);
    TBytes answer(wrapped.answerSize);
    send(wrapped.command, answer);
    unwrap(answer, wrapped.hostChallenge, response);
}

void CPackJava::chain(const TBytes&, TBytes&) { APDU_RAISE(0xFACE); }

}  // namespace libapdu
