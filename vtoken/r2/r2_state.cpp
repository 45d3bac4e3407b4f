#include "r2/r2_state.h"

#include "core/by_id.h"
#include "core/random.h"
#include "core/state_json.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace vtoken::r2 {

using json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kLabelMax = 32;
constexpr int kDepthMax = 64;

void littleWord(Bytes& out, std::uint16_t w) {
    out.push_back(static_cast<unsigned char>(w & 0xFF));
    out.push_back(static_cast<unsigned char>(w >> 8));
}

std::size_t treeCost(const Node& n) {
    std::size_t total = 0;
    for (const auto& c : n.children) total += c.cost() + treeCost(c);
    return total;
}

json nodeToJson(const Node& n) {
    json out = {{"id", hexNumber(n.id, 4)}, {"type", n.dir ? "dir" : "file"}};
    if (n.dir) {
        json children = json::array();
        for (const auto& c : n.children) children.push_back(nodeToJson(c));
        out["children"] = children;
    } else {
        out["private"] = n.isPrivate;
        out["data"] = toHex(n.data);
    }
    return out;
}

Node nodeFromJson(const json& j, int depth) {
    if (!j.is_object()) throw std::invalid_argument("node: not an object");
    if (depth > kDepthMax) throw std::invalid_argument("node: tree too deep");
    const Bytes id = hexField(j.value("id", json()), "node.id", 2);
    Node n;
    n.id = static_cast<std::uint16_t>(id[0] << 8 | id[1]);
    const std::string name = "node " + hexNumber(n.id, 4);
    const std::string type = j.value("type", "");
    if (type != "dir" && type != "file")
        throw std::invalid_argument(name + ": type is dir or file");
    n.dir = type == "dir";
    if (n.dir) {
        for (const auto& c : j.value("children", json::array())) {
            Node child = nodeFromJson(c, depth + 1);
            if (child.id == kRoot || child.id == 0x0000 || child.id == 0xFFFF)
                throw std::invalid_argument(name + ": a child cannot be " + hexNumber(child.id, 4));
            if (n.child(child.id))
                throw std::invalid_argument(name + ": two children " + hexNumber(child.id, 4));
            n.children.push_back(std::move(child));
        }
    } else {
        const json& flag = j.value("private", json(false));
        if (!flag.is_boolean()) throw std::invalid_argument(name + ": private is true or false");
        n.isPrivate = flag.get<bool>();
        n.data = hexField(j.value("data", json("")), "node.data");
        if (n.data.size() > 0xFFFF) throw std::invalid_argument(name + ": above 65535 bytes");
    }
    return n;
}

UserPin pinFromJson(const json& j) {
    UserPin pin;
    if (j.is_null()) return pin;
    if (!j.is_object()) throw std::invalid_argument("user_pin: not an object");
    pin.value = hexField(j.value("pin", json()), "user_pin.pin");
    if (pin.value.size() < kPinMin || pin.value.size() > kPinMax)
        throw std::invalid_argument("user_pin.pin: 4 to 16 bytes");
    pin.maxTries = static_cast<unsigned char>(numberField(j, "max_tries", 1, 255, pin.maxTries));
    pin.tries = static_cast<unsigned char>(numberField(j, "tries", 0, pin.maxTries, pin.maxTries));
    return pin;
}

void describeNode(std::ostringstream& out, const Node& n, const std::string& indent) {
    out << indent << hexNumber(n.id, 4);
    if (n.dir) {
        out << "/  dir\n";
    } else {
        out << "   file " << n.data.size() << " bytes  " << (n.isPrivate ? "private" : "public")
            << "\n";
    }
    for (const auto& c : n.children) describeNode(out, c, indent + "  ");
}

}  // namespace

const Bytes& atr() {
    static const Bytes kAtr = fromHex("3B 81 1F 00 CC 52");
    return kAtr;
}

Bytes UserPin::defaultValue() {
    const std::string_view pin = "1234567890";
    return Bytes(pin.begin(), pin.end());
}

Node Node::directory(std::uint16_t id) {
    Node n;
    n.id = id;
    n.dir = true;
    return n;
}

Node Node::file(std::uint16_t id, bool isPrivate, Bytes data) {
    Node n;
    n.id = id;
    n.isPrivate = isPrivate;
    n.data = std::move(data);
    return n;
}

Node* Node::child(std::uint16_t childId) { return findById(children, childId); }

const Node* Node::child(std::uint16_t childId) const { return findById(children, childId); }

Bytes R2State::configBlock() const {
    Bytes block = id;
    append(block, version);
    littleWord(block, memoryTotal);
    block.resize(16, 0x00);
    littleWord(block, memoryFree);
    block.push_back(colour);
    block.push_back(0x00);
    return block;
}

