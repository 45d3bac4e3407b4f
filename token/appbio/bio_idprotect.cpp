#include "token/appbio/bio_idprotect.h"

#include <algorithm>

#include "crypto/token_crypto.h"
#include "libapdu/exception.h"
#include "token/appbio/auth_ticket.h"
#include "token/apppin/pin_idprotect.h"

namespace libapdu {

namespace {

constexpr std::size_t kLongAnswer = 258;
constexpr std::size_t kBioAnswer = 1024;
constexpr std::size_t kChallengeSize = 8;
constexpr std::size_t kMatchResult = 20;

const TPath kFingerprintObject = {0x3F00, 0x0023};
const TBytes kGetChallenge = {0x00, 0x84, 0x00, 0x00, static_cast<unsigned char>(kChallengeSize)};

constexpr unsigned char kTagFcp = 0x62;
constexpr unsigned char kTagAccess = 0x86;
constexpr unsigned char kTagFingers = 0xEA;
constexpr unsigned char kTagPublicData = 0x82;

// Match on card: the template goes in parts of 254 bytes, all but the last
// with the chaining bit in the class byte.
constexpr std::size_t kPart = 254;
constexpr unsigned char kClaChained = 0x10;
constexpr unsigned char kClaLast = 0x00;
constexpr unsigned char kInsBio = 0x22;
constexpr unsigned char kP1Match = 0x02;
constexpr unsigned char kP1Ticket = 0x03;
constexpr unsigned char kTagMatch = 0x62;
constexpr unsigned char kTagFinger = 0x83;
constexpr unsigned char kTagTemplate = 0x81;
constexpr unsigned char kTwoLengthBytes = 0x82;
constexpr WORD kMatchFailed = 0x6286;

std::size_t dataLength(const TBytes& response) {
    return response.size() >= 2 ? response.size() - 2 : 0;
}

TBytes readGroup(unsigned char p1) { return {0x80, 0x48, p1, 0x00, 0x00}; }

// 62 82 (S + 7), 83 01 finger, 81 82 S, the template.
TBytes matchBody(const TBytes& data, unsigned char finger) {
    if (data.size() > 0xFFFF - 7) APDU_RAISE(0x6B00);
    const WORD size = static_cast<WORD>(data.size());
    TBytes body{kTagMatch, kTwoLengthBytes};
    IAPDUDefinitions::add_w(body, static_cast<WORD>(size + 7));
    body << kTagFinger << 0x01 << finger << kTagTemplate << kTwoLengthBytes;
    IAPDUDefinitions::add_w(body, size);
    body << data;
    return body;
}

}  // namespace

CBioIdprotect::CBioIdprotect(IApplet* owner) : path(kFingerprintObject), applet(owner) {}

void CBioIdprotect::send(const TBytes& apdu, TBytes& response) { applet->send(apdu, response); }
WORD CBioIdprotect::extractSW(const TBytes& response) { return applet->extractSW(response); }
void CBioIdprotect::raiseSW(WORD sw) { applet->raiseSW(sw); }
void CBioIdprotect::checkSW(const TBytes& response) { applet->checkSW(response); }

void CBioIdprotect::select(const TPath& p) {
    path = p;
    TBytes response(kLongAnswer);
    send(IdprotectSelectByPath(path), response);
    checkSW(response);
}

unsigned int CBioIdprotect::loginType() {
    TBytes response(kBioAnswer);
    send(IdprotectSelectByPath(IdprotectLoginObject()), response);
    checkSW(response);
    const CBERTLV all(response.data(), dataLength(response));
    const CBERTLV access = all.getChild(kTagFcp).getChild(kTagAccess);
    if (access.size() < 2) throw 0;
    switch (access.begin()[1]) {
        case login_type::Pin:
        case login_type::Finger:
        case login_type::PinOrFinger:
        case login_type::PinAndFinger:
            return access.begin()[1];
        default:
            return 0;
    }
}

TBytes CBioIdprotect::getEnrolledFingers() {
    TBytes response(kBioAnswer);
    send(readGroup(0x00), response);
    checkSW(response);
    const CTLV all(response.data(), dataLength(response));
    TBytes fingers;
    // The card's 0 is an empty slot; the others are finger numbers plus one.
    for (unsigned char slot : all.getChild(kTagFingers).asBytes())
        if (slot != 0) fingers << static_cast<unsigned char>(slot - 1);
    return fingers;
}

TBytes CBioIdprotect::readPublicBioData(unsigned char finger) {
    TBytes response(kBioAnswer);
    send(readGroup(finger), response);
    checkSW(response);
    const CBERTLV all(response.data(), dataLength(response));
    return all.getChild(kTagPublicData).asBytes();
}

TBytes CBioIdprotect::appletMoC(const TBytes& data, unsigned char finger) {
    const TBytes body = matchBody(data, finger);
    TBytes response(kBioAnswer);
    for (std::size_t at = 0; at < body.size(); at += kPart) {
        const std::size_t n = std::min(kPart, body.size() - at);
        const bool last = at + n == body.size();
        TBytes command{last ? kClaLast : kClaChained, kInsBio, kP1Match, 0x00,
                       static_cast<unsigned char>(n)};
        command.insert(command.end(), body.begin() + static_cast<std::ptrdiff_t>(at),
                       body.begin() + static_cast<std::ptrdiff_t>(at + n));
        if (last) command << 0x00;
        response.assign(kBioAnswer, 0x00);
        send(command, response);
        if (!last) {
            checkSW(response);
            continue;
        }
        // 63 Cx: no match, x tries left.
        const WORD sw = extractSW(response);
        if ((sw & 0xFFC0) == 0x63C0) APDU_RAISE(kMatchFailed);
        checkSW(response);
    }
    const std::size_t n = std::min(kMatchResult, dataLength(response));
    return TBytes(response.begin(), response.begin() + static_cast<std::ptrdiff_t>(n));
}

void CBioIdprotect::loginByTicket(const TBytes& ticket) {
    KrAuthTicket t{};
    KrAuthHelper::decode_ticket(ticket, t);

    // The challenge comes before the select; the card keeps it across.
    TBytes challenge(kChallengeSize + 2);
    send(kGetChallenge, challenge);
    checkSW(challenge);
    challenge.resize(dataLength(challenge));
    if (challenge.size() != kChallengeSize) APDU_RAISE(0x6281);
    unsigned char proof[kChallengeSize];
    crypto_qntoken_des3cbc_enc(challenge.data(), challenge.size(), t.bioKey, sizeof t.bioKey, proof,
                               sizeof proof);

    applet->bio()->select(path);

    TBytes command{0x00, kInsBio, kP1Ticket, 0x00,
                   static_cast<unsigned char>(sizeof t.bioReference + kChallengeSize)};
    command.insert(command.end(), std::begin(t.bioReference), std::end(t.bioReference));
    command.insert(command.end(), proof, proof + kChallengeSize);
    TBytes response(kBioAnswer);
    send(command, response);
    checkSW(response);
}

}  // namespace libapdu
