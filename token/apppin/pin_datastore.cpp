#include "token/apppin/pin_datastore.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned char kLogin = 0x10;
constexpr unsigned char kChange = 0x20;
constexpr WORD kColumns = 3;
constexpr unsigned short kLoggedIn = 0x00FF;
// Lc counts the reference and the length byte too.
constexpr std::size_t kMaxPin = 0xFF - 2;

}  // namespace

tagDataStoreStatus CPinDataStore::get_status() {
    TBytes response(tagDataStoreStatus::kAnswer);
    send(tagDataStoreStatus::kCommand, response);
    checkSW(response);
    response.resize(response.size() >= 2 ? response.size() - 2 : 0);
    return tagDataStoreStatus::parse(response);
}

void CPinDataStore::select(const TPath& path) {
    const WORD last = PinExtractAccess(path);
    reference = static_cast<WORD>(last - 1);
    record = CPinInfo();
    const tagDataStoreStatus s = get_status();
    if (last < 1 || last > kColumns) APDU_RAISE(0x6B00);
    const std::size_t c = last - 1;
    record.attemptsTotal = s.attemptsTotal[c];
    // A card counting more wrong attempts than it allows has none left.
    record.attemptsLeft = s.wrongAttempts[c] < s.attemptsTotal[c]
                              ? static_cast<unsigned char>(s.attemptsTotal[c] - s.wrongAttempts[c])
                              : 0;
    record.loginState = s.loggedIn[c] != 0 ? kLoggedIn : 0;
    record.minLength = s.minLength[c];
    record.maxLength = s.maxLength[c];
}

TBytes CPinDataStore::withPin(unsigned char p1, const TBytes& pin) {
    if (pin.size() > record.maxLength || pin.size() > kMaxPin) APDU_RAISE(0x6B00);
    const unsigned char n = static_cast<unsigned char>(pin.size());
    TBytes command{0x80,
                   0x10,
                   p1,
                   0x00,
                   static_cast<unsigned char>(n + 2),
                   static_cast<unsigned char>(reference),
                   n};
    command << pin;
    return command;
}

void CPinDataStore::login(const TBytes& pin) {
    const TBytes command = withPin(kLogin, pin);
    TBytes response(2);
    send(command, response);
    // Counted before the outcome is known, as the card does.
    if (record.attemptsLeft != 0) --record.attemptsLeft;
    checkSW(response);
    record.attemptsLeft = record.attemptsTotal;
    record.loginState = kLoggedIn;
}

void CPinDataStore::change(const TBytes& pin) {
    TBytes command = withPin(kChange, pin);
    command << 0x00;
    TBytes response(2);
    send(command, response);
    checkSW(response);
}

void CPinDataStore::logout() {
    record.loginState = 0;
    TBytes response(2);
    send({0x80, 0x10, 0x30, 0x00, 0x00, 0x00}, response);
    raiseSW(extractSW(response));
}

}  // namespace libapdu
