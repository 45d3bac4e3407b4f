#include "java/java_applet.h"

#include "core/apdu.h"
#include "core/random.h"
#include "core/tlv.h"
#include "java/java_crypto.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace vtoken::java {

namespace {

constexpr std::uint16_t kWrongKind = 0x6701;
constexpr std::uint16_t kExists = 0x6703;
constexpr std::uint16_t kWrongPin = 0x6705;
constexpr std::uint16_t kNotFound = 0x6707;
constexpr std::uint16_t kNoRoom = 0x6735;
constexpr std::uint16_t kAccessRefused = 0x6736;
constexpr std::uint16_t kBadParameters = sw::kOutsideFile;

constexpr unsigned char kSmBit = 0x04;

constexpr unsigned char kSelectMf = 0x00;
constexpr unsigned char kSelectPath = 0x08;
constexpr unsigned char kSelectP2 = 0x04;
constexpr std::uint16_t kCreateP1P2 = 0x0100;
constexpr unsigned char kListDirs = 0x01;
constexpr unsigned char kListFiles = 0x02;
constexpr std::size_t kListPage = 100;
constexpr unsigned char kLoginChallenge = 0x00;
constexpr unsigned char kSmChallenge = 0x01;
constexpr unsigned char kInformationP1 = 0x01;
constexpr unsigned char kDecipherP1 = 0x03;

// Tags of the command bodies and answers.
constexpr unsigned char kTagType = 0x01;
constexpr unsigned char kTagId = 0x02;
constexpr unsigned char kTagSize = 0x03;
constexpr unsigned char kTagAccess = 0x04;
constexpr unsigned char kTagListFrom = 0x09;
constexpr unsigned char kTagListIds = 0x0A;
constexpr unsigned char kTagListMore = 0x0B;
constexpr unsigned char kTagOffset = 0x0E;
constexpr unsigned char kTagValue = 0x10;
constexpr unsigned char kTypeDir = 0x01;
constexpr unsigned char kTypeFile = 0x02;
// PIN status items.
constexpr unsigned char kTagTriesLeft = 0x23;
constexpr unsigned char kTagTriesTotal = 0x06;
constexpr unsigned char kTagVerified = 0x20;
// The key object's one status item: kind, size flag, 00.
constexpr unsigned char kTagKeyKind = 0x1A;
// Information items and what the identification item holds.
constexpr unsigned char kInfoIdentification = 0x07;
constexpr unsigned char kInfoVersion = 0x11;
constexpr unsigned char kInfoMemoryTotal = 0x13;
constexpr unsigned char kInfoMemoryFree = 0x14;
constexpr unsigned char kTagInfoId = 0x01;
constexpr unsigned char kTagInfoDate = 0x04;
constexpr unsigned char kTagInfoColour = 0x05;
// Objects of a wrapped command and of its answer.
constexpr unsigned char kTagCipher = 0x32;
constexpr unsigned char kTagIv = 0x22;
constexpr unsigned char kTagSmInfo = 0x34;
constexpr unsigned char kTagHostChallenge = 0x33;
constexpr unsigned char kTagMac = 0x0D;
constexpr unsigned char kTagStatus = 0x99;
constexpr std::size_t kSmObjectSize = 8;
// Added by the host to the Le of a wrapped command.
constexpr std::size_t kSmLeExtra = 0x20;

// Lengths from FF up are FF and two bytes.
std::optional<Tlvs> parseTlvs(const Bytes& data) {
    return vtoken::parseTlvs(data, TlvLengths::kFfWord);
}

Bytes tlv(unsigned char tag, const Bytes& value) {
    return vtoken::tlv(tag, value, TlvLengths::kFfWord);
}

// The value of `tag` in a body, if the body parses and the value has
// `size` bytes (any size if 0).
std::optional<Bytes> field(const Bytes& body, unsigned char tag, std::size_t size = 0) {
    const auto tlvs = parseTlvs(body);
    const Bytes* value = tlvs ? findTag(*tlvs, tag) : nullptr;
    if (!value || (size && value->size() != size)) return std::nullopt;
    return *value;
}

bool validId(std::uint16_t id) { return id != 0x0000 && id != kMf && id != 0xFFFF; }

// The select answer: type, size, access bytes.
Bytes nodeDescription(const Node& n) {
    Bytes out = tlv(kTagType, {n.isDir ? kTypeDir : kTypeFile});
    append(out, tlv(kTagSize, word(n.isDir ? 0 : n.content.size())));
    append(out, tlv(kTagAccess, n.access));
    return out;
}

// The shadow and the user PIN stand in for one another on a FIPS token.
unsigned char partnerOf(unsigned char pin) {
    return pin == kUserPin ? kShadowPin : pin == kShadowPin ? kUserPin : 0;
}

const Bytes& javaAid() {
    static const Bytes kAid{0xA0, 0x00, 0x00, 0x03, 0x12, 0x02, 0x02};
    return kAid;
}

const Bytes& jokerAid() {
    static const Bytes kAid{0xA0, 0x00, 0x00, 0x04, 0x48, 0x00, 0x04, 0x01};
    return kAid;
}

}  // namespace

