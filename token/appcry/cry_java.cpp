#include "token/appcry/cry_java.h"

#include "crypto/rsa_helpers.h"
#include "libapdu/exception.h"
#include "token/appcry/finder_java.h"

namespace libapdu {

namespace {

constexpr std::size_t kShortAnswer = 258;
constexpr std::size_t kLongAnswer = 1026;

// The key query: P1 P2, then a 3-byte body asking for the current key.
const TBytes kKeyQueryTail = {0x00, 0x31, 0x03, 0x10, 0x01, 0x1A, 0x00};
// Its answer, status word included: at least this long, byte 2 the kind of
// key (5: an RSA private key), byte 3 bit 0x04 set for 256 bytes.
constexpr std::size_t kKeyAnswerMin = 7;
constexpr std::size_t kKeyKindAt = 2;
constexpr unsigned char kKindRsaPrivate = 5;
constexpr std::size_t kKeyFlagsAt = 3;
constexpr unsigned char kFlagLongKey = 0x04;
constexpr WORD kLongKey = 256, kShortKey = 128;

// The decipher command: P1 P2, then an extended Lc; the data is one TLV
// whose length takes the escape and two bytes, and Le 04 00.
const TBytes kDecipherP1P2 = {0x03, 0x31};
constexpr unsigned char kTagData = 0x10;
constexpr unsigned char kLengthEscape = 0xFF;
constexpr std::size_t kDataHeader = 4;  // tag, escape, two length bytes
const TBytes kDecipherLe = {0x04, 0x00};

TBytes decipherCommand(const JavaFamilyCommands::Header& h, const TBytes& data) {
    TBytes command{h[0], h[1]};
    command << kDecipherP1P2 << 0x00;
    IAPDUDefinitions::add_w(command, static_cast<WORD>(data.size() + kDataHeader));
    command << kTagData << kLengthEscape;
    IAPDUDefinitions::add_w(command, static_cast<WORD>(data.size()));
    command << data << kDecipherLe;
    return command;
}

}  // namespace

CCryJavaFamily::CCryJavaFamily(IApplet* owner, const JavaFamilyCommands& commands,
                               bool checksOnDecrypt)
    : CCryListed(owner, {kShortKey, kLongKey}),
      commands(commands),
      checksOnDecrypt(checksOnDecrypt) {}

void CCryJavaFamily::select(TPath path) {
    selectFromList(path);
    // Only 3xxx directories hold keys; the finder gave them no privateKey yet.
    if ((path.back() >> 12) != 3) return;
    adapter.fs->select(path);

    TBytes query{commands.keyQuery[0], commands.keyQuery[1]};
    query << kKeyQueryTail;
    TBytes response(kShortAnswer);
    send(query, response);
    checkSW(response);
    if (response.size() < kKeyAnswerMin) APDU_RAISE(0x6281);
    if (response[kKeyKindAt] != kKindRsaPrivate) APDU_RAISE(0x6283);
    // Only the selected copy learns the length; the list keeps size 0.
    selected.size = (response[kKeyFlagsAt] & kFlagLongKey) ? kLongKey : kShortKey;
    selected.privateKey.assign(selected.size, 0);
}

TBytes CCryJavaFamily::decrypt(const TBytes& data) {
    if (checksOnDecrypt) {
        if (!isValidDataForRSA(selected.publicKey, data)) APDU_RAISE(0x6281);
        if (selected.privateKey.empty()) APDU_RAISE(0x6A82);
    }
    const TBytes command = decipherCommand(commands.decipher, data);
    TBytes response(kLongAnswer);
    if (isFips())
        applet->pack()->sm(command, response);
    else
        send(command, response);
    checkSW(response);
    try {
        const CTLV answer(response.data(), response.size() >= 2 ? response.size() - 2 : 0);
        return answer.getChild(kTagData).asBytes();
    } catch (int) {
        APDU_RAISE(0x6281);
    }
}

CCryJava::CCryJava(IApplet* owner) : CCryJavaFamily(owner, kJavaCommands, false) {}
std::vector<CCryptoInfo> CCryJava::find() { return CJavaFinder(adapter).containers(); }

CCryJoker::CCryJoker(IApplet* owner) : CCryJavaFamily(owner, kJokerCommands, true) {}
std::vector<CCryptoInfo> CCryJoker::find() { return CJokerFinder(adapter).containers(); }

}  // namespace libapdu
