#include "java/java_state.h"

#include "core/by_id.h"
#include "core/random.h"
#include "core/state_json.h"
#include "java/java_crypto.h"

#include <cstdio>
#include <ctime>
#include <sstream>
#include <stdexcept>

namespace vtoken::java {

using json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kValueMax = 32;
constexpr std::size_t kMarkerSize = 16;
constexpr std::size_t kPinMax = 32;

Node dir(std::uint16_t id, unsigned char inside) {
    Node n;
    n.isDir = true;
    n.id = id;
    n.access[kInside] = inside;
    return n;
}

Node file(std::uint16_t id, Bytes content, unsigned char write) {
    Node n;
    n.id = id;
    n.content = std::move(content);
    n.access[kWrite] = write;
    return n;
}

// Today as YY YY MM DD in BCD.
Bytes today() {
    const std::time_t now = std::time(nullptr);
    std::tm t{};
    gmtime_r(&now, &t);
    auto bcd = [](int v) { return static_cast<unsigned char>((v / 10) << 4 | (v % 10)); };
    const int year = t.tm_year + 1900;
    return {bcd(year / 100), bcd(year % 100), bcd(t.tm_mon + 1), bcd(t.tm_mday)};
}

void checkValue(const Bytes& v, const char* what) {
    if (v.empty() || v.size() > kValueMax)
        throw std::invalid_argument(std::string(what) + " has 1 to 32 bytes");
}

PinObject keyed(unsigned char id, unsigned triesTotal, const Bytes& slot0, const std::string& pin,
                const Bytes& salt) {
    PinObject p;
    p.id = id;
    p.triesTotal = p.triesLeft = static_cast<unsigned char>(triesTotal);
    p.slots[0] = slot0;
    for (unsigned char i = 1; i < kSlots; ++i) p.slots[i] = pinKey(i, pin, salt);
    return p;
}

void describeNode(std::ostringstream& out, const Node& n, const std::string& path) {
    out << "  " << path << (n.isDir ? "  dir" : "  file " + std::to_string(n.content.size()))
        << (n.isDir ? "" : " bytes") << "  access " << toHex(n.access) << "\n";
    for (const auto& c : n.children) describeNode(out, c, path + "/" + hexNumber(c.id, 4));
}

// A directory stores nothing of its own.
constexpr auto noDirFields = [](auto&&...) {};

const TreeLimits kTreeLimits{static_cast<int>(kAccessSize), 0xFFFF};

// The access the host gives the directories and files it creates for keys:
// the user PIN for all but reading.
Bytes hostAccess(unsigned char read) {
    Bytes out(kAccessSize, kUserPin);
    out[kRead] = read;
    return out;
}

Node hostDir(std::uint16_t id) {
    Node d;
    d.isDir = true;
    d.id = id;
    d.access = hostAccess(kUserPin);
    return d;
}

// PKCS#11 object classes in the attribute files.
constexpr unsigned char kClassCertificate = 0x01;
constexpr unsigned char kClassPrivateKey = 0x03;
constexpr unsigned char kFieldClass = 0x01;
constexpr unsigned char kFieldBits = 0x02;
constexpr unsigned char kFieldId = 0x03;
constexpr std::size_t kFieldMax = 0xFF;

Bytes attributes(unsigned char objectClass, std::size_t bits, const std::string& id) {
    Bytes out{kFieldClass, 1, objectClass, kFieldBits, 2};
    putWord(out, bits);
    out.insert(out.end(), {kFieldId, static_cast<unsigned char>(id.size())});
    out.insert(out.end(), id.begin(), id.end());
    return out;
}

// The directory at `below`, made with the host's access where missing.
Node& makeDirs(Node& root, const Path& below) {
    Node* n = &root;
    for (std::uint16_t id : below) {
        Node* next = n->child(id);
        if (!next) {
            n->children.push_back(hostDir(id));
            next = &n->children.back();
        } else if (!next->isDir) {
            throw std::runtime_error("add-key: " + hexNumber(id, 4) + " is a file");
        }
        n = next;
    }
    return *n;
}

// A new directory `id` in `parent` holding `files` (identifier, content),
// public to read.
void addObject(Node& parent, std::uint16_t id, std::vector<std::pair<std::uint16_t, Bytes>> files) {
    Node d = hostDir(id);
    for (auto& [fileId, content] : files) {
        Node f = file(fileId, std::move(content), kUserPin);
        f.access = hostAccess(kFree);
        d.children.push_back(std::move(f));
    }
    parent.children.push_back(std::move(d));
}

// The lowest identifier from `first` to its 1000s' end not in `dir`.
std::uint16_t nextFree(Node& dir, std::uint16_t first) {
    for (std::uint32_t id = first; id <= (first | 0x0FFFu); ++id)
        if (!dir.child(static_cast<std::uint16_t>(id))) return static_cast<std::uint16_t>(id);
    throw std::runtime_error("add-key: no free identifier from " + hexNumber(first, 4));
}

std::size_t modulusBytes(const Bytes& privateKey) {
    return rsaKeyFromPrivate(privateKey, {}).bytes();
}

const char* pinRole(unsigned char id) {
    switch (id) {
        case kUserPin:
            return "user";
        case kShadowPin:
            return "shadow of the user PIN";
        case kAdminPin:
            return "administrator";
        default:
            return "other";
    }
}

}  // namespace