std::string JavaApplet::kind() const { return variant_ == Variant::kJava ? "java" : "joker"; }

const Bytes& JavaApplet::aid() const { return variant_ == Variant::kJava ? javaAid() : jokerAid(); }

Bytes JavaApplet::select() {
    session_ = {};
    return respond(sw::kOk);
}

Bytes JavaApplet::process(const Bytes& apdu) {
    if (!apdu.empty() && (apdu[0] & kSmBit)) return unwrap(apdu);
    // Extended lengths carry the 256-byte blocks of a decipher.
    const auto c = Command::parse(apdu, true);
    if (!c) return respond(sw::kWrongLength);
    return run(*c);
}

Bytes JavaApplet::run(const Command& c) {
    struct Header {
        unsigned char cla, ins;
    };
    using Handler = Bytes (JavaApplet::*)(const Command&);
    // The only difference between the variants: class and instruction of
    // each operation, Java first. The same byte means different commands in
    // the two (80 1B writes on the Joker, sets the marker on the Java).
    static const struct {
        Handler handler;
        std::array<std::optional<Header>, 2> headers;
    } kCommands[] = {
        {&JavaApplet::selectNode, {Header{0x00, 0xA4}, Header{0x80, 0x03}}},
        {&JavaApplet::createNode, {Header{0x80, 0x16}, Header{0x80, 0x09}}},
        {&JavaApplet::deleteNode, {Header{0x00, 0xE4}, Header{0x80, 0x01}}},
        {&JavaApplet::listNodes, {Header{0x80, 0x01}, Header{0x80, 0x0D}}},
        {&JavaApplet::readFile, {Header{0x80, 0x18}, Header{0x80, 0x1C}}},
        {&JavaApplet::writeFile, {Header{0x80, 0x15}, Header{0x80, 0x1B}}},
        {&JavaApplet::changeMarker, {Header{0x80, 0x1B}, Header{0x80, 0x1D}}},
        {&JavaApplet::setSize, {Header{0x80, 0x1A}, Header{0x80, 0x17}}},
        {&JavaApplet::pinStatus, {Header{0x80, 0x07}, Header{0x80, 0x14}}},
        {&JavaApplet::challenge, {Header{0x80, 0x17}, Header{0x80, 0x12}}},
        {&JavaApplet::authenticate, {Header{0x80, 0x11}, Header{0x80, 0x10}}},
        {&JavaApplet::change, {Header{0x80, 0x0F}, Header{0x80, 0x18}}},
        {&JavaApplet::unblock, {Header{0x80, 0x13}, std::nullopt}},
        {&JavaApplet::information, {Header{0x00, 0xCA}, Header{0x80, 0x02}}},
        {&JavaApplet::decipher, {Header{0x80, 0x0C}, Header{0x80, 0x19}}},
    };
    bool known = false;
    for (const auto& command : kCommands) {
        const auto& h = command.headers[variant_ == Variant::kJava ? 0 : 1];
        if (!h || h->ins != c.ins) continue;
        known = true;
        if (h->cla == c.cla) return (this->*command.handler)(c);
    }
    return respond(known ? sw::kUnknownClass : sw::kUnknownInstruction);
}

