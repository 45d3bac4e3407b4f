#include "token/appcry/cry_pro.h"

#include "crypto/rsa_helpers.h"
#include "libapdu/exception.h"
#include "token/appcry/finder_pro4.h"

namespace libapdu {

namespace {

constexpr std::size_t kAnswer = 258;
constexpr std::size_t kDecipherAnswer = 1026;

// The file whose security environment holds the key reference.
const TPath kEnvironment{0x3F00, 0x6666, 0x1001};
const TBytes kRestoreEnvironment{0x00, 0x22, 0x03, 0xFE, 0x00};
const TBytes kFipsRestoreEnvironment{0x00, 0x22, 0x03, 0x33, 0x00};

// MANAGE SECURITY ENVIRONMENT, set for deciphering: key reference tag 83.
TBytes setKey(unsigned char kk) { return {0x00, 0x22, 0x01, 0xB8, 0x03, 0x83, 0x01, kk, 0x00}; }

void exchange(CCryCommon& driver, const TBytes& apdu) {
    TBytes response(kAnswer);
    driver.send(apdu, response);
    driver.checkSW(response);
}

// The block must be the key's length and below its modulus, and the
// container must have a private key.
void checkBlock(const CCryptoInfo& key, const TBytes& data) {
    if (!isValidDataForRSA(key.publicKey, data)) APDU_RAISE(0x6281);
    if (key.privateKey.empty()) APDU_RAISE(0x6A82);
}

TBytes deciphered(CCryCommon& driver, TBytes response) {
    driver.checkSW(response);
    if (response.size() < 2) APDU_RAISE(0x6281);
    response.resize(response.size() - 2);
    return response;
}

}  // namespace

TBytes CryProDecipherApdu(const TBytes& data) {
    const std::size_t lc = data.size() + 1;  // the padding indicator comes first
    TBytes apdu{0x00, 0x2A, 0x80, 0x86};
    // 255 bytes would want an Lc of 256; keys are 128 or 256 bytes long.
    if (data.size() <= 0xFF)
        apdu << static_cast<unsigned char>(lc & 0xFF) << 0x00 << data << 0x00;
    else
        apdu << 0x00 << static_cast<unsigned char>(lc >> 8) << static_cast<unsigned char>(lc & 0xFF)
             << 0x00 << data << 0x04 << 0x00;
    return apdu;
}

CCryPro::CCryPro(IApplet* owner) : CCryPro(owner, {128}) {}
CCryPro::CCryPro(IApplet* owner, std::vector<WORD> sizes) : CCryListed(owner, std::move(sizes)) {}

std::vector<CCryptoInfo> CCryPro::find() { return CPro4Finder(adapter).containers(); }

void CCryPro::select(TPath path) {
    selectFromList(path);
    if (selected.privateKey.empty()) return;
    const unsigned char r = static_cast<unsigned char>(path.back() & 0xFF);
    adapter.fs->select(kEnvironment);
    exchange(*this, kRestoreEnvironment);
    exchange(*this, setKey(static_cast<unsigned char>((r + 1) * 2 + 1)));
}

TBytes CCryPro::decrypt(const TBytes& data) {
    checkBlock(selected, data);
    TBytes response(kDecipherAnswer);
    send(CryProDecipherApdu(data), response);
    return deciphered(*this, response);
}

CCryPro4::CCryPro4(IApplet* owner) : CCryPro(owner, {128, 256}) {}

CCryPro4Fips::CCryPro4Fips(IApplet* owner) : CCryListed(owner, {128}) {}

std::vector<CCryptoInfo> CCryPro4Fips::find() { return CPro4FipsFinder(adapter).containers(); }

void CCryPro4Fips::select(TPath path) {
    selectFromList(path);
    if (selected.privateKey.empty()) return;
    adapter.fs->select(path);
    exchange(*this, kFipsRestoreEnvironment);
}

TBytes CCryPro4Fips::decrypt(const TBytes& data) {
    checkBlock(selected, data);
    TBytes response(kDecipherAnswer);
    applet->pack()->sm(CryProDecipherApdu(data), response);
    return deciphered(*this, response);
}

}  // namespace libapdu
