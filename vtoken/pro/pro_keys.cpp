// The Pro card's keys: writing a key and its certificate in the host's
// layout, and the card's commands that use the key (MANAGE SECURITY
// ENVIRONMENT, and DECIPHER as raw RSA).
#include "pro/pro_keys.h"

#include "core/random.h"
#include "core/state_json.h"
#include "pro/pro_card.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace vtoken::pro {

namespace {

constexpr std::size_t kIdMax = 64;
constexpr std::uint16_t kFirstRecord = 0x0001, kLastRecord = 0x0FFF;
constexpr std::uint16_t kFirstKeyFile = 0x1001, kLastKeyFile = 0x2FFF;
// The host asks for key R with kk = (R + 1) * 2 + 1, one byte.
constexpr unsigned char kFirstReference = 1, kLastReference = 126;
// A certificate record: 2 bytes the host skips, then L (little endian, the
// certificate's length plus 4), the certificate, 6 bytes, the first text
// and the id, each ended by a zero byte.
constexpr std::size_t kRecordHead = 4;
constexpr std::size_t kRecordGap = 6;
// The FIPS layout: a directory per object, 1xxx certificates and 3xxx keys,
// the same number xxx for the two halves of a container.
constexpr std::uint16_t kCertObject = 0x1000, kKeyObject = 0x3000;
constexpr std::uint16_t kObjectKind = 0xF000, kLastObject = 0x0FFF;
// Attribute files: a header the host skips, then fields (tag, length,
// value). The host reads the id as the second field of a certificate and
// the fifth of a key.
constexpr unsigned char kKindCertificate = 0x01, kKindPrivateKey = 0x02, kAlgorithmRsa = 0x01;
constexpr unsigned char kFieldLabel = 0x01, kFieldBits = 0x02, kFieldUsage = 0x03,
                        kFieldCertificate = 0x04, kFieldId = 0x05;
constexpr unsigned char kUsageDecipher = 0x01;

// Key lengths in the size table: the bytes, or with bit 0x4000 the bytes / 8.
constexpr std::uint16_t kLengthInEights = 0x4000;

std::string pathText(const Path& path) {
    std::string out;
    for (std::uint16_t id : path) out += (out.empty() ? "" : " ") + hexNumber(id, 4);
    return out;
}

Bytes field(unsigned char tag, const Bytes& value) {
    Bytes out{tag, static_cast<unsigned char>(value.size())};
    append(out, value);
    return out;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// The value of the field after skipping `skip` fields; nothing if one of them
// runs past the data.
std::optional<Bytes> fieldAt(const Bytes& data, std::size_t offset, int skip) {
    for (;; --skip) {
        if (data.size() < offset + 2 || data.size() - offset - 2 < data[offset + 1])
            return std::nullopt;
        const std::size_t length = data[offset + 1];
        if (skip == 0) return Bytes(data.begin() + offset + 2, data.begin() + offset + 2 + length);
        offset += 2 + length;
    }
}

// A certificate as the host would find it.
struct StoredCertificate {
    Path path;
    std::string id;
    Bytes der;
};

std::optional<StoredCertificate> plainRecord(const Node& record, Path path) {
    const Bytes& d = record.data;
    if (d.size() < kRecordHead) return std::nullopt;
    const std::size_t end = d[2] | d[3] << 8;
    if (end < kRecordHead || end > d.size()) return std::nullopt;
    StoredCertificate c{std::move(path), {}, Bytes(d.begin() + kRecordHead, d.begin() + end)};
    if (d.size() - end <= kRecordGap) {
        c.id.assign(1, static_cast<char>(record.id & 0xFF));  // the host's fallback
        return c;
    }
    auto first = std::find(d.begin() + end + kRecordGap, d.end(), 0x00);
    if (first != d.end()) c.id.assign(first + 1, std::find(first + 1, d.end(), 0x00));
    return c;
}

const Path kObjectsPath{kHome, kFipsHome, kObjects};

std::vector<StoredCertificate> storedCertificates(const ProState& s) {
    std::vector<StoredCertificate> out;
    if (!s.fips) {
        const Path dir{kHome, kCertRecords};
        const Node* records = s.find(dir);
        if (!records || !records->dir) return out;
        for (const auto& r : records->children) {
            if (r.dir || r.id > kLastRecord) continue;
            Path path = dir;
            path.push_back(r.id);
            if (auto c = plainRecord(r, path)) out.push_back(std::move(*c));
        }
        return out;
    }
    const Path& dir = kObjectsPath;
    const Node* objects = s.find(dir);
    if (!objects || !objects->dir) return out;
    for (const auto& o : objects->children) {
        if (!o.dir || (o.id & kObjectKind) != kCertObject) continue;
        const Node* der = o.child(kCertificateFile);
        const Node* attributes = o.child(kAttributes);
        if (!der || der->dir) continue;
        Path path = dir;
        path.push_back(o.id);
        StoredCertificate c{path, {}, der->data};
        if (attributes && !attributes->dir)
            if (auto id = fieldAt(attributes->data, 1, 1)) c.id.assign(id->begin(), id->end());
        out.push_back(std::move(c));
    }
    return out;
}

// A free identifier in [first, last] among `dir`'s children.
std::uint16_t freeId(const Node& dir, std::uint16_t first, std::uint16_t last, const char* what) {
    for (unsigned id = first; id <= last; ++id)
        if (!dir.child(static_cast<std::uint16_t>(id))) return static_cast<std::uint16_t>(id);
    throw std::invalid_argument(std::string("no free identifier for a ") + what);
}

Node& childDir(Node& parent, std::uint16_t id, unsigned char pin) {
    if (Node* n = parent.child(id)) {
        if (!n->dir) throw std::invalid_argument(hexNumber(id, 4) + " is a file, not a directory");
        return *n;
    }
    parent.children.push_back(makeDir(id, dirAccess(pin)));
    return parent.children.back();
}

// The file `id` in `dir`, made empty if it is not there.
Node& childFile(Node& dir, std::uint16_t id, unsigned char pin) {
    if (Node* n = dir.child(id)) {
        if (n->dir) throw std::invalid_argument(hexNumber(id, 4) + " is a directory, not a file");
        return *n;
    }
    dir.children.push_back(makeFile(id, fileAccess(right::kFree, pin), {}));
    return dir.children.back();
}

std::uint16_t sizeWord(std::size_t bytes) {
    return static_cast<std::uint16_t>(bytes < 0x100 ? bytes : kLengthInEights | bytes / 8);
}

void addPlain(ProState& s, const RsaKey& key, const std::string& id, const std::string& cn) {
    Node& home = *s.find({kHome});
    Node& records = childDir(home, kCertRecords, kUserPin);
    const std::uint16_t recordId = freeId(records, kFirstRecord, kLastRecord, "certificate record");
    const std::size_t end = kRecordHead + key.certificate.size();
    Bytes record{0x00, 0x00, static_cast<unsigned char>(end & 0xFF),
                 static_cast<unsigned char>(end >> 8)};
    append(record, key.certificate);
    record.resize(record.size() + kRecordGap, 0x00);
    append(record, text(cn));
    record.push_back(0x00);
    append(record, text(id));
    record.push_back(0x00);
    records.children.push_back(makeFile(recordId, fileAccess(right::kFree, kUserPin), record));
    if (key.privateKey.empty()) return;

    Node& keyFiles = childDir(home, kKeyFiles, kUserPin);
    unsigned char reference = kFirstReference;
    auto taken = [&](unsigned char r) {
        for (const auto& k : s.keys)
            if (k.reference == r) return true;
        for (const auto& f : keyFiles.children)
            if (!f.dir && f.id >= kFirstKeyFile && f.id <= kLastKeyFile && !f.data.empty() &&
                f.data[0] == r)
                return true;
        return false;
    };
    while (taken(reference))
        if (reference++ == kLastReference) throw std::invalid_argument("no free key reference");
    const std::uint16_t keyFile = freeId(keyFiles, kFirstKeyFile, kLastKeyFile, "key file");
    keyFiles.children.push_back(
        makeFile(keyFile, fileAccess(right::kFree, kUserPin), Bytes{reference}));

    Bytes& table = childFile(keyFiles, kSizeTable, kUserPin).data;
    table.resize(std::max<std::size_t>(table.size(), 2u * (reference + 1)), 0x00);
    const std::uint16_t word = sizeWord(key.bytes());
    table[2u * reference] = static_cast<unsigned char>(word & 0xFF);
    table[2u * reference + 1] = static_cast<unsigned char>(word >> 8);

    Bytes& map = childFile(childDir(home, kMapDir, kUserPin), kMapFile, kUserPin).data;
    char mark[8];
    std::snprintf(mark, sizeof mark, "&%04x", keyFile);
    const auto containers = std::count(map.begin(), map.end(), '=');
    append(map, text("C" + std::to_string(containers + 1) + "=" + id + mark + "\n"));
    s.keys.push_back({reference, 0, id, key.privateKey});
}

void addFips(ProState& s, const RsaKey& key, const std::string& id, const std::string& cn) {
    Node& objects = childDir(*s.find({kHome, kFipsHome}), kObjects, kFipsUserPin);
    unsigned number = 1;
    while (objects.child(static_cast<std::uint16_t>(kCertObject | number)) ||
           objects.child(static_cast<std::uint16_t>(kKeyObject | number)))
        if (number++ == kLastObject) throw std::invalid_argument("no free object directory");
    const auto certDir = static_cast<std::uint16_t>(kCertObject | number);
    const auto keyDir = static_cast<std::uint16_t>(kKeyObject | number);

    Node cert = makeDir(certDir, dirAccess(kFipsUserPin));
    Bytes attributes{kKindCertificate};
    append(attributes, field(kFieldLabel, text(cn)));
    append(attributes, field(kFieldId, text(id)));
    cert.children.push_back(
        makeFile(kAttributes, fileAccess(right::kFree, kFipsUserPin), attributes));
    cert.children.push_back(
        makeFile(kCertificateFile, fileAccess(right::kFree, kFipsUserPin), key.certificate));
    objects.children.push_back(std::move(cert));
    if (key.privateKey.empty()) return;

    const std::size_t bits = key.bytes() * 8;
    const Bytes bitsWord = word(bits);
    Bytes header{kKindPrivateKey, kAlgorithmRsa, bitsWord[0], bitsWord[1], 0x00, 0x00};
    append(header, field(kFieldLabel, text(cn)));
    append(header, field(kFieldBits, bitsWord));
    append(header, field(kFieldUsage, {kUsageDecipher}));
    append(header, field(kFieldCertificate, word(certDir)));
    append(header, field(kFieldId, text(id)));
    Node keyNode = makeDir(keyDir, dirAccess(kFipsUserPin));
    keyNode.children.push_back(
        makeFile(kAttributes, fileAccess(right::kFree, kFipsUserPin), header));
    objects.children.push_back(std::move(keyNode));
    s.keys.push_back({0, keyDir, id, key.privateKey});
}

}  // namespace

void addKey(ProState& state, const RsaKey& given, const std::string& id) {
    if (id.empty() || id.size() > kIdMax ||
        id.find_first_of(std::string("=&\n\0", 4)) != std::string::npos)
        throw std::invalid_argument(
            "a key id has 1 to 64 bytes, without a zero byte, '=', '&' "
            "or a line break");
    const auto info = summaryOf(given.certificate);
    if (!info) throw std::invalid_argument("the certificate is not DER X.509");
    RsaKey key = given;
    if (!key.privateKey.empty()) {
        if (key.modulus.empty()) key.modulus = rsaKeyFromPrivate(key.privateKey, {}).modulus;
        if (key.bytes() != 128 && key.bytes() != 256)
            throw std::invalid_argument("a key has 1024 or 2048 bits");
    }
    for (const auto& c : storedCertificates(state))
        if (c.id == id) throw std::invalid_argument("the token has a container " + id + " already");
    for (const auto& k : state.keys)
        if (k.id == id) throw std::invalid_argument("the token has a container " + id + " already");

    ProState next = state;
    if (next.fips) {
        addFips(next, key, id, info->commonName);
    } else {
        addPlain(next, key, id, info->commonName);
    }
    // The host stamps the tree's marker after each change it makes.
    if (Node* marker = next.find({kHome, kMarker})) marker->data = randomBytes(marker->data.size());
    if (next.memoryUsed() > next.memoryTotal())
        throw std::invalid_argument("the token has no room for the key");
    state = std::move(next);
}

std::size_t countContainers(const ProState& s) {
    std::size_t n = s.keys.size();
    for (const auto& c : storedCertificates(s))
        n += std::none_of(s.keys.begin(), s.keys.end(),
                          [&](const ProKey& k) { return k.id == c.id; });
    return n;
}

std::string describeKeys(const ProState& s) {
    std::ostringstream out;
    const auto certificates = storedCertificates(s);
    std::vector<bool> paired(certificates.size(), false);
    auto line = [&](const std::string& id, int bits, const std::string& where,
                    const std::string& cn) {
        out << "  container \"" << id << "\"  " << bits << " bits  " << where;
        if (!cn.empty()) out << "  CN \"" << cn << "\"";
        out << "\n";
    };
    for (const auto& k : s.keys) {
        std::string where;
        if (k.directory) {
            Path dir = kObjectsPath;
            dir.push_back(k.directory);
            where = "key " + pathText(dir);
        } else {
            where = "key reference " + toHex({k.reference});
            if (const Node* files = s.find({kHome, kKeyFiles}))
                for (const auto& f : files->children)
                    if (!f.dir && f.id != kSizeTable && !f.data.empty() && f.data[0] == k.reference)
                        where += " (" + pathText({kHome, kKeyFiles, f.id}) + ")";
        }
        int bits = 0;
        std::string cn;
        for (std::size_t i = 0; i < certificates.size(); ++i)
            if (certificates[i].id == k.id) {
                paired[i] = true;
                where += ", certificate " + pathText(certificates[i].path);
                if (auto info = summaryOf(certificates[i].der)) {
                    bits = info->bits;
                    cn = info->commonName;
                }
            }
        if (bits == 0) {
            try {
                bits = static_cast<int>(rsaKeyFromPrivate(k.privateKey, {}).bytes() * 8);
            } catch (const std::exception&) {
                where += ", private key unreadable";
            }
        }
        line(k.id, bits, where, cn);
    }
    for (std::size_t i = 0; i < certificates.size(); ++i) {
        if (paired[i]) continue;
        const auto info = summaryOf(certificates[i].der);
        line(certificates[i].id, info ? info->bits : 0,
             "certificate only, " + pathText(certificates[i].path), info ? info->commonName : "");
    }
    const std::string list = out.str();
    return list.empty() ? list : "keys and certificates:\n" + list;
}

// ---- the card's commands ----

namespace {

constexpr std::uint16_t kRestoreDefault = 0x03FE;  // MSE restore, the default environment
constexpr std::uint16_t kSetConfidentiality = 0x01B8;
constexpr std::uint16_t kRestoreKeyDir = 0x0333;  // FIPS: the key of the current directory
constexpr unsigned char kTagKeyReference = 0x83;
constexpr std::uint16_t kDecipherPlain = 0x8086;  // plain value out, cryptogram in
constexpr unsigned char kNoPadding = 0x00;        // padding indicator: none stated
constexpr std::uint16_t kNoPreciseDiagnosis = 0x6F00;

}  // namespace

Bytes ProCard::manageEnvironment(const Command& c) {
    auto current = [&](auto matches) {
        for (std::size_t i = 0; i < state_.keys.size(); ++i)
            if (matches(state_.keys[i])) {
                session_.key = i;
                return respond(sw::kOk);
            }
        return respond(sw::kDataNotFound);
    };
    switch (c.p1p2()) {
        case kRestoreDefault:
            if (!c.data.empty()) return respond(sw::kWrongLength);
            session_.key.reset();
            return respond(sw::kOk);
        case kSetConfidentiality: {
            if (c.data.size() != 3 || c.data[0] != kTagKeyReference || c.data[1] != 1)
                return respond(sw::kWrongData);
            const unsigned char kk = c.data[2];
            if (kk < 3 || kk % 2 == 0) return respond(sw::kDataNotFound);
            const unsigned reference = (kk - 1) / 2 - 1;
            // Keys of the FIPS layout have no reference.
            return current(
                [&](const ProKey& k) { return k.directory == 0 && k.reference == reference; });
        }
        case kRestoreKeyDir: {
            if (!c.data.empty()) return respond(sw::kWrongLength);
            const Path& objects = kObjectsPath;
            const Path& df = session_.df;
            if (!state_.fips || df.size() != objects.size() + 1 ||
                !std::equal(objects.begin(), objects.end(), df.begin()))
                return respond(sw::kDataNotFound);
            return current([&](const ProKey& k) { return k.directory == df.back(); });
        }
        default:
            return respond(sw::kWrongP1P2);
    }
}

Bytes ProCard::decipher(const Command& c, bool protectedCommand) {
    if (c.p1p2() != kDecipherPlain) return respond(sw::kWrongP1P2);
    // A FIPS token takes the key's work only from the session its login
    // opened, under secure messaging.
    if ((state_.fips && !protectedCommand) || !granted(state_.fips ? kFipsUserPin : kUserPin))
        return respond(sw::kSecurityNotSatisfied);
    if (!session_.key || *session_.key >= state_.keys.size()) return respond(sw::kDataNotFound);
    if (c.data.empty() || c.data[0] != kNoPadding) return respond(sw::kWrongData);
    const Bytes block(c.data.begin() + 1, c.data.end());
    std::optional<Bytes> plain;
    try {
        plain = rsaPrivateRaw(state_.keys[*session_.key].privateKey, block);
    } catch (const std::runtime_error&) {
        return respond(kNoPreciseDiagnosis);  // a stored key OpenSSL cannot read
    }
    if (!plain) return respond(sw::kWrongData);
    return respond(sw::kOk, *plain);
}

void ProCard::addKey(const RsaKey& key, const std::string& id) {
    pro::addKey(state_, key, id);
    if (onChange_) onChange_(state_);
}

}  // namespace vtoken::pro
