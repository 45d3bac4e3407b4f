#include "token/apppin/pin_idprotect.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "conv.h"
#include "crypto/token_crypto.h"
#include "libapdu/exception.h"
#include "token/appbio/auth_ticket.h"

namespace libapdu {

namespace {

constexpr std::size_t kLongAnswer = 258;
constexpr std::size_t kListAnswer = 256;
constexpr std::size_t kChallengeSize = 8;
constexpr std::size_t kAnswerSize = 16;
// A ticket's reference and key: whether it carries a fingerprint proof.
constexpr int kFingerFields = 20;

constexpr unsigned char kTagFcp = 0x62;
constexpr unsigned char kTagAccess = 0x86;
constexpr unsigned char kTagCounters = 0x85;

// Bytes of the PIN object's tag 0x85.
constexpr std::size_t kKind = 2;
constexpr std::size_t kCounters = 4;
constexpr unsigned char kKindComposite = 0x0F;

// Entries of the verified-PIN list: three bytes, the identifier last.
constexpr std::size_t kEntrySize = 3;

constexpr unsigned short kMinLength = 4;
constexpr unsigned short kMaxLength = 16;
// The longest PIN whose length bytes in the change command still fit.
constexpr std::size_t kLongestPin = 250;

const TBytes kListVerified = {0x80, 0xCE, 0x00, 0x00, 0x00};
const TBytes kPrepareUnblock = {0x80, 0x2C, 0x00, 0x00, 0x00};

std::size_t dataLength(const TBytes& response) {
    return response.size() >= 2 ? response.size() - 2 : 0;
}

// Throws 0 when tag 0x62 or `tag` inside it is missing.
TBytes fcpValue(const TBytes& response, unsigned char tag) {
    const CBERTLV all(response.data(), dataLength(response));
    return all.getChild(kTagFcp).getChild(tag).asBytes();
}

// A PIN the card can store: not empty, seven-bit, no zero byte.
void checkNewPin(const TBytes& pin) {
    if (pin.empty() || pin.size() > kLongestPin) APDU_RAISE(0x6300);
    for (unsigned char b : pin)
        if (b == 0 || b > 0x7F) APDU_RAISE(0x6300);
}

}  // namespace

void CPinIdprotect::NamesInitProc() {
    TBytes response(kLongAnswer);
    send(IdprotectSelectByPath(IdprotectLoginObject()), response);
    checkSW(response);
    unsigned char user = 0;
    try {
        const TBytes access = fcpValue(response, kTagAccess);
        if (access.size() < 2) throw 0;
        user = access[1];
    } catch (int) {
        APDU_RAISE(0x6281);
    }
    // The identifier of the user's PIN object is the card's login type.
    setPaths(PinPaths(TPinFamily::Idprotect, user));
    plain = {pin_id::IdprotectRoot, pin_id::IdprotectFourth};
}

TBytes CPinIdprotect::controlParameters(const TPath& path, std::size_t answerSize) {
    TBytes response(answerSize);
    send(IdprotectSelectByPath(path), response);
    checkSW(response);
    TBytes value;
    try {
        value = fcpValue(response, kTagCounters);
    } catch (int) {
        APDU_RAISE(0x6281);
    }
    if (value.size() <= kKind) APDU_RAISE(0x6281);
    return value;
}

void CPinIdprotect::select(const TPath& path) {
    if (path.empty()) APDU_RAISE(0x6B00);
    selected = path;
    directory.assign(path.begin(), path.end() - 1);
    identifier = path.back();

    const TBytes value = controlParameters(path, kLongAnswer);
    record = CPinInfo();
    // The counters: attempts left in the high half of a byte, the total in
    // the low half.
    const auto takeCounters = [&](const TBytes& v) {
        if (v.size() <= kCounters) APDU_RAISE(0x6281);
        record.attemptsLeft = v[kCounters] >> 4;
        record.attemptsTotal = v[kCounters] & 0x0F;
    };
    if (value[kKind] == 0 || value[kKind] == 1) {
        takeCounters(value);
    } else if (value[kKind] == kKindComposite) {
        NamesInit();
        takeCounters(controlParameters(plain, kListAnswer));
    }

    TBytes response(kListAnswer);
    send(kListVerified, response);
    checkSW(response);
    record.loginState = 0x0000;
    for (std::size_t i = kEntrySize - 1; i < dataLength(response); i += kEntrySize)
        if (response[i] == identifier) record.loginState = 0x00FF;
    record.minLength = kMinLength;
    record.maxLength = kMaxLength;
}

TBytes CPinIdprotect::challengeGet() {
    TBytes response(kChallengeSize + 2);
    send({0x00, 0x84, 0x00, 0x00, static_cast<unsigned char>(kChallengeSize)}, response);
    checkSW(response);
    response.resize(dataLength(response));
    if (response.size() != kChallengeSize) APDU_RAISE(0x6281);
    return response;
}

void CPinIdprotect::dialogue(const TBytes& pin) {
    const TBytes challenge = challengeGet();
    // Our random half goes with the challenge: the card decrypts the answer
    // and compares the challenge.
    TBytes block(kChallengeSize);
    crypto_random(block.data(), block.size());
    block << challenge;
    TBytes answer(kAnswerSize);
    crypto_athena_response(pin.data(), pin.size(), block.data(), block.size(), answer.data(),
                           answer.size());

    TBytes command{0x80, 0x20, 0x00, 0x00, static_cast<unsigned char>(kAnswerSize)};
    command << answer;
    TBytes response(2);
    send(command, response);
    // The try counts, whatever the card answers.
    --record.attemptsLeft;
    checkSW(response);
    record.attemptsLeft = record.attemptsTotal;
    record.loginState = 0x00FF;
}

bool CPinIdprotect::isZeroes(const unsigned char* data, int count) {
    return std::all_of(data, data + count, [](unsigned char b) { return b == 0; });
}

bool CPinIdprotect::isZeroes(const wchar_t* data, int count) {
    return std::all_of(data, data + count, [](wchar_t c) { return c == 0; });
}

void CPinIdprotect::login(const TBytes& pin) {
    if (selected == pathGlobal()) APDU_RAISE(0xFACE);
    if (!KrAuthHelper::is_bio_ticket(pin)) return dialogue(pin);

    KrAuthTicket ticket{};
    KrAuthHelper::decode_ticket(pin, ticket);
    const std::uint32_t type = ticket.type();
    wchar_t widePin[kTicketPinChars];
    std::memcpy(widePin, ticket.pin, sizeof widePin);
    // An either-or ticket carries the proof it was issued for: the finger's
    // reference and key, or a PIN.
    const auto* raw = reinterpret_cast<const unsigned char*>(&ticket);
    const bool fingerGiven = !isZeroes(raw + offsetof(KrAuthTicket, bioReference), kFingerFields);
    const bool pinGiven = !isZeroes(widePin, static_cast<int>(kTicketPinChars));

    if (type == login_type::Finger || type == login_type::PinAndFinger ||
        (type == login_type::PinOrFinger && fingerGiven)) {
        // The try counts, whatever the card answers.
        --record.attemptsLeft;
        applet->bio()->loginByTicket(pin);
        record.attemptsLeft = record.attemptsTotal;
        record.loginState = 0x00FF;
    }
    if (type == login_type::Pin || type == login_type::PinAndFinger ||
        (type == login_type::PinOrFinger && pinGiven)) {
        // Selected afresh: a fingerprint step leaves another object selected.
        select(TPath(selected));
        dialogue(
            IConvert::wstring_to_bytes(ticket.pinText(), static_cast<unsigned char>(encoding())));
    }
}

void CPinIdprotect::logout() {
    record.loginState = 0x0000;
    TBytes response(2);
    send({0x80, 0x28, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00,
          static_cast<unsigned char>(identifier & 0xFF)},
         response);
    checkSW(response);
}

void CPinIdprotect::sendNewPin(const TBytes& pin) {
    const unsigned char n = static_cast<unsigned char>(pin.size());
    TBytes command{0x80,
                   0x24,
                   0x00,
                   0x00,
                   static_cast<unsigned char>(n + 5),
                   kTagFcp,
                   0x81,
                   static_cast<unsigned char>(n + 2),
                   0x81,
                   n};
    command << pin;
    try {
        TBytes response(2);
        applet->pack()->sm(command, response);
        checkSW(response);
    } catch (const IException& e) {
        const WORD sw = static_cast<WORD>(e.code() & 0xFFFF);
        APDU_RAISE(sw == 0x6B00 ? 0x6300 : sw);
    }
}

void CPinIdprotect::change(const TBytes& pin) {
    checkNewPin(pin);
    sendNewPin(pin);
}

void CPinIdprotect::unblock(const TBytes& pin) {
    checkNewPin(pin);
    TBytes response(2);
    send(kPrepareUnblock, response);  // its word tells nothing the change won't
    sendNewPin(pin);
}

}  // namespace libapdu
