#include "idprotect/idprotect_state.h"

#include "core/by_id.h"
#include "core/random.h"
#include "core/state_json.h"
#include "idprotect/idprotect_crypto.h"

#include <algorithm>

#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>

namespace vtoken::idprotect {

using json = nlohmann::ordered_json;

namespace {

std::string pathText(const Path& path) {
    std::string text;
    for (std::uint16_t id : path) text += (text.empty() ? "" : "/") + hexNumber(id, 4);
    return text;
}

// Tag 86 as the host's create templates spell it: 00 before each condition.
Bytes accessOf(std::initializer_list<unsigned char> conditions) {
    Bytes out;
    for (unsigned char c : conditions) out.insert(out.end(), {0x00, c});
    return out;
}

Node dir(std::uint16_t id, Bytes access) {
    Node n;
    n.isDir = true;
    n.id = id;
    n.access = std::move(access);
    return n;
}

Bytes pinOf(const std::string& text, const char* what) {
    if (text.size() < kPinMin || text.size() > kPinMax)
        throw std::invalid_argument(std::string(what) + " has 4 to 16 bytes");
    return Bytes(text.begin(), text.end());
}

void checkFinger(unsigned number, const Bytes& templ) {
    if (number < kFingerMin || number > kFingerMax)
        throw std::invalid_argument("fingers are numbered 1 to 10");
    if (templ.empty() || templ.size() > kTemplateMax)
        throw std::invalid_argument("a finger's template has 1 to 2048 bytes");
}

bool knownLoginType(unsigned type) {
    return type == kLoginPin || type == kLoginFinger || type == kLoginPinOrFinger ||
           type == kLoginPinAndFinger;
}

// A directory's name, stored after its access bytes when it has one.
void nameToJson(json& j, const Node& n) {
    if (!n.name.empty()) j["name"] = toHex(n.name);
}

void nameFromJson(Node& n, const json& j, const std::string& where) {
    n.name = hexField(j.value("name", json("")), "node.name");
    if (n.name.size() > kDirNameMax) throw std::invalid_argument(where + ": a name of 16 bytes");
}

const TreeLimits kTreeLimits{-1, 0x7FFF};

constexpr std::uint16_t kKeyFiles = 0x0200;
constexpr std::uint16_t kCertificateFiles = 0x8400;
constexpr unsigned char kKeyless = 0x40;

std::uint16_t companionOf(unsigned char nn) { return (nn | kKeyless) + 1; }

Node file(std::uint16_t id, Bytes content, Bytes access) {
    Node n;
    n.id = id;
    n.content = std::move(content);
    n.access = std::move(access);
    return n;
}

Bytes certificateObject(const Bytes& der) {
    Bytes out(kCertificateHeader, 0x00);
    putWord(out, der.size());
    append(out, der);
    return out;
}

void describeNode(std::ostringstream& out, const Node& n, const Path& path) {
    out << "  " << pathText(path) << (n.isDir ? "  dir" : "  file ")
        << (n.isDir ? "" : std::to_string(n.content.size()) + " bytes") << "  access "
        << toHex(n.access);
    if (!n.name.empty()) out << "  name " << toHex(n.name) << " = " << pathText(nameToPath(n.name));
    out << "\n";
    for (const auto& c : n.children) {
        Path p = path;
        p.push_back(c.id);
        describeNode(out, c, p);
    }
}

// The tree the host sees below its home: each named directory at the path
// its name spells, with the files of its real directory.
void describeLogical(std::ostringstream& out, const IdprotectState& s) {
    Path below(homePath().begin() + 1, homePath().end());
    const Node* home = const_cast<IdprotectState&>(s).find(below);
    std::map<Path, std::string> lines;
    if (home) {
        for (const auto& d : home->children) {
            if (!d.isDir || d.name.empty()) continue;
            Path logical = homePath();
            for (std::uint16_t id : nameToPath(d.name)) logical.push_back(id);
            lines[logical] = "dir   (real " + hexNumber(d.id, 4) + ")";
            for (const auto& f : d.children) {
                Path file = logical;
                file.push_back(f.id);
                lines[file] = f.isDir ? "dir   (unnamed)"
                                      : "file  " + std::to_string(f.content.size()) + " bytes" +
                                            (f.condition(kRead) == kFree ? "" : "  private");
            }
        }
    }
    out << "logical tree below " << pathText(homePath()) << ": " << lines.size() << "\n";
    for (const auto& [path, what] : lines) out << "  " << pathText(path) << "  " << what << "\n";
}

}  // namespace

const Bytes& aid() {
    static const Bytes kAid{0xA0, 0x00, 0x00, 0x01, 0x64, 0x4C, 0x41, 0x53, 0x45, 0x52, 0x00, 0x01};
    return kAid;
}

const Bytes& atr() {
    static const Bytes kAtr{0x3B, 0xD5, 0x18, 0xFF, 0x80, 0x91, 0xFE, 0x1F,
                            0xC3, 0x80, 0x73, 0xC8, 0x21, 0x10, 0x0A};
    return kAtr;
}

const Path& homePath() {
    static const Path kHome{kMf, 0x3000, 0x3002, 0x5000};
    return kHome;
}

const Path& infoPath() {
    static const Path kInfo{kMf, 0x3000, 0xC000};
    return kInfo;
}

unsigned char Node::condition(std::size_t index) const {
    return 2 * index + 1 < access.size() ? access[2 * index + 1] : kNever;
}

Node* IdprotectState::find(const Path& below) { return findNode(root, below); }

PinObject* IdprotectState::pin(std::uint16_t pinId) { return findById(pins, pinId); }

Bytes Finger::reference() const { return Bytes{0x00, 0x00, 0x00, number}; }

Bytes Finger::publicData() const { return sha256(templ); }

const Finger* IdprotectState::finger(unsigned number) const {
    for (const auto& f : fingers)
        if (f.number == number) return &f;
    return nullptr;
}

PinObject* IdprotectState::owner(std::uint16_t pinId) {
    PinObject* p = pin(pinId);
    return p && p->kind == kKindLogin ? pin(kUserPin) : p;
}

std::size_t IdprotectState::memoryFree() const { return memoryLeft(root, memory); }

Path nameToPath(const Bytes& name) {
    Path path;
    for (std::size_t at = 0; at + 1 < name.size(); at += 2)
        path.push_back(static_cast<std::uint16_t>(name[at] | name[at + 1] << 8));
    while (!path.empty() && path.back() == 0) path.pop_back();
    return path;
}

IdprotectState personalise(const Personalisation& p) {
    if (p.triesTotal < 1 || p.triesTotal > kTriesMax)
        throw std::invalid_argument("the PINs take 1 to 15 tries");
    if (!knownLoginType(p.loginType))
        throw std::invalid_argument("the login type is 0x20, 0x23, 0x24 or 0x25");
    if (p.label.size() > kLabelSize) throw std::invalid_argument("a label has at most 32 bytes");
    for (unsigned char c : p.label)
        if (c == 0 || c > 0x7F) throw std::invalid_argument("a label is seven-bit text");
    if (p.id && p.id->size() != 8) throw std::invalid_argument("an identifier has 8 bytes");
    if (p.infoVersion > 0xFF) throw std::invalid_argument("the information version is a byte");

    IdprotectState s;
    s.triesTotal = static_cast<unsigned char>(p.triesTotal);
    s.loginType = static_cast<unsigned char>(p.loginType);
    s.id = p.id ? *p.id : randomBytes(8);
    s.memory = p.memory;
    s.pins.push_back(
        {kAdminPin, kKindAdmin, pinOf(p.adminPin, "the administrator PIN"), s.triesTotal});
    s.pins.push_back({kUserPin, kKindUser, pinOf(p.userPin, "the user PIN"), s.triesTotal});
    // The fingerprint object stands for itself; the other two are composites.
    if (s.loginType == kLoginPinOrFinger || s.loginType == kLoginPinAndFinger)
        s.pins.push_back({s.loginType, kKindLogin, {}, 0});
    s.fingerTriesLeft = s.triesTotal;
    for (const auto& [number, templ] : p.fingers) {
        checkFinger(number, templ);
        if (s.finger(number))
            throw std::invalid_argument("finger " + std::to_string(number) + " given twice");
        s.fingers.push_back(
            {static_cast<unsigned char>(number), templ, randomBytes(kTicketKeySize)});
    }
    std::sort(s.fingers.begin(), s.fingers.end(),
              [](const Finger& a, const Finger& b) { return a.number < b.number; });

    const unsigned char lt = s.loginType;
    s.root = dir(kMf, accessOf({kAdminPin, kNever, kAdminPin, kAdminPin, kAdminPin, kAdminPin}));
    Node system =
        dir(kSystemDir, accessOf({kAdminPin, kNever, kAdminPin, kAdminPin, kAdminPin, kAdminPin}));
    Node info;
    info.id = infoPath().back();
    info.access = accessOf({kFree, lt, lt, kNever});
    info.content.assign(kInfoSize, 0x00);
    std::fill(info.content.begin(), info.content.begin() + kLabelSize, ' ');
    std::copy(p.label.begin(), p.label.end(), info.content.begin());
    info.content[kInfoVersionAt] = static_cast<unsigned char>(p.infoVersion);
    // The host reads the login type from the first condition of 3002.
    Node application = dir(kKeyDir, accessOf({lt, kNever, lt, lt, lt, lt}));
    application.children.push_back(dir(homePath().back(), accessOf({lt, lt, lt, lt, lt, lt})));
    system.children.push_back(std::move(info));
    system.children.push_back(std::move(application));
    // A personalised token has its certificate directory even before any key.
    system.children.push_back(dir(kCertificateDir, accessOf({lt, kNever, lt, lt, lt, lt})));
    s.root.children.push_back(std::move(system));
    if (s.root.cost() > s.memory)
        throw std::invalid_argument("the memory must hold at least " +
                                    std::to_string(s.root.cost()) + " bytes");
    return s;
}

void addKey(IdprotectState& s, const RsaKey& key) {
    if (key.certificate.size() > 0xFFFF) throw std::runtime_error("add-key: certificate too long");
    Node root = s.root;
    Node* system = root.child(kSystemDir);
    Node* keys = system ? system->child(kKeyDir) : nullptr;
    if (!keys || !keys->isDir) throw std::runtime_error("add-key: no directory 3000/3002");
    const unsigned char lt = s.loginType;
    if (!system->child(kCertificateDir))
        system->children.push_back(dir(kCertificateDir, accessOf({lt, kNever, lt, lt, lt, lt})));
    keys = system->child(kKeyDir);
    Node& certs = *system->child(kCertificateDir);
    const auto certFree = [&](unsigned mm) { return !certs.child(kCertificateFiles | mm); };
    const Bytes certificate = certificateObject(key.certificate);
    const Bytes certAccess = accessOf({kFree, lt, lt, lt});
    if (key.privateKey.empty()) {
        unsigned mm = kKeyless + 1;
        while (mm <= 0xFF && (!(mm & kKeyless) || !certFree(mm))) ++mm;
        if (mm > 0xFF) throw std::runtime_error("add-key: no free certificate identifier");
        certs.children.push_back(file(kCertificateFiles | mm, certificate, certAccess));
    } else {
        unsigned nn = 1;
        while (nn < kKeyless &&
               (keys->child(kKeyFiles | nn) || keys->child(companionOf(nn)) || !certFree(nn)))
            ++nn;
        if (nn == kKeyless) throw std::runtime_error("add-key: no free key identifier");
        keys->children.push_back(
            file(kKeyFiles | nn, key.privateKey, accessOf({kNever, kNever, kNever, lt})));
        keys->children.push_back(file(companionOf(static_cast<unsigned char>(nn)), key.modulus,
                                      accessOf({kFree, kNever, kNever, lt})));
        certs.children.push_back(file(kCertificateFiles | nn, certificate, certAccess));
    }
    if (root.cost() > s.memory) throw std::runtime_error("add-key: not enough memory on the token");
    s.root = std::move(root);
}

const Bytes* keyOfCompanion(IdprotectState& s, const Path& below) {
    if (below.size() != 3 || below[0] != kSystemDir || below[1] != kKeyDir) return nullptr;
    const std::uint16_t companion = below[2];
    if (companion < companionOf(0) || companion > companionOf(kKeyless - 1)) return nullptr;
    const auto nn = static_cast<std::uint16_t>((companion - 1) & ~kKeyless);
    const Node* key = s.find({kSystemDir, kKeyDir, static_cast<std::uint16_t>(kKeyFiles | nn)});
    return key && !key->isDir ? &key->content : nullptr;
}

json toJson(const IdprotectState& s) {
    json pins = json::array();
    for (const auto& p : s.pins)
        pins.push_back({{"id", hexNumber(p.id, 4)},
                        {"kind", p.kind},
                        {"pin", toHex(p.value)},
                        {"tries_left", p.triesLeft}});
    json fingers = json::array();
    for (const auto& f : s.fingers)
        fingers.push_back({{"number", f.number},
                           {"template", toHex(f.templ)},
                           {"ticket_key", toHex(f.ticketKey)}});
    return {{"version", toHex(s.version)},
            {"id", toHex(s.id)},
            {"memory", s.memory},
            {"pin_tries", s.triesTotal},
            {"login_type", s.loginType},
            {"pins", pins},
            {"fingers", fingers},
            {"finger_tries_left", s.fingerTriesLeft},
            {"tree", treeToJson(s.root, nameToJson)}};
}

IdprotectState fromJson(const json& j) {
    if (!j.is_object()) throw std::invalid_argument("state: not an object");
    IdprotectState s;
    s.version = hexField(j.value("version", json(toHex(s.version))), "version", 4);
    s.id = hexField(j.value("id", json()), "id", 8);
    s.memory = numberField(j, "memory", 0, 0x7FFFFFFF, s.memory);
    s.triesTotal = static_cast<unsigned char>(numberField(j, "pin_tries", 1, kTriesMax));
    s.loginType = static_cast<unsigned char>(numberField(j, "login_type", 0, 0xFF, kLoginPin));
    if (!knownLoginType(s.loginType)) throw std::invalid_argument("login_type: 20, 23, 24 or 25");
    const json& pins = j.value("pins", json::array());
    if (!pins.is_array()) throw std::invalid_argument("pins: a list");
    for (const auto& p : pins) {
        if (!p.is_object()) throw std::invalid_argument("pin: not an object");
        const Bytes id = hexField(p.value("id", json()), "pin.id", 2);
        PinObject pin{static_cast<std::uint16_t>(id[0] << 8 | id[1]),
                      static_cast<unsigned char>(numberField(p, "kind", 0, kKindLogin)),
                      hexField(p.value("pin", json("")), "pin.pin"),
                      static_cast<unsigned char>(numberField(p, "tries_left", 0, s.triesTotal))};
        if (pin.kind != kKindLogin && (pin.value.size() < kPinMin || pin.value.size() > kPinMax))
            throw std::invalid_argument("pin " + hexNumber(pin.id, 4) + ": 4 to 16 bytes");
        if (s.pin(pin.id)) throw std::invalid_argument("pin " + hexNumber(pin.id, 4) + " twice");
        s.pins.push_back(std::move(pin));
    }
    if (!s.pin(kUserPin) || !s.pin(kAdminPin))
        throw std::invalid_argument("pins: the user PIN 0020 and the administrator PIN 0010");
    const json& fingers = j.value("fingers", json::array());
    if (!fingers.is_array()) throw std::invalid_argument("fingers: a list");
    for (const auto& f : fingers) {
        if (!f.is_object()) throw std::invalid_argument("finger: not an object");
        Finger finger{static_cast<unsigned char>(numberField(f, "number", kFingerMin, kFingerMax)),
                      hexField(f.value("template", json("")), "finger.template"),
                      hexField(f.value("ticket_key", json()), "finger.ticket_key",
                               static_cast<int>(kTicketKeySize))};
        checkFinger(finger.number, finger.templ);
        if (s.finger(finger.number))
            throw std::invalid_argument("finger " + std::to_string(finger.number) + " twice");
        s.fingers.push_back(std::move(finger));
    }
    s.fingerTriesLeft = static_cast<unsigned char>(
        numberField(j, "finger_tries_left", 0, s.triesTotal, s.triesTotal));
    s.root = treeFromJson<Node>(j.value("tree", json()), kTreeLimits, nameFromJson);
    if (!s.root.isDir || s.root.id != kMf) throw std::invalid_argument("tree: begins at 3F00");
    return s;
}

std::string describe(const IdprotectState& s) {
    std::ostringstream out;
    out << "identifier  " << toHex(s.id) << "\n"
        << "version     " << toHex(s.version) << "\n"
        << "memory      " << s.memory << " bytes, " << s.memoryFree() << " free\n"
        << "login type  " << hexNumber(s.loginType, 2) << "\n";
    Path below(infoPath().begin() + 1, infoPath().end());
    if (const Node* info = const_cast<IdprotectState&>(s).find(below);
        info && !info->isDir && info->content.size() > kInfoVersionAt) {
        std::string label(info->content.begin(), info->content.begin() + kLabelSize);
        label.erase(label.find_last_not_of(std::string(" \0", 2)) + 1);
        out << "label       \"" << label << "\"\n"
            << "info file   version byte " << unsigned{info->content[kInfoVersionAt]} << "\n";
    }
    for (const auto& p : s.pins) {
        out << "PIN " << hexNumber(p.id, 4)
            << (p.kind == kKindAdmin  ? "  administrator"
                : p.kind == kKindUser ? "  user"
                                      : "  login object, stands for the user PIN");
        if (p.kind != kKindLogin)
            out << "  tries " << unsigned{p.triesLeft} << "/" << unsigned{s.triesTotal}
                << (p.triesLeft == 0 ? "  BLOCKED" : "");
        out << "\n";
    }
    auto& state = const_cast<IdprotectState&>(s);
    if (const Node* keys = state.find({kSystemDir, kKeyDir}))
        for (const auto& f : keys->children)
            if (!f.isDir && f.id >> 8 == kKeyFiles >> 8) {
                const Node* companion = findById(keys->children, companionOf(f.id & 0xFF));
                out << "key " << hexNumber(f.id, 4) << "  RSA "
                    << (companion ? companion->content.size() * 8 : 0) << " bits\n";
            }
    if (const Node* certs = state.find({kSystemDir, kCertificateDir}))
        for (const auto& f : certs->children)
            if (!f.isDir && f.id >> 8 == kCertificateFiles >> 8 &&
                f.content.size() > kCertificateHeader + 2)
                out << "certificate " << hexNumber(f.id, 4) << "  \""
                    << commonNameOf(
                           Bytes(f.content.begin() + kCertificateHeader + 2, f.content.end()))
                    << "\"" << (f.id & kKeyless ? "  without a key" : "") << "\n";
    out << "fingers     ";
    if (s.fingers.empty()) out << "none";
    for (const auto& f : s.fingers)
        out << unsigned{f.number} << " (" << f.templ.size() << "-byte template)  ";
    out << "\nfinger tries " << unsigned{s.fingerTriesLeft} << "/" << unsigned{s.triesTotal}
        << (s.fingerTriesLeft == 0 ? "  BLOCKED" : "") << "\n";
    out << "real tree\n";
    describeNode(out, s.root, {kMf});
    describeLogical(out, s);
    return out.str();
}

}  // namespace vtoken::idprotect