// A wrapped command: header, Lc (one byte or 00 HH LL), 32 E, 22 IV,
// 34 01 3E, 33 H, 0D MAC, two Le bytes. The MAC (slot 2 of the session PIN)
// runs over all but the Le with the card's challenge, its last byte plus
// one, in the MAC's place. E is under slot 1; the answer's data under slot
// 3, its MAC, which also covers H and the status word, under slot 4.
Bytes JavaApplet::unwrap(const Bytes& a) {
    if (a.size() < 5) return respond(sw::kWrongLength);
    const bool extended = a[4] == 0;
    const std::size_t start = extended ? 7 : 5;
    if (a.size() < start + 2) return respond(sw::kWrongLength);
    const std::size_t lc = extended ? wordAt(a, 5) : a[4];
    if (a.size() != start + lc + 2) return respond(sw::kWrongLength);
    const auto bodyEnd = a.begin() + static_cast<std::ptrdiff_t>(start + lc);
    const auto objects = parseTlvs(Bytes(a.begin() + static_cast<std::ptrdiff_t>(start), bodyEnd));

    Bytes challenge = std::move(session_.smChallenge);
    session_.smChallenge.clear();
    const PinObject* pin = session_.sessionPin ? state_.pin(*session_.sessionPin) : nullptr;
    if (!objects) return respond(sw::kSmObjectsWrong);
    const auto& o = *objects;
    if (o.size() != 5 || o[0].tag != kTagCipher || o[1].tag != kTagIv ||
        o[1].value.size() != kSmObjectSize || o[2].tag != kTagSmInfo ||
        o[2].value != Bytes{0x01, 0x3E} || o[3].tag != kTagHostChallenge ||
        o[3].value.size() != kSmObjectSize || o[4].tag != kTagMac ||
        o[4].value.size() != kSmObjectSize || challenge.size() != kSmObjectSize || !pin ||
        std::any_of(pin->slots.begin() + 1, pin->slots.end(),
                    [](const Bytes& k) { return k.empty(); }))
        return respond(sw::kSmObjectsWrong);
    const std::array<Bytes, kSlots> keys = pin->slots;
    Bytes macInput(a.begin(), bodyEnd - kSmObjectSize);
    challenge.back() = static_cast<unsigned char>(challenge.back() + 1);
    append(macInput, challenge);
    if (smMac(keys[2], macInput) != o[4].value) return respond(sw::kSmObjectsWrong);
    auto plain = smDecrypt(keys[1], o[1].value, o[0].value);
    if (!plain) return respond(sw::kSmObjectsWrong);

    Command inner{static_cast<unsigned char>(a[0] & ~kSmBit),
                  a[1],
                  a[2],
                  a[3],
                  std::move(*plain),
                  std::nullopt};
    const std::size_t le = wordAt(a, a.size() - 2);
    if (le > kSmLeExtra) inner.le = le - kSmLeExtra;
    wrapped_ = true;
    Bytes answer = run(inner);
    wrapped_ = false;
    const Bytes status(answer.end() - 2, answer.end());
    if (status != statusWord(sw::kOk)) return status;
    answer.resize(answer.size() - 2);

    Bytes out = tlv(kTagStatus, status);
    if (!answer.empty()) {
        const Bytes iv = randomBytes(kBlock);
        out = tlv(kTagIv, iv);
        append(out, tlv(kTagCipher, smEncrypt(keys[3], iv, answer)));
    }
    Bytes check = out;
    append(check, o[3].value);
    append(check, status);
    check.insert(check.end(), {kTagMac, static_cast<unsigned char>(kSmObjectSize)});
    append(out, tlv(kTagMac, smMac(keys[4], check)));
    append(out, status);
    return out;
}