Node* R2State::find(const Path& path) {
    Node* n = &root;
    for (std::uint16_t id : path) {
        if (!n->dir) return nullptr;
        n = n->child(id);
        if (!n) return nullptr;
    }
    return n;
}

const Node* R2State::find(const Path& path) const { return const_cast<R2State*>(this)->find(path); }

std::size_t systemArea(std::size_t memoryTotal) { return memoryTotal / 8; }

R2State personalise(const Personalisation& p) {
    if (p.userPin.size() < kPinMin || p.userPin.size() > kPinMax)
        throw std::invalid_argument("the user PIN has 4 to 16 bytes");
    if (p.maxTries == 0) throw std::invalid_argument("the PIN takes at least 1 try");
    if (p.id && p.id->size() != 4) throw std::invalid_argument("an identifier has 4 bytes");

    R2State s;
    s.pin.value.assign(p.userPin.begin(), p.userPin.end());
    s.pin.tries = s.pin.maxTries = p.maxTries;
    s.colour = p.colour;
    s.memoryTotal = p.memoryTotal;
    s.id = p.id ? *p.id : randomBytes(s.id.size());
    if (p.label) {
        if (p.label->size() > kLabelMax)
            throw std::invalid_argument("a label has at most 32 bytes");
        if (p.label->find('\0') != std::string::npos)
            throw std::invalid_argument("a label holds no zero byte");
        Node dir = Node::directory(kLabelDir);
        dir.children.push_back(
            Node::file(kLabelFile, false, Bytes(p.label->begin(), p.label->end())));
        s.root.children.push_back(std::move(dir));
    }
    const std::size_t taken = systemArea(p.memoryTotal) + treeCost(s.root);
    if (taken > p.memoryTotal)
        throw std::invalid_argument("memory: " + std::to_string(p.memoryTotal) +
                                    " bytes do not hold the label");
    s.memoryFree = static_cast<std::uint16_t>(p.memoryTotal - taken);
    return s;
}

std::string toJsonText(const R2State& s) {
    json out = {
        {"format", "krfs-vtoken/1"},
        {"dialect", "r2"},
        {"id", toHex(s.id)},
        {"version", toHex(s.version)},
        {"memory_total", s.memoryTotal},
        {"memory_free", s.memoryFree},
        {"colour", s.colour},
        {"user_pin",
         {{"pin", toHex(s.pin.value)}, {"tries", s.pin.tries}, {"max_tries", s.pin.maxTries}}},
        {"faults", faultsToJson(s.faults)},
        {"root", nodeToJson(s.root)}};
    return out.dump(2) + "\n";
}

R2State fromJsonText(std::string_view text) {
    const json j = parseStateText(text, "r2");
    R2State s;
    s.id = hexField(j.value("id", json()), "id", 4);
    s.version = hexField(j.value("version", json()), "version", 2);
    s.memoryTotal = static_cast<std::uint16_t>(numberField(j, "memory_total", 0, 0xFFFF));
    s.memoryFree = static_cast<std::uint16_t>(numberField(j, "memory_free", 0, 0xFFFF));
    s.colour = static_cast<unsigned char>(numberField(j, "colour", 0, 0xFF));
    s.pin = pinFromJson(j.value("user_pin", json()));
    s.faults = faultsFromJson(j.value("faults", json()));
    // Files from before the card kept a tree hold none: an empty root.
    if (j.contains("root")) {
        s.root = nodeFromJson(j["root"], 0);
        if (s.root.id != kRoot || !s.root.dir) throw std::invalid_argument("root: directory 3F00");
    }
    return s;
}

std::string describe(const R2State& s) {
    std::ostringstream out;
    out << "R2 token\n"
        << "ATR         " << toHex(atr()) << "\n"
        << "identifier  " << toHex(s.id) << "\n"
        << "version     " << toHex(s.version) << "\n"
        << "memory      " << s.memoryTotal << " bytes, " << s.memoryFree << " free\n"
        << "colour      " << unsigned{s.colour} << "\n"
        << "user PIN    tries " << unsigned{s.pin.tries} << "/" << unsigned{s.pin.maxTries}
        << (s.pin.tries == 0 ? "  BLOCKED" : "") << "\n";
    const Node* label = s.find({kLabelDir, kLabelFile});
    if (label && !label->dir)
        out << "label       \"" << std::string(label->data.begin(), label->data.end()) << "\"\n";
    if (!s.faults.empty()) out << "faults      " << faultsToJson(s.faults).dump() << "\n";
    describeNode(out, s.root, "");
    return out.str();
}

}  // namespace vtoken::r2
