#include "gost/gost_state.h"

#include "core/by_id.h"
#include "core/random.h"
#include "core/state_json.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>

namespace vtoken::gost {

using json = nlohmann::ordered_json;

namespace {

constexpr std::uint16_t kRoot = 0x3F00;
// What `show` prints of a long value.
constexpr std::size_t kShownMax = 16;

// The path attribute: each identifier low byte first.
Bytes pathValue(const Path& path) {
    Bytes out;
    for (std::uint16_t id : path) {
        out.push_back(static_cast<unsigned char>(id & 0xFF));
        out.push_back(static_cast<unsigned char>(id >> 8));
    }
    return out;
}

Path pathOf(const Bytes& value) {
    Path path;
    for (std::size_t at = 0; at + 1 < value.size(); at += 2)
        path.push_back(static_cast<std::uint16_t>(value[at] | value[at + 1] << 8));
    return path;
}

std::string pathText(const Path& path) {
    std::string text;
    for (std::uint16_t id : path) text += (text.empty() ? "" : "/") + hexNumber(id, 4);
    return text;
}

void set(Object& o, std::uint32_t id, Bytes value) {
    o.attributes.push_back({id, std::move(value)});
}

// Objects and attributes in the order the host's create makes them.
void makeFile(GostState& s, const Personalisation::File& f) {
    // add() may move the objects: keep handles, and look the objects up anew.
    Object* object = s.add(kTypeData);
    if (!object) throw std::invalid_argument("too many objects");
    const std::uint16_t objectHandle = object->handle;
    std::uint16_t dataHandle = 0;
    if (f.isPrivate) {
        Object* data = s.add(kTypeData);
        if (!data) throw std::invalid_argument("too many objects");
        dataHandle = data->handle;
    }
    const std::uint16_t holderHandle = dataHandle ? dataHandle : objectHandle;
    // A file of no bytes holds one zero byte.
    Bytes content = f.content.empty() ? Bytes{0x00} : f.content;
    if (f.isPrivate) {
        set(*s.find(objectHandle), kAttrDataObject,
            Bytes{static_cast<unsigned char>(dataHandle & 0xFF),
                  static_cast<unsigned char>(dataHandle >> 8)});
        set(*s.find(holderHandle), kAttrPrivate, Bytes{0x01});
    }
    set(*s.find(objectHandle), kAttrPath, pathValue(f.path));
    set(*s.find(holderHandle), kAttrValue, std::move(content));
    set(*s.find(objectHandle), kAttrSize, word(f.content.size()));
}

bool startsWith(const Path& path, const Path& prefix) {
    return prefix.size() <= path.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

void checkFiles(const std::vector<Personalisation::File>& files) {
    for (std::size_t i = 0; i < files.size(); ++i) {
        const Personalisation::File& f = files[i];
        if (f.path.size() < 2 || f.path.front() != kRoot)
            throw std::invalid_argument("a file's path begins with 3F00 and names the file");
        if (f.content.size() > 0x4000)
            throw std::invalid_argument(pathText(f.path) + ": above 16384 bytes");
        for (std::size_t j = 0; j < i; ++j)
            if (startsWith(f.path, files[j].path) || startsWith(files[j].path, f.path))
                throw std::invalid_argument(pathText(f.path) + " and " + pathText(files[j].path) +
                                            ": the same path, or a file under a file");
    }
}

Pin pinOf(const std::string& text, const char* what) {
    if (text.empty() || text.size() > kPinMax)
        throw std::invalid_argument(std::string(what) + " has 1 to 32 bytes");
    return Pin{Bytes(text.begin(), text.end()), 0};
}

json pinToJson(const Pin& pin) { return {{"pin", toHex(pin.value)}, {"wrong", pin.wrong}}; }

Pin pinFromJson(const json& j, const char* what, unsigned char triesTotal) {
    if (!j.is_object()) throw std::invalid_argument(std::string(what) + ": not an object");
    Pin pin;
    pin.value = hexField(j.value("pin", json()), what);
    if (pin.value.empty() || pin.value.size() > kPinMax)
        throw std::invalid_argument(std::string(what) + ": 1 to 32 bytes");
    pin.wrong = static_cast<unsigned char>(numberField(j, "wrong", 0, triesTotal, 0));
    return pin;
}

Object objectFromJson(const json& j) {
    if (!j.is_object()) throw std::invalid_argument("object: not an object");
    const Bytes handle = hexField(j.value("handle", json()), "object.handle", 2);
    Object o;
    o.handle = static_cast<std::uint16_t>(handle[0] << 8 | handle[1]);
    const std::string name = "object " + hexNumber(o.handle, 4);
    if (o.handle < kFirstHandle) throw std::invalid_argument(name + ": handles begin at 0100");
    o.type = static_cast<unsigned char>(numberField(j, "type", 0, 255));
    const json& list = j.value("attributes", json::array());
    if (!list.is_array()) throw std::invalid_argument(name + ": attributes is a list");
    for (const auto& a : list) {
        if (!a.is_object()) throw std::invalid_argument(name + ": an attribute is an object");
        const Bytes id = hexField(a.value("id", json()), "attribute.id", 4);
        Attribute attribute{
            static_cast<std::uint32_t>(id[0]) << 24 | id[1] << 16 | id[2] << 8 | id[3],
            hexField(a.value("value", json("")), "attribute.value")};
        if (attribute.value.size() > kValueMax)
            throw std::invalid_argument(name + ": a value above " + std::to_string(kValueMax));
        if (o.find(attribute.id))
            throw std::invalid_argument(name + ": attribute " + hexNumber(attribute.id, 8) +
                                        " twice");
        o.attributes.push_back(std::move(attribute));
    }
    return o;
}

std::string shown(const Bytes& value) {
    if (value.size() <= kShownMax) return toHex(value);
    return toHex(Bytes(value.begin(), value.begin() + kShownMax)) + " ...";
}

const char* typeName(unsigned char type) {
    switch (type) {
        case kTypePin:
            return "  PIN";
        case kTypeLabel:
            return "  label";
        case kTypeData:
            return "  data";
        default:
            return "";
    }
}

// The files as the host reads them: objects of type 04 with a path.
void describeTree(std::ostringstream& out, const GostState& s) {
    std::map<Path, std::string> files;
    for (const auto& o : s.objects) {
        const Attribute* path = o.find(kAttrPath);
        if (o.type != kTypeData || !path || pathOf(path->value).empty()) continue;
        std::size_t size = 0;
        if (const Attribute* a = o.find(kAttrSize))
            for (unsigned char b : a->value) size = (size << 8 | b) & 0xFFFF;
        files[pathOf(path->value)] =
            std::to_string(size) + " bytes  " + (o.find(kAttrDataObject) ? "private" : "public");
    }
    out << "files       " << files.size() << "\n";
    for (const auto& [path, what] : files) out << "  " << pathText(path) << "  " << what << "\n";
}

}  // namespace

const Bytes& aid() {
    static const Bytes kAid{0xA0, 0x00, 0x00, 0x04, 0x48, 0x01, 0x01, 0x01, 0x06, 0x02};
    return kAid;
}

Attribute* Object::find(std::uint32_t id) { return findById(attributes, id); }

const Attribute* Object::find(std::uint32_t id) const { return findById(attributes, id); }

bool Object::isPrivate() const {
    const Attribute* a = find(kAttrPrivate);
    return a && a->value == Bytes{0x01};
}

std::size_t Object::cost() const {
    std::size_t total = kObjectCost;
    for (const auto& a : attributes) total += kAttributeCost + a.value.size();
    return total;
}

std::size_t GostState::used() const {
    std::size_t total = 0;
    for (const auto& o : objects) total += o.cost();
    return total;
}

Object* GostState::find(std::uint16_t handle) {
    for (auto& o : objects)
        if (o.handle == handle) return &o;
    return nullptr;
}

const Object* GostState::find(std::uint16_t handle) const {
    return const_cast<GostState*>(this)->find(handle);
}

Object* GostState::add(unsigned char type) {
    if (objects.size() >= kObjectsMax) return nullptr;
    // The objects are in handle order: the first gap is the smallest free handle.
    std::uint32_t handle = kFirstHandle;
    auto at = objects.begin();
    for (; at != objects.end() && at->handle == handle; ++at) ++handle;
    if (handle > 0xFFFF) return nullptr;
    Object o;
    o.handle = static_cast<std::uint16_t>(handle);
    o.type = type;
    return &*objects.insert(at, std::move(o));
}

void GostState::remove(std::uint16_t handle) {
    objects.erase(std::remove_if(objects.begin(), objects.end(),
                                 [handle](const Object& o) { return o.handle == handle; }),
                  objects.end());
}

Path parsePath(const std::string& text) {
    Path path;
    std::size_t from = 0;
    while (from <= text.size()) {
        std::size_t to = text.find('/', from);
        if (to == std::string::npos) to = text.size();
        const Bytes id = fromHex(text.substr(from, to - from));
        if (id.size() != 2)
            throw std::invalid_argument("a path is identifiers of 4 hex digits: " + text);
        path.push_back(static_cast<std::uint16_t>(id[0] << 8 | id[1]));
        from = to + 1;
    }
    if (path.front() != kRoot) path.insert(path.begin(), kRoot);
    return path;
}

GostState personalise(const Personalisation& p) {
    if (p.triesTotal == 0) throw std::invalid_argument("the PINs take at least 1 try");
    if (p.label.size() > kLabelMax) throw std::invalid_argument("a label has at most 32 bytes");
    if (p.id && p.id->size() != 8) throw std::invalid_argument("an identifier has 8 bytes");
    checkFiles(p.files);

    GostState s;
    s.admin = pinOf(p.adminPin, "the administrator PIN");
    s.user = pinOf(p.userPin, "the user PIN");
    s.triesTotal = p.triesTotal;
    s.label.assign(p.label.begin(), p.label.end());
    s.id = p.id ? *p.id : randomBytes(8);
    s.memory = p.memory;
    s.add(kTypePin);  // administrator
    s.add(kTypePin);  // user
    s.add(kTypeLabel);
    for (const auto& f : p.files) makeFile(s, f);
    if (s.used() > s.memory)
        throw std::invalid_argument("the objects take " + std::to_string(s.used()) +
                                    " bytes, more than the memory of " + std::to_string(s.memory));
    return s;
}

json toJson(const GostState& s) {
    json objects = json::array();
    for (const auto& o : s.objects) {
        json attributes = json::array();
        for (const auto& a : o.attributes)
            attributes.push_back({{"id", hexNumber(a.id, 8)}, {"value", toHex(a.value)}});
        objects.push_back(
            {{"handle", hexNumber(o.handle, 4)}, {"type", o.type}, {"attributes", attributes}});
    }
    return {{"version", toHex(s.version)},
            {"id", toHex(s.id)},
            {"memory", s.memory},
            {"pin_tries", s.triesTotal},
            {"user_pin", pinToJson(s.user)},
            {"admin_pin", pinToJson(s.admin)},
            {"label", toHex(s.label)},
            {"objects", objects}};
}

GostState fromJson(const json& j) {
    if (!j.is_object()) throw std::invalid_argument("state: not an object");
    GostState s;
    s.version = hexField(j.value("version", json(toHex(s.version))), "version", 4);
    s.id = hexField(j.value("id", json()), "id", 8);
    s.memory = numberField(j, "memory", 0, 0x7FFFFFFF, s.memory);
    s.triesTotal = static_cast<unsigned char>(numberField(j, "pin_tries", 1, 255, s.triesTotal));
    s.user = pinFromJson(j.value("user_pin", json()), "user_pin", s.triesTotal);
    s.admin = pinFromJson(j.value("admin_pin", json()), "admin_pin", s.triesTotal);
    s.label = hexField(j.value("label", json("")), "label");
    if (s.label.size() > kLabelMax) throw std::invalid_argument("label: at most 32 bytes");
    const json& list = j.value("objects", json::array());
    if (!list.is_array()) throw std::invalid_argument("objects: a list");
    for (const auto& o : list) {
        Object object = objectFromJson(o);
        if (s.find(object.handle))
            throw std::invalid_argument("objects: handle " + hexNumber(object.handle, 4) +
                                        " twice");
        s.objects.push_back(std::move(object));
    }
    if (s.objects.size() > kObjectsMax)
        throw std::invalid_argument("objects: at most " + std::to_string(kObjectsMax));
    std::sort(s.objects.begin(), s.objects.end(),
              [](const Object& a, const Object& b) { return a.handle < b.handle; });
    return s;
}

std::string describe(const GostState& s) {
    std::ostringstream out;
    auto pinLine = [&](const char* name, const Pin& pin) {
        out << name << "wrong " << unsigned{pin.wrong} << "/" << unsigned{s.triesTotal}
            << (s.blocked(pin) ? "  BLOCKED" : "") << "\n";
    };
    out << "identifier  " << toHex(s.id) << "\n"
        << "version     " << toHex(s.version) << "\n"
        << "memory      " << s.memory << " bytes, " << s.memoryFree() << " free\n";
    pinLine("user PIN    ", s.user);
    pinLine("admin PIN   ", s.admin);
    out << "label       \"" << std::string(s.label.begin(), s.label.end()) << "\"\n"
        << "objects     " << s.objects.size() << "\n";
    for (const auto& o : s.objects) {
        out << "  " << hexNumber(o.handle, 4) << "  type " << hexNumber(o.type, 2)
            << typeName(o.type) << "\n";
        for (const auto& a : o.attributes)
            out << "    " << hexNumber(a.id, 8) << "  " << a.value.size() << " bytes  "
                << shown(a.value) << "\n";
    }
    describeTree(out, s);
    return out.str();
}

}  // namespace vtoken::gost