bool JavaApplet::allowed(const Node& n, std::size_t index) const {
    const unsigned char pin = n.access[index];
    return pin == kFree || session_.verified.count(pin) != 0;
}

bool JavaApplet::verified(unsigned char pin) const {
    return session_.verified.count(pin) || (state_.fips && session_.verified.count(partnerOf(pin)));
}

const Bytes* JavaApplet::currentKey() const {
    const Path& home = keysHome();
    const Path& at = session_.current;
    if (at.size() != home.size() + 1 || !std::equal(home.begin(), home.end(), at.begin()))
        return nullptr;
    const auto key = state_.keys.find(at.back());
    return key == state_.keys.end() ? nullptr : &key->second;
}

void JavaApplet::addKey(const RsaKey& key, const std::string& id) {
    java::addKey(state_, key, id);
    markChanged();
}

Bytes JavaApplet::selectNode(const Command& c) {
    if (c.p2 != kSelectP2 || (c.p1 != kSelectMf && c.p1 != kSelectPath))
        return respond(kBadParameters);
    if (c.data.size() % 2 || (c.p1 == kSelectMf && !c.data.empty()))
        return respond(sw::kWrongLength);
    Path path;
    for (std::size_t at = 0; at < c.data.size(); at += 2) path.push_back(wordAt(c.data, at));
    const Node* n = state_.find(path);
    if (!n) return respond(kNotFound);
    session_.current = path;
    return respond(sw::kOk, nodeDescription(*n));
}

Bytes JavaApplet::createNode(const Command& c) {
    if (c.p1p2() != kCreateP1P2) return respond(kBadParameters);
    const auto type = field(c.data, kTagType, 1);
    const auto id = field(c.data, kTagId, 2);
    const auto size = field(c.data, kTagSize, 2);
    const auto access = field(c.data, kTagAccess, kAccessSize);
    if (!type || !id || !size || !access || ((*type)[0] != kTypeDir && (*type)[0] != kTypeFile) ||
        !validId(wordAt(*id, 0)))
        return respond(kBadParameters);
    Node n;
    n.isDir = (*type)[0] == kTypeDir;
    n.id = wordAt(*id, 0);
    n.access = *access;
    if (!n.isDir) n.content.assign(wordAt(*size, 0), 0x00);

    Node& parent = *currentNode();
    if (!parent.isDir) return respond(kWrongKind);
    if (!allowed(parent, kInside)) return respond(kAccessRefused);
    if (parent.child(n.id)) return respond(kExists);
    if (n.cost() > state_.memoryFree()) return respond(kNoRoom);
    parent.children.push_back(std::move(n));
    markChanged();
    return respond(sw::kOk);
}

Bytes JavaApplet::deleteNode(const Command& c) {
    if (c.p1p2()) return respond(kBadParameters);
    if (c.data.size() != 2) return respond(sw::kWrongLength);
    Node& parent = *currentNode();
    if (!parent.isDir) return respond(kWrongKind);
    const std::uint16_t id = wordAt(c.data, 0);
    const Node* n = parent.child(id);
    if (!n) return respond(kNotFound);
    if (!allowed(parent, kInside) || (!n->isDir && !allowed(*n, kWrite)))
        return respond(kAccessRefused);
    if (!n->children.empty()) return respond(sw::kConditionsNotSatisfied);
    parent.children.erase(std::find_if(parent.children.begin(), parent.children.end(),
                                       [id](const Node& s) { return s.id == id; }));
    if (session_.current == keysHome()) state_.keys.erase(id);
    markChanged();
    return respond(sw::kOk);
}

