#include "manager/manager_applet.h"

#include "core/apdu.h"
#include "core/random.h"
#include "core/state_json.h"

#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace vtoken::manager {

using json = nlohmann::ordered_json;

namespace {

constexpr unsigned char kClaIso = 0x00;
constexpr unsigned char kClaProprietary = 0x80;
constexpr unsigned char kInsGetData = 0xCA;
// ISO 7816-4: wrong Le, the low byte tells the right one.
constexpr unsigned char kWrongLe = 0x6C;
constexpr std::size_t kIdDefaultSize = 8;

// What GET DATA reaches: the command's class and P1 P2, the answer's tag.
struct DataObject {
    unsigned char cla;
    std::uint16_t p1p2;
    Bytes tag;
    Bytes (*value)(const ManagerState&);
};

const DataObject kObjects[] = {
    {kClaProprietary, 0x9F7F, {0x9F, 0x7F}, [](const ManagerState& s) { return s.cplc; }},
    {kClaProprietary, 0x0046, {0x46}, [](const ManagerState& s) { return s.id; }},
    {kClaIso,
     0x0001,
     {0x01},
     [](const ManagerState& s) { return Bytes(s.model.begin(), s.model.end()); }},
};

// The CPLC fields in order, with their sizes, for `show`.
struct CplcField {
    const char* name;
    std::size_t size;
};

const CplcField kCplcFields[] = {
    {"IC fabricator", 2},
    {"IC type", 2},
    {"OS identifier", 2},
    {"OS release date", 2},
    {"OS release level", 2},
    {"IC fabrication date", 2},
    {"IC serial number", 4},
    {"IC batch identifier", 2},
    {"IC module fabricator", 2},
    {"IC module packaging date", 2},
    {"ICC manufacturer", 2},
    {"IC embedding date", 2},
    {"IC pre-personaliser", 2},
    {"IC pre-perso. equipment date", 2},
    {"IC pre-perso. equipment ID", 4},
    {"IC personaliser", 2},
    {"IC personalisation date", 2},
    {"IC personalisation equipment", 4},
};

void check(const ManagerState& s) {
    if (s.model.size() > kModelMax)
        throw std::invalid_argument("a model name has at most 64 bytes");
    if (s.id.empty() || s.id.size() > kIdMax)
        throw std::invalid_argument("a manager identifier has 1 to 32 bytes");
    if (s.cplc.size() != kCplcSize) throw std::invalid_argument("the CPLC data has 42 bytes");
}

}  // namespace

const Bytes& aid() {
    static const Bytes kAid{0xA0, 0x00, 0x00, 0x01, 0x51, 0x00, 0x00};
    return kAid;
}

const Bytes& defaultCplc() {
    // Fabricator codes "KR" (no registered vendor); release level 01 02; dates
    // are year digit and day of the year.
    static const Bytes kCplc = fromHex(
        "4B 52 80 10 82 31 11 20 01 02 11 35 12 34 56 78 00 01 4B 52 11 40"
        " 00 00 11 42 00 00 00 00 00 00 00 00 00 00 11 50 00 00 00 00");
    return kCplc;
}

Bytes ManagerApplet::process(const Bytes& apdu) {
    if (apdu.empty() || (apdu[0] != kClaIso && apdu[0] != kClaProprietary))
        return respond(sw::kUnknownClass);
    const auto c = Command::parse(apdu);
    if (!c) return respond(sw::kWrongLength);
    for (const DataObject& o : kObjects) {
        if (c->cla != o.cla || c->ins != kInsGetData || c->p1p2() != o.p1p2) continue;
        if (!c->data.empty() || !c->le) return respond(sw::kWrongLength);
        Bytes answer = o.tag;
        const Bytes value = o.value(state_);
        answer.push_back(static_cast<unsigned char>(value.size()));
        append(answer, value);
        // Le 00 takes whatever the object holds.
        if (*c->le != 256 && *c->le != answer.size())
            return respond(static_cast<std::uint16_t>(kWrongLe << 8 | answer.size()));
        return respond(sw::kOk, answer);
    }
    return respond(sw::kUnknownInstruction);
}

std::string ManagerApplet::describe() const {
    std::ostringstream out;
    out << "model       \"" << state_.model << "\"\n"
        << "identifier  " << toHex(state_.id) << "\n"
        << "CPLC\n";
    std::size_t at = 0;
    for (const CplcField& f : kCplcFields) {
        const auto from = state_.cplc.begin() + static_cast<std::ptrdiff_t>(at);
        out << "  " << std::left << std::setw(30) << f.name
            << toHex(Bytes(from, from + static_cast<std::ptrdiff_t>(f.size))) << "\n";
        at += f.size;
    }
    return out.str();
}

json toJson(const ManagerState& s) {
    return {{"model", toHex(Bytes(s.model.begin(), s.model.end()))},
            {"id", toHex(s.id)},
            {"cplc", toHex(s.cplc)}};
}

ManagerState fromJson(const json& j) {
    if (!j.is_object()) throw std::invalid_argument("state: not an object");
    ManagerState s;
    const Bytes model = hexField(j.value("model", json()), "model");
    s.model.assign(model.begin(), model.end());
    s.id = hexField(j.value("id", json()), "id");
    s.cplc = hexField(j.value("cplc", json(toHex(defaultCplc()))), "cplc");
    check(s);
    return s;
}

std::unique_ptr<javacard::Applet> install(javacard::InitOptions& options) {
    ManagerState s;
    if (auto v = options.take("--model-name")) s.model = *v;
    if (auto v = options.take("--manager-id")) {
        s.id = fromHex(*v);
    } else {
        s.id = randomBytes(kIdDefaultSize);
    }
    s.cplc = defaultCplc();
    check(s);
    return std::make_unique<ManagerApplet>(std::move(s));
}

std::unique_ptr<javacard::Applet> load(const json& state) {
    return std::make_unique<ManagerApplet>(fromJson(state));
}

}  // namespace vtoken::manager
