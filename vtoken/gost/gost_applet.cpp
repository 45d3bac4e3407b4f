#include "gost/gost_applet.h"

#include "core/random.h"
#include "core/state_json.h"

#include <algorithm>
#include <stdexcept>

namespace vtoken::gost {

namespace {

constexpr unsigned char kCla = 0x80;

// The card's own status words (see gost_applet.h).
constexpr std::uint16_t kUnknownCommand = 0x6D00;
constexpr std::uint16_t kNobodyLoggedIn = 0x6D01;
constexpr std::uint16_t kNoRoom = 0x6D06;
constexpr std::uint16_t kDenied = 0x6D10;
constexpr std::uint16_t kNotFound = 0x6D12;
constexpr std::uint16_t kBadParameters = 0x6D13;
constexpr std::uint16_t kBadNewPin = 0x6D63;
constexpr std::uint16_t kHidden = 0x6D82;
constexpr std::uint16_t kWrongPin = 0x6DA0;
constexpr std::uint16_t kBlocked = 0x6DA4;
// The random source failed.
constexpr std::uint16_t kNoPreciseDiagnosis = 0x6F00;

// The one data byte of the commands that carry no argument.
constexpr unsigned char kNoArgument = 0x01;
// The first byte of the object list.
constexpr unsigned char kListForm = 0x01;
// Random bytes one command gives.
constexpr std::size_t kRandomMax = 0x4000;

// What follows a command's data: nothing, an Le of 00, or the byte 02 that
// the label write ends with.
enum class Tail { kNone, kLe, kTwo };

// Data between the Lc and the tail, if the command has that shape. Lc is one
// byte, or with `longLc` also three: 00 and a big-endian length.
std::optional<Bytes> bodyOf(const Bytes& apdu, Tail tail, bool longLc) {
    if (apdu.size() < 5) return std::nullopt;
    std::size_t lc = apdu[4];
    std::size_t start = 5;
    if (longLc && lc == 0 && apdu.size() >= 7) {
        lc = static_cast<std::size_t>(apdu[5] << 8 | apdu[6]);
        start = 7;
    }
    const std::size_t tailSize = tail == Tail::kNone ? 0 : 1;
    if (apdu.size() != start + lc + tailSize) return std::nullopt;
    if (tail == Tail::kLe && apdu.back() != 0x00) return std::nullopt;
    if (tail == Tail::kTwo && apdu.back() != 0x02) return std::nullopt;
    const auto from = apdu.begin() + static_cast<std::ptrdiff_t>(start);
    return Bytes(from, from + static_cast<std::ptrdiff_t>(lc));
}

// Attribute ids travel low byte first in commands.
std::uint32_t idAt(const Bytes& data, std::size_t at) {
    return static_cast<std::uint32_t>(data[at]) | static_cast<std::uint32_t>(data[at + 1]) << 8 |
           static_cast<std::uint32_t>(data[at + 2]) << 16 |
           static_cast<std::uint32_t>(data[at + 3]) << 24;
}

void putId(Bytes& out, std::uint32_t id) {
    putWord(out, id >> 16);
    putWord(out, id & 0xFFFF);
}

}  // namespace

Bytes GostApplet::process(const Bytes& apdu) {
    using Handler = Bytes (GostApplet::*)(const Bytes&);
    struct Form {
        unsigned char ins;
        unsigned char p1;
        Tail tail;
        bool longLc;
        Handler handler;
    };
    static const Form kForms[] = {
        {0x12, 0x20, Tail::kLe, false, &GostApplet::newFile},
        {0x12, 0x30, Tail::kLe, false, &GostApplet::removeFile},
        {0x12, 0x10, Tail::kNone, false, &GostApplet::listFile},
        {0x13, 0x40, Tail::kLe, false, &GostApplet::listAtr},
        {0x13, 0x20, Tail::kLe, false, &GostApplet::getAtr},
        {0x13, 0x30, Tail::kLe, true, &GostApplet::setAtr},
        {0x15, 0x10, Tail::kNone, false, &GostApplet::status},
        {0x15, 0x20, Tail::kNone, false, &GostApplet::logout},
        {0x10, 0x20, Tail::kNone, false, &GostApplet::login},
        {0x10, 0x10, Tail::kNone, false, &GostApplet::change},
        {0x14, 0x40, Tail::kLe, false, &GostApplet::random},
        {0x17, 0x10, Tail::kNone, false, &GostApplet::readLabel},
        {0x17, 0x20, Tail::kTwo, false, &GostApplet::writeLabel},
    };
    if (apdu.size() < 4) return respond(kBadParameters);
    const auto form = std::find_if(std::begin(kForms), std::end(kForms), [&](const Form& f) {
        return apdu[0] == kCla && apdu[1] == f.ins && apdu[2] == f.p1;
    });
    if (form == std::end(kForms)) return respond(kUnknownCommand);
    if (apdu[3] != 0x00) return respond(kBadParameters);
    const auto body = bodyOf(apdu, form->tail, form->longLc);
    if (!body) return respond(kBadParameters);
    return (this->*form->handler)(*body);
}

Bytes GostApplet::newFile(const Bytes& data) {
    // The type of the new object; the host makes data objects only.
    if (data != Bytes{kTypeData}) return respond(kBadParameters);
    if (!session_.user) return respond(kDenied);
    if (state_.memoryFree() < kObjectCost) return respond(kNoRoom);
    const Object* o = state_.add(kTypeData);
    if (!o) return respond(kNoRoom);
    markChanged();
    Bytes out;
    putWord(out, o->handle);
    return respond(sw::kOk, out);
}

Bytes GostApplet::removeFile(const Bytes& data) {
    if (data.size() != 2) return respond(kBadParameters);
    if (!session_.user) return respond(kDenied);
    const Object* o = state_.find(wordAt(data, 0));
    if (!o) return respond(kNotFound);
    if (o->isSystem()) return respond(kDenied);
    state_.remove(o->handle);
    markChanged();
    return respond(sw::kOk);
}

Bytes GostApplet::listFile(const Bytes& data) {
    if (data != Bytes{kNoArgument}) return respond(kBadParameters);
    Bytes out{kListForm};
    putWord(out, state_.objects.size());
    for (const auto& o : state_.objects) {
        putWord(out, o.handle);
        out.push_back(o.type);
    }
    return respond(sw::kOk, out);
}

Bytes GostApplet::listAtr(const Bytes& data) {
    if (data.size() != 2) return respond(kBadParameters);
    const Object* o = state_.find(wordAt(data, 0));
    if (!o) return respond(kNotFound);
    const bool hideValue = o->isPrivate() && !session_.user;
    Bytes out;
    for (const auto& a : o->attributes) {
        if (hideValue && a.id == kAttrValue) continue;
        putId(out, a.id);
        putWord(out, a.value.size());
        append(out, a.value);
    }
    return respond(sw::kOk, out);
}

Bytes GostApplet::getAtr(const Bytes& data) {
    // Handle, then the id low byte first.
    if (data.size() != 6) return respond(kBadParameters);
    const Object* o = state_.find(wordAt(data, 0));
    const std::uint32_t id = idAt(data, 2);
    const Attribute* a = o ? o->find(id) : nullptr;
    if (!a) return respond(kNotFound);
    if (id == kAttrValue && o->isPrivate() && !session_.user) return respond(kHidden);
    // A header of handle, id and length, then the value.
    Bytes out;
    putWord(out, o->handle);
    putId(out, id);
    putWord(out, a->value.size());
    append(out, a->value);
    return respond(sw::kOk, out);
}

Bytes GostApplet::setAtr(const Bytes& data) {
    // Handle, id low byte first, the value's length, the value.
    if (data.size() < 8 || wordAt(data, 6) != data.size() - 8) return respond(kBadParameters);
    if (data.size() - 8 > kValueMax) return respond(kBadParameters);
    if (!session_.user) return respond(kDenied);
    Object* o = state_.find(wordAt(data, 0));
    if (!o) return respond(kNotFound);
    if (o->isSystem()) return respond(kDenied);
    const std::uint32_t id = idAt(data, 2);
    Bytes value(data.begin() + 8, data.end());
    Attribute* a = o->find(id);
    const std::size_t before = a ? kAttributeCost + a->value.size() : 0;
    if (kAttributeCost + value.size() > state_.memoryFree() + before) return respond(kNoRoom);
    if (a)
        a->value = std::move(value);
    else
        o->attributes.push_back({id, std::move(value)});
    markChanged();
    return respond(sw::kOk);
}

Bytes GostApplet::status(const Bytes& data) {
    if (data != Bytes{kNoArgument}) return respond(kBadParameters);
    Bytes out{static_cast<unsigned char>(session_.user ? 0x01 : 0x00)};
    append(out, state_.version);
    putWord(out, state_.objects.size());
    putWord(out, 0);
    putWord(out, std::min<std::size_t>(state_.memoryFree(), 0xFFFF));
    out.push_back(state_.triesTotal);
    out.push_back(state_.user.wrong);
    out.push_back(state_.admin.wrong);
    putWord(out, 0);
    append(out, state_.id);
    return respond(sw::kOk, out);
}

Bytes GostApplet::logout(const Bytes& data) {
    if (data != Bytes{kNoArgument}) return respond(kBadParameters);
    if (!session_.user && !session_.admin) return respond(kNobodyLoggedIn);
    session_ = {};
    return respond(sw::kOk);
}

Bytes GostApplet::wrongPin(Pin& pin, bool& verified) {
    verified = false;
    ++pin.wrong;
    markChanged();
    return respond(state_.blocked(pin) ? kBlocked : kWrongPin);
}

Bytes GostApplet::login(const Bytes& data) {
    // Reference, length, PIN.
    if (data.size() < 2 || data[1] != data.size() - 2) return respond(kBadParameters);
    if (data[0] != kRefUser && data[0] != kRefAdmin) return respond(kBadParameters);
    const bool user = data[0] == kRefUser;
    Pin& pin = user ? state_.user : state_.admin;
    bool& verified = user ? session_.user : session_.admin;
    if (state_.blocked(pin)) return respond(kBlocked);
    if (Bytes(data.begin() + 2, data.end()) != pin.value) return wrongPin(pin, verified);
    if (pin.wrong != 0) markChanged();
    pin.wrong = 0;
    verified = true;
    return respond(sw::kOk);
}

Bytes GostApplet::change(const Bytes& data) {
    // Reference, old length m, new length n, the old PIN, the new PIN.
    if (data.size() < 3 || data.size() != 3u + data[1] + data[2]) return respond(kBadParameters);
    if (data[0] != kRefUser && data[0] != kRefAdmin) return respond(kBadParameters);
    const bool user = data[0] == kRefUser;
    Pin& pin = user ? state_.user : state_.admin;
    bool& verified = user ? session_.user : session_.admin;
    if (state_.blocked(pin)) return respond(kBlocked);
    const auto oldFrom = data.begin() + 3;
    const auto newFrom = oldFrom + data[1];
    if (data[2] == 0 || data[2] > kPinMax) return respond(kBadNewPin);
    if (Bytes(oldFrom, newFrom) != pin.value) return wrongPin(pin, verified);
    pin.value.assign(newFrom, data.end());
    pin.wrong = 0;
    markChanged();
    return respond(sw::kOk);
}

Bytes GostApplet::random(const Bytes& data) {
    if (data.size() != 2) return respond(kBadParameters);
    const std::size_t n = wordAt(data, 0);
    if (n > kRandomMax) return respond(kBadParameters);
    try {
        return respond(sw::kOk, randomBytes(n));
    } catch (const std::runtime_error&) {
        return respond(kNoPreciseDiagnosis);
    }
}

Bytes GostApplet::readLabel(const Bytes& data) {
    if (data != Bytes{kNoArgument}) return respond(kBadParameters);
    Bytes out{static_cast<unsigned char>(state_.label.size())};
    append(out, state_.label);
    out.resize(1 + kLabelMax, 0x20);
    return respond(sw::kOk, out);
}

Bytes GostApplet::writeLabel(const Bytes& data) {
    if (data.size() > kLabelMax) return respond(kBadParameters);
    if (!session_.user) return respond(kDenied);
    state_.label = data;
    markChanged();
    return respond(sw::kOk);
}

JavaInstallation install(javacard::InitOptions& options) {
    Personalisation p;
    if (auto v = options.take("--user-pin")) p.userPin = *v;
    if (auto v = options.take("--admin-pin")) p.adminPin = *v;
    if (auto n = options.takeNumber("--pin-tries", 255)) {
        if (*n == 0) throw std::invalid_argument("--pin-tries counts from 1");
        p.triesTotal = static_cast<unsigned char>(*n);
    }
    if (auto v = options.take("--label")) p.label = *v;
    if (auto v = options.take("--id")) {
        p.id = fromHex(*v);
        if (p.id->size() != 8) throw std::invalid_argument("--id takes 8 bytes");
    }
    if (auto n = options.takeNumber("--memory", 0x7FFFFFFF)) p.memory = *n;
    for (const char* name : {"--file", "--private-file"}) {
        for (const std::string& v : options.takeAll(name)) {
            const std::size_t eq = v.find('=');
            if (eq == std::string::npos)
                throw std::invalid_argument(std::string(name) + " takes PATH=HEX: " + v);
            p.files.push_back({parsePath(v.substr(0, eq)), fromHex(v.substr(eq + 1)),
                               std::string(name) == "--private-file"});
        }
    }
    JavaInstallation installation;
    installation.applets.push_back(std::make_unique<GostApplet>(personalise(p)));
    return installation;
}

std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state) {
    return std::make_unique<GostApplet>(fromJson(state));
}

}  // namespace vtoken::gost
