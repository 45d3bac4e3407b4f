#include "pro/pro_state.h"

#include "core/by_id.h"
#include "core/random.h"
#include "core/state_json.h"
#include "pro/pro_crypto.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace vtoken::pro {

using json = nlohmann::ordered_json;

namespace {

// The version bytes also close each ATR's historical bytes (C8 xx); the
// Pro42 ATR ends in the check byte its mask leaves free.
const ModelInfo kModels[] = {
    {Model::Pro16,
     "pro16",
     fromHex("3B E2 00 FF C1 10 31 FE 55 C8 02 9C"),
     1,
     {0xC8, 0x02},
     16,
     false},
    {Model::Pro32,
     "pro32",
     fromHex("3B F2 98 00 FF C1 10 31 FE 55 C8 03 15"),
     2,
     {0xC8, 0x03},
     32,
     false},
    {Model::Pro42,
     "pro42",
     fromHex("3B F2 18 00 00 C1 0A 31 FE 55 C8 06 75"),
     3,
     {0xC8, 0x06},
     64,
     true},
    {Model::Pro42b,
     "pro42b",
     fromHex("3B F2 18 00 02 C1 0A 31 FE 58 C8 09 75"),
     4,
     {0xC8, 0x09},
     72,
     true},
};

constexpr unsigned char kTries = 15;
constexpr std::size_t kLabelSize = 32;
constexpr std::size_t kFipsCounterSize = 43;  // salt, then the user counter at 41
constexpr std::size_t kFipsUserCounter = 41;

Bytes rights(unsigned char first, unsigned char second, unsigned char third, unsigned char rest,
             std::size_t count) {
    Bytes out{first, second, third};
    out.resize(count, rest);
    return out;
}

Bytes padded(const std::string& text, std::size_t size) {
    Bytes out(text.begin(), text.end());
    out.resize(size, 0x00);
    return out;
}

// The legacy label is single-byte text: anything beyond ASCII becomes '?',
// and the last of 32 bytes is always a zero.
Bytes legacyLabel(const std::string& utf8) {
    Bytes out;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(utf8[i]);
        if (c < 0x80) {
            out.push_back(c);
        } else if ((c & 0xC0) != 0x80) {
            out.push_back('?');
        }
    }
    out.resize(kLabelSize - 1, 0x00);
    out.push_back(0x00);
    return out;
}

json nodeToJson(const Node& n) {
    json out = {
        {"id", hexNumber(n.id, 4)}, {"type", n.dir ? "dir" : "file"}, {"access", toHex(n.access)}};
    if (n.dir) {
        if (!n.pins.empty()) {
            json pins = json::array();
            for (const auto& p : n.pins)
                pins.push_back({{"id", toHex({p.id})},
                                {"role", p.role},
                                {"key", toHex(p.key)},
                                {"tries", p.tries},
                                {"max_tries", p.maxTries}});
            out["pins"] = pins;
        }
        json children = json::array();
        for (const auto& c : n.children) children.push_back(nodeToJson(c));
        out["children"] = children;
    } else {
        out["data"] = toHex(n.data);
    }
    return out;
}

unsigned char triesField(const json& j, const char* name, unsigned char otherwise) {
    const json& v = j.value(name, json(otherwise));
    if (!v.is_number_unsigned() || v.get<unsigned>() > 0xFF)
        throw std::invalid_argument(std::string("pin.") + name + ": 0 to 255");
    return static_cast<unsigned char>(v.get<unsigned>());
}

// Objects of older state files kept the PIN itself, under "pin": their keys
// are derived once the whole tree (and so the salt) is known.
struct LegacyPin {
    Path dir;
    unsigned char id;
    std::string pin;
};