// A page of up to 100 identifiers of one kind from entry OO OO, and whether
// more follow.
Bytes JavaApplet::listNodes(const Command& c) {
    if ((c.p1 != kListDirs && c.p1 != kListFiles) || c.p2) return respond(kBadParameters);
    const auto from = field(c.data, kTagListFrom, 2);
    if (!from) return respond(kBadParameters);
    const Node& dir = *currentNode();
    if (!dir.isDir) return respond(kWrongKind);
    std::vector<std::uint16_t> ids;
    for (const auto& child : dir.children)
        if (child.isDir == (c.p1 == kListDirs)) ids.push_back(child.id);
    const std::size_t first = std::min<std::size_t>(wordAt(*from, 0), ids.size());
    const std::size_t end = std::min(first + kListPage, ids.size());
    Bytes page;
    for (std::size_t i = first; i < end; ++i) append(page, word(ids[i]));
    Bytes out = tlv(kTagListIds, page);
    append(out, tlv(kTagListMore, {static_cast<unsigned char>(end < ids.size())}));
    return respond(sw::kOk, std::move(out));
}

Bytes JavaApplet::readFile(const Command& c) {
    if (c.p1p2()) return respond(kBadParameters);
    const auto offset = field(c.data, kTagOffset, 2);
    if (!offset) return respond(kBadParameters);
    if (!c.le) return respond(sw::kWrongLength);
    const Node& n = *currentNode();
    if (n.isDir) return respond(kWrongKind);
    if (!allowed(n, kRead)) return respond(kAccessRefused);
    const std::size_t from = wordAt(*offset, 0);
    if (from + *c.le > n.content.size()) return respond(kBadParameters);
    const auto begin = n.content.begin() + static_cast<std::ptrdiff_t>(from);
    return respond(sw::kOk, Bytes(begin, begin + static_cast<std::ptrdiff_t>(*c.le)));
}

Bytes JavaApplet::writeFile(const Command& c) {
    if (c.p1p2()) return respond(kBadParameters);
    const auto offset = field(c.data, kTagOffset, 2);
    const auto data = field(c.data, kTagValue);
    if (!offset || !data) return respond(kBadParameters);
    Node& n = *currentNode();
    if (n.isDir) return respond(kWrongKind);
    if (!allowed(n, kWrite)) return respond(kAccessRefused);
    const std::size_t from = wordAt(*offset, 0);
    if (from + data->size() > n.content.size()) return respond(kBadParameters);
    std::copy(data->begin(), data->end(), n.content.begin() + static_cast<std::ptrdiff_t>(from));
    markChanged();
    return respond(sw::kOk);
}

// The current file gets the new size: cut, or grown with zeros.
Bytes JavaApplet::setSize(const Command& c) {
    if (c.p1p2()) return respond(kBadParameters);
    const auto size = field(c.data, kTagSize, 2);
    if (!size) return respond(kBadParameters);
    Node& n = *currentNode();
    if (n.isDir) return respond(kWrongKind);
    if (!allowed(n, kWrite)) return respond(kAccessRefused);
    const std::size_t newSize = wordAt(*size, 0);
    if (newSize > n.content.size() && newSize - n.content.size() > state_.memoryFree())
        return respond(kNoRoom);
    n.content.resize(newSize, 0x00);
    markChanged();
    return respond(sw::kOk);
}

Bytes JavaApplet::changeMarker(const Command& c) {
    if (c.p1p2()) return respond(kBadParameters);
    const auto marker = field(c.data, kTagValue, 16);
    if (!marker) return respond(kBadParameters);
    state_.marker = *marker;
    markChanged();
    return respond(sw::kOk);
}

