#include "pro/pro_card.h"

#include "core/random.h"
#include "core/tlv.h"

#include <algorithm>
#include <stdexcept>

namespace vtoken::pro {

namespace {

constexpr unsigned char kIso = 0x00;
constexpr unsigned char kProprietary = 0x80;
constexpr unsigned char kPro4Pin = 0x90;      // the change of the version 4 cards
constexpr unsigned char kSmClassBits = 0x0C;  // a protected command

enum Ins : unsigned char {
    kActivate = 0x10,
    kList = 0x16,
    kManageEnvironment = 0x22,
    kChangeReference = 0x24,
    kDecipher = 0x2A,
    kAuthenticate = 0x82,
    kPutData = 0xDA,
    kGetChallenge = 0x84,
    kSelect = 0xA4,
    kReadBinary = 0xB0,
    kGetData = 0xCA,
    kUpdateBinary = 0xD6,
    kCreate = 0xE0,
    kDelete = 0xE4,
};

// Select forms (P1).
enum SelectBy : unsigned char {
    kById = 0x00,
    kChildDf = 0x01,
    kChildEf = 0x02,
    kParent = 0x03,
    kAid = 0x04,
    kPathFromMf = 0x08,
    kPathFromDf = 0x09,
};
constexpr unsigned char kNoControlData = 0x0C;

// File control data and create templates.
constexpr unsigned char kTagFci = 0x6F;
constexpr unsigned char kTagFcp = 0x62;
constexpr unsigned char kTagSizeData = 0x80;
constexpr unsigned char kTagSize = 0x81;
constexpr unsigned char kTagDescriptor = 0x82;
constexpr unsigned char kTagId = 0x83;
constexpr unsigned char kTagAccess = 0x86;
constexpr unsigned char kDescriptorFile = 0x01;
constexpr unsigned char kDescriptorDir = 0x38;

// GET DATA objects, P1 01.
enum Object : unsigned char {
    kObjChip = 0x81,
    kObjVersion = 0x82,
    kObjLifeCycle = 0x83,
    kObjVerified = 0x84,
    kObjMemoryTotal = 0x89,
    kObjMemoryFree = 0x8A,
};
// What the two bytes before the total memory hold: the size of the ROM.
const Bytes kRomKb{0x00, 0xC0};

constexpr std::size_t kListEntry = 6;
constexpr std::size_t kHistory = 4096;

// The reader's answers to the control code end in a status byte.
constexpr unsigned char kControlOk = 0x00;
constexpr unsigned char kControlFailed = 0x01;

void appendTlv(Bytes& out, unsigned char tag, const Bytes& value) {
    append(out, tlv(tag, value, TlvLengths::kBer));
}

// The tags of a create template, one level. Nothing on a malformed one.
std::optional<Tlvs> parseTlvs(const Bytes& data) {
    Tlvs out;
    std::size_t i = 0;
    while (i < data.size()) {
        unsigned char tag = data[i++];
        if ((tag & 0x1F) == 0x1F || i >= data.size()) return std::nullopt;
        std::size_t length = data[i++];
        if (length == 0x81) {
            if (i >= data.size()) return std::nullopt;
            length = data[i++];
        } else if (length > 0x80) {
            return std::nullopt;
        }
        if (data.size() - i < length) return std::nullopt;
        out.push_back({tag, Bytes(data.begin() + i, data.begin() + i + length)});
        i += length;
    }
    return out;
}

// The extended form (Lc 00 HH LL, Le of two bytes) that only the decipher
// of a 2048-bit key needs. Nothing if the lengths do not add up.
std::optional<Command> parseExtended(const Bytes& apdu) {
    constexpr std::size_t kBody = 7;
    if (apdu.size() <= kBody || apdu[4] != 0x00) return std::nullopt;
    const std::size_t lc = apdu[5] << 8 | apdu[6];
    if (lc == 0 || apdu.size() - kBody < lc) return std::nullopt;
    const std::size_t rest = apdu.size() - kBody - lc;
    if (rest != 0 && rest != 2) return std::nullopt;
    Command c;
    c.cla = apdu[0];
    c.ins = apdu[1];
    c.p1 = apdu[2];
    c.p2 = apdu[3];
    c.data.assign(apdu.begin() + kBody, apdu.begin() + kBody + static_cast<std::ptrdiff_t>(lc));
    if (rest == 2) {
        const std::size_t le = apdu[apdu.size() - 2] << 8 | apdu.back();
        c.le = le == 0 ? 0x10000 : le;
    }
    return c;
}

bool reservedId(std::uint16_t id) {
    return id == 0x0000 || id == kMf || id == 0x3FFF || id == 0xFFFF;
}

}  // namespace

ProCard::ProCard(ProState state) : state_(std::move(state)) { newSession(); }

void ProCard::newSession() {
    session_ = Session{};
    history_.clear();
}

void ProCard::verify(const Path& dir, unsigned char id) { session_.verified.push_back({dir, id}); }

Bytes ProCard::process(const Bytes& command) {
    if (history_.size() == kHistory) history_.erase(history_.begin());
    history_.push_back(command);
    auto parsed = Command::parse(command);
    if (!parsed) parsed = parseExtended(command);
    if (!parsed) return respond(sw::kWrongLength);
    changed_ = false;
    Bytes answer = dispatch(*parsed);
    if (changed_ && onChange_) onChange_(state_);
    return answer;
}

Bytes ProCard::dispatch(const Command& c) {
    auto iso = [&](auto handler) {
        return c.cla == kIso ? (this->*handler)(c) : respond(sw::kUnknownClass);
    };
    auto proprietary = [&](auto handler) {
        return c.cla == kProprietary ? (this->*handler)(c) : respond(sw::kUnknownClass);
    };
    if ((c.cla & kSmClassBits) == kSmClassBits) return secureMessaging(c);
    switch (c.ins) {
        case kAuthenticate:
            return iso(&ProCard::authenticate);
        case kPutData:
            return iso(&ProCard::unblock);
        case kChangeReference:
            // Before version 4 the ISO class; from it on, 90 and the same
            // instruction.
            if (c.cla != (state_.info().pro4 ? kPro4Pin : kIso)) return respond(sw::kUnknownClass);
            return changeReference(c, false);
        case kManageEnvironment:
            return iso(&ProCard::manageEnvironment);
        case kDecipher:
            return c.cla == kIso ? decipher(c, false) : respond(sw::kUnknownClass);
        case kSelect:
            return iso(&ProCard::select);
        case kCreate:
            return iso(&ProCard::create);
        case kDelete:
            return iso(&ProCard::remove);
        case kReadBinary:
            return iso(&ProCard::readBinary);
        case kUpdateBinary:
            return iso(&ProCard::updateBinary);
        case kGetData:
            return iso(&ProCard::getData);
        case kGetChallenge:
            return iso(&ProCard::getChallenge);
        case kList:
            return proprietary(&ProCard::list);
        case kActivate:
            return proprietary(&ProCard::activate);
        default:
            return respond(sw::kUnknownInstruction);
    }
}

Node& ProCard::currentDf() {
    Node* df = state_.find(session_.df);
    // The current directory cannot be deleted (only empty children can), so
    // this holds unless a test edited the tree under a running session.
    if (!df || !df->dir) {
        session_.df.clear();
        session_.ef.reset();
        return state_.mf;
    }
    return *df;
}

Node* ProCard::currentEf() {
    if (!session_.ef) return nullptr;
    Node* ef = currentDf().child(*session_.ef);
    return ef && !ef->dir ? ef : nullptr;
}

void ProCard::enter(const Path& df, std::optional<std::uint16_t> ef) {
    session_.df = df;
    session_.ef = ef;
    auto& v = session_.verified;
    // The login lasts while the session stays in the application (the
    // directory below the master file) that holds the PIN: a FIPS token
    // keeps its PINs in 6666 5000, and the host stamps 6666 0001 after each
    // change to the tree without logging out.
    auto within = [&](const Path& dir) {
        return dir.empty() || (!df.empty() && df.front() == dir.front());
    };
    v.erase(std::remove_if(v.begin(), v.end(),
                           [&](const Session::Verified& p) { return !within(p.dir); }),
            v.end());
    if (!session_.smMac.empty() && !within(session_.smDir)) {
        session_.smMac.clear();
        session_.smEnc.clear();
        session_.smDir.clear();
    }
}

bool ProCard::granted(unsigned char right) const {
    if (right == right::kFree) return true;
    if (right == right::kNever) return false;
    for (const auto* assumed : {&state_.assumeVerified, &assumed_})
        if (std::find(assumed->begin(), assumed->end(), right) != assumed->end()) return true;
    for (const auto& p : session_.verified)
        if (p.id == right) return true;
    return false;
}

Bytes ProCard::controlData(const Node& node) const {
    const ModelInfo& m = state_.info();
    Bytes descriptor{node.dir ? kDescriptorDir : kDescriptorFile};
    if (!m.pro4) descriptor.insert(descriptor.end(), {0x00, 0x00});
    Bytes body;
    appendTlv(body, kTagDescriptor, descriptor);
    appendTlv(body, kTagId, word(node.id));
    appendTlv(body, node.dir ? kTagSize : m.fileSizeTag(), word(node.data.size()));
    appendTlv(body, kTagAccess, node.access);
    Bytes out;
    appendTlv(out, kTagFci, body);
    return out;
}

Bytes ProCard::select(const Command& c) {
    if (c.p1 == kAid) return respond(sw::kFileNotFound);
    if (c.p2 != 0x00 && c.p2 != kNoControlData) return respond(sw::kWrongP1P2);

    Path ids;
    for (std::size_t i = 0; i + 1 < c.data.size(); i += 2)
        ids.push_back(static_cast<std::uint16_t>(c.data[i] << 8 | c.data[i + 1]));
    if (c.data.size() % 2 != 0) return respond(sw::kWrongLength);

    Path target;
    switch (c.p1) {
        case kById: {
            if (ids.size() > 1) return respond(sw::kWrongLength);
            const Path& df = session_.df;
            if (ids.empty() || ids[0] == kMf) break;  // the master file
            if (currentDf().child(ids[0])) {
                target = df;
                target.push_back(ids[0]);
            } else if (!df.empty() && df.back() == ids[0]) {
                target = df;  // the current directory itself
            } else if (df.size() >= 2 && df[df.size() - 2] == ids[0]) {
                target.assign(df.begin(), df.end() - 1);  // its parent
            } else {
                return respond(sw::kFileNotFound);
            }
            break;
        }
        case kChildDf:
        case kChildEf: {
            if (ids.size() != 1) return respond(sw::kWrongLength);
            const Node* child = currentDf().child(ids[0]);
            if (!child || child->dir != (c.p1 == kChildDf)) return respond(sw::kFileNotFound);
            target = session_.df;
            target.push_back(ids[0]);
            break;
        }
        case kParent:
            if (!ids.empty()) return respond(sw::kWrongLength);
            if (session_.df.empty()) return respond(sw::kFileNotFound);
            target = session_.df;
            target.pop_back();
            break;
        case kPathFromMf:
        case kPathFromDf:
            if (ids.empty()) return respond(sw::kWrongLength);
            target = c.p1 == kPathFromDf ? session_.df : Path{};
            target.insert(target.end(), ids.begin(), ids.end());
            break;
        default:
            return respond(sw::kWrongP1P2);
    }

    const Node* node = state_.find(target);
    if (!node) return respond(sw::kFileNotFound);
    if (node->dir) {
        enter(target, std::nullopt);
    } else {
        std::uint16_t ef = target.back();
        target.pop_back();
        enter(target, ef);
    }
    if (c.p2 == kNoControlData) return respond(sw::kOk);
    return respond(sw::kOk, controlData(*node));
}

Bytes ProCard::create(const Command& c) {
    if (c.p1p2() != 0) return respond(sw::kWrongP1P2);
    if (c.data.empty()) return respond(sw::kWrongLength);
    Node& parent = currentDf();
    if (!granted(parent.right(right::kCreate))) return respond(sw::kSecurityNotSatisfied);

    const ModelInfo& m = state_.info();
    // Each generation takes its own template: 0x6F before version 4, 0x62 after.
    auto outer = parseTlvs(c.data);
    if (!outer || outer->size() != 1 || outer->front().tag != (m.pro4 ? kTagFcp : kTagFci))
        return respond(sw::kWrongData);
    auto tlvs = parseTlvs(outer->front().value);
    if (!tlvs) return respond(sw::kWrongData);
    const Bytes* descriptor = findTag(*tlvs, kTagDescriptor);
    const Bytes* id = findTag(*tlvs, kTagId);
    const Bytes* access = findTag(*tlvs, kTagAccess);
    if (!descriptor || descriptor->empty() || !id || id->size() != 2 || !access || access->empty())
        return respond(sw::kWrongData);
    const unsigned char kind = descriptor->front();
    if (kind != kDescriptorFile && kind != kDescriptorDir) return respond(sw::kWrongData);
    const bool dir = kind == kDescriptorDir;
    // A directory's size keeps tag 0x81 on every model.
    const Bytes* size = findTag(*tlvs, dir ? kTagSize : m.fileSizeTag());
    if (!size || size->empty() || size->size() > 2) return respond(sw::kWrongData);

    Node node;
    node.id = static_cast<std::uint16_t>((*id)[0] << 8 | (*id)[1]);
    node.dir = dir;
    node.access = *access;
    std::size_t bytes = 0;
    for (unsigned char b : *size) bytes = bytes << 8 | b;
    if (reservedId(node.id)) return respond(sw::kWrongData);
    // The older cards report an identifier in use as wrong data.
    if (parent.child(node.id)) return respond(m.pro4 ? sw::kFileExists : sw::kWrongData);
    if (!dir) node.data.assign(bytes, 0x00);
    if (state_.memoryUsed() + kNodeOverhead + node.data.size() > state_.memoryTotal())
        return respond(sw::kNoRoom);

    parent.children.push_back(std::move(node));
    changed_ = true;
    // The new node becomes current.
    Path df = session_.df;
    const std::uint16_t newId = parent.children.back().id;
    if (dir) {
        df.push_back(newId);
        enter(df, std::nullopt);
    } else {
        enter(df, newId);
    }
    return respond(sw::kOk);
}

Bytes ProCard::remove(const Command& c) {
    if (c.p1p2() != 0) return respond(sw::kWrongP1P2);
    if (c.data.size() != 2) return respond(sw::kWrongLength);
    const std::uint16_t id = static_cast<std::uint16_t>(c.data[0] << 8 | c.data[1]);
    Node& parent = currentDf();
    Node* node = parent.child(id);
    if (!node) return respond(sw::kFileNotFound);
    if (!granted(node->right(node->dir ? right::kDeleteDir : right::kDeleteFile)))
        return respond(sw::kSecurityNotSatisfied);
    if (node->dir && !node->children.empty()) return respond(sw::kIncompatibleStructure);
    if (session_.ef == id) session_.ef.reset();
    parent.children.erase(parent.children.begin() + (node - parent.children.data()));
    changed_ = true;
    return respond(sw::kOk);
}

Bytes ProCard::list(const Command& c) {
    if (c.p1 > 1) return respond(sw::kWrongP1P2);
    const bool wantDirs = c.p1 == 0;
    const std::size_t room = c.le.value_or(256);
    Bytes out;
    std::size_t index = 0;
    for (const auto& child : currentDf().children) {
        if (child.dir != wantDirs) continue;
        if (index++ < c.p2) continue;
        if (out.size() + kListEntry > room) break;
        Bytes entry;
        appendTlv(entry, kTagAccess, word(child.id));
        appendTlv(out, kTagFci, entry);
    }
    return respond(sw::kOk, out);
}

Bytes ProCard::readBinary(const Command& c) {
    if (!c.data.empty() || !c.le) return respond(sw::kWrongLength);
    Node* ef = currentEf();
    if (!ef) return respond(sw::kNoCurrentEf);
    if (!granted(ef->right(right::kRead))) return respond(sw::kSecurityNotSatisfied);
    const std::size_t offset = c.p1p2();
    const std::size_t size = ef->data.size();
    if (offset > size) return respond(sw::kOutsideFile);
    const std::size_t n = std::min(*c.le, size - offset);
    Bytes data(ef->data.begin() + offset, ef->data.begin() + offset + n);
    // Le 00 asks for what there is, up to 256 bytes.
    const bool complete = n == *c.le || (*c.le == 256 && n > 0);
    return respond(complete ? sw::kOk : sw::kEndOfFile, data);
}

Bytes ProCard::updateBinary(const Command& c) {
    if (c.data.empty() || c.le) return respond(sw::kWrongLength);
    Node* ef = currentEf();
    if (!ef) return respond(sw::kNoCurrentEf);
    if (!granted(ef->right(right::kUpdate))) return respond(sw::kSecurityNotSatisfied);
    const std::size_t offset = c.p1p2();
    if (offset > ef->data.size()) return respond(sw::kOutsideFile);
    if (offset + c.data.size() > ef->data.size()) return respond(sw::kNoRoom);
    std::copy(c.data.begin(), c.data.end(), ef->data.begin() + offset);
    changed_ = true;
    return respond(sw::kOk);
}

Bytes ProCard::getData(const Command& c) {
    if (c.p1 != 0x01) return respond(sw::kDataNotFound);
    const ModelInfo& m = state_.info();
    Bytes out;
    switch (c.p2) {
        case kObjChip:
            // Model, version and layout, a maker's tag, then the serial.
            out = {m.number, m.version[0], m.version[1], static_cast<unsigned char>(state_.fips),
                   'K',      'R',          'F',          'S',
                   'V',      'T',          0x00,         0x00};
            out.insert(out.end(), state_.id.begin(), state_.id.end());
            break;
        case kObjVersion:
            out = m.version;
            break;
        case kObjLifeCycle:
            out = {state_.lifeCycle};
            break;
        case kObjVerified:
            for (const auto* assumed : {&state_.assumeVerified, &assumed_})
                for (unsigned char id : *assumed)
                    if (std::find(out.begin(), out.end(), id) == out.end()) out.push_back(id);
            for (const auto& p : session_.verified)
                if (std::find(out.begin(), out.end(), p.id) == out.end()) out.push_back(p.id);
            break;
        case kObjMemoryTotal:
            out = kRomKb;
            for (unsigned char b : word(m.memoryKb)) out.push_back(b);
            break;
        case kObjMemoryFree: {
            const std::size_t total = state_.memoryTotal();
            const std::size_t used = std::min(state_.memoryUsed(), total);
            out = word(std::min<std::size_t>(total - used, 0xFFFF));
            break;
        }
        default:
            return respond(sw::kDataNotFound);
    }
    return respond(sw::kOk, out);
}

Bytes ProCard::getChallenge(const Command& c) {
    if (c.p1p2() != 0) return respond(sw::kWrongP1P2);
    if (!c.data.empty() || !c.le) return respond(sw::kWrongLength);
    const Bytes random = randomBytes(*c.le);
    session_.challenge = random;
    return respond(sw::kOk, random);
}

Bytes ProCard::activate(const Command& c) {
    // The card's answer to the host's start-up command when its life cycle
    // byte reads 0x10; it has nothing to do here.
    if (c.p1p2() != 0) return respond(sw::kWrongP1P2);
    if (!c.data.empty() || c.le) return respond(sw::kWrongLength);
    return respond(sw::kOk);
}

unsigned char ProCard::colour() const {
    Path file = state_.home();
    file.push_back(state_.fips ? kFipsColour : kInfoDir);
    if (!state_.fips) file.push_back(kColour);
    const Node* node = state_.find(file);
    const std::size_t at = state_.fips ? 2 : 0;
    return node && node->data.size() > at ? node->data[at] : 0xFF;
}

Bytes ProCard::configBlock() const {
    const ModelInfo& m = state_.info();
    Bytes block = state_.id;
    block.insert(block.end(), m.version.begin(), m.version.end());
    for (unsigned char b : word(m.memoryKb)) block.push_back(b);
    block.insert(block.end(), {m.number, colour(), static_cast<unsigned char>(state_.fips),
                               state_.lifeCycle, 0x00, 0x00, 0x00, 0x00});
    return block;
}

std::optional<Bytes> ProCard::control(unsigned int code, const Bytes& in) {
    if (code != kControlCode) return std::nullopt;
    const ModelInfo& m = state_.info();
    // Basic information: model, version, layout, then the identifier low
    // byte first.
    if (in == Bytes{0x02, 0x00, 0x00, 0x00})
        return Bytes{
            m.number,     m.version[0], m.version[1], static_cast<unsigned char>(state_.fips),
            state_.id[3], state_.id[2], state_.id[1], state_.id[0]};

    // The configuration block: in two steps, its length and then its bytes,
    // each answer closed by a status byte. Words on this channel are little
    // endian, the block's length big endian.
    const Bytes kReadConfig{0x01, 0x00, 0x00, 0x00, 0xC0, 0xAA, 0x00, 0x00};
    if (in.size() == 12 && std::equal(kReadConfig.begin(), kReadConfig.end(), in.begin())) {
        const unsigned step = in[8] | in[9] << 8;
        const std::size_t room = in[10] | in[11] << 8;
        const Bytes block = configBlock();
        Bytes out;
        if (step == 0 && room == 3) {
            out = word(block.size());
        } else if (step == 1 && room == block.size() + 1) {
            out = block;
        } else {
            return Bytes{kControlFailed};
        }
        out.push_back(kControlOk);
        return out;
    }
    return Bytes{kControlFailed};
}

}  // namespace vtoken::pro
