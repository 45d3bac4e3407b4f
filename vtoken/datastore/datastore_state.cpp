#include "datastore/datastore_state.h"

#include "core/random.h"
#include "core/state_json.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>

namespace vtoken::datastore {

using json = nlohmann::ordered_json;

namespace {

const char* const kPinNames[kPinCount] = {"user", "admin", "global"};

// The tree of the first layout packs the parent's record number and a code
// for the identifier into the label.
constexpr std::uint16_t kRootLabel = 0x3F3F;
constexpr std::uint16_t kRootId = 0x3F00;
// The second layout: one table record, and every node under one label.
constexpr std::uint16_t kTableLabel = 0x3333;
constexpr std::uint16_t kNodeLabel = 0x4444;
constexpr std::size_t kTableSize = 0x800;
constexpr std::size_t kSlotSize = 4;

// Code and identifier, in code order: where two codes name one identifier,
// the lower code is the one the host writes.
const std::map<unsigned char, std::uint16_t>& codes() {
    static const std::map<unsigned char, std::uint16_t> table = {
        {0x3F, 0x3F00}, {0xEE, 0xE00E}, {0x0B, 0x0B00}, {0x0C, 0x0C00}, {0x1C, 0x0C01},
        {0xC0, 0xCC00}, {0xC1, 0xCC01}, {0xC2, 0xCC02}, {0xC3, 0xCC03}, {0xC4, 0xCC04},
        {0xC5, 0xCC05}, {0xC6, 0xCC06}, {0xC7, 0xCC07}, {0xC8, 0xCC08}, {0xC9, 0xCC09},
        {0xCA, 0xCC10}, {0xCB, 0xCC11}, {0xCC, 0xCC12}, {0xCD, 0xCC13}, {0xCE, 0xCC14},
        {0xCF, 0xCC15}, {0xF0, 0xF000}, {0xF1, 0xF001}, {0xF2, 0xF002}, {0xF3, 0xF003},
        {0xF4, 0xF004}, {0xF5, 0xF005}, {0xF6, 0xF006}, {0xF7, 0xF007}, {0xDE, 0xDE01},
        {0xDF, 0xDE02}, {0xA1, 0x7210}, {0xA2, 0xBAD0}, {0xA3, 0xE1F8}, {0xA4, 0x0043},
        {0xA5, 0x1213}, {0xA6, 0x7000}, {0xA7, 0x130A}, {0xA8, 0x1805}, {0xA9, 0x0001},
        {0xAA, 0xA002}, {0xAB, 0x1212}, {0xAC, 0x5555}, {0xAD, 0x6666}, {0xAE, 0x7777},
        {0xAF, 0x0001},
    };
    return table;
}

std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

// A node of a tree as the host reads it out of the records.
struct Node {
    std::vector<std::uint16_t> path;
    std::uint16_t name = 0;
    std::uint16_t record = 0;
    std::uint16_t parent = 0;
    const Record* r = nullptr;
};

bool fromRoot(const std::vector<std::uint16_t>& path) {
    return !path.empty() && path.front() == kRootId;
}

void printNodes(std::ostringstream& out, const std::vector<Node>& nodes) {
    for (const auto& n : nodes) {
        std::string path;
        for (auto id : n.path) path += (path.empty() ? "" : "/") + hexNumber(id, 4);
        if (!fromRoot(n.path)) path = "(no path) " + hexNumber(n.name, 4);
        out << "  " << path << std::string(path.size() < 28 ? 28 - path.size() : 1, ' ')
            << "record " << hexNumber(n.record, 4);
        if (n.r->content.empty())
            out << "  dir";
        else
            out << "  file " << n.r->content.size() << " bytes";
        out << (n.r->isPrivate() ? "  private" : "") << "\n";
    }
}

void describeFirstTree(std::ostringstream& out, const DataStoreState& s) {
    out << "tree of layout 1 (label: parent record << 8 | code, root " << hexNumber(kRootLabel, 4)
        << ")\n";
    std::vector<Node> nodes;
    for (const auto& r : s.records) {
        auto code = codes().find(static_cast<unsigned char>(r.label & 0xFF));
        if (code == codes().end()) continue;
        Node n;
        n.name = code->second;
        n.record = r.number;
        n.r = &r;
        nodes.push_back(n);
    }
    if (nodes.empty()) {
        out << "  3F00 only, not on the card yet\n";
        return;
    }
    auto root = std::find_if(nodes.begin(), nodes.end(),
                             [](const Node& n) { return n.r->label == kRootLabel; });
    if (root != nodes.end()) root->path = {kRootId};
    // In record order, each from the first node with its parent's number: a
    // parent that stands later has no path yet, and its children get none.
    for (auto it = nodes.begin(); it != nodes.end(); ++it) {
        if (it == root) continue;
        const std::uint16_t parent = it->r->label >> 8;
        auto p = std::find_if(nodes.begin(), nodes.end(),
                              [parent](const Node& n) { return n.record == parent; });
        if (p != nodes.end()) it->path = p->path;
        it->path.push_back(it->name);
    }
    printNodes(out, nodes);
}

void describeSecondTree(std::ostringstream& out, const DataStoreState& s) {
    out << "tree of layout 2 (table: label " << hexNumber(kTableLabel, 4) << ", nodes: label "
        << hexNumber(kNodeLabel, 4) << ")\n";
    auto table = std::find_if(s.records.begin(), s.records.end(),
                              [](const Record& r) { return r.label == kTableLabel; });
    if (table == s.records.end()) {
        out << "  3F00 only, no table record yet\n";
        return;
    }
    if (table->content.size() != kTableSize) {
        out << "  table record " << hexNumber(table->number, 4) << " has " << table->content.size()
            << " bytes, not 2048: the host refuses it\n";
        return;
    }
    std::vector<Node> nodes;
    for (std::size_t slot = 0; slot < kTableSize / kSlotSize; ++slot) {
        const unsigned char* at = table->content.data() + slot * kSlotSize;
        if (std::all_of(at, at + kSlotSize, [](unsigned char b) { return b == 0; })) continue;
        Node n;
        n.record = static_cast<std::uint16_t>(slot);
        n.parent = static_cast<std::uint16_t>(at[0] | at[1] << 8);
        n.name = static_cast<std::uint16_t>(at[2] | at[3] << 8);
        n.r = s.find(n.record);
        if (!n.r) {
            out << "  slot " << hexNumber(n.record, 4) << " (" << hexNumber(n.name, 4)
                << "): its record is gone, the host drops it\n";
            continue;
        }
        nodes.push_back(n);
    }
    if (nodes.empty()) {
        out << "  3F00 only, not on the card yet\n";
        return;
    }
    auto root =
        std::find_if(nodes.begin(), nodes.end(), [](const Node& n) { return n.name == kRootId; });
    if (root != nodes.end()) {
        root->path = {kRootId};
        root->parent = root->record;
    }
    auto folder = [&nodes](std::uint16_t record) {
        return std::find_if(nodes.begin(), nodes.end(), [record](const Node& n) {
            return n.record == record && n.r->content.empty();
        });
    };
    for (auto it = nodes.begin(); it != nodes.end(); ++it) {
        if (it == root) continue;
        std::vector<std::uint16_t> path;
        bool finished = false;
        // A cycle without the root would climb for ever; the table has 512 slots.
        for (auto p = folder(it->parent); p != nodes.end() && path.size() <= nodes.size();
             p = folder(p->parent)) {
            if (fromRoot(p->path)) {
                path.insert(path.begin(), p->path.begin(), p->path.end());
                finished = true;
                break;
            }
            path.insert(path.begin(), p->name);
        }
        if (finished) {
            path.push_back(it->name);
            it->path = path;
        }
    }
    printNodes(out, nodes);
}

Pin pinFromJson(const json& j, const char* name) {
    if (!j.is_object())
        throw std::invalid_argument(std::string("pins.") + name + ": not an object");
    Pin p;
    p.value = hexField(j.value("pin", json()), "pins.pin");
    p.minLength = static_cast<unsigned char>(numberField(j, "min", 0, kPinLengthMax));
    p.maxLength = static_cast<unsigned char>(numberField(j, "max", p.minLength, kPinLengthMax));
    p.total = static_cast<unsigned char>(numberField(j, "total", 1, kPinTriesMax));
    p.wrong = static_cast<unsigned char>(numberField(j, "wrong", 0, p.total, 0));
    return p;
}

Record recordFromJson(const json& j) {
    if (!j.is_object()) throw std::invalid_argument("records: each is an object");
    Record r;
    r.number = static_cast<std::uint16_t>(numberField(j, "number", kFirstNumber, kLastNumber));
    const Bytes label = hexField(j.value("label", json()), "records.label", 2);
    r.label = static_cast<std::uint16_t>(label[0] << 8 | label[1]);
    r.flags = static_cast<unsigned char>(numberField(j, "flags", 0, 0xFF, 0));
    r.content = hexField(j.value("content", json("")), "records.content");
    if (r.content.size() > 0xFFFF) throw std::invalid_argument("records.content: above 65535");
    return r;
}

}  // namespace

const Bytes& aid() {
    static const Bytes kAid{0xA0, 0x00, 0x00, 0x04, 0x48, 0x00, 0x03, 0x01};
    return kAid;
}

std::size_t DataStoreState::used() const {
    std::size_t total = 0;
    for (const auto& r : records) total += r.cost();
    return total;
}

std::size_t DataStoreState::freeMemory() const {
    const std::size_t u = used();
    return u < capacity ? capacity - u : 0;
}

Record* DataStoreState::find(std::uint16_t number) {
    for (auto& r : records)
        if (r.number == number) return &r;
    return nullptr;
}

const Record* DataStoreState::find(std::uint16_t number) const {
    return const_cast<DataStoreState*>(this)->find(number);
}

std::optional<std::uint16_t> DataStoreState::freeNumber() const {
    // Records are in number order: the first gap is the smallest free number.
    std::uint32_t candidate = kFirstNumber;
    for (const auto& r : records) {
        if (r.number > candidate) break;
        if (r.number == candidate) ++candidate;
    }
    if (candidate > kLastNumber) return std::nullopt;
    return static_cast<std::uint16_t>(candidate);
}

void DataStoreState::insert(Record record) {
    auto at = std::find_if(records.begin(), records.end(),
                           [&record](const Record& r) { return r.number > record.number; });
    records.insert(at, std::move(record));
}

DataStoreState personalise(const Personalisation& p) {
    if (p.pinTries < 1 || p.pinTries > kPinTriesMax)
        throw std::invalid_argument("--pin-tries: 1 to 15");
    if (p.pinMin > p.pinMax || p.pinMax < 1 || p.pinMax > kPinLengthMax)
        throw std::invalid_argument("PIN lengths: a minimum up to the maximum, at most 64");
    if (p.label.size() > kLabelMax) throw std::invalid_argument("a label has at most 32 bytes");
    if (p.memory < 1 || p.memory > kMemoryMax)
        throw std::invalid_argument("--memory: 1 to " + std::to_string(kMemoryMax));
    if (p.id && p.id->size() != kIdSize) throw std::invalid_argument("an identifier has 8 bytes");

    DataStoreState s;
    const std::string* values[kPinCount] = {&p.userPin, &p.adminPin, &p.globalPin};
    for (std::size_t i = 0; i < kPinCount; ++i) {
        if (values[i]->size() < p.pinMin || values[i]->size() > p.pinMax)
            throw std::invalid_argument(std::string("the ") + kPinNames[i] + " PIN has " +
                                        std::to_string(p.pinMin) + " to " +
                                        std::to_string(p.pinMax) + " bytes");
        Pin& pin = s.pins[i];
        pin.value.assign(values[i]->begin(), values[i]->end());
        pin.total = static_cast<unsigned char>(p.pinTries);
        pin.minLength = static_cast<unsigned char>(p.pinMin);
        pin.maxLength = static_cast<unsigned char>(p.pinMax);
    }
    s.label.assign(p.label.begin(), p.label.end());
    s.capacity = p.memory;
    s.id = p.id ? *p.id : randomBytes(s.id.size());
    return s;
}

json toJson(const DataStoreState& s) {
    json pins = json::array();
    for (std::size_t i = 0; i < kPinCount; ++i) {
        const Pin& p = s.pins[i];
        pins.push_back({{"name", kPinNames[i]},
                        {"pin", toHex(p.value)},
                        {"wrong", p.wrong},
                        {"total", p.total},
                        {"min", p.minLength},
                        {"max", p.maxLength}});
    }
    json records = json::array();
    for (const auto& r : s.records)
        records.push_back({{"number", r.number},
                           {"label", hexNumber(r.label, 4)},
                           {"flags", r.flags},
                           {"content", toHex(r.content)}});
    return {{"version", toHex(s.version)},
            {"id", toHex(s.id)},
            {"capacity", s.capacity},
            {"label", toHex(s.label)},
            {"pins", pins},
            {"records", records},
            {"refuse_begin", s.refuseBegin},
            {"cut_power_after_finish", s.cutPowerAfterFinish},
            {"cut_power_pending", s.cutPowerPending}};
}

DataStoreState fromJson(const json& j) {
    if (!j.is_object()) throw std::invalid_argument("state: not an object");
    DataStoreState s;
    s.version = hexField(j.value("version", json()), "version", kVersionSize);
    s.id = hexField(j.value("id", json()), "id", kIdSize);
    s.capacity = numberField(j, "capacity", 1, kMemoryMax);
    s.label = hexField(j.value("label", json("")), "label");
    if (s.label.size() > kLabelMax) throw std::invalid_argument("label: at most 32 bytes");

    const json& pins = j.value("pins", json());
    if (!pins.is_array() || pins.size() != kPinCount)
        throw std::invalid_argument("pins: user, admin and global");
    for (std::size_t i = 0; i < kPinCount; ++i) s.pins[i] = pinFromJson(pins[i], kPinNames[i]);

    const json& records = j.value("records", json::array());
    if (!records.is_array()) throw std::invalid_argument("records: a list");
    for (const auto& r : records) {
        Record record = recordFromJson(r);
        if (s.find(record.number))
            throw std::invalid_argument("records: number " + std::to_string(record.number) +
                                        " twice");
        s.insert(std::move(record));
    }
    s.refuseBegin = static_cast<unsigned>(numberField(j, "refuse_begin", 0, 0xFFFF, 0));
    s.cutPowerAfterFinish =
        static_cast<unsigned>(numberField(j, "cut_power_after_finish", 0, 0xFFFF, 0));
    const json& pending = j.value("cut_power_pending", json(false));
    if (!pending.is_boolean()) throw std::invalid_argument("cut_power_pending: true or false");
    s.cutPowerPending = pending.get<bool>();
    return s;
}

std::string describe(const DataStoreState& s) {
    std::ostringstream out;
    out << "version     " << toHex(s.version) << "\n"
        << "identifier  " << toHex(s.id) << "\n"
        << "memory      " << s.capacity << " bytes, " << s.freeMemory() << " free\n"
        << "label       \"" << text(s.label) << "\"\n";
    for (std::size_t i = 0; i < kPinCount; ++i) {
        const Pin& p = s.pins[i];
        out << "PIN " << i + 1 << " " << kPinNames[i]
            << std::string(7 - std::strlen(kPinNames[i]), ' ') << "wrong " << unsigned{p.wrong}
            << "/" << unsigned{p.total} << ", length " << unsigned{p.minLength} << " to "
            << unsigned{p.maxLength} << (p.blocked() ? "  BLOCKED" : "") << "\n";
    }
    if (s.refuseBegin) out << "fault       refuse the next " << s.refuseBegin << " begins\n";
    if (s.cutPowerAfterFinish || s.cutPowerPending)
        out << "fault       cut the power after " << s.cutPowerAfterFinish << " more finishes"
            << (s.cutPowerPending ? ", and at the next command" : "") << "\n";
    out << "records     " << s.records.size() << "\n";
    for (const auto& r : s.records)
        out << "  " << hexNumber(r.number, 4) << "  label " << hexNumber(r.label, 4) << "  flags "
            << toHex({r.flags}) << "  " << r.content.size() << " bytes\n";
    describeFirstTree(out, s);
    describeSecondTree(out, s);
    return out.str();
}

}  // namespace vtoken::datastore
