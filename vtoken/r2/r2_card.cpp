#include "r2/r2_card.h"

#include "core/state_json.h"

#include <sstream>
#include <stdexcept>

namespace vtoken::r2 {

using json = nlohmann::ordered_json;

namespace {

constexpr unsigned char kIns = 0xDA;

// The status word low byte first, as this dialect sends it.
Bytes respondR2(std::uint16_t status, Bytes data = {}) {
    data.push_back(static_cast<unsigned char>(status & 0xFF));
    data.push_back(static_cast<unsigned char>(status >> 8));
    return data;
}

void littleWord(Bytes& out, std::uint16_t w) {
    out.push_back(static_cast<unsigned char>(w & 0xFF));
    out.push_back(static_cast<unsigned char>(w >> 8));
}

}  // namespace

const Bytes& atr() {
    static const Bytes kAtr = fromHex("3B 81 1F 00 CC 52");
    return kAtr;
}

Bytes R2State::configBlock() const {
    Bytes block = id;
    block.insert(block.end(), version.begin(), version.end());
    littleWord(block, memoryTotal);
    block.resize(16, 0x00);
    littleWord(block, memoryFree);
    block.push_back(colour);
    block.push_back(0x00);
    return block;
}

Bytes R2Card::process(const Bytes& command) {
    auto c = Command::parse(command);
    if (!c) return respondR2(sw::kWrongLength);
    if (c->ins != kIns) return respondR2(sw::kUnknownInstruction);
    if (c->cla != 0x00) return respondR2(sw::kUnknownClass);
    // The configuration block is the one object behind P1 P2 00 00, data 00.
    if (c->p1p2() != 0) return respondR2(sw::kWrongP1P2);
    if (c->data != Bytes{0x00} || !c->le) return respondR2(sw::kWrongLength);
    return respondR2(sw::kOk, state_.configBlock());
}

std::string toJsonText(const R2State& s) {
    json out = {{"format", "krfs-vtoken/1"},
                {"dialect", "r2"},
                {"id", toHex(s.id)},
                {"version", toHex(s.version)},
                {"memory_total", s.memoryTotal},
                {"memory_free", s.memoryFree},
                {"colour", s.colour},
                {"faults", faultsToJson(s.faults)}};
    return out.dump(2) + "\n";
}

R2State fromJsonText(std::string_view text) {
    json j;
    try {
        j = json::parse(text);
    } catch (const json::exception& e) {
        throw std::invalid_argument(std::string("not JSON: ") + e.what());
    }
    if (!j.is_object() || j.value("dialect", "") != "r2")
        throw std::invalid_argument("not the state of an R2 token");
    R2State s;
    s.id = hexField(j.value("id", json()), "id", 4);
    s.version = hexField(j.value("version", json()), "version", 2);
    auto number = [&](const char* key, unsigned long max) {
        const json& n = j.value(key, json());
        if (!n.is_number_unsigned() || n.get<unsigned long>() > max)
            throw std::invalid_argument(std::string(key) + ": 0 to " + std::to_string(max));
        return n.get<unsigned long>();
    };
    s.memoryTotal = static_cast<std::uint16_t>(number("memory_total", 0xFFFF));
    s.memoryFree = static_cast<std::uint16_t>(number("memory_free", 0xFFFF));
    s.colour = static_cast<unsigned char>(number("colour", 0xFF));
    s.faults = faultsFromJson(j.value("faults", json()));
    return s;
}

std::string describe(const R2State& s) {
    std::ostringstream out;
    out << "R2 token\n"
        << "ATR         " << toHex(atr()) << "\n"
        << "identifier  " << toHex(s.id) << "\n"
        << "version     " << toHex(s.version) << "\n"
        << "memory      " << s.memoryTotal << " bytes, " << s.memoryFree << " free\n"
        << "colour      " << unsigned{s.colour} << "\n";
    if (!s.faults.empty()) out << "faults      " << faultsToJson(s.faults).dump() << "\n";
    return out.str();
}

}  // namespace vtoken::r2