Node nodeFromJson(const json& j, int depth, Path& at, std::vector<LegacyPin>& legacy) {
    if (!j.is_object()) throw std::invalid_argument("node: not an object");
    if (depth > 64) throw std::invalid_argument("node: tree too deep");
    Bytes id = hexField(j.value("id", json()), "node.id", 2);
    Node n;
    n.id = static_cast<std::uint16_t>(id[0] << 8 | id[1]);
    const std::string type = j.value("type", "");
    if (type != "dir" && type != "file")
        throw std::invalid_argument("node " + hexNumber(n.id, 4) + ": type is dir or file");
    n.dir = type == "dir";
    n.access = hexField(j.value("access", json()), "node.access");
    if (n.dir) {
        for (const auto& p : j.value("pins", json::array())) {
            if (!p.is_object()) throw std::invalid_argument("pin: not an object");
            PinObject pin;
            pin.id = hexField(p.value("id", json()), "pin.id", 1)[0];
            pin.role = p.value("role", "");
            if (p.contains("key")) {
                pin.key = hexField(p.value("key", json()), "pin.key", kPinKeySize);
            } else if (p.contains("pin") && p["pin"].is_string()) {
                Path dir = at;
                dir.push_back(n.id);
                legacy.push_back({dir, pin.id, p["pin"].get<std::string>()});
            } else {
                throw std::invalid_argument("pin " + toHex({pin.id}) + ": no key");
            }
            pin.maxTries = triesField(p, "max_tries", pin.maxTries);
            pin.tries = triesField(p, "tries", pin.maxTries);
            if (pin.tries > pin.maxTries)
                throw std::invalid_argument("pin " + toHex({pin.id}) + ": tries above max_tries");
            n.pins.push_back(pin);
        }
        for (const auto& c : j.value("children", json::array())) {
            at.push_back(n.id);
            Node child = nodeFromJson(c, depth + 1, at, legacy);
            at.pop_back();
            if (n.child(child.id))
                throw std::invalid_argument("node " + hexNumber(n.id, 4) + ": two children " +
                                            hexNumber(child.id, 4));
            n.children.push_back(std::move(child));
        }
    } else {
        n.data = hexField(j.value("data", json("")), "node.data");
        if (n.data.size() > 0xFFFF)
            throw std::invalid_argument("node " + hexNumber(n.id, 4) + ": above 65535 bytes");
    }
    return n;
}

std::size_t used(const Node& n) {
    std::size_t total = kNodeOverhead + n.data.size();
    for (const auto& c : n.children) total += used(c);
    return total;
}

void describeNode(std::ostringstream& out, const Node& n, const std::string& indent) {
    out << indent << hexNumber(n.id, 4);
    if (n.dir) {
        out << "/  dir   create " << toHex({n.right(right::kCreate)}) << "  delete "
            << toHex({n.right(right::kDeleteDir)});
    } else {
        out << "   file " << n.data.size() << " bytes  read " << toHex({n.right(right::kRead)})
            << "  update " << toHex({n.right(right::kUpdate)}) << "  delete "
            << toHex({n.right(right::kDeleteFile)});
    }
    out << "  [" << toHex(n.access) << "]\n";
    for (const auto& p : n.pins)
        out << indent << "  PIN " << toHex({p.id}) << " " << p.role << "  tries "
            << static_cast<int>(p.tries) << "/" << static_cast<int>(p.maxTries)
            << (p.tries == 0 ? "  BLOCKED" : "") << "\n";
    for (const auto& c : n.children) describeNode(out, c, indent + "  ");
}

}  // namespace

Bytes fileAccess(unsigned char read, unsigned char update) {
    return rights(read, update, right::kNever, update, 7);
}

Bytes dirAccess(unsigned char create) { return rights(create, right::kNever, create, create, 8); }

Node makeFile(std::uint16_t id, Bytes access, Bytes data) {
    Node n;
    n.id = id;
    n.access = std::move(access);
    n.data = std::move(data);
    return n;
}

Node makeDir(std::uint16_t id, Bytes access) {
    Node n = makeFile(id, std::move(access), {});
    n.dir = true;
    return n;
}

const ModelInfo& modelInfo(Model model) {
    for (const auto& m : kModels)
        if (m.model == model) return m;
    throw std::invalid_argument("unknown Pro model");
}

std::optional<Model> modelByName(std::string_view name) {
    for (const auto& m : kModels)
        if (name == m.name) return m.model;
    return std::nullopt;
}

Node* Node::child(std::uint16_t childId) { return findById(children, childId); }

const Node* Node::child(std::uint16_t childId) const { return findById(children, childId); }

PinObject* Node::pin(unsigned char pinId) { return findById(pins, pinId); }

const PinObject* Node::pin(unsigned char pinId) const {
    return const_cast<Node*>(this)->pin(pinId);
}

std::size_t ProState::memoryUsed() const { return used(mf); }

Path ProState::home() const { return fips ? Path{kHome, kFipsHome} : Path{kHome}; }

Path ProState::counterFile() const {
    return fips ? Path{kHome, kFipsHome, kFipsCounter} : Path{kHome, kInfoDir, kCounter};
}

Bytes ProState::salt() const {
    const Node* counter = find(counterFile());
    if (!counter || counter->dir || counter->data.size() < kSaltSize) return {};
    return Bytes(counter->data.begin(), counter->data.begin() + kSaltSize);
}

