#include "javacard/javacard.h"

#include "core/state_json.h"

#include <sstream>
#include <stdexcept>

namespace vtoken::javacard {

using json = nlohmann::ordered_json;

namespace {

constexpr unsigned char kInsSelect = 0xA4;
constexpr unsigned char kSelectByName = 0x04;
// What a command gets while no applet is current.
constexpr std::uint16_t kNoAppletSelected = 0x6999;

}  // namespace

const Bytes& defaultAtr() {
    static const Bytes atr{0x3B, 0xD5, 0x18, 0x00, 0x81, 0x31, 0xFE,
                           0x7D, 0x80, 0x73, 0xC8, 0x21, 0x10, 0xF4};
    return atr;
}

Applet::~Applet() = default;

void Applet::addKey(const RsaKey&, const std::string&) {
    throw std::invalid_argument("the " + kind() + " applet keeps no keys");
}

JavaCard::JavaCard(Bytes atr, std::vector<std::unique_ptr<Applet>> applets)
    : atr_(std::move(atr)), applets_(std::move(applets)) {
    if (atr_.size() < 2 || atr_.size() > 33)
        throw std::invalid_argument("an ATR has 2 to 33 bytes");
    for (const auto& a : applets_)
        if (!a) throw std::invalid_argument("no applet");
}

void JavaCard::endSession() {
    current_ = nullptr;
    for (const auto& a : applets_) a->deselect();
}

Bytes JavaCard::process(const Bytes& command) {
    if (command.size() >= 4 && (command[0] & 0x80) == 0 && command[1] == kInsSelect &&
        command[2] == kSelectByName) {
        auto c = Command::parse(command);
        if (!c) return respond(sw::kWrongLength);
        return selectByAid(*c);
    }
    if (!current_) return respond(kNoAppletSelected);
    Bytes answer = current_->process(command);
    if (current_->takeChanged() && onChange_) onChange_(*this);
    return answer;
}

Bytes JavaCard::selectByAid(const Command& c) {
    for (const auto& a : applets_) {
        if (a->aid() != c.data) continue;
        if (current_ && current_ != a.get()) current_->deselect();
        current_ = a.get();
        return current_->select();
    }
    // An unknown AID leaves the current applet as it was.
    return respond(sw::kFileNotFound);
}

std::string toJsonText(const JavaCard& card, const std::string& dialect) {
    json applets = json::array();
    for (const auto& a : card.applets())
        applets.push_back({{"kind", a->kind()}, {"state", a->save()}});
    json out = {{"format", "krfs-vtoken/1"},
                {"dialect", dialect},
                {"atr", toHex(card.atr())},
                {"faults", faultsToJson(card.faults())},
                {"applets", applets}};
    return out.dump(2) + "\n";
}

std::unique_ptr<JavaCard> fromJsonText(std::string_view text, const std::string& dialect,
                                       const AppletLoader& load) {
    const json j = parseStateText(text, dialect.c_str());
    Bytes atr = j.contains("atr") ? hexField(j["atr"], "atr") : defaultAtr();
    const json& list = j.value("applets", json());
    if (!list.is_array() || list.empty())
        throw std::invalid_argument("applets: a list of at least one applet");
    std::vector<std::unique_ptr<Applet>> applets;
    for (const auto& entry : list) {
        if (!entry.is_object() || !entry.value("kind", json()).is_string())
            throw std::invalid_argument("applets: each has a kind and a state");
        const std::string kind = entry["kind"].get<std::string>();
        try {
            applets.push_back(load(kind, entry.value("state", json::object())));
        } catch (const std::invalid_argument& e) {
            throw std::invalid_argument(kind + ": " + e.what());
        }
    }
    auto card = std::make_unique<JavaCard>(std::move(atr), std::move(applets));
    card->faults() = faultsFromJson(j.value("faults", json()));
    return card;
}

std::string describe(const JavaCard& card) {
    std::ostringstream out;
    out << "Java card\nATR         " << toHex(card.atr()) << "\n";
    for (const auto& a : card.applets())
        out << "\napplet " << a->kind() << " (AID " << toHex(a->aid()) << ")\n" << a->describe();
    return out.str();
}

}  // namespace vtoken::javacard
