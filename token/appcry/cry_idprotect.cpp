#include "token/appcry/cry_idprotect.h"

#include "crypto/rsa_helpers.h"
#include "libapdu/exception.h"
#include "token/appfs/fs_common.h"

namespace libapdu {

namespace {

// High bytes of the identifiers: a private key, a certificate object.
constexpr WORD kKindKey = 0x02;
constexpr WORD kKindCertificate = 0x84;
// A certificate object with this bit has no key; a key's own object has it clear.
constexpr WORD kCertificateAlone = 0x40;

// The certificate object: 125 bytes, then a 16-bit big-endian length.
constexpr std::size_t kCertificateLengthAt = 125;
constexpr std::size_t kCertificateAt = 127;

// PSO decipher, extended: 00 2A 80 0C 00 hh ll <body> 00 00; the body is the
// block in a BER-TLV with tag 0x82, the answer the result under tag 0x80.
const TBytes kDecipherHeader = {0x00, 0x2A, 0x80, 0x0C, 0x00};
const TBytes kExtendedLe = {0x00, 0x00};
constexpr unsigned char kTagBlock = 0x82;
constexpr unsigned char kTagResult = 0x80;
constexpr std::size_t kAnswer = 1024;

WORD kindOf(WORD id) { return id >> 8; }

// The block as a BER-TLV: 81 LL up to 255 bytes, 82 HH LL above.
TBytes blockBody(const TBytes& data) {
    TBytes body{kTagBlock};
    if (data.size() <= 0xFF) {
        body << 0x81 << static_cast<unsigned char>(data.size());
    } else {
        body << 0x82;
        IAPDUDefinitions::add_w(body, static_cast<WORD>(data.size()));
    }
    body << data;
    return body;
}

}  // namespace

const TPath CCryIdprotect::kKeys = {0x3F00, 0x3000, 0x3002};
const TPath CCryIdprotect::kCertificates = {0x3F00, 0x3000, 0x3001};

TBytes IdprotectCertificate(const TBytes& object) {
    if (object.size() < kCertificateAt) APDU_RAISE(0x6281);
    const std::size_t length = static_cast<std::size_t>(object[kCertificateLengthAt] << 8 |
                                                        object[kCertificateLengthAt + 1]);
    if (length > object.size() - kCertificateAt) APDU_RAISE(0x6281);
    return TBytes(object.begin() + kCertificateAt, object.begin() + kCertificateAt + length);
}

CCryIdprotect::CCryIdprotect(IApplet* owner) : CCryCommon(owner, {128, 256}) {}

std::vector<TPath> CCryIdprotect::list(unsigned short /*provider*/) {
    std::vector<TPath> paths;
    adapter.fs->select(kKeys);
    for (WORD id : adapter.fs->list(1))
        if (kindOf(id) == kKindKey) paths.push_back(PathChild(kKeys, id));
    // A key's own certificate is not a container of its own.
    adapter.fs->select(kCertificates);
    for (WORD id : adapter.fs->list(1))
        if (kindOf(id) == kKindCertificate && (id & kCertificateAlone))
            paths.push_back(PathChild(kCertificates, id));
    return paths;
}

void CCryIdprotect::select(TPath path) {
    if (path.empty()) APDU_RAISE(0x6A82);
    const WORD f = path.back();
    CCryptoInfo found;
    found.provider = kCryProvider;
    found.algorithm = kCryAlgorithm;
    found.path = path;

    if (kindOf(f) == kKindKey) {
        found.pin = pinUser();
        const WORD nn = f & 0xFF;
        try {
            const WORD own = static_cast<WORD>(kKindCertificate << 8 | (nn & ~kCertificateAlone));
            adapter.fs->select(PathChild(kCertificates, own));
            found.certificate = IdprotectCertificate(FileRead(adapter));
            found.publicKey = extractPublicKeyFromCert(found.certificate);
        } catch (const IException&) {
            // The key stands without a certificate.
            found.certificate.clear();
            found.publicKey.clear();
        }
        // The companion file's size is the key's length; decrypt needs it current.
        adapter.fs->select(PathChild(kKeys, static_cast<WORD>((nn | kCertificateAlone) + 1)));
        found.size = adapter.fs->info().size;
        found.id = {static_cast<unsigned char>((f - 1) & 0x0F)};
        found.privateKey.assign(found.size, 0);
    } else if (kindOf(f) == kKindCertificate) {
        found.pin = 0;
        adapter.fs->select(path);
        found.certificate = IdprotectCertificate(FileRead(adapter));
        found.publicKey = extractPublicKeyFromCert(found.certificate);
        found.size = static_cast<unsigned short>(found.publicKey.size());
    } else {
        APDU_RAISE(0x6A82);
    }
    // Only a select that succeeds replaces the previous selection.
    selected = found;
}

TBytes CCryIdprotect::decrypt(const TBytes& data) {
    // A key without certificate has no public key, so it fails here too.
    if (!isValidDataForRSA(selected.publicKey, data)) APDU_RAISE(0x6281);
    if (selected.privateKey.empty()) APDU_RAISE(0x6A82);

    const TBytes body = blockBody(data);
    TBytes command = kDecipherHeader;
    add_w(command, static_cast<WORD>(body.size()));
    command << body << kExtendedLe;
    TBytes response(kAnswer);
    applet->pack()->chain(command, response);
    checkSW(response);
    try {
        const CBERTLV answer(response.data(), response.size() >= 2 ? response.size() - 2 : 0);
        return answer.getChild(kTagResult).asBytes();
    } catch (int) {
        APDU_RAISE(0x6281);
    }
}

}  // namespace libapdu