const Path& keysHome() {
    static const Path kHome{kApplicationDir, kHomeDir, 0x0220};
    return kHome;
}

Node* JavaState::find(const Path& below) { return findNode(root, below); }

PinObject* JavaState::pin(unsigned char pinId) { return findById(pins, pinId); }

std::size_t JavaState::memoryFree() const { return memoryLeft(root, memory); }

JavaState personalise(const Personalisation& p) {
    if (p.triesTotal < 1 || p.triesTotal > kTriesMax)
        throw std::invalid_argument("the PINs take 1 to 15 tries");
    for (const auto* pin : {&p.userPin, &p.adminPin})
        if (pin->empty() || pin->size() > kPinMax)
            throw std::invalid_argument("a PIN has 1 to 32 bytes");
    if (p.label.size() > kLabelMax) throw std::invalid_argument("a label has at most 32 bytes");
    if (p.colour > 0xFF) throw std::invalid_argument("the colour is a byte");
    JavaState s;
    s.fips = p.fips;
    s.memory = p.memory;
    s.info = {p.id ? *p.id : randomBytes(8), p.date ? *p.date : today(),
              static_cast<unsigned char>(p.colour), p.version};
    checkValue(s.info.id, "the identifier");
    checkValue(s.info.date, "the date");
    checkValue(s.info.version, "the version");

    const Bytes salt = randomBytes(kSaltSize);
    // The host logs the user in with key 0 on a FIPS token, key 3 otherwise.
    s.pins.push_back(
        keyed(kUserPin, p.triesTotal, pinKey(p.fips ? 0 : 3, p.userPin, salt), p.userPin, salt));
    s.pins.push_back(keyed(kAdminPin, p.triesTotal, adminKey(p.adminPin), p.adminPin, salt));
    if (p.fips) {
        const Bytes b = randomBytes(kSaltSize);
        const std::string secret(b.begin(), b.end());
        s.pins.push_back(keyed(kShadowPin, p.triesTotal, pinKey(0, secret, salt), secret, salt));
    }

    s.root = dir(kMf, kAdminPin);
    Node application = dir(kApplicationDir, kAdminPin);
    Node home = dir(kHomeDir, kUserPin);
    home.children.push_back(file(kLabelFile, Bytes(p.label.begin(), p.label.end()), kUserPin));
    home.children.push_back(file(kFipsFile, {0x00, static_cast<unsigned char>(p.fips)}, kAdminPin));
    home.children.push_back(file(kSaltFile, salt, kAdminPin));
    application.children.push_back(std::move(home));
    s.root.children.push_back(std::move(application));
    if (s.root.cost() > s.memory)
        throw std::invalid_argument("the memory must hold at least " +
                                    std::to_string(s.root.cost()) + " bytes");
    return s;
}