Bytes ProState::pinKey(const PinObject& object, const std::string& pin) const {
    if (!fips) return md5Key(pin);
    const Bytes s = salt();
    if (s.empty()) throw std::invalid_argument("no salt for the FIPS keys: counter file missing");
    // Encryption keys take diversifier 3; the PIN and signature objects
    // hold the MAC key, diversifier 1.
    const bool encryption = object.role.rfind("encryption", 0) == 0;
    return saltedKey(encryption ? 3 : 1, pin, s);
}

Node* ProState::find(const Path& path) {
    Node* n = &mf;
    for (std::uint16_t id : path) {
        if (!n->dir) return nullptr;
        n = n->child(id);
        if (!n) return nullptr;
    }
    return n;
}

const Node* ProState::find(const Path& path) const {
    return const_cast<ProState*>(this)->find(path);
}

ProState personalise(const Personalisation& p) {
    if (p.label.size() > kLabelSize) throw std::invalid_argument("a label has at most 32 bytes");
    if (p.userPin.empty()) throw std::invalid_argument("the user PIN is empty");
    if (p.adminPin && p.adminPin->empty()) throw std::invalid_argument("the admin PIN is empty");
    if (p.adminPin && p.fips) throw std::invalid_argument("a FIPS token has no administrator PIN");
    if (p.id && p.id->size() != 4) throw std::invalid_argument("an identifier has 4 bytes");

    ProState s;
    s.model = p.model;
    s.fips = p.fips;
    s.id = p.id ? *p.id : randomBytes(4);
    s.mf = makeDir(kMf, Bytes(8, right::kNever));

    const unsigned char user = p.fips ? kFipsUserPin : kUserPin;
    Node home = makeDir(kHome, dirAccess(user));
    // The marker changes with every change to the tree: anyone may write it.
    home.children.push_back(
        makeFile(kMarker, fileAccess(right::kFree, right::kFree), randomBytes(16)));

    if (!p.fips) {
        home.pins.push_back({kUserPin, "user", md5Key(p.userPin)});
        home.pins.push_back({kAdminPin, "admin", md5Key(p.adminPin.value_or(p.userPin))});

        Node info = makeDir(kInfoDir, dirAccess(right::kNever));
        // The counters (left, total) of user and administrator begin the salt.
        Bytes counter = randomBytes(kSaltSize);
        counter[0] = counter[1] = counter[2] = counter[3] = kTries;
        // The host counts failed attempts itself, before any PIN is verified.
        info.children.push_back(
            makeFile(kCounter, fileAccess(right::kFree, right::kFree), counter));
        info.children.push_back(
            makeFile(kLabel, fileAccess(right::kFree, kUserPin), padded(p.label, kLabelSize)));
        info.children.push_back(
            makeFile(kLegacyLabel, fileAccess(right::kFree, kUserPin), legacyLabel(p.label)));
        info.children.push_back(
            makeFile(kColour, fileAccess(right::kFree, right::kNever), Bytes{p.colour}));
        home.children.push_back(std::move(info));
    } else {
        Node fipsHome = makeDir(kFipsHome, dirAccess(kFipsUserPin));
        // The user PIN and its encryption and signature keys, and the shadow
        // set that keeps the token usable through a broken PIN change.
        // Both sets start with the keys of the user PIN, salted by the
        // counter file.
        Bytes counter = randomBytes(kSaltSize);
        counter.resize(kFipsCounterSize, 0x00);
        counter[kFipsUserCounter] = counter[kFipsUserCounter + 1] = kTries;
        const Bytes salt(counter.begin(), counter.begin() + kSaltSize);
        const Bytes mac = saltedKey(1, p.userPin, salt);
        const Bytes enc = saltedKey(3, p.userPin, salt);
        const char* roles[] = {"user", "encryption", "signature"};
        for (int i = 0; i < 3; ++i)
            fipsHome.pins.push_back(
                {static_cast<unsigned char>(kFipsUserPin + i), roles[i], i == 1 ? enc : mac});
        for (int i = 0; i < 3; ++i)
            fipsHome.pins.push_back({static_cast<unsigned char>(kFipsShadowPin + i),
                                     std::string(roles[i]) + "-shadow", i == 1 ? enc : mac});

        fipsHome.children.push_back(makeFile(kFipsLabel, fileAccess(right::kFree, kFipsUserPin),
                                             padded(p.label, kLabelSize)));
        fipsHome.children.push_back(makeFile(kFipsColour, fileAccess(right::kFree, right::kNever),
                                             Bytes{0x00, 0x00, p.colour}));
        fipsHome.children.push_back(
            makeFile(kFipsCounter, fileAccess(right::kFree, right::kFree), counter));
        home.children.push_back(std::move(fipsHome));
    }
    s.mf.children.push_back(std::move(home));
    return s;
}