Bytes JavaApplet::information(const Command& c) {
    if (c.p1 != kInformationP1) return respond(kBadParameters);
    const Information& info = state_.info;
    switch (c.p2) {
        case kInfoIdentification: {
            Bytes items = tlv(kTagInfoId, info.id);
            append(items, tlv(kTagInfoDate, info.date));
            append(items, tlv(kTagInfoColour, {info.colour}));
            return respond(sw::kOk, tlv(kInfoIdentification, items));
        }
        case kInfoVersion:
            return respond(sw::kOk, tlv(kInfoVersion, info.version));
        case kInfoMemoryTotal:
            return respond(sw::kOk, tlv(kInfoMemoryTotal, dword(state_.memory)));
        case kInfoMemoryFree:
            return respond(sw::kOk, tlv(kInfoMemoryFree, dword(state_.memoryFree())));
        default:
            return respond(kBadParameters);
    }
}

// Tag 10 lists the items asked for: tries left, total, verified. P2 31
// asks about the key of the current directory instead.
Bytes JavaApplet::pinStatus(const Command& c) {
    if (c.p1) return respond(kBadParameters);
    if (c.p2 == kKeyObject) return keyStatus(c);
    const PinObject* pin = state_.pin(c.p2);
    if (!pin) return respond(kNotFound);
    const auto items = field(c.data, kTagValue);
    if (!items) return respond(kBadParameters);
    Bytes out;
    for (unsigned char item : *items) {
        if (item == kTagTriesLeft)
            append(out, tlv(item, {pin->triesLeft}));
        else if (item == kTagTriesTotal)
            append(out, tlv(item, {pin->triesTotal}));
        else if (item == kTagVerified)
            append(out, tlv(item, {static_cast<unsigned char>(session_.verified.count(pin->id))}));
        else
            return respond(kBadParameters);
    }
    return respond(sw::kOk, std::move(out));
}

// n random bytes; the first 8 wait for the next login (P1 00) or wrapped
// command (P1 01), whichever this asks for.
Bytes JavaApplet::challenge(const Command& c) {
    if ((c.p1 != kLoginChallenge && c.p1 != kSmChallenge) || c.p2) return respond(kBadParameters);
    if (!c.le || *c.le > 0xFF || !c.data.empty()) return respond(sw::kWrongLength);
    const Bytes r = randomBytes(*c.le);
    Bytes& kept = c.p1 == kSmChallenge ? session_.smChallenge : session_.loginChallenge;
    kept.clear();
    if (r.size() >= kSmObjectSize) kept.assign(r.begin(), r.begin() + kSmObjectSize);
    return respond(sw::kOk, r);
}

Bytes JavaApplet::authenticate(const Command& c) {
    if (c.p1) return respond(kBadParameters);
    PinObject* pin = state_.pin(c.p2);
    if (!pin) return respond(kNotFound);
    const auto mac = field(c.data, kTagValue, kSmObjectSize);
    if (!mac) return respond(kBadParameters);
    const Bytes challenge = std::move(session_.loginChallenge);
    session_.loginChallenge.clear();
    if (pin->triesLeft == 0) return respond(sw::kBlocked);
    if (challenge.size() != kSmObjectSize || pin->slots[0].empty())
        return respond(sw::kConditionsNotSatisfied);
    if (loginAnswer(pin->slots[0], challenge) != *mac) {
        --pin->triesLeft;
        session_.verified.erase(pin->id);
        markChanged();
        return respond(kWrongPin);
    }
    if (pin->triesLeft != pin->triesTotal) markChanged();
    pin->triesLeft = pin->triesTotal;
    session_.verified.insert(pin->id);
    session_.sessionPin = pin->id;
    return respond(sw::kOk);
}

Bytes JavaApplet::writeKey(const Command& c, PinObject& pin, std::size_t slot) {
    const auto key = field(c.data, kTagValue, kKeySize);
    if (!key) return respond(kBadParameters);
    pin.slots[slot] = *key;
    markChanged();
    return respond(sw::kOk);
}