void addKey(JavaState& s, const RsaKey& key, const std::string& id) {
    if (id.size() > kFieldMax) throw std::runtime_error("add-key: an id of at most 255 bytes");
    const std::size_t bits = key.bytes() * 8;
    Node root = s.root;
    Node& home = makeDirs(root, keysHome());
    addObject(home, nextFree(home, 0x1001),
              {{kAttributesFile, attributes(kClassCertificate, bits, id)},
               {kCertificateFile, key.certificate}});
    std::optional<std::uint16_t> keyDir;
    if (!key.privateKey.empty()) {
        keyDir = nextFree(home, 0x3001);
        Bytes header{kRsaKeyKind, sizeFlag(key.bytes())};
        putWord(header, bits);
        header.insert(header.end(), {0x00, 0x00});
        append(header, attributes(kClassPrivateKey, bits, id));
        addObject(home, *keyDir, {{kAttributesFile, header}});
    }
    if (root.cost() > s.memory) throw std::runtime_error("add-key: not enough memory on the token");
    s.root = std::move(root);
    if (keyDir) s.keys[*keyDir] = key.privateKey;
}

json toJson(const JavaState& s) {
    json pins = json::array();
    for (const auto& p : s.pins) {
        json slots = json::array();
        for (const auto& k : p.slots) slots.push_back(toHex(k));
        pins.push_back({{"id", hexNumber(p.id, 2)},
                        {"tries_total", p.triesTotal},
                        {"tries_left", p.triesLeft},
                        {"slots", slots}});
    }
    json keys = json::array();
    for (const auto& [dir, der] : s.keys)
        keys.push_back({{"dir", hexNumber(dir, 4)}, {"private_key", toHex(der)}});
    return {{"fips", s.fips},
            {"marker", toHex(s.marker)},
            {"memory", s.memory},
            {"info",
             {{"id", toHex(s.info.id)},
              {"date", toHex(s.info.date)},
              {"colour", s.info.colour},
              {"version", toHex(s.info.version)}}},
            {"pins", pins},
            {"tree", treeToJson(s.root, noDirFields)},
            {"keys", keys}};
}

