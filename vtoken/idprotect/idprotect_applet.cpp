#include "idprotect/idprotect_applet.h"

#include "core/apdu.h"
#include "core/random.h"
#include "core/state_json.h"
#include "core/tlv.h"
#include "pro/pro_crypto.h"

#include <algorithm>
#include <stdexcept>

namespace vtoken::idprotect {

namespace {

using Apdu = IdprotectApplet::Apdu;

constexpr unsigned char kClaIso = 0x00;
constexpr unsigned char kClaProprietary = 0x80;
constexpr unsigned char kChainBit = 0x10;
constexpr unsigned char kSmBits = 0x0C;

constexpr unsigned char kInsGetResponse = 0xC0;
constexpr unsigned char kInsChange = 0x24;

constexpr unsigned char kSelectByPath = 0x08;
constexpr unsigned char kSelectByName = 0x04;
constexpr unsigned char kCreateFile = 0x01;
constexpr unsigned char kCreateDir = 0x38;
// The number that tag 87 gives a directory; a file gets kCreateFile.
constexpr unsigned char kDirType = 0x38;

constexpr unsigned char kTagFcp = 0x62;
constexpr unsigned char kTagSize = 0x80;
constexpr unsigned char kTagFid = 0x83;
constexpr unsigned char kTagName = 0x84;
constexpr unsigned char kTagPinParameters = 0x85;
constexpr unsigned char kTagAccess = 0x86;
constexpr unsigned char kTagType = 0x87;
constexpr unsigned char kTagListEntry = 0xD2;
constexpr unsigned char kTagNewPin = 0x81;
constexpr unsigned char kTagGenerator = 0x80;
constexpr unsigned char kTagPrime = 0x81;
constexpr unsigned char kTagCardValue = 0x82;
constexpr unsigned char kTagCipher = 0x87;
constexpr unsigned char kTagMac = 0x8E;
constexpr unsigned char kPaddingIndicator = 0x01;
constexpr std::size_t kMacSize = 8;

constexpr std::uint16_t kReadGroup = 0x0080;
constexpr std::uint16_t kReadFingers = 0x0000;
constexpr unsigned char kTagFingers = 0xEA;
constexpr unsigned char kTagFingerNumber = 0x83;
constexpr unsigned char kTagPublicData = 0x82;

// 00 22: P1 02 a template to match, P1 03 a ticket's proof.
constexpr unsigned char kBioMatch = 0x02;
constexpr unsigned char kBioTicket = 0x03;
constexpr unsigned char kTagMatch = 0x62;
constexpr unsigned char kTagTemplate = 0x81;
constexpr std::uint16_t kCloseChannel = 0xFFFF;
constexpr std::size_t kQSize = 32;

// Decipher: 82 the block, answered by 80 the result.
constexpr std::uint16_t kDecipherP1P2 = 0x800C;
constexpr unsigned char kTagBlock = 0x82;
constexpr unsigned char kTagResult = 0x80;

constexpr std::uint16_t kMoreData = 0x6100;
constexpr std::uint16_t kWrongPinTries = 0x63C0;
constexpr std::uint16_t kLastOfChainExpected = 0x6883;
constexpr std::size_t kAnswerMax = 256;

std::optional<Apdu> parseApdu(const Bytes& a) {
    if (a.size() < 4) return std::nullopt;
    Apdu c{a[0], a[1], a[2], a[3], {}, std::nullopt};
    if (a.size() == 4) return c;
    if (a.size() == 5) {
        c.le = a[4] ? a[4] : kAnswerMax;
        return c;
    }
    // Lc 00 opens the extended form: two length bytes, an Le of one or two;
    // or it is the one-byte length of 256 bytes of data, as a host value of
    // 256 bytes may come.
    if (a[4] == 0 && (a.size() == 5 + kAnswerMax || a.size() == 6 + kAnswerMax) &&
        static_cast<std::size_t>(a[5] << 8 | a[6]) + 7 > a.size()) {
        c.data.assign(a.begin() + 5, a.begin() + 5 + kAnswerMax);
        if (a.size() == 6 + kAnswerMax) c.le = a.back() ? a.back() : kAnswerMax;
        return c;
    }
    const bool extended = a[4] == 0;
    if (extended && a.size() < 7) return std::nullopt;
    const std::size_t lc = extended ? static_cast<std::size_t>(a[5] << 8 | a[6]) : a[4];
    const std::size_t start = extended ? 7 : 5;
    if (lc == 0 || a.size() < start + lc) return std::nullopt;
    const std::size_t rest = a.size() - start - lc;
    if (rest > (extended ? 2u : 1u)) return std::nullopt;
    c.data.assign(a.begin() + static_cast<std::ptrdiff_t>(start),
                  a.begin() + static_cast<std::ptrdiff_t>(start + lc));
    if (rest == 1) c.le = a.back() ? a.back() : kAnswerMax;
    if (rest == 2) c.le = static_cast<std::size_t>(a[a.size() - 2] << 8 | a.back());
    return c;
}

// Lengths from 80 up are 81 n or 82 and two bytes.
std::optional<Tlvs> parseTlvs(const Bytes& data) {
    return vtoken::parseTlvs(data, TlvLengths::kBer);
}

Bytes tlv(unsigned char tag, const Bytes& value) {
    return vtoken::tlv(tag, value, TlvLengths::kBer);
}

// The value of a template holding exactly one object of `tag`.
std::optional<Tlvs> templateOf(const Bytes& data, unsigned char tag) {
    const auto outer = parseTlvs(data);
    if (!outer || outer->size() != 1 || outer->front().tag != tag) return std::nullopt;
    return parseTlvs(outer->front().value);
}

Bytes padded(const Bytes& name) {
    Bytes out = name;
    out.resize(kDirNameMax, 0x00);
    return out;
}

bool validId(std::uint16_t id) { return id != 0x0000 && id != kMf && id != 0xFFFF; }

}  // namespace

Bytes IdprotectApplet::select() {
    session_ = {};
    return respond(sw::kOk);
}

Bytes IdprotectApplet::process(const Bytes& apdu) {
    auto parsed = parseApdu(apdu);
    if (!parsed) {
        session_.pending.clear();
        return respond(sw::kWrongLength);
    }
    Apdu c = std::move(*parsed);
    if (c.cla == kClaIso && c.ins == kInsGetResponse) return getResponse(c);
    session_.pending.clear();
    if ((c.cla & kSmBits) == kSmBits) return answerInParts(unwrap(c));

    const Bytes head{c.ins, c.p1, c.p2};
    if (!session_.chainHead.empty() && session_.chainHead != head) {
        session_.chainHead.clear();
        session_.chained.clear();
        return respond(kLastOfChainExpected);
    }
    if (c.cla & kChainBit) {
        session_.chainHead = head;
        append(session_.chained, c.data);
        return respond(sw::kOk);
    }
    if (!session_.chainHead.empty()) {
        Bytes whole = std::move(session_.chained);
        append(whole, c.data);
        c.data = std::move(whole);
        session_.chainHead.clear();
        session_.chained.clear();
    }
    return answerInParts(run(c, false));
}

Bytes IdprotectApplet::run(const Apdu& c, bool wrapped) {
    using Handler = Bytes (IdprotectApplet::*)(const Apdu&);
    static const struct {
        unsigned char cla;
        unsigned char ins;
        Handler handler;
    } kInstructions[] = {
        {kClaProprietary, 0xA4, &IdprotectApplet::selectFile},
        {kClaIso, 0xE0, &IdprotectApplet::createFile},
        {kClaIso, 0xE4, &IdprotectApplet::deleteFile},
        {kClaIso, 0xB0, &IdprotectApplet::readBinary},
        {kClaIso, 0xD6, &IdprotectApplet::updateBinary},
        {kClaProprietary, 0x30, &IdprotectApplet::listFiles},
        {kClaIso, 0xCB, &IdprotectApplet::getData},
        {kClaProprietary, 0xCB, &IdprotectApplet::getData},
        {kClaIso, 0x84, &IdprotectApplet::getChallenge},
        {kClaProprietary, 0x20, &IdprotectApplet::verify},
        {kClaProprietary, 0x28, &IdprotectApplet::logout},
        {kClaProprietary, 0xCE, &IdprotectApplet::verifiedList},
        {kClaProprietary, 0x2C, &IdprotectApplet::prepareUnblock},
        {kClaProprietary, 0x48, &IdprotectApplet::readData},
        {kClaIso, 0x22, &IdprotectApplet::biometry},
        {kClaProprietary, 0x86, &IdprotectApplet::keyAgreement},
        {kClaIso, 0x2A, &IdprotectApplet::decipher},
    };
    const unsigned char cla = c.cla & static_cast<unsigned char>(~(kChainBit | kSmBits));
    if (c.ins == kInsChange)
        return cla == kClaProprietary ? changePin(c, wrapped) : respond(sw::kUnknownClass);
    bool known = false;
    for (const auto& i : kInstructions) {
        if (i.ins != c.ins) continue;
        known = true;
        if (i.cla == cla) return (this->*i.handler)(c);
    }
    return respond(known ? sw::kUnknownClass : sw::kUnknownInstruction);
}

// A wrapped command: 87 (ciphertext length + 1) 01 ciphertext, 8E 08 MAC.
// The MAC runs over the counter block, the header padded to 16 bytes with
// 80 00.., and the 87 object.
Bytes IdprotectApplet::unwrap(const Apdu& c) {
    if (!session_.channel || !session_.channel->keys) return respond(sw::kConditionsNotSatisfied);
    Channel& channel = *session_.channel;
    const Bytes& d = c.data;
    if (d.size() < 3 + 2 + kMacSize || d[0] != kTagCipher) return respond(sw::kSmObjectsMissing);
    const std::size_t objectSize = 2 + std::size_t{d[1]};
    if (d[1] == 0 || objectSize + 2 + kMacSize != d.size() || d[2] != kPaddingIndicator ||
        d[objectSize] != kTagMac || d[objectSize + 1] != kMacSize)
        return respond(sw::kSmObjectsMissing);
    Bytes input = dword(0);
    append(input, dword(channel.counter));
    input.insert(input.end(), {c.cla, c.ins, c.p1, c.p2, 0x80});
    input.resize(16, 0x00);
    input.insert(input.end(), d.begin(), d.begin() + static_cast<std::ptrdiff_t>(objectSize));
    const Bytes mac(d.end() - kMacSize, d.end());
    if (smMac(channel.keys->mac, input) != mac) return respond(sw::kSmObjectsWrong);
    auto plain =
        smDecrypt(channel.keys->enc,
                  Bytes(d.begin() + 3, d.begin() + static_cast<std::ptrdiff_t>(objectSize)));
    if (!plain) return respond(sw::kSmObjectsWrong);
    ++channel.counter;
    Apdu inner = c;
    inner.cla = c.cla & static_cast<unsigned char>(~kSmBits);
    inner.data = std::move(*plain);
    return run(inner, true);
}

Bytes IdprotectApplet::answerInParts(Bytes answer) {
    const std::size_t data = answer.size() - 2;
    if (data <= kAnswerMax || answer[data] != 0x90 || answer[data + 1] != 0x00) return answer;
    session_.pending.assign(answer.begin() + kAnswerMax, answer.end() - 2);
    answer.resize(kAnswerMax);
    const std::size_t more = std::min(session_.pending.size(), kAnswerMax) & 0xFF;
    return respond(static_cast<std::uint16_t>(kMoreData | more), std::move(answer));
}

Bytes IdprotectApplet::getResponse(const Apdu& c) {
    if (c.p1 || c.p2) return respond(sw::kWrongP1P2);
    if (session_.pending.empty()) return respond(sw::kConditionsNotSatisfied);
    const std::size_t n = std::min(c.le.value_or(kAnswerMax), session_.pending.size());
    Bytes part(session_.pending.begin(), session_.pending.begin() + static_cast<std::ptrdiff_t>(n));
    session_.pending.erase(session_.pending.begin(),
                           session_.pending.begin() + static_cast<std::ptrdiff_t>(n));
    if (session_.pending.empty()) return respond(sw::kOk, std::move(part));
    const std::size_t more = std::min(session_.pending.size(), kAnswerMax) & 0xFF;
    return respond(static_cast<std::uint16_t>(kMoreData | more), std::move(part));
}

bool IdprotectApplet::allowed(unsigned char condition) const {
    if (condition == kFree) return true;
    if (condition == kNever) return false;
    const bool loginObject =
        std::any_of(state_.pins.begin(), state_.pins.end(),
                    [&](const PinObject& p) { return p.id == condition && p.kind == kKindLogin; });
    if (condition == kFingerObject || loginObject) return loginMet(condition);
    return session_.verified.count(condition) != 0;
}

bool IdprotectApplet::loginMet(std::uint16_t id) const {
    const bool pin = session_.verified.count(kUserPin) != 0;
    switch (id) {
        case kFingerObject:
            return session_.fingerProven;
        case kLoginPinOrFinger:
            return session_.fingerProven || pin;
        case kLoginPinAndFinger:
            return session_.fingerProven && pin;
        default:
            return false;
    }
}

Path IdprotectApplet::currentDir() {
    const Node* n = currentNode();
    if (!n) return {};
    if (n->isDir || session_.current.empty()) return session_.current;
    return Path(session_.current.begin(), session_.current.end() - 1);
}

Bytes IdprotectApplet::fcp(const Node& n) const {
    Bytes body = tlv(kTagFid, word(n.id));
    append(body, tlv(kTagType, {n.isDir ? kDirType : kCreateFile}));
    if (!n.isDir) append(body, tlv(kTagSize, word(n.content.size())));
    if (!n.name.empty()) append(body, tlv(kTagName, n.name));
    append(body, tlv(kTagAccess, n.access));
    return tlv(kTagFcp, body);
}

Bytes IdprotectApplet::selectFile(const Apdu& c) {
    if (c.p1 == kSelectByName) {
        if (c.data.empty() || c.data.size() > kDirNameMax) return respond(sw::kWrongLength);
        const Path dir = currentDir();
        const Node* parent = state_.find(dir);
        for (const auto& child : parent->children) {
            if (!child.isDir || child.name.empty() || padded(child.name) != padded(c.data))
                continue;
            session_.current = dir;
            session_.current.push_back(child.id);
            return respond(sw::kOk, fcp(child));
        }
        return respond(sw::kFileNotFound);
    }
    if (c.p1 != kSelectByPath) return respond(sw::kWrongP1P2);
    if (c.data.size() % 2) return respond(sw::kWrongLength);
    Path path;
    for (std::size_t at = 0; at < c.data.size(); at += 2)
        path.push_back(static_cast<std::uint16_t>(c.data[at] << 8 | c.data[at + 1]));
    if (!path.empty() && path.front() == kMf) path.erase(path.begin());
    if (path == Path{kFingerObject}) {
        // Not a PIN: what verify and change act on is cleared.
        session_.pin.reset();
        const Bytes parameters{
            kPinMin, kPinMax, kKindUser, 0x00,
            static_cast<unsigned char>(state_.fingerTriesLeft << 4 | state_.triesTotal)};
        Bytes body = tlv(kTagFid, word(kFingerObject));
        append(body, tlv(kTagPinParameters, parameters));
        return respond(sw::kOk, tlv(kTagFcp, body));
    }
    if (path.size() == 1 && state_.pin(path[0])) {
        const PinObject& pin = *state_.pin(path[0]);
        const PinObject& owner = *state_.owner(pin.id);
        session_.pin = pin.id;
        const Bytes parameters{
            kPinMin, kPinMax, pin.kind, 0x00,
            static_cast<unsigned char>(owner.triesLeft << 4 | state_.triesTotal)};
        Bytes body = tlv(kTagFid, word(pin.id));
        append(body, tlv(kTagPinParameters, parameters));
        return respond(sw::kOk, tlv(kTagFcp, body));
    }
    const Node* n = state_.find(path);
    if (!n) return respond(sw::kFileNotFound);
    session_.current = path;
    return respond(sw::kOk, fcp(*n));
}

Bytes IdprotectApplet::createFile(const Apdu& c) {
    if ((c.p1 != kCreateFile && c.p1 != kCreateDir) || c.p2) return respond(sw::kWrongP1P2);
    const bool isDir = c.p1 == kCreateDir;
    const auto fcpTlvs = templateOf(c.data, kTagFcp);
    if (!fcpTlvs) return respond(sw::kWrongData);
    const Bytes* fid = findTag(*fcpTlvs, kTagFid);
    const Bytes* size = findTag(*fcpTlvs, kTagSize);
    const Bytes* access = findTag(*fcpTlvs, kTagAccess);
    const Bytes* name = findTag(*fcpTlvs, kTagName);
    if (!fid || fid->size() != 2 || !access || access->size() % 2 || (!isDir && !size) ||
        (size && size->size() != 2) || (name && (!isDir || name->size() > kDirNameMax)))
        return respond(sw::kWrongData);
    Node n;
    n.isDir = isDir;
    n.id = static_cast<std::uint16_t>((*fid)[0] << 8 | (*fid)[1]);
    n.access = *access;
    if (name) n.name = *name;
    if (!isDir) n.content.assign(static_cast<std::size_t>((*size)[0] << 8 | (*size)[1]), 0x00);
    if (!validId(n.id)) return respond(sw::kWrongData);

    const Path dir = currentDir();
    Node* parent = state_.find(dir);
    if (!allowed(parent->condition(kDirCreate))) return respond(sw::kSecurityNotSatisfied);
    if (parent->child(n.id)) return respond(sw::kFileExists);
    for (const auto& sibling : parent->children)
        if (!n.name.empty() && sibling.isDir && padded(sibling.name) == padded(n.name))
            return respond(sw::kFileExists);
    if (n.cost() > state_.memoryFree()) return respond(sw::kNoRoom);
    parent->children.push_back(std::move(n));
    session_.current = dir;
    session_.current.push_back(parent->children.back().id);
    markChanged();
    return respond(sw::kOk);
}

Bytes IdprotectApplet::deleteFile(const Apdu& c) {
    if (c.p1 > 1 || c.p2) return respond(sw::kWrongP1P2);
    const Node* n = currentNode();
    if (!n || session_.current.empty()) return respond(sw::kConditionsNotSatisfied);
    if (n->isDir != (c.p1 == 1)) return respond(sw::kIncompatibleStructure);
    if (!allowed(n->condition(n->isDir ? kDirDelete : kDelete)))
        return respond(sw::kSecurityNotSatisfied);
    const std::uint16_t id = session_.current.back();
    session_.current.pop_back();
    auto& siblings = currentNode()->children;
    siblings.erase(std::remove_if(siblings.begin(), siblings.end(),
                                  [id](const Node& s) { return s.id == id; }),
                   siblings.end());
    markChanged();
    return respond(sw::kOk);
}

Bytes IdprotectApplet::readBinary(const Apdu& c) {
    if (c.p1 & 0x80) return respond(sw::kWrongP1P2);
    if (!c.le || !c.data.empty()) return respond(sw::kWrongLength);
    const Node* n = currentNode();
    if (!n || n->isDir) return respond(sw::kNoCurrentEf);
    if (!allowed(n->condition(kRead))) return respond(sw::kSecurityNotSatisfied);
    const std::size_t offset = c.p1p2(), fileSize = n->content.size();
    if (offset > fileSize) return respond(sw::kOutsideFile);
    const std::size_t count = std::min(*c.le, fileSize - offset);
    const auto from = n->content.begin() + static_cast<std::ptrdiff_t>(offset);
    return respond(count < *c.le ? sw::kEndOfFile : sw::kOk,
                   Bytes(from, from + static_cast<std::ptrdiff_t>(count)));
}

Bytes IdprotectApplet::updateBinary(const Apdu& c) {
    if (c.p1 & 0x80) return respond(sw::kWrongP1P2);
    if (c.data.empty()) return respond(sw::kWrongLength);
    Node* n = currentNode();
    if (!n || n->isDir) return respond(sw::kNoCurrentEf);
    if (!allowed(n->condition(kUpdate))) return respond(sw::kSecurityNotSatisfied);
    const std::size_t offset = c.p1p2();
    if (offset + c.data.size() > n->content.size()) return respond(sw::kNoRoom);
    std::copy(c.data.begin(), c.data.end(),
              n->content.begin() + static_cast<std::ptrdiff_t>(offset));
    markChanged();
    return respond(sw::kOk);
}

Bytes IdprotectApplet::listFiles(const Apdu& c) {
    if ((c.p1 != kCreateDir && c.p1 != kCreateFile) || c.p2) return respond(sw::kWrongP1P2);
    const Node* n = currentNode();
    if (!n || !n->isDir) return respond(sw::kNoCurrentEf);
    Bytes out;
    for (const auto& child : n->children)
        if (child.isDir == (c.p1 == kCreateDir)) append(out, tlv(kTagListEntry, word(child.id)));
    return respond(sw::kOk, std::move(out));
}

Bytes IdprotectApplet::getData(const Apdu& c) {
    const unsigned char cla = c.cla & static_cast<unsigned char>(~(kChainBit | kSmBits));
    const std::uint16_t item = c.p1p2();
    if (cla == kClaIso && item == 0x0003) return respond(sw::kOk, state_.version);
    if (cla == kClaProprietary && item == 0x0114) return respond(sw::kOk, state_.id);
    if (cla == kClaProprietary && item == 0x0111)
        return respond(sw::kOk, dword(state_.memoryFree()));
    if (cla == kClaProprietary && item == 0x0110) return respond(sw::kOk, dword(state_.memory));
    return respond(sw::kDataNotFound);
}

Bytes IdprotectApplet::getChallenge(const Apdu& c) {
    if (c.p1 || c.p2) return respond(sw::kWrongP1P2);
    if (!c.le || !c.data.empty()) return respond(sw::kWrongLength);
    session_.challenge = randomBytes(*c.le);
    return respond(sw::kOk, session_.challenge);
}

Bytes IdprotectApplet::verify(const Apdu& c) {
    if (c.p1 || c.p2) return respond(sw::kWrongP1P2);
    if (!session_.pin) return respond(sw::kConditionsNotSatisfied);
    const PinObject& selected = *state_.pin(*session_.pin);
    if (c.data.size() != kAnswerSize) return respond(sw::kWrongLength);
    PinObject& owner = *state_.owner(selected.id);
    if (owner.triesLeft == 0) return respond(sw::kBlocked);
    const Bytes challenge = std::move(session_.challenge);
    session_.challenge.clear();
    if (challenge.size() != kChallengeSize) return respond(sw::kConditionsNotSatisfied);
    if (!answerMatches(owner.value, challenge, c.data)) {
        --owner.triesLeft;
        markChanged();
        for (const auto& p : state_.pins)
            if (state_.owner(p.id) == &owner) session_.verified.erase(p.id);
        return respond(static_cast<std::uint16_t>(kWrongPinTries | owner.triesLeft));
    }
    if (owner.triesLeft != state_.triesTotal) markChanged();
    owner.triesLeft = state_.triesTotal;
    // A login object's own state follows from the proofs given (loginMet).
    session_.verified.insert(owner.id);
    return respond(sw::kOk);
}

Bytes IdprotectApplet::logout(const Apdu& c) {
    if (c.p1 || c.p2) return respond(sw::kWrongP1P2);
    if (c.data.size() != 4) return respond(sw::kWrongLength);
    const PinObject* pin = state_.pin(c.data[3]);
    const PinObject* owner = state_.owner(c.data[3]);
    // The fingerprint proof goes with the fingerprint object and with a login
    // object that it serves.
    if (c.data[3] == kFingerObject || !owner || (pin && pin->kind == kKindLogin))
        session_.fingerProven = false;
    if (c.data[3] == kFingerObject) return respond(sw::kOk);
    // A reference to no PIN (0 before any PIN was selected) logs out every
    // PIN: the host starts each selection of the applet that way.
    if (!owner) {
        session_.verified.clear();
        session_.unblockArmed.reset();
        return respond(sw::kOk);
    }
    for (const auto& p : state_.pins)
        if (state_.owner(p.id) == owner) session_.verified.erase(p.id);
    if (session_.unblockArmed == owner->id || owner->id == kAdminPin) session_.unblockArmed.reset();
    return respond(sw::kOk);
}

Bytes IdprotectApplet::verifiedList(const Apdu& c) {
    if (c.p1 || c.p2) return respond(sw::kWrongP1P2);
    Bytes out;
    for (std::uint16_t id : session_.verified) {
        out.push_back(state_.pin(id)->kind);
        append(out, word(id));
    }
    if (loginMet(kFingerObject)) {
        out.push_back(kKindUser);
        append(out, word(kFingerObject));
    }
    for (const auto& p : state_.pins) {
        if (p.kind != kKindLogin || !loginMet(p.id)) continue;
        out.push_back(p.kind);
        append(out, word(p.id));
    }
    return respond(sw::kOk, std::move(out));
}

// 62 81 L 81 n PIN, and only through the secure channel: the new PIN
// crosses the line encrypted.
Bytes IdprotectApplet::changePin(const Apdu& c, bool wrapped) {
    if (c.p1 || c.p2) return respond(sw::kWrongP1P2);
    if (!wrapped) return respond(sw::kSecurityNotSatisfied);
    if (!session_.pin) return respond(sw::kConditionsNotSatisfied);
    PinObject& owner = *state_.owner(*session_.pin);
    if (session_.unblockArmed != owner.id && !session_.verified.count(owner.id))
        return respond(sw::kSecurityNotSatisfied);
    const auto body = templateOf(c.data, kTagFcp);
    const Bytes* pin = body ? findTag(*body, kTagNewPin) : nullptr;
    if (!pin || pin->size() < kPinMin || pin->size() > kPinMax) return respond(sw::kWrongData);
    owner.value = *pin;
    owner.triesLeft = state_.triesTotal;
    session_.unblockArmed.reset();
    markChanged();
    return respond(sw::kOk);
}

// Arms the next change of the selected PIN for the administrator.
Bytes IdprotectApplet::prepareUnblock(const Apdu& c) {
    if (c.p1 || c.p2) return respond(sw::kWrongP1P2);
    if (!session_.pin) return respond(sw::kConditionsNotSatisfied);
    const PinObject& owner = *state_.owner(*session_.pin);
    if (owner.kind == kKindAdmin) return respond(sw::kConditionsNotSatisfied);
    if (!session_.verified.count(kAdminPin)) return respond(sw::kSecurityNotSatisfied);
    session_.unblockArmed = owner.id;
    return respond(sw::kOk);
}

// P1 P2 0080 the channel's group, 0000 the enrolled fingers, N 00 the public
// data of finger N.
Bytes IdprotectApplet::readData(const Apdu& c) {
    if (c.p1p2() == kReadGroup) return readGroup();
    if (c.p1p2() == kReadFingers) return enrolledFingers();
    if (c.p2 == 0 && c.p1 >= kFingerMin && c.p1 <= kFingerMax) return publicFingerData(c.p1);
    return respond(sw::kWrongP1P2);
}

// Opens a channel with a fresh exponent: 80 G, 81 P, 82 C.
Bytes IdprotectApplet::readGroup() {
    session_.channel = Channel{std::make_shared<KeyExchange>(), std::nullopt, 1};
    const KeyExchange& x = *session_.channel->exchange;
    Bytes out = tlv(kTagGenerator, x.generator());
    append(out, tlv(kTagPrime, x.prime()));
    append(out, tlv(kTagCardValue, x.cardValue()));
    return respond(sw::kOk, std::move(out));
}

// P1 P2 0000: the host's value X, answered by Q; FFFF closes the channel.
Bytes IdprotectApplet::keyAgreement(const Apdu& c) {
    if (c.p1p2() == kCloseChannel) {
        if (!session_.channel) return respond(sw::kConditionsNotSatisfied);
        session_.channel.reset();
        return respond(sw::kOk);
    }
    if (c.p1p2() != 0) return respond(sw::kWrongP1P2);
    if (!session_.channel || session_.channel->keys) return respond(sw::kConditionsNotSatisfied);
    if (c.data.empty()) return respond(sw::kWrongLength);
    const Bytes q = randomBytes(kQSize);
    session_.channel->keys = session_.channel->exchange->agree(c.data, q);
    if (!session_.channel->keys) return respond(sw::kWrongData);
    return respond(sw::kOk, q);
}

// EA with a slot per finger position: the finger's number plus one, or 0
// where none is enrolled.
Bytes IdprotectApplet::enrolledFingers() {
    Bytes slots(kFingerMax, 0x00);
    for (const auto& f : state_.fingers) slots[f.number - kFingerMin] = f.number + 1;
    return respond(sw::kOk, tlv(kTagFingers, slots));
}

Bytes IdprotectApplet::publicFingerData(unsigned char number) {
    const Finger* f = state_.finger(number);
    if (!f) return respond(sw::kDataNotFound);
    Bytes out = tlv(kTagFingerNumber, {number});
    append(out, tlv(kTagPublicData, f->publicData()));
    return respond(sw::kOk, std::move(out));
}

Bytes IdprotectApplet::biometry(const Apdu& c) {
    if (c.p2 != 0) return respond(sw::kWrongP1P2);
    if (c.p1 == kBioMatch) return matchOnCard(c);
    if (c.p1 == kBioTicket) return ticketAuthenticate(c);
    return respond(sw::kWrongP1P2);
}

Bytes IdprotectApplet::fingerFailed() {
    --state_.fingerTriesLeft;
    markChanged();
    session_.fingerProven = false;
    return respond(static_cast<std::uint16_t>(kWrongPinTries | state_.fingerTriesLeft));
}

void IdprotectApplet::fingerPassed() {
    if (state_.fingerTriesLeft != state_.triesTotal) markChanged();
    state_.fingerTriesLeft = state_.triesTotal;
    session_.fingerProven = true;
}

// 62 (83 01 finger, 81 template): a simulated match, equal or not. A match
// answers the finger's reference and ticket key, what a front end puts in
// the tickets it issues.
Bytes IdprotectApplet::matchOnCard(const Apdu& c) {
    const auto body = templateOf(c.data, kTagMatch);
    const Bytes* number = body ? findTag(*body, kTagFingerNumber) : nullptr;
    const Bytes* capture = body ? findTag(*body, kTagTemplate) : nullptr;
    if (!number || number->size() != 1 || !capture) return respond(sw::kWrongData);
    if (state_.fingerTriesLeft == 0) return respond(sw::kBlocked);
    const Finger* f = state_.finger((*number)[0]);
    if (!f || f->templ != *capture) return fingerFailed();
    fingerPassed();
    Bytes out = f->reference();
    append(out, f->ticketKey);
    return respond(sw::kOk, std::move(out));
}

// The finger's 4-byte reference and the last challenge encrypted under its
// ticket key.
Bytes IdprotectApplet::ticketAuthenticate(const Apdu& c) {
    if (c.data.size() != kReferenceSize + kChallengeSize) return respond(sw::kWrongLength);
    const Bytes challenge = std::move(session_.challenge);
    session_.challenge.clear();
    if (challenge.size() != kChallengeSize) return respond(sw::kConditionsNotSatisfied);
    if (state_.fingerTriesLeft == 0) return respond(sw::kBlocked);
    const Bytes reference(c.data.begin(), c.data.begin() + kReferenceSize);
    const Bytes proof(c.data.begin() + kReferenceSize, c.data.end());
    const auto named = std::find_if(state_.fingers.begin(), state_.fingers.end(),
                                    [&](const Finger& f) { return f.reference() == reference; });
    if (named == state_.fingers.end() || pro::des3Encrypt(named->ticketKey, challenge) != proof)
        return fingerFailed();
    fingerPassed();
    return respond(sw::kOk);
}

// The layout fixes the key's name, so the id goes unused.
void IdprotectApplet::addKey(const RsaKey& key, const std::string&) {
    idprotect::addKey(state_, key);
    markChanged();
}

// With the companion file of a key current.
Bytes IdprotectApplet::decipher(const Apdu& c) {
    if (c.p1p2() != kDecipherP1P2) return respond(sw::kWrongP1P2);
    const Bytes* key = keyOfCompanion(state_, session_.current);
    if (!key) return respond(sw::kDataNotFound);
    if (!allowed(state_.loginType)) return respond(sw::kSecurityNotSatisfied);
    const auto body = parseTlvs(c.data);
    if (!body || body->size() != 1 || body->front().tag != kTagBlock)
        return respond(sw::kWrongData);
    std::optional<Bytes> result;
    try {
        result = rsaPrivateRaw(*key, body->front().value);
    } catch (const std::runtime_error&) {
        return respond(sw::kDataNotFound);  // a file 02nn of the host's, not a key
    }
    if (!result) return respond(sw::kWrongData);
    return respond(sw::kOk, tlv(kTagResult, *result));
}

namespace {

// --finger N=FILE: the file holds the template.
std::pair<unsigned, Bytes> fingerOption(const std::string& value) {
    const auto eq = value.find('=');
    if (eq == std::string::npos) throw std::invalid_argument("--finger takes N=FILE: " + value);
    const unsigned long number = javacard::parseNumber(value.substr(0, eq), kFingerMax, "--finger");
    std::string text;
    try {
        text = readTextFile(value.substr(eq + 1));
    } catch (const std::runtime_error& e) {
        throw std::invalid_argument(std::string("--finger: ") + e.what());
    }
    return {static_cast<unsigned>(number), Bytes(text.begin(), text.end())};
}

}  // namespace

JavaInstallation install(javacard::InitOptions& options) {
    Personalisation p;
    if (auto v = options.take("--user-pin")) p.userPin = *v;
    if (auto v = options.take("--admin-pin")) p.adminPin = *v;
    if (auto n = options.takeNumber("--pin-tries", kTriesMax)) {
        if (*n == 0) throw std::invalid_argument("--pin-tries counts from 1");
        p.triesTotal = static_cast<unsigned>(*n);
    }
    if (auto n = options.takeNumber("--login-type", 0xFF)) p.loginType = static_cast<unsigned>(*n);
    if (auto v = options.take("--label")) p.label = *v;
    if (auto v = options.take("--id")) {
        p.id = fromHex(*v);
        if (p.id->size() != 8) throw std::invalid_argument("--id takes 8 bytes");
    }
    if (auto n = options.takeNumber("--memory", 0x7FFFFFFF)) p.memory = *n;
    if (auto n = options.takeNumber("--info-version", 0xFF))
        p.infoVersion = static_cast<unsigned>(*n);
    for (const auto& v : options.takeAll("--finger")) p.fingers.push_back(fingerOption(v));
    JavaInstallation installation;
    installation.atr = atr();
    installation.applets.push_back(std::make_unique<IdprotectApplet>(personalise(p)));
    return installation;
}

std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state) {
    return std::make_unique<IdprotectApplet>(fromJson(state));
}

}  // namespace vtoken::idprotect
