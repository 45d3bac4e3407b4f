#include "token/apppack/pack_idprotect.h"

#include <algorithm>

#include "crypto/token_crypto.h"
#include "crypto/vlong.h"
#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned char kClassSm = 0x0C;
constexpr unsigned char kClassChaining = 0x10;
constexpr unsigned char kTagData = 0x87;
constexpr unsigned char kTagMac = 0x8E;
constexpr unsigned char kPaddingIndicator = 0x01;
constexpr unsigned char kMacSize = 8;
// The 0x8E object and the 0x87 header beyond the ciphertext, counted in Lc.
constexpr std::size_t kWrapOverhead = 10;

constexpr unsigned char kTagGenerator = 0x80;
constexpr unsigned char kTagModulus = 0x81;
constexpr unsigned char kTagCardValue = 0x82;

constexpr std::size_t kExponentSize = 20;
constexpr std::size_t kKeySize = 16;
// Bytes 16 to 23 of the shared value go into neither key; the card does the same.
constexpr std::size_t kMacKeyOffset = 24;
constexpr std::size_t kCardHalves = 32;

constexpr std::size_t kPartSize = 255;
constexpr std::size_t kChainAnswer = 1024;
constexpr std::size_t kGroupAnswer = 1026;
constexpr std::size_t kLongAnswer = 258;

const TBytes kReadGroup = {0x80, 0x48, 0x00, 0x80, 0x00};
const TBytes kCloseChannel = {0x80, 0x86, 0xFF, 0xFF};
// The send sequence counter: each channel carries one command.
const TBytes kCounter = {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01};

TBytes toBytes(const vlong& v) {
    TBytes out(v.size());
    v.to_hex(out.data(), static_cast<unsigned>(out.size()));
    return out;
}

vlong fromBytes(const TBytes& b) { return vlong(b.data(), static_cast<unsigned>(b.size())); }

struct Group {
    TBytes generator, modulus, cardValue;
};

// The group answer without its status word. Throws 0 on a malformed one.
Group parseGroup(const TBytes& answer) {
    const std::size_t n = answer.size() >= 2 ? answer.size() - 2 : 0;
    const CBERTLV all(answer.data(), n);
    return {all.getChild(kTagGenerator).asBytes(), all.getChild(kTagModulus).asBytes(),
            all.getChild(kTagCardValue).asBytes()};
}

}  // namespace

void CPackIdprotect::sm(const TBytes& apdu, TBytes& response) {
    TBytes exponent(kExponentSize);
    crypto_random(exponent.data(), exponent.size());

    TBytes answer(kGroupAnswer);
    chain(kReadGroup, answer);
    checkSW(answer);
    Group group;
    try {
        group = parseGroup(answer);
    } catch (int) {
        APDU_RAISE(0x6281);
    }
    if (group.generator.size() < group.modulus.size())
        group.generator.insert(group.generator.begin(),
                               group.modulus.size() - group.generator.size(), 0x00);

    const vlong g = fromBytes(group.generator), p = fromBytes(group.modulus);
    const vlong c = fromBytes(group.cardValue), r = fromBytes(exponent);
    // A degenerate group gives no shared key; refused before any arithmetic.
    if (p < vlong(2) || (g % p).is_zero() || (c % p).is_zero()) APDU_RAISE(0x6281);
    const TBytes x = toBytes(modexp(g, r, p));
    const TBytes y = toBytes(modexp(c, r, p));
    // Too small a group leaves no key material where the keys are taken.
    if (y.size() < kMacKeyOffset + kKeySize) APDU_RAISE(0x6281);

    TBytes command{0x80, 0x86, 0x00, 0x00};
    add_1(command, x);
    command << 0x00;
    answer.assign(kLongAnswer, 0);
    send(command, answer);
    checkSW(answer);
    if (answer.size() < kCardHalves + 2) APDU_RAISE(0x6281);

    TBytes encKey(kKeySize), macKey(kKeySize);
    for (std::size_t i = 0; i < kKeySize; ++i) {
        encKey[i] = answer[i] ^ y[i];
        macKey[i] = answer[kKeySize + i] ^ y[kMacKeyOffset + i];
    }

    TBytes header, data;
    unsigned short le = 0;
    parse_capdu(apdu, header, data, le);  // no Le goes out in this dialect
    header[0] |= kClassSm;

    TBytes cipher;
    crypto_sm_enc_athena(encKey, data, cipher, TBytes());
    TBytes object{kTagData, static_cast<unsigned char>((cipher.size() + 1) & 0xFF),
                  kPaddingIndicator};
    object << cipher;

    TBytes macInput = kCounter;
    macInput << header << 0x80;
    macInput.insert(macInput.end(), 8 - macInput.size() % 8, 0x00);
    macInput << object;
    TBytes mac;
    crypto_sm_mac_athena(macKey, macInput, mac);

    TBytes wrapped = header;
    wrapped << static_cast<unsigned char>((object.size() + kWrapOverhead) & 0xFF) << object;
    wrapped << kTagMac << kMacSize << mac;
    answer.assign(kLongAnswer, 0);
    send(wrapped, answer);
    const WORD sw = extractSW(answer);
    response.clear();
    add_w(response, sw);

    // Closed whatever the command's outcome; a failure here wins.
    TBytes closed(2);
    send(kCloseChannel, closed);
    checkSW(closed);
}

void CPackIdprotect::chain(const TBytes& apdu, TBytes& response) {
    TBytes header, data;
    unsigned short le = 0;
    parse_capdu(apdu, header, data, le);
    response.clear();

    WORD sw = 0;
    // Keeps what an answer carries, checks its word and returns it.
    const auto collect = [&](const TBytes& answer) {
        if (answer.size() > 2) response.insert(response.end(), answer.begin(), answer.end() - 2);
        checkSW(answer);
        return extractSW(answer);
    };
    do {
        TBytes command;
        if (data.size() <= kPartSize) {
            if (data.empty()) {
                command = apdu;
            } else {
                command = header;
                command << static_cast<unsigned char>(data.size()) << data << 0x00;
            }
            data.clear();
        } else {
            command = header;
            command[0] |= kClassChaining;
            command << static_cast<unsigned char>(kPartSize);
            command.insert(command.end(), data.begin(), data.begin() + kPartSize);
            data.erase(data.begin(), data.begin() + kPartSize);
        }
        TBytes answer(kChainAnswer);
        send(command, answer);
        sw = collect(answer);
        while (sw >> 8 == 0x61) {
            answer.assign(kChainAnswer, 0);
            send({0x00, 0xC0, 0x00, 0x00, static_cast<unsigned char>(sw & 0xFF)}, answer);
            sw = collect(answer);
        }
    } while (!data.empty());
    add_w(response, sw);
}

}  // namespace libapdu