JavaState fromJson(const json& j) {
    if (!j.is_object()) throw std::invalid_argument("state: not an object");
    JavaState s;
    const json& fips = j.value("fips", json(false));
    if (!fips.is_boolean()) throw std::invalid_argument("fips: true or false");
    s.fips = fips.get<bool>();
    s.marker = hexField(j.value("marker", json("")), "marker");
    if (!s.marker.empty() && s.marker.size() != kMarkerSize)
        throw std::invalid_argument("marker: 16 bytes or none");
    s.memory = numberField(j, "memory", 0, 0x7FFFFFFF, s.memory);
    const json& info = j.value("info", json());
    if (!info.is_object()) throw std::invalid_argument("info: not an object");
    s.info = {hexField(info.value("id", json()), "info.id"),
              hexField(info.value("date", json()), "info.date"),
              static_cast<unsigned char>(numberField(info, "colour", 0, 0xFF)),
              hexField(info.value("version", json()), "info.version")};
    const json& pins = j.value("pins", json());
    if (!pins.is_array()) throw std::invalid_argument("pins: a list");
    for (const auto& p : pins) {
        if (!p.is_object()) throw std::invalid_argument("pin: not an object");
        PinObject pin;
        pin.id = hexField(p.value("id", json()), "pin.id", 1)[0];
        pin.triesTotal = static_cast<unsigned char>(numberField(p, "tries_total", 1, kTriesMax));
        pin.triesLeft = static_cast<unsigned char>(numberField(p, "tries_left", 0, pin.triesTotal));
        const json& slots = p.value("slots", json());
        if (!slots.is_array() || slots.size() != kSlots)
            throw std::invalid_argument("pin.slots: a list of five");
        for (std::size_t i = 0; i < kSlots; ++i) {
            pin.slots[i] = hexField(slots[i], "pin.slots");
            if (!pin.slots[i].empty() && pin.slots[i].size() != kKeySize)
                throw std::invalid_argument("pin.slots: 24-byte keys or empty");
        }
        if (s.pin(pin.id)) throw std::invalid_argument("pin " + hexNumber(pin.id, 2) + " twice");
        s.pins.push_back(std::move(pin));
    }
    if (!s.pin(kUserPin) || !s.pin(kAdminPin))
        throw std::invalid_argument("pins: the user PIN 11 and the administrator PIN 21");
    s.root = treeFromJson<Node>(j.value("tree", json()), kTreeLimits, noDirFields);
    if (!s.root.isDir || s.root.id != kMf) throw std::invalid_argument("tree: begins at 3F00");
    const json& keys = j.value("keys", json::array());
    if (!keys.is_array()) throw std::invalid_argument("keys: a list");
    for (const auto& k : keys) {
        if (!k.is_object()) throw std::invalid_argument("key: not an object");
        const Bytes dir = hexField(k.value("dir", json()), "key.dir", 2);
        const std::uint16_t id = wordAt(dir, 0);
        Bytes der = hexField(k.value("private_key", json()), "key.private_key");
        try {
            modulusBytes(der);
        } catch (const std::runtime_error&) {
            throw std::invalid_argument("key " + hexNumber(id, 4) + ": not an RSA private key");
        }
        if (!s.keys.emplace(id, std::move(der)).second)
            throw std::invalid_argument("key " + hexNumber(id, 4) + " twice");
    }
    return s;
}

std::string describe(const JavaState& s) {
    std::ostringstream out;
    out << "identifier  " << toHex(s.info.id) << "\n"
        << "version     " << toHex(s.info.version) << "\n"
        << "date        " << toHex(s.info.date) << "\n"
        << "colour      " << unsigned{s.info.colour} << "\n"
        << "memory      " << s.memory << " bytes, " << s.memoryFree() << " free\n"
        << "FIPS        " << (s.fips ? "yes" : "no") << "\n"
        << "marker      " << (s.marker.empty() ? "none" : toHex(s.marker)) << "\n";
    if (const Node* label = const_cast<JavaState&>(s).find({kApplicationDir, kHomeDir, kLabelFile});
        label && !label->isDir)
        out << "label       \"" << std::string(label->content.begin(), label->content.end())
            << "\"\n";
    for (const auto& p : s.pins) {
        out << "PIN " << hexNumber(p.id, 2) << "  " << pinRole(p.id) << "  tries "
            << unsigned{p.triesLeft} << "/" << unsigned{p.triesTotal}
            << (p.triesLeft == 0 ? "  BLOCKED" : "") << "  keys in slots";
        for (std::size_t i = 0; i < kSlots; ++i)
            if (!p.slots[i].empty()) out << " " << i;
        out << "\n";
    }
    if (const Node* home = const_cast<JavaState&>(s).find(keysHome()))
        for (const auto& d : home->children) {
            const Node* cert =
                d.isDir && d.id >> 12 == 1 ? findById(d.children, kCertificateFile) : nullptr;
            if (cert && !cert->isDir)
                out << "certificate " << hexNumber(d.id, 4) << "  \"" << commonNameOf(cert->content)
                    << "\"\n";
        }
    for (const auto& [dir, der] : s.keys)
        out << "key " << hexNumber(dir, 4) << "  RSA " << modulusBytes(der) * 8 << " bits\n";
    out << "tree\n";
    describeNode(out, s.root, hexNumber(kMf, 4));
    return out.str();
}

}  // namespace vtoken::java
