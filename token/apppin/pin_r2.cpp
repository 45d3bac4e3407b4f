#include "token/apppin/pin_r2.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned char kInsVerify = 0x20;
constexpr unsigned char kInsChange = 0xD4;
// The card's word for a wrong PIN, beside the ISO one.
constexpr WORD kSwWrongPin = 0x6416;

WORD wrongPinAsUnusable(WORD sw) { return sw == kSwWrongPin || sw == 0x6982 ? 0x6300 : sw; }

}  // namespace

void CPinR2::select(const TPath& path) {
    if (path != pathUser()) APDU_RAISE(0x6A82);
}

TBytes CPinR2::withPin(unsigned char ins, const TBytes& pin) {
    // Lc is one byte and counts the length byte too.
    if (pin.size() > 0xFE) APDU_RAISE(0x6B00);
    const unsigned char n = static_cast<unsigned char>(pin.size());
    TBytes command{0x00, ins, 0x00, 0x00, static_cast<unsigned char>(n + 1), n};
    command << pin;
    return command;
}

void CPinR2::login(const TBytes& pin) {
    TBytes response(2);
    send(withPin(kInsVerify, pin), response);
    raiseSW(wrongPinAsUnusable(extractSW(response)));
}

void CPinR2::change(const TBytes& pin) {
    TBytes response(2);
    send(withPin(kInsChange, pin), response);
    const WORD sw = extractSW(response);
    logout();
    // Only the card's own wrong-PIN word is rewritten here.
    raiseSW(sw == kSwWrongPin ? 0x6300 : sw);
}

void CPinR2::logout() {
    TBytes response(2);
    send({0x00, 0xDC, 0x00, 0x00, 0x01, 0x00}, response);
    raiseSW(extractSW(response));
}

CPinInfo CPinR2::info() {
    CPinInfo record;
    record.minLength = 4;
    record.maxLength = 16;
    record.attemptsLeft = 0xFF;
    record.attemptsTotal = 0xFF;
    record.loginState = 0x0010;
    return record;
}

}  // namespace libapdu
