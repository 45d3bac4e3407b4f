#include "token/apppin/pin_pro.h"

#include <algorithm>

#include "crypto/token_crypto.h"
#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr WORD kMasterFile = 0x3F00;
const TPath kCounterFile = {kMasterFile, 0x6666, 0x1000, 0x0004};
const TPath kFipsCounterFile = {kMasterFile, 0x6666, 0x5000, 0x000F};
constexpr WORD kUserCounter = 0;
constexpr WORD kFipsUserCounter = 41;
constexpr WORD kAdminCounter = 2;  // the same in both modes

constexpr std::size_t kSaltSize = 20;
constexpr std::size_t kKeySize = 24;
constexpr std::size_t kChallengeSize = 8;
constexpr std::size_t kMacSize = 8;
constexpr std::size_t kListAnswer = 256;

constexpr unsigned char kLocalReference = 0x80;  // P2 names a PIN of the current directory
constexpr unsigned char kAdminChange = 0x85;     // the administrator PIN, local reference
constexpr unsigned char kPro4User = 0x81;        // the one PIN a non-FIPS Pro4 changes

constexpr WORD kLoggedIn = 0x00FF;
constexpr WORD kLoggedOut = 0x0000;
constexpr WORD kSwOk = 0x9000;
constexpr WORD kSwWrongPin = 0x6300;

// The unsalted PIN key.
TBytes plainKey(const TBytes& pin) {
    TBytes key(kKeySize);
    crypto_qntoken_md5_24(pin.data(), pin.size(), nullptr, 0, key.data(), key.size());
    return key;
}

unsigned char lastByte(const TPath& path) {
    return static_cast<unsigned char>(PinExtractAccess(path) & 0xFF);
}

}  // namespace

void CPinPro::NamesInitProc() {
    const bool fips = isFips();
    setPaths(PinPaths(fips ? TPinFamily::ProFips : TPinFamily::Pro));
    if (!fips) return;
    enc = {pin_id::ProFipsEnc};
    sig = {pin_id::ProFipsSig};
    user2 = {pin_id::ProFipsUser2};
    enc2 = {pin_id::ProFipsEnc2};
    sig2 = {pin_id::ProFipsSig2};
}

const TPath& CPinPro::pathEnc() {
    NamesInit();
    return enc;
}
const TPath& CPinPro::pathSig() {
    NamesInit();
    return sig;
}
const TPath& CPinPro::pathUser2() {
    NamesInit();
    return user2;
}
const TPath& CPinPro::pathEnc2() {
    NamesInit();
    return enc2;
}
const TPath& CPinPro::pathSig2() {
    NamesInit();
    return sig2;
}

IAppFS* CPinPro::fs() { return applet->fs(); }
IAppPack* CPinPro::pack() { return applet->pack(); }

WORD CPinPro::offset_userpin() { return isFips() ? kFipsUserCounter : kUserCounter; }
WORD CPinPro::offset_adminpin() { return kAdminCounter; }

TPath CPinPro::counterPath() { return isFips() ? kFipsCounterFile : kCounterFile; }

TBytes CPinPro::counterRead(WORD offset) {
    fs()->select(counterPath());
    TBytes counter(2);
    fs()->read(counter, offset);
    if (counter.size() != 2) APDU_RAISE(0x6281);
    return counter;
}

bool CPinPro::counterOffset(WORD& offset) {
    if (selected == pathUser()) {
        offset = offset_userpin();
        return true;
    }
    if (selected == pathAdmin()) {
        offset = offset_adminpin();
        return true;
    }
    return false;
}

bool CPinPro::isAdmin() { return selected == pathAdmin(); }

unsigned char CPinPro::reference() const {
    return static_cast<unsigned char>((id | kLocalReference) & 0xFF);
}

void CPinPro::selectDirectory() { fs()->select(directory); }

