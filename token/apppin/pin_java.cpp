#include "token/apppin/pin_java.h"

#include <algorithm>

#include "crypto/token_crypto.h"
#include "libapdu/exception.h"
#include "token/apppack/pack_java.h"

namespace libapdu {

namespace {

const CJavaPinDialect kJava = {
    kJavaCommands,
    0x07,  // status
    0x11,  // authenticate
    0x0F,  // change
    0x13,  // unblock
    true,  // administrator branch
    true,  // directory by PIN
};

constexpr unsigned char kProprietary = 0x80;
constexpr unsigned char kValueTag = 0x10;
const TBytes kStatusQuery = {0x10, 0x03, 0x23, 0x06, 0x20};  // the three tags wanted
constexpr unsigned char kTagLeft = 0x23;
constexpr unsigned char kTagTotal = 0x06;
constexpr unsigned char kTagVerified = 0x20;
constexpr unsigned char kTotalBits = 0x0F;
constexpr unsigned char kTotalUnknown = 0x7F;  // shown when the card reports a total of 0
constexpr std::size_t kStatusAnswer = 258;

constexpr WORD kMasterFile = 0x3F00;
const TPath kAdminDirectory = {kMasterFile, 0x6666};
const TPath kSaltFile = {0x000F};
constexpr std::size_t kSaltSize = 20;
constexpr std::size_t kKeySize = 24;
constexpr std::size_t kChallengeSize = 8;

constexpr WORD kLoggedIn = 0x00FF;
constexpr WORD kLoggedOut = 0x0000;
constexpr unsigned short kMinLength = 6;
constexpr unsigned short kMaxLength = 16;

unsigned char low(WORD id) { return static_cast<unsigned char>(id & 0xFF); }

}  // namespace

CPinJava::CPinJava(IApplet* owner) : CPinJava(owner, kJava) {}

CPinJava::CPinJava(IApplet* owner, const CJavaPinDialect& dialect)
    : CPinCommon(owner), dialect(dialect) {}

void CPinJava::NamesInitProc() {
    setPaths(PinPaths(TPinFamily::JavaJoker));
    if (isFips()) user2 = {pin_id::JavaFipsUser2};
}

const TPath& CPinJava::pathUser2() {
    NamesInit();
    return user2;
}

IAppFS* CPinJava::fs() { return applet->fs(); }
IAppPack* CPinJava::pack() { return applet->pack(); }

unsigned char CPinJava::reference() const { return low(id); }

bool CPinJava::isAdmin() { return dialect.adminBranch && selected == pathAdmin(); }

TBytes CPinJava::command(unsigned char ins, unsigned char p2, const TBytes& value) const {
    TBytes out{kProprietary,
               ins,
               0x00,
               p2,
               static_cast<unsigned char>(value.size() + 2),
               kValueTag,
               static_cast<unsigned char>(value.size())};
    return out << value;
}

void CPinJava::sendChecked(const TBytes& apdu) {
    TBytes response(2);
    send(apdu, response);
    checkSW(response);
}

void CPinJava::select(const TPath& path) {
    selected = path;
    directory = path;
    if (!directory.empty()) directory.pop_back();
    id = path.empty() ? 0 : path.back();
    record = CPinInfo();

    if (path == pathUser()) {
        fs()->select(directory);
        readStatus(low(pin_id::JavaUser));
    } else if (isAdmin()) {
        fs()->select(kAdminDirectory);
        readStatus(low(pin_id::JavaAdmin));
    }
    record.minLength = kMinLength;
    record.maxLength = kMaxLength;
}

void CPinJava::readStatus(unsigned char pinId) {
    TBytes response(kStatusAnswer);
    TBytes query{kProprietary, dialect.insStatus, 0x00, pinId,
                 static_cast<unsigned char>(kStatusQuery.size())};
    send(query << kStatusQuery << 0x00, response);
    if (response.size() < 2) APDU_RAISE(0x6281);  // not even a status word
    checkSW(response);
    unsigned long left = 0, total = 0;
    TBytes verified;
    try {
        const CTLV all(response.data(), response.size() - 2);
        left = all.getChild(kTagLeft).asNumber();
        total = all.getChild(kTagTotal).asNumber() & kTotalBits;
        verified = all.getChild(kTagVerified).asBytes();
    } catch (int) {
        APDU_RAISE(0x6281);  // a tag missing, or a TLV past the answer
    }
    record.attemptsLeft = static_cast<unsigned char>(left);
    record.attemptsTotal = total == 0 ? kTotalUnknown : static_cast<unsigned char>(total);
    const bool in =
        std::any_of(verified.begin(), verified.end(), [](unsigned char b) { return b; });
    record.loginState = in ? kLoggedIn : kLoggedOut;
}

TBytes CPinJava::saltGet() {
    fs()->select(kSaltFile);
    TBytes salt(kSaltSize);
    fs()->read(salt, 0);
    return salt;
}

TBytes CPinJava::challengeGet() {
    const JavaFamilyCommands::Header& h = dialect.commands.random;
    return JavaChallengeGet(applet,
                            {h[0], h[1], 0x00, 0x00, static_cast<unsigned char>(kChallengeSize)});
}

void CPinJava::keyGen(const TBytes& pin) {
    IAppPack* keys = pack();
    keys->keyClear();
    const TBytes salt = saltGet();
    // The derivation would leave a zero key on a short salt.
    if (salt.size() != kSaltSize) APDU_RAISE(0x6281);
    for (unsigned long i = 0; i < kKeyCount; ++i) {
        TBytes key(kKeySize);
        crypto_qntoken_java_sha1(static_cast<int>(i), pin.data(), pin.size(), salt.data(),
                                 salt.size(), key.data(), key.size());
        keys->keySet(i, key);
    }
}

TBytes CPinJava::pinKey(const TBytes& pin, unsigned long index) {
    if (isAdmin()) {
        // The administrator leaves the session keys of an earlier login alone.
        TBytes key(kKeySize);
        crypto_qntoken_md5_24(pin.data(), pin.size(), nullptr, 0, key.data(), key.size());
        return key;
    }
    keyGen(pin);
    return pack()->keyGet(index);
}

void CPinJava::login(const TBytes& pin) {
    TBytes key = pinKey(pin, isFips() ? kKeyFipsLogin : kKeyLogin);
    const TBytes challenge = challengeGet();
    TBytes mac(kChallengeSize);
    crypto_qntoken_des3_mac(challenge.data(), challenge.size(), key.data(), key.size(), mac.data(),
                            mac.size());
    std::fill(key.begin(), key.end(), 0);

    if (!dialect.selectByPath || selected == pathUser())
        fs()->select(directory);
    else if (isAdmin())
        fs()->select(kAdminDirectory);

    TBytes response(2);
    send(command(dialect.insAuthenticate, reference(), mac), response);
    // One attempt fewer whatever the verdict; success restores the total.
    if (record.attemptsLeft != 0) --record.attemptsLeft;
    checkSW(response);
    record.attemptsLeft = record.attemptsTotal;
    record.loginState = kLoggedIn;
}

void CPinJava::logout() {
    record.loginState = kLoggedOut;
    fs()->select({kMasterFile});
    pack()->keyClear();
}

void CPinJava::change(const TBytes& pin) {
    if (isFips()) return fipsChange(pin);
    const TBytes key = pinKey(pin, kKeyLogin);
    if (!dialect.selectByPath) fs()->select(directory);
    sendChecked(command(dialect.insChange, reference(), key));
    volatile_update();
}

std::vector<TBytes> CPinJava::keySetOf(const TBytes& pin) {
    keyGen(pin);
    std::vector<TBytes> keys;
    for (unsigned long i = 0; i < kKeyCount; ++i) keys.push_back(pack()->keyGet(i));
    return keys;
}

void CPinJava::changeKeyObjects(const TPath& pin, const std::vector<TBytes>& keys) {
    fs()->select(directory);
    // Key i of a PIN is the object with the PIN's identifier plus i.
    for (std::size_t i = 0; i < keys.size(); ++i)
        FipsFinChange(static_cast<unsigned char>(PinExtractAccess(pin) + i), keys[i]);
}

void CPinJava::fipsChange(const TBytes& pin) {
    // The PIN's key objects are twinned by a shadow set, so that a change
    // broken off half-way leaves one usable set on the token.
    IAppPack* keys = pack();
    keys->keySave();
    std::vector<TBytes> fresh;
    try {
        fresh = keySetOf(pin);
    } catch (const IException&) {
        keys->keyRestore();  // the session keeps its keys
        throw;
    }
    keys->keyRestore();  // the shadow set travels under the old keys
    changeKeyObjects(pathUser2(), fresh);

    select(pathUser2());
    login(pin);  // proves the shadow set; its keys carry what follows
    changeKeyObjects(pathUser(), fresh);

    // The shadow set ends with a secret nobody knows.
    TBytes secret(kSaltSize);
    crypto_random(secret.data(), secret.size());
    const std::vector<TBytes> unknown = keySetOf(secret);
    select(pathUser());
    login(pin);
    changeKeyObjects(pathUser2(), unknown);
    volatile_update();
}

void CPinJava::FipsFinChange(unsigned char keyId, const TBytes& key) {
    TBytes response(2);
    pack()->sm(command(dialect.insChange, keyId, key), response);
    checkSW(response);
}

void CPinJava::unblock(const TBytes& pin) {
    if (dialect.insUnblock == 0) APDU_RAISE(0xFACE);
    keyGen(pin);
    sendChecked(
        command(dialect.insUnblock, low(PinExtractAccess(pathUser())), pack()->keyGet(kKeyLogin)));
    volatile_update();
}

void CPinJava::volatile_update() { JavaFamilyChangeMarker(*applet, dialect.commands); }

}  // namespace libapdu