// P2 is the PIN plus the slot: 11 to 15 write the user PIN's five slots.
Bytes JavaApplet::change(const Command& c) {
    if (c.p1) return respond(kBadParameters);
    for (auto& pin : state_.pins) {
        if (c.p2 < pin.id || c.p2 >= pin.id + kSlots) continue;
        if (state_.fips && !wrapped_) return respond(sw::kSecurityNotSatisfied);
        if (!verified(pin.id)) return respond(kAccessRefused);
        return writeKey(c, pin, c.p2 - pin.id);
    }
    return respond(kNotFound);
}

// The administrator gives the user PIN a new login key and its tries back.
Bytes JavaApplet::unblock(const Command& c) {
    if (c.p1 || c.p2 != kUserPin) return respond(kBadParameters);
    if (state_.fips && !wrapped_) return respond(sw::kSecurityNotSatisfied);
    if (!session_.verified.count(kAdminPin)) return respond(kAccessRefused);
    PinObject& user = *state_.pin(kUserPin);
    Bytes answer = writeKey(c, user, 0);
    if (answer == statusWord(sw::kOk)) user.triesLeft = user.triesTotal;
    return answer;
}

// The key object of the current directory: 1A 03 05, bit 04 of the next
// byte for a 2048-bit modulus, 00.
Bytes JavaApplet::keyStatus(const Command& c) {
    const Bytes* key = currentKey();
    if (!key) return respond(kNotFound);
    if (field(c.data, kTagValue) != Bytes{kTagKeyKind}) return respond(kBadParameters);
    const unsigned char size = sizeFlag(rsaKeyFromPrivate(*key, {}).bytes());
    return respond(sw::kOk, tlv(kTagKeyKind, {kRsaKeyKind, size, 0x00}));
}

// P1 03, P2 the key object, 10 with the block: 10 with the raw RSA result.
Bytes JavaApplet::decipher(const Command& c) {
    if (c.p1 != kDecipherP1 || c.p2 != kKeyObject) return respond(kBadParameters);
    const auto block = field(c.data, kTagValue);
    if (!block) return respond(kBadParameters);
    const Bytes* key = currentKey();
    if (!key) return respond(kNotFound);
    if (!verified(kUserPin)) return respond(kAccessRefused);
    const auto result = rsaPrivateRaw(*key, *block);
    if (!result) return respond(sw::kWrongData);
    return respond(sw::kOk, tlv(kTagValue, *result));
}

namespace {

JavaInstallation install(Variant variant, javacard::InitOptions& options) {
    Personalisation p;
    if (auto v = options.take("--user-pin")) p.userPin = *v;
    if (auto v = options.take("--admin-pin")) p.adminPin = *v;
    if (auto n = options.takeNumber("--pin-tries", kTriesMax))
        p.triesTotal = static_cast<unsigned>(*n);
    p.fips = options.take("--fips").has_value();
    if (auto v = options.take("--label")) p.label = *v;
    if (auto v = options.take("--id")) p.id = fromHex(*v);
    if (auto n = options.takeNumber("--memory", 0x7FFFFFFF)) p.memory = *n;
    if (auto n = options.takeNumber("--colour", 0xFF)) p.colour = static_cast<unsigned>(*n);
    if (auto v = options.take("--version")) p.version = fromHex(*v);
    if (auto v = options.take("--date")) p.date = fromHex(*v);
    JavaInstallation installation;
    installation.applets.push_back(std::make_unique<JavaApplet>(variant, personalise(p)));
    return installation;
}

}  // namespace

JavaInstallation installJava(javacard::InitOptions& options) {
    return install(Variant::kJava, options);
}

JavaInstallation installJoker(javacard::InitOptions& options) {
    return install(Variant::kJoker, options);
}

std::unique_ptr<javacard::Applet> loadJava(const nlohmann::ordered_json& state) {
    return std::make_unique<JavaApplet>(Variant::kJava, fromJson(state));
}

std::unique_ptr<javacard::Applet> loadJoker(const nlohmann::ordered_json& state) {
    return std::make_unique<JavaApplet>(Variant::kJoker, fromJson(state));
}

}  // namespace vtoken::java
