#include "token/appcry/cry_finder.h"

#include "crypto/rsa_helpers.h"
#include "libapdu/exception.h"
#include "token/appcry/cry_common.h"
#include "token/appfs/fs_common.h"

namespace libapdu {

CCryFinder::~CCryFinder() = default;

void CCryFinder::search() {
    getcerts();
    getkeys();
    unite();
}

unsigned char CCryFinder::pinUser() { return CryPinUser(adapter.pin); }

TBytes CCryFinder::readFile(const TPath& path) {
    adapter.fs->select(path);
    return FileRead(adapter);
}

void CCryFinder::unite() {
    std::vector<bool> keyPaired(keys.size(), false), certPaired(certs.size(), false);
    for (std::size_t k = 0; k < keys.size(); ++k) {
        for (std::size_t c = 0; c < certs.size(); ++c) {
            if (keys[k].id != certs[c].id) continue;
            keyPaired[k] = certPaired[c] = true;
            CCryptoInfo pair = keys[k];
            pair.certificate = certs[c].certificate;
            pair.publicKey = extractPublicKeyFromCert(pair.certificate);
            pair.privateKey.assign(pair.size, 0);
            containers_.push_back(pair);
        }
    }
    for (std::size_t k = 0; k < keys.size(); ++k) {
        if (keyPaired[k]) continue;
        CCryptoInfo key = keys[k];
        key.certificate.clear();
        key.publicKey.clear();
        key.privateKey.assign(key.size, 0);
        containers_.push_back(key);
    }
    for (std::size_t c = 0; c < certs.size(); ++c) {
        if (certPaired[c]) continue;
        CCryptoInfo cert;
        cert.provider = certs[c].provider;
        cert.algorithm = certs[c].algorithm;
        cert.id = certs[c].id;
        cert.path = certs[c].path;
        cert.certificate = certs[c].certificate;
        cert.publicKey = extractPublicKeyFromCert(cert.certificate);
        cert.size = static_cast<unsigned short>(cert.publicKey.size());
        cert.pin = 0;
        containers_.push_back(cert);
    }
}

const TPath CFieldFinder::kHome{0x3F00, 0x6666, 0x5000, 0x0220};

void CFieldFinder::valid_field(const TBytes& data) {
    if (data.size() <= 1 || data.size() < static_cast<std::size_t>(data[1]) + 2) APDU_RAISE(0x6281);
}

void CFieldFinder::skip_field(TBytes& data) {
    valid_field(data);
    data.erase(data.begin(), data.begin() + 2 + data[1]);
}

void CFieldFinder::get_field(TBytes& data) {
    valid_field(data);
    data = TBytes(data.begin() + 2, data.begin() + 2 + data[1]);
}

std::vector<WORD> CFieldFinder::objects(unsigned kind) {
    std::vector<WORD> found;
    try {
        adapter.fs->select(kHome);
        for (WORD id : adapter.fs->list(2))
            if ((id >> 12) == kind) found.push_back(id);
    } catch (const IException&) {
        // An unreadable home ends the search with nothing found.
    }
    return found;
}

void CFieldFinder::getcerts() {
    for (WORD id : objects(1)) {
        CCryptoInfo cert;
        cert.provider = kCryProvider;
        cert.algorithm = kCryAlgorithm;
        cert.path = PathChild(kHome, id);
        try {
            cert.certificate = readFile(PathChild(cert.path, 0x0002));
        } catch (const IException&) {
            continue;  // no certificate file: no object
        }
        try {
            TBytes fields = readFile(PathChild(cert.path, 0x0001));
            if (fields.size() < layout.certErase) APDU_RAISE(0x6281);
            fields.erase(fields.begin(), fields.begin() + layout.certErase);
            for (unsigned i = 0; i < layout.certSkip; ++i) skip_field(fields);
            get_field(fields);
            cert.id = fields;
        } catch (const IException&) {
            cert.id.clear();
        }
        certs.push_back(cert);
    }
}

void CFieldFinder::getkeys() {
    for (WORD id : objects(3)) {
        CCryptoInfo key;
        key.provider = kCryProvider;
        key.algorithm = kCryAlgorithm;
        key.pin = pinUser();
        key.size = layout.keySize;
        key.path = PathChild(kHome, id);
        try {
            TBytes fields = readFile(PathChild(key.path, 0x0001));
            if (fields.size() <= 5) APDU_RAISE(0x6281);
            // A 6-byte file leaves no field: the skip below raises.
            fields.erase(fields.begin(), fields.begin() + 6);
            for (unsigned i = 0; i < layout.keySkip; ++i) skip_field(fields);
            get_field(fields);
            key.id = fields;
        } catch (const IException&) {
            key.id.clear();
        }
        keys.push_back(key);
    }
}

}  // namespace libapdu