void CPinPro::select(const TPath& path) {
    selected = path;
    directory = path;
    if (!directory.empty()) directory.pop_back();
    id = path.empty() ? 0 : path.back();
    record = CPinInfo();

    TBytes response(kListAnswer);
    send({0x00, 0xCA, 0x01, 0x84, 0x00}, response);
    checkSW(response);
    record.loginState = kLoggedOut;
    for (std::size_t i = 0; i + 2 < response.size(); ++i)
        if (response[i] == id) record.loginState = kLoggedIn;
    record.minLength = 6;
    record.maxLength = 16;

    try {
        WORD offset = 0;
        if (counterOffset(offset)) {
            const TBytes counter = counterRead(offset);
            record.attemptsLeft = counter[0];
            record.attemptsTotal = counter[1];
        }
    } catch (const IException&) {
        // No counter file, or not readable: the attempts stay unknown.
    }
}

TBytes CPinPro::saltGet() {
    fs()->select(counterPath());
    TBytes salt(kSaltSize);
    fs()->read(salt, 0);
    return salt;
}

TBytes CPinPro::challengeGet() {
    TBytes response(kChallengeSize + 2);
    send({0x00, 0x84, 0x00, 0x00, static_cast<unsigned char>(kChallengeSize)}, response);
    if (response.size() < 2) APDU_RAISE(0x6281);  // not even a status word
    checkSW(response);
    if (response.size() != kChallengeSize + 2) APDU_RAISE(0x6281);
    response.resize(kChallengeSize);
    return response;
}

void CPinPro::keyGen(const TBytes& pin) {
    IAppPack* keys = pack();
    keys->keyClear();
    keys->keySet(kKeyPlain, plainKey(pin));
    try {
        const TBytes salt = saltGet();
        if (salt.size() != kSaltSize) APDU_RAISE(0x6281);
        TBytes key(kKeySize);
        crypto_qntoken_pro_sha1(1, pin.data(), pin.size(), salt.data(), salt.size(), key.data(),
                                key.size());
        keys->keySet(kKeyMac, key);
        crypto_qntoken_pro_sha1(3, pin.data(), pin.size(), salt.data(), salt.size(), key.data(),
                                key.size());
        keys->keySet(kKeyEnc, key);
    } catch (const IException&) {
        // A card without a salt still logs in outside FIPS mode with key 0;
        // asking for key 1 or 3 later fails with 0x6900.
    }
}

void CPinPro::login(const TBytes& pin) {
    if (pin.empty()) APDU_RAISE(0x6300);
    TBytes key;
    if (isAdmin()) {
        key = plainKey(pin);  // the administrator leaves no session keys
    } else {
        keyGen(pin);
        key = pack()->keyGet(isFips() ? kKeyMac : kKeyPlain);
    }
    const TBytes challenge = challengeGet();
    TBytes mac(kMacSize);
    crypto_qntoken_des3_mac(challenge.data(), challenge.size(), key.data(), key.size(), mac.data(),
                            mac.size());
    std::fill(key.begin(), key.end(), 0);

    // Selected after the challenge, not before: the card expects this order.
    selectDirectory();
    TBytes command{0x00, 0x82, 0x00, reference(), static_cast<unsigned char>(kMacSize)};
    command << mac;
    TBytes response(2);
    send(command, response);
    const WORD sw = extractSW(response);

    // The counter is the host's upkeep; whatever goes wrong here, the card's
    // verdict stands.
    try {
        WORD offset = 0;
        if (counterOffset(offset)) {
            TBytes counter = counterRead(offset);
            bool changed = false;
            if (sw == kSwOk && counter[0] != counter[1]) {
                counter[0] = counter[1];
                changed = true;
            } else if (sw == kSwWrongPin && counter[0] != 0) {
                --counter[0];
                changed = true;
            }
            // The record follows the card's verdict even if the write fails.
            record.attemptsLeft = counter[0];
            record.attemptsTotal = counter[1];
            if (changed) fs()->write(counter, offset);
        }
    } catch (const IException&) {
    }

    raiseSW(sw);
    record.loginState = kLoggedIn;
}

void CPinPro::logout() {
    record.loginState = kLoggedOut;
    // Leaving the directory is all the card needs to drop the login.
    fs()->select({kMasterFile});
    pack()->keyClear();
}

