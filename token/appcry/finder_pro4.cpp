#include "token/appcry/finder_pro4.h"

#include <algorithm>
#include <cstdio>

#include "libapdu/exception.h"
#include "token/appcry/cry_common.h"
#include "token/appfs/fs_common.h"

namespace libapdu {

const TPath CPro4Finder::kCertificates{0x3F00, 0x6666, 0x1002};
const TPath CPro4Finder::kKeys{0x3F00, 0x6666, 0x6000};
const TPath CPro4Finder::kSizeTable{0x3F00, 0x6666, 0x6000, 0xECEC};
const TPath CPro4Finder::kMap{0x3F00, 0x6666, 0x1001, 0x1001};
const TPath CPro4Finder::kOldKeys{0x3F00, 0x6666, 0x5000, 0x0201};

namespace {

// Certificate fields after 1 byte, its id the second; the key's id the fifth
// field after its prefix; every key 128 bytes.
constexpr CFieldFinder::Layout kFipsLayout{1, 1, 4, 128};

// One byte of the file at `path`.
unsigned char readByte(CAdapter& adapter, const TPath& path, WORD offset) {
    adapter.fs->select(path);
    TBytes b(1);
    adapter.fs->read(b, offset);
    if (b.size() != 1) APDU_RAISE(0x6282);
    return b[0];
}

// The length of the key with reference `r`: a little-endian word whose low
// byte counts bytes, or blocks of 8 with bit 0x4000. Outside the table: 0.
unsigned keyLength(const TBytes& table, unsigned char r) {
    const std::size_t at = 2u * r;
    if (at + 1 >= table.size()) return 0;
    const unsigned word = table[at] | table[at + 1] << 8;
    return (word & 0x4000) ? (word & 0xFF) * 8 : (word & 0xFF);
}

// The id of the record's certificate: behind it 6 bytes, a text ended by a
// zero byte, then the id, ended by a zero byte or the end.
void takeRecord(const TBytes& record, CCryptoInfo& cert) {
    if (record.size() < 4) APDU_RAISE(0x6281);
    const std::size_t end = record[2] | record[3] << 8;  // the certificate's length plus 4
    if (end < 4 || end > record.size()) APDU_RAISE(0x6281);
    cert.certificate.assign(record.begin() + 4, record.begin() + end);
    if (record.size() - end <= 5) APDU_RAISE(0x6281);
    auto at = record.begin() + end + 6;
    at = std::find(at, record.end(), 0);
    if (at != record.end()) ++at;
    cert.id.assign(at, std::find(at, record.end(), 0));
}

// The name of the container whose map entry marks key file `id`: the text
// after the last "=" before the mark, up to its first "&".
TBytes mapName(const std::string& map, WORD id) {
    char mark[8];
    std::snprintf(mark, sizeof mark, "&%04x", id);
    const std::size_t at = map.find(mark);
    if (at == std::string::npos) APDU_RAISE(0x6A82);
    const std::size_t equals = map.rfind('=', at);
    if (equals == std::string::npos) APDU_RAISE(0x6281);
    const std::string entry = map.substr(equals + 1, at - equals - 1);
    const std::string name = entry.substr(0, entry.find('&'));
    return TBytes(name.begin(), name.end());
}

}  // namespace

CPro4Finder::CPro4Finder(CAdapter adapter) : CCryFinder(adapter) { search(); }

TPath CPro4Finder::files(const TPath& dir) {
    try {
        adapter.fs->select(dir);
        return adapter.fs->list(1);
    } catch (const IException&) {
        return {};  // an unlistable directory ends that search with nothing
    }
}

CCryptoInfo CPro4Finder::object(const TPath& path) {
    CCryptoInfo o;
    o.provider = kCryProvider;
    o.algorithm = kCryAlgorithm;
    o.path = path;
    return o;
}

void CPro4Finder::getcerts() {
    certs.clear();
    for (WORD id : files(kCertificates)) {
        if (id & 0xF000) continue;
        CCryptoInfo cert = object(PathChild(kCertificates, id));
        TBytes record;
        try {
            record = readFile(cert.path);
        } catch (const IException&) {
            continue;
        }
        try {
            takeRecord(record, cert);
        } catch (const IException&) {
            // The certificate stays usable under the file's own name.
            cert.id = {static_cast<unsigned char>(id & 0xFF)};
        }
        certs.push_back(cert);
    }
}

void CPro4Finder::getkeys() {
    keys.clear();
    TBytes table;
    try {
        table = readFile(kSizeTable);
    } catch (const IException&) {
        // No table: every lookup falls outside it and finds no key.
    }
    TBytes map;
    try {
        map = readFile(kMap);
    } catch (const IException&) {
        return;
    }
    if (!map.empty())
        mappedKeys(table, std::string(map.begin(), map.end()));
    else
        oldKeys(table);
}

void CPro4Finder::mappedKeys(const TBytes& table, const std::string& map) {
    for (WORD id : files(kKeys)) {
        if ((id >> 12) != 1 && (id >> 12) != 2) continue;
        CCryptoInfo key = object(PathChild(kKeys, id));
        key.pin = pinUser();
        unsigned char r = 0;
        try {
            r = readByte(adapter, key.path, 0);
        } catch (const IException&) {
            continue;
        }
        key.size = static_cast<unsigned short>(keyLength(table, r));
        if (key.size == 0) continue;
        try {
            key.id = mapName(map, id);
        } catch (const IException&) {
            key.id.clear();
        }
        key.path.push_back(r);
        keys.push_back(key);
    }
}

void CPro4Finder::oldKeys(const TBytes& table) {
    for (WORD id : files(kOldKeys)) {
        if ((id >> 8) != 0x05) continue;
        CCryptoInfo key = object(PathChild(kOldKeys, id));
        key.pin = pinUser();
        const unsigned char r = static_cast<unsigned char>((id & 0xFF) - 1);
        // Only a presence test: size stays 0, so these containers have no
        // private key and select prepares nothing for them.
        if (keyLength(table, r) == 0) continue;
        try {
            key.id = {static_cast<unsigned char>(readByte(adapter, key.path, 11) + 1)};
        } catch (const IException&) {
            key.id.clear();
        }
        key.path.push_back(r);
        keys.push_back(key);
    }
}

CPro4FipsFinder::CPro4FipsFinder(CAdapter adapter) : CFieldFinder(adapter, kFipsLayout) {
    search();
}

}  // namespace libapdu
