#include "r2/r2_card.h"

#include <algorithm>

namespace vtoken::r2 {

namespace {

enum Ins : unsigned char {
    kVerify = 0x20,
    kRead = 0xB0,
    kSelect = 0xA4,
    kWrite = 0xD0,
    kList = 0xD2,
    kChangePin = 0xD4,
    kConfig = 0xDA,
    kLogout = 0xDC,
    kCreate = 0xE0,
    kDelete = 0xE2,
};

// The card's own status words (see r2_card.h).
constexpr std::uint16_t kRefused = 0x6406;
constexpr std::uint16_t kNotFound = 0x6407;
constexpr std::uint16_t kExists = 0x6408;
constexpr std::uint16_t kWrongPin = 0x6416;

// Node types as CREATE, DELETE, LIST and the select answer name them.
constexpr unsigned char kTypeFile = 1;
constexpr unsigned char kTypeDir = 2;

// The one list form the card knows: its data begin 00 04, then the type.
constexpr unsigned char kListForm[] = {0x00, 0x04};
// A list answer holds at most this many identifiers.
constexpr std::size_t kChildrenMax = 1024;
// A short answer carries at most 256 bytes of data.
constexpr std::size_t kReadMax = 256;

// Data, then the status word low byte first.
Bytes answer(std::uint16_t status, Bytes data = {}) {
    data.push_back(static_cast<unsigned char>(status & 0xFF));
    data.push_back(static_cast<unsigned char>(status >> 8));
    return data;
}

void putLittleWord(Bytes& out, std::size_t w) {
    out.push_back(static_cast<unsigned char>(w & 0xFF));
    out.push_back(static_cast<unsigned char>(w >> 8 & 0xFF));
}

std::uint16_t littleWordAt(const Bytes& data, std::size_t at) {
    return static_cast<std::uint16_t>(data[at] | data[at + 1] << 8);
}

unsigned char typeOf(const Node& n) { return n.dir ? kTypeDir : kTypeFile; }

bool reservedId(std::uint16_t id) { return id == kRoot || id == 0x0000 || id == 0xFFFF; }

// VERIFY and CHANGE carry a length byte and that many PIN bytes.
bool wellFormedPin(const Command& c) { return !c.data.empty() && c.data[0] == c.data.size() - 1; }

}  // namespace

Bytes R2Card::process(const Bytes& command) {
    auto c = Command::parse(command);
    if (!c) return answer(sw::kWrongLength);
    if (c->cla != 0x00) return answer(sw::kUnknownClass);
    if (c->p1p2() != 0) return answer(sw::kWrongP1P2);
    changed_ = false;
    Bytes out = dispatch(*c);
    if (changed_ && onChange_) onChange_(state_);
    return out;
}

Bytes R2Card::dispatch(const Command& c) {
    switch (c.ins) {
        case kSelect:
            return select(c);
        case kCreate:
            return create(c);
        case kDelete:
            return remove(c);
        case kList:
            return list(c);
        case kRead:
            return read(c);
        case kWrite:
            return write(c);
        case kVerify:
            return verify(c);
        case kChangePin:
            return changePin(c);
        case kLogout:
            return logout(c);
        case kConfig:
            return config(c);
        default:
            return answer(sw::kUnknownInstruction);
    }
}

Node& R2Card::selected() {
    Node* n = state_.find(session_.selected);
    if (!n) {
        session_.selected.clear();
        return state_.root;
    }
    return *n;
}

Bytes R2Card::select(const Command& c) {
    // 00, the count of identifiers, then the identifiers.
    const Bytes& d = c.data;
    if (!c.le || d.size() < 2 || d.size() != 2 + 2 * std::size_t{d[1]})
        return answer(sw::kWrongLength);
    if (d[0] != 0x00) return answer(sw::kWrongData);
    Path path;
    for (std::size_t at = 2; at < d.size(); at += 2) path.push_back(littleWordAt(d, at));
    if (path.empty() || path.front() != kRoot) return answer(kNotFound);
    path.erase(path.begin());
    const Node* node = state_.find(path);
    if (!node) return answer(kNotFound);
    session_.selected = path;

    Bytes out;
    putLittleWord(out, node->id);
    out.push_back(typeOf(*node));
    out.push_back(node->isPrivate ? 1 : 0);
    putLittleWord(out, node->data.size());
    putLittleWord(out, 0);
    return answer(sw::kOk, out);
}

Bytes R2Card::create(const Command& c) {
    // Type, private flag, size, identifier.
    if (c.data.size() != 6) return answer(sw::kWrongLength);
    const unsigned char type = c.data[0];
    if (type != kTypeFile && type != kTypeDir) return answer(sw::kWrongData);
    if (!session_.verified) return answer(sw::kSecurityNotSatisfied);
    Node& parent = selected();
    if (!parent.dir) return answer(kRefused);
    const std::uint16_t id = littleWordAt(c.data, 4);
    if (reservedId(id)) return answer(sw::kWrongData);
    if (parent.child(id)) return answer(kExists);

    Node node = type == kTypeDir
                    ? Node::directory(id)
                    : Node::file(id, c.data[1] != 0, Bytes(littleWordAt(c.data, 2), 0x00));
    if (node.cost() > state_.memoryFree || parent.children.size() >= kChildrenMax)
        return answer(sw::kNoRoom);
    state_.memoryFree = static_cast<std::uint16_t>(state_.memoryFree - node.cost());
    parent.children.push_back(std::move(node));
    changed_ = true;
    // The directory stays selected: the host creates a path level by level.
    return answer(sw::kOk);
}

Bytes R2Card::remove(const Command& c) {
    if (c.data.size() != 1) return answer(sw::kWrongLength);
    if (!session_.verified) return answer(sw::kSecurityNotSatisfied);
    Node& node = selected();
    if (session_.selected.empty() || c.data[0] != typeOf(node) || !node.children.empty())
        return answer(kRefused);

    const std::size_t cost = node.cost();
    const std::uint16_t id = node.id;
    session_.selected.pop_back();
    auto& siblings = selected().children;
    siblings.erase(
        std::find_if(siblings.begin(), siblings.end(), [id](const Node& n) { return n.id == id; }));
    state_.memoryFree =
        static_cast<std::uint16_t>(std::min<std::size_t>(state_.memoryFree + cost, 0xFFFF));
    changed_ = true;
    return answer(sw::kOk);
}

Bytes R2Card::list(const Command& c) {
    if (!c.le || c.data.size() != 3) return answer(sw::kWrongLength);
    if (!std::equal(std::begin(kListForm), std::end(kListForm), c.data.begin()))
        return answer(sw::kWrongData);
    const unsigned char type = c.data[2];
    if (type != kTypeFile && type != kTypeDir) return answer(sw::kWrongData);
    const Node& dir = selected();
    if (!dir.dir) return answer(kRefused);

    Bytes ids;
    for (const auto& child : dir.children)
        if (typeOf(child) == type) putLittleWord(ids, child.id);
    Bytes out;
    putLittleWord(out, ids.size() / 2);
    append(out, ids);
    return answer(sw::kOk, out);
}

Bytes R2Card::read(const Command& c) {
    // Offset and length.
    if (!c.le || c.data.size() != 4) return answer(sw::kWrongLength);
    const std::size_t offset = littleWordAt(c.data, 0);
    const std::size_t length = littleWordAt(c.data, 2);
    if (length > kReadMax) return answer(sw::kWrongLength);
    const Node& file = selected();
    if (file.dir) return answer(kRefused);
    if (file.isPrivate && !session_.verified) return answer(sw::kSecurityNotSatisfied);
    if (offset + length > file.data.size()) return answer(sw::kOutsideFile);
    const auto from = file.data.begin() + static_cast<std::ptrdiff_t>(offset);
    return answer(sw::kOk, Bytes(from, from + static_cast<std::ptrdiff_t>(length)));
}

Bytes R2Card::write(const Command& c) {
    // Offset, length, then that many bytes.
    if (c.data.size() < 4 || c.data.size() != 4 + std::size_t{littleWordAt(c.data, 2)})
        return answer(sw::kWrongLength);
    const std::size_t offset = littleWordAt(c.data, 0);
    Node& file = selected();
    if (file.dir) return answer(kRefused);
    if (!session_.verified) return answer(sw::kSecurityNotSatisfied);
    if (offset > file.data.size()) return answer(sw::kOutsideFile);
    if (offset + c.data.size() - 4 > file.data.size()) return answer(sw::kNoRoom);
    std::copy(c.data.begin() + 4, c.data.end(),
              file.data.begin() + static_cast<std::ptrdiff_t>(offset));
    changed_ = true;
    return answer(sw::kOk);
}

Bytes R2Card::verify(const Command& c) {
    if (!wellFormedPin(c)) return answer(sw::kWrongLength);
    UserPin& pin = state_.pin;
    if (pin.tries == 0) return answer(sw::kBlocked);
    const Bytes offered(c.data.begin() + 1, c.data.end());
    if (offered != pin.value) {
        --pin.tries;
        session_.verified = false;
        changed_ = true;
        return answer(kWrongPin);
    }
    changed_ = pin.tries != pin.maxTries;
    pin.tries = pin.maxTries;
    session_.verified = true;
    return answer(sw::kOk);
}

Bytes R2Card::changePin(const Command& c) {
    if (!wellFormedPin(c)) return answer(sw::kWrongLength);
    if (!session_.verified) return answer(sw::kSecurityNotSatisfied);
    const std::size_t n = c.data.size() - 1;
    if (n < kPinMin || n > kPinMax) return answer(sw::kWrongData);
    state_.pin.value.assign(c.data.begin() + 1, c.data.end());
    changed_ = true;
    return answer(sw::kOk);
}

Bytes R2Card::logout(const Command&) {
    session_.verified = false;
    return answer(sw::kOk);
}

Bytes R2Card::config(const Command& c) {
    // The configuration block is the one object behind data 00.
    if (c.data != Bytes{0x00} || !c.le) return answer(sw::kWrongLength);
    return answer(sw::kOk, state_.configBlock());
}

}  // namespace vtoken::r2
