#include "datastore/datastore_card.h"

#include "core/apdu.h"
#include "core/card.h"

#include <algorithm>

namespace vtoken::datastore {

namespace {

constexpr unsigned char kCla = 0x80;

enum Ins : unsigned char {
    kInsPin = 0x10,
    kInsRecord = 0x20,
    kInsToken = 0x30,
};

// The operation of each instruction is in P1.
enum Op : unsigned char {
    kList = 0x60,
    kBegin = 0x10,
    kWrite = 0x40,
    kFinish = 0x50,
    kRead = 0x30,
    kDelete = 0x20,
    kLogin = 0x10,
    kChangePin = 0x20,
    kLogout = 0x30,
    kReadLabel = 0x10,
    kWriteLabel = 0x20,
    kStatus = 0x30,
};

// The card's own status words (see datastore_card.h).
constexpr std::uint16_t kUnknownRecord = 0x6701;
constexpr std::uint16_t kNoRoom = 0x6702;
constexpr std::uint16_t kWrongPin = 0x6703;
constexpr std::uint16_t kPinBlocked = 0x6704;
constexpr std::uint16_t kNotVerified = 0x6709;
constexpr std::uint16_t kBadParameters = 0x670A;
constexpr std::uint16_t kOutsideRecord = 0x670B;
constexpr std::uint16_t kNoRoomForCopy = 0x6F00;

// Finish names what becomes of the buffer in its first data byte.
constexpr unsigned char kFinishOver = 0x00;
constexpr unsigned char kFinishNew = 0x01;
// Label write ends with this byte.
constexpr unsigned char kLabelTrailer = 0x02;
// The record list answers at most this much, in whole records.
constexpr std::size_t kListMax = 252;
constexpr std::size_t kRecordInfoSize = 7;
constexpr std::size_t kReadMax = 256;
constexpr std::size_t kStatusSize = 30;

// Login and change carry the reference, the length and the PIN: the PIN,
// or nothing if the lengths disagree or the reference names no PIN.
std::optional<Bytes> pinField(const Apdu& c) {
    if (c.data.size() < 2 || c.data[1] != c.data.size() - 2 || c.data[0] >= kPinCount)
        return std::nullopt;
    return Bytes(c.data.begin() + 2, c.data.end());
}

}  // namespace

std::optional<Apdu> Apdu::parse(const Bytes& raw) {
    if (raw.size() < 4) return std::nullopt;
    Apdu c;
    c.cla = raw[0];
    c.ins = raw[1];
    c.p1 = raw[2];
    c.p2 = raw[3];
    if (raw.size() == 4) return c;
    if (raw.size() == 5) {
        c.le = raw[4];
        return c;
    }
    // Lc 00 with an Le after it is how logout and an empty label come.
    const std::size_t lc = raw[4];
    const std::size_t rest = raw.size() - 5;
    if (rest != lc && rest != lc + 1) return std::nullopt;
    c.hasLc = true;
    c.data.assign(raw.begin() + 5, raw.begin() + 5 + static_cast<std::ptrdiff_t>(lc));
    if (rest == lc + 1) c.le = raw.back();
    return c;
}

// The form of each command: its data length (-1: any) and whether an Le
// byte follows.
struct DataStoreApplet::Handler {
    unsigned char ins;
    unsigned char p1;
    int lc;
    bool le;
    Bytes (DataStoreApplet::*run)(const Apdu&);
};

const DataStoreApplet::Handler* DataStoreApplet::handlerFor(const Apdu& c) {
    static const Handler table[] = {
        {kInsRecord, kList, 2, true, &DataStoreApplet::list},
        {kInsRecord, kBegin, 2, true, &DataStoreApplet::begin},
        {kInsRecord, kWrite, -1, true, &DataStoreApplet::write},
        {kInsRecord, kFinish, -1, true, &DataStoreApplet::finish},
        {kInsRecord, kRead, 6, true, &DataStoreApplet::read},
        {kInsRecord, kDelete, 2, true, &DataStoreApplet::remove},
        {kInsPin, kLogin, -1, false, &DataStoreApplet::login},
        {kInsPin, kChangePin, -1, true, &DataStoreApplet::changePin},
        {kInsPin, kLogout, 0, true, &DataStoreApplet::logout},
        {kInsToken, kReadLabel, 0, true, &DataStoreApplet::readLabel},
        {kInsToken, kWriteLabel, -1, true, &DataStoreApplet::writeLabel},
        {kInsToken, kStatus, 0, true, &DataStoreApplet::status},
    };
    for (const auto& h : table)
        if (h.ins == c.ins && h.p1 == c.p1) return &h;
    return nullptr;
}

Bytes DataStoreApplet::process(const Bytes& apdu) {
    if (state_.cutPowerPending) {
        // Kept on file by whichever command changes the state next.
        state_.cutPowerPending = false;
        markChanged();
        throw NoAnswer(NoAnswer::Why::Gone);
    }
    auto c = Apdu::parse(apdu);
    if (!c) return respond(kBadParameters);
    if (c->cla != kCla) return respond(sw::kUnknownClass);
    const Handler* h = handlerFor(*c);
    if (!h) return respond(sw::kUnknownInstruction);
    const bool lcFits = h->lc < 0 ? c->hasLc : c->data.size() == static_cast<std::size_t>(h->lc);
    if (c->p2 != 0x00 || !lcFits || c->le.has_value() != h->le) return respond(kBadParameters);
    return (this->*(h->run))(*c);
}

Bytes DataStoreApplet::list(const Apdu& c) {
    const std::uint16_t from = wordAt(c.data, 0);
    Bytes out;
    for (const auto& r : state_.records) {
        if (r.number < from) continue;
        if (out.size() + kRecordInfoSize > kListMax) break;
        putWord(out, r.number);
        putWord(out, r.label);
        out.push_back(r.flags);
        putWord(out, r.content.size());
    }
    return respond(sw::kOk, out);
}

Bytes DataStoreApplet::begin(const Apdu& c) {
    if (!session_.loggedIn[kUserPin]) return respond(kNotVerified);
    const std::size_t size = wordAt(c.data, 0);
    session_.buffer.reset();
    if (state_.refuseBegin > 0) {
        --state_.refuseBegin;
        markChanged();
        return respond(kNoRoomForCopy);
    }
    // The new content waits beside the old until finish.
    if (state_.freeMemory() < size) return respond(kNoRoomForCopy);
    session_.buffer = Bytes(size, 0x00);
    return respond(sw::kOk);
}

Bytes DataStoreApplet::write(const Apdu& c) {
    // Offset, length, then that many bytes.
    if (c.data.size() < 4 || wordAt(c.data, 2) != c.data.size() - 4) return respond(kBadParameters);
    if (!session_.loggedIn[kUserPin]) return respond(kNotVerified);
    const std::size_t offset = wordAt(c.data, 0);
    const std::size_t length = c.data.size() - 4;
    if (!session_.buffer || offset + length > session_.buffer->size())
        return respond(kBadParameters);
    std::copy(c.data.begin() + 4, c.data.end(),
              session_.buffer->begin() + static_cast<std::ptrdiff_t>(offset));
    return respond(sw::kOk);
}

Bytes DataStoreApplet::finish(const Apdu& c) {
    // New: 01, flags, label. Over: 00, record number.
    const bool asNew = c.data.size() == 4 && c.data[0] == kFinishNew;
    const bool over = c.data.size() == 3 && c.data[0] == kFinishOver;
    if (!asNew && !over) return respond(kBadParameters);
    if (!session_.loggedIn[kUserPin]) return respond(kNotVerified);
    if (!session_.buffer) return respond(kBadParameters);
    Bytes content = std::move(*session_.buffer);
    session_.buffer.reset();

    if (over) {
        Record* r = state_.find(wordAt(c.data, 1));
        if (!r) return respond(kUnknownRecord);
        if (state_.freeMemory() + r->content.size() < content.size()) return respond(kNoRoom);
        r->content = std::move(content);
        markChanged();
        finished();
        return respond(sw::kOk);
    }
    const auto number = state_.freeNumber();
    if (!number || state_.freeMemory() < kRecordCost + content.size()) return respond(kNoRoom);
    state_.insert(Record{*number, wordAt(c.data, 2), c.data[1], std::move(content)});
    markChanged();
    finished();
    Bytes out;
    putWord(out, *number);
    return respond(sw::kOk, out);
}

void DataStoreApplet::finished() {
    if (state_.cutPowerAfterFinish == 0) return;
    if (--state_.cutPowerAfterFinish == 0) state_.cutPowerPending = true;
    markChanged();
}

Bytes DataStoreApplet::read(const Apdu& c) {
    // Record, offset, length.
    const std::size_t offset = wordAt(c.data, 2);
    const std::size_t length = wordAt(c.data, 4);
    if (length > kReadMax) return respond(kBadParameters);
    const Record* r = state_.find(wordAt(c.data, 0));
    // A hidden record looks like a missing one.
    if (!r || (r->isPrivate() && !session_.loggedIn[kUserPin])) return respond(kUnknownRecord);
    if (offset + length > r->content.size()) return respond(kOutsideRecord);
    const auto from = r->content.begin() + static_cast<std::ptrdiff_t>(offset);
    return respond(sw::kOk, Bytes(from, from + static_cast<std::ptrdiff_t>(length)));
}

Bytes DataStoreApplet::remove(const Apdu& c) {
    if (!session_.loggedIn[kUserPin]) return respond(kNotVerified);
    const std::uint16_t number = wordAt(c.data, 0);
    auto& records = state_.records;
    auto it = std::find_if(records.begin(), records.end(),
                           [number](const Record& r) { return r.number == number; });
    if (it == records.end()) return respond(kUnknownRecord);
    records.erase(it);
    markChanged();
    return respond(sw::kOk);
}

Bytes DataStoreApplet::login(const Apdu& c) {
    const auto offered = pinField(c);
    if (!offered) return respond(kBadParameters);
    const std::size_t ref = c.data[0];
    Pin& pin = state_.pins[ref];
    if (pin.blocked()) return respond(kPinBlocked);
    // A PIN of a length the card never takes is just a wrong one.
    if (*offered != pin.value) {
        ++pin.wrong;
        session_.loggedIn[ref] = false;
        markChanged();
        return respond(pin.blocked() ? kPinBlocked : kWrongPin);
    }
    if (pin.wrong != 0) markChanged();
    pin.wrong = 0;
    session_.loggedIn[ref] = true;
    return respond(sw::kOk);
}

Bytes DataStoreApplet::changePin(const Apdu& c) {
    const auto value = pinField(c);
    if (!value) return respond(kBadParameters);
    const std::size_t ref = c.data[0];
    Pin& pin = state_.pins[ref];
    if (!session_.loggedIn[ref]) return respond(kNotVerified);
    if (value->size() < pin.minLength || value->size() > pin.maxLength)
        return respond(kBadParameters);
    pin.value = *value;
    markChanged();
    return respond(sw::kOk);
}

Bytes DataStoreApplet::logout(const Apdu&) {
    session_.loggedIn = {};
    return respond(sw::kOk);
}

Bytes DataStoreApplet::readLabel(const Apdu&) {
    Bytes out = state_.label;
    out.resize(kLabelMax, ' ');
    return respond(sw::kOk, out);
}

Bytes DataStoreApplet::writeLabel(const Apdu& c) {
    if (c.le != kLabelTrailer) return respond(kBadParameters);
    if (!session_.loggedIn[kUserPin]) return respond(kNotVerified);
    if (c.data.size() > kLabelMax) return respond(kBadParameters);
    state_.label = c.data;
    markChanged();
    return respond(sw::kOk);
}

Bytes DataStoreApplet::status(const Apdu&) {
    Bytes out = state_.version;
    putWord(out, std::min<std::size_t>(state_.capacity, 0xFFFF));
    putWord(out, std::min<std::size_t>(state_.freeMemory(), 0xFFFF));
    for (std::size_t i = 0; i < kPinCount; ++i) out.push_back(session_.loggedIn[i] ? 1 : 0);
    for (const auto& p : state_.pins) out.push_back(p.wrong);
    for (const auto& p : state_.pins) out.push_back(p.total);
    for (const auto& p : state_.pins) out.push_back(p.minLength);
    for (const auto& p : state_.pins) out.push_back(p.maxLength);
    append(out, state_.id);
    out.resize(kStatusSize, 0x00);
    return respond(sw::kOk, out);
}

JavaInstallation install(javacard::InitOptions& options) {
    Personalisation p;
    if (auto v = options.take("--user-pin")) p.userPin = *v;
    if (auto v = options.take("--admin-pin")) p.adminPin = *v;
    if (auto v = options.take("--global-pin")) p.globalPin = *v;
    if (auto v = options.takeNumber("--pin-tries", kPinTriesMax)) p.pinTries = *v;
    if (auto v = options.takeNumber("--pin-min", kPinLengthMax)) p.pinMin = *v;
    if (auto v = options.takeNumber("--pin-max", kPinLengthMax)) p.pinMax = *v;
    if (auto v = options.take("--label")) p.label = *v;
    if (auto v = options.take("--id")) p.id = fromHex(*v);
    if (auto v = options.takeNumber("--memory", kMemoryMax)) p.memory = *v;
    JavaInstallation installation;
    installation.applets.push_back(std::make_unique<DataStoreApplet>(personalise(p)));
    return installation;
}

std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state) {
    return std::make_unique<DataStoreApplet>(fromJson(state));
}

}  // namespace vtoken::datastore
