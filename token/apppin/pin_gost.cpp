#include "token/apppin/pin_gost.h"

#include "libapdu/exception.h"
#include "token/appinfo/info_gost.h"

namespace libapdu {

namespace {

constexpr unsigned char kInsPin = 0x10;
constexpr unsigned char kP1Change = 0x10;
constexpr unsigned char kP1Verify = 0x20;

// Offsets in the status record.
constexpr std::size_t kLoggedIn = 0;
constexpr std::size_t kAttemptsTotal = 11;
constexpr std::size_t kWrongUser = 12;
constexpr std::size_t kWrongAdmin = 13;

// The key table slot where the PIN of the last login waits for a change.
constexpr unsigned long kPinKey = 0;

// Words the card gives for a logout with nobody logged in.
bool isHarmlessLogout(WORD sw) { return sw == 0x0101 || sw == 0x6E01 || sw == 0x6D01; }

}  // namespace

TBytes CPinGost::get_status() {
    TBytes response(tagGostStatus::kAnswer);
    send(tagGostStatus::kCommand, response);
    checkSW(response);
    return tagGostStatus::record(response);
}

void CPinGost::select(const TPath& path) {
    if (path.empty()) APDU_RAISE(0x6B00);
    reference = static_cast<WORD>(path.back() - 1);
    record = CPinInfo();
    const TBytes status = get_status();

    record.attemptsTotal = status[kAttemptsTotal];
    const unsigned char wrong = path == pathAdmin() ? status[kWrongAdmin] : status[kWrongUser];
    record.attemptsLeft = static_cast<unsigned char>(record.attemptsTotal - wrong);
    record.loginState = status[kLoggedIn] != 0 ? 0x00FF : 0x0000;
    record.minLength = kMinLength;
    record.maxLength = kMaxLength;
}

TBytes CPinGost::withReference(unsigned char p1, const TBytes& data) {
    // Lc is one byte and counts the reference too.
    if (data.size() > 0xFE) APDU_RAISE(0x6B00);
    TBytes command{0x80,
                   kInsPin,
                   p1,
                   0x00,
                   static_cast<unsigned char>(data.size() + 1),
                   static_cast<unsigned char>(reference)};
    command << data;
    return command;
}

void CPinGost::login(const TBytes& pin) {
    if (pin.size() > record.maxLength) APDU_RAISE(0x6B00);
    applet->pack()->keyClear();
    TBytes data{static_cast<unsigned char>(pin.size())};
    data << pin;
    TBytes response(2);
    send(withReference(kP1Verify, data), response);
    // The try counts, whatever the card answers.
    if (record.attemptsLeft != 0) --record.attemptsLeft;
    checkSW(response);
    applet->pack()->keySet(kPinKey, pin);
    record.attemptsLeft = record.attemptsTotal;
    record.loginState = 0x00FF;
}

void CPinGost::change(const TBytes& pin) {
    if (pin.size() > record.maxLength) APDU_RAISE(0x6B00);
    const TBytes old = applet->pack()->keyGet(kPinKey);
    TBytes data{static_cast<unsigned char>(old.size()), static_cast<unsigned char>(pin.size())};
    data << old << pin;
    TBytes response(2);
    send(withReference(kP1Change, data), response);
    checkSW(response);
}

void CPinGost::logout() {
    record.loginState = 0x0000;
    applet->pack()->keyClear();
    TBytes response(2);
    send({0x80, 0x15, 0x20, 0x00, 0x01, 0x01}, response);
    const WORD sw = extractSW(response);
    raiseSW(isHarmlessLogout(sw) ? 0x9000 : sw);
}

}  // namespace libapdu