void CPinPro::change(const TBytes& pin) {
    if (isFips()) APDU_RAISE(0xFACE);
    if (pin.empty()) APDU_RAISE(0x6300);
    TBytes key;
    unsigned char target;
    if (isAdmin()) {
        key = plainKey(pin);
        target = kAdminChange;
    } else {
        keyGen(pin);
        key = pack()->keyGet(kKeyPlain);
        target = reference();
    }
    selectDirectory();
    TBytes command{0x00, 0x24, 0x01, target, static_cast<unsigned char>(key.size())};
    command << key;
    TBytes response(2);
    send(command, response);
    checkSW(response);
}

void CPinPro::unblock(const TBytes& pin) {
    keyGen(pin);
    const TBytes key = pack()->keyGet(kKeyPlain);
    fs()->select(TPath());

    // Re-creates the user PIN object around the new key.
    TBytes command{0x00, 0xDA, 0x01, 0x6E, 0x2C};
    command << TBytes{0x83, 0x02, 0x00, 0x01};
    command << TBytes{0x85, 0x08, 0x02, 0x0F, 0x82, 0x0F, 0xFF, 0xFF, 0x00, 0x00};
    command << TBytes{0x86, 0x02, 0x00, 0x01};
    command << 0x8F << static_cast<unsigned char>(kKeySize) << key;
    TBytes response(2);
    send(command, response);
    checkSW(response);

    try {
        const WORD offset = offset_userpin();
        TBytes counter = counterRead(offset);
        if (counter[0] != counter[1]) {
            counter[0] = counter[1];
            fs()->write(counter, offset);
        }
    } catch (const IException&) {
        // Upkeep only: the card has unblocked the PIN.
    }
}

void CPinPro4::change(const TBytes& pin) {
    if (pin.empty()) APDU_RAISE(0x6300);
    if (!isFips()) {
        keyGen(pin);
        const TBytes key = pack()->keyGet(kKeyPlain);
        selectDirectory();
        TBytes command{0x90, 0x24, 0x00, kPro4User, static_cast<unsigned char>(key.size())};
        command << key;
        TBytes response(2);
        send(command, response);
        checkSW(response);
        return;
    }

    // Three key objects hold the PIN, twinned by a shadow set, so that a
    // change broken off half-way leaves one usable set on the token.
    IAppPack* keys = pack();
    keys->keySave();
    TBytes a, b, c;
    try {
        keyGen(pin);
        a = keys->keyGet(kKeyMac);
        b = keys->keyGet(kKeyEnc);
        c = keys->keyGet(kKeyMac);
    } catch (const IException&) {
        keys->keyRestore();  // the session keeps its keys
        throw;
    }
    keys->keyRestore();  // the shadow set travels under the old keys

    selectDirectory();
    FipsFinChange(lastByte(pathUser2()), a, 0);
    FipsFinChange(lastByte(pathEnc2()), b, 1);
    FipsFinChange(lastByte(pathSig2()), c, 2);

    select(pathUser2());
    login(pin);  // proves the shadow set, and the new keys carry what follows

    selectDirectory();
    FipsFinChange(lastByte(pathUser()), a, 0);
    FipsFinChange(lastByte(pathEnc()), b, 1);
    FipsFinChange(lastByte(pathSig()), c, 2);

    // The shadow set ends with a secret nobody knows.
    TBytes secret(kSaltSize);
    crypto_random(secret.data(), secret.size());
    keyGen(secret);
    const TBytes a2 = keys->keyGet(kKeyMac);
    const TBytes b2 = keys->keyGet(kKeyEnc);
    const TBytes c2 = keys->keyGet(kKeyMac);

    select(pathUser());
    login(pin);

    FipsFinChange(lastByte(pathUser2()), a2, 0);
    FipsFinChange(lastByte(pathEnc2()), b2, 1);
    FipsFinChange(lastByte(pathSig2()), c2, 2);
}

void CPinPro4::FipsFinChange(unsigned char keyId, const TBytes& key, unsigned char kind) {
    const unsigned char p1 = kind == 0 ? 0x00 : 0x10;
    TBytes command{0x90, 0x24, p1, static_cast<unsigned char>(keyId | kLocalReference),
                   static_cast<unsigned char>(key.size() & 0xFF)};
    command << key;
    TBytes response(2);
    pack()->sm(command, response);
    checkSW(response);
}

}  // namespace libapdu