std::string toJsonText(const ProState& s) {
    json verified = json::array();
    for (unsigned char id : s.assumeVerified) verified.push_back(toHex({id}));
    json out = {{"format", "krfs-vtoken/1"},   {"dialect", "pro"},
                {"model", s.info().name},      {"fips", s.fips},
                {"id", toHex(s.id)},           {"life_cycle", toHex({s.lifeCycle})},
                {"assume_verified", verified}, {"faults", faultsToJson(s.faults)},
                {"mf", nodeToJson(s.mf)}};
    if (!s.keys.empty()) {
        json keys = json::array();
        for (const auto& k : s.keys) {
            json key = k.directory ? json{{"directory", hexNumber(k.directory, 4)}}
                                   : json{{"reference", toHex({k.reference})}};
            key["id"] = k.id;
            key["private_key"] = toHex(k.privateKey);
            keys.push_back(key);
        }
        out["keys"] = keys;
    }
    return out.dump(2) + "\n";
}

ProState fromJsonText(std::string_view text) {
    const json j = parseStateText(text, "pro");
    ProState s;
    auto model = modelByName(j.value("model", ""));
    if (!model) throw std::invalid_argument("model: pro16, pro32, pro42 or pro42b");
    s.model = *model;
    const json& fips = j.value("fips", json());
    if (!fips.is_boolean()) throw std::invalid_argument("fips: true or false");
    s.fips = fips.get<bool>();
    s.id = hexField(j.value("id", json()), "id", 4);
    s.lifeCycle = hexField(j.value("life_cycle", json("10")), "life_cycle", 1)[0];
    for (const auto& v : j.value("assume_verified", json::array()))
        s.assumeVerified.push_back(hexField(v, "assume_verified", 1)[0]);
    s.faults = faultsFromJson(j.value("faults", json()));
    Path at;
    std::vector<LegacyPin> legacy;
    s.mf = nodeFromJson(j.value("mf", json()), 0, at, legacy);
    if (s.mf.id != kMf || !s.mf.dir) throw std::invalid_argument("mf: directory 3F00");
    for (const auto& k : j.value("keys", json::array())) {
        if (!k.is_object() || !k.value("id", json()).is_string())
            throw std::invalid_argument("key: an object with its id text");
        ProKey key;
        if (k.contains("directory") == k.contains("reference"))
            throw std::invalid_argument("key: a reference or a directory");
        if (k.contains("directory")) {
            const Bytes d = hexField(k["directory"], "key.directory", 2);
            key.directory = static_cast<std::uint16_t>(d[0] << 8 | d[1]);
        } else {
            key.reference = hexField(k["reference"], "key.reference", 1)[0];
        }
        key.id = k["id"].get<std::string>();
        key.privateKey = hexField(k.value("private_key", json()), "key.private_key");
        if (key.privateKey.empty() || (key.reference == 0 && key.directory == 0))
            throw std::invalid_argument("key " + key.id + ": no private key or no reference");
        s.keys.push_back(std::move(key));
    }
    for (const auto& l : legacy) {
        Path dir(l.dir.begin() + 1, l.dir.end());  // below the master file
        PinObject* object = s.find(dir)->pin(l.id);
        object->key = s.pinKey(*object, l.pin);
    }
    return s;
}

std::string describe(const ProState& s) {
    std::ostringstream out;
    const ModelInfo& m = s.info();
    out << "Pro token, model " << m.name << (s.fips ? ", FIPS" : "") << "\n"
        << "ATR         " << toHex(m.atr) << "\n"
        << "identifier  " << toHex(s.id) << "\n"
        << "life cycle  " << toHex({s.lifeCycle}) << "\n"
        << "memory      " << s.memoryTotal() << " bytes, " << s.memoryUsed() << " used\n";
    Path labelFile = s.home();
    if (s.fips) {
        labelFile.push_back(kFipsLabel);
    } else {
        labelFile.insert(labelFile.end(), {kInfoDir, kLabel});
    }
    if (const Node* label = s.find(labelFile)) {
        std::string text(label->data.begin(), label->data.end());
        out << "label       \"" << text.substr(0, text.find('\0')) << "\"\n";
    }
    if (!s.assumeVerified.empty())
        out << "assumed verified PINs  " << toHex(s.assumeVerified) << "\n";
    if (!s.faults.empty()) out << "faults      " << faultsToJson(s.faults).dump() << "\n";
    out << "access: 00 free, FF never, else the PIN to verify\n";
    describeNode(out, s.mf, "");
    return out.str();
}

}  // namespace vtoken::pro
