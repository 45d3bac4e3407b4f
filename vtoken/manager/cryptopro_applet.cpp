#include "manager/cryptopro_applet.h"

#include "core/apdu.h"

#include <stdexcept>

namespace vtoken::cryptopro {

const Bytes& aid() {
    static const Bytes kAid{0xA0, 0x00, 0x00, 0x04, 0x48, 0x01, 0x02, 0x01, 0x02, 0x02};
    return kAid;
}

Bytes CryptoProApplet::process(const Bytes&) { return respond(sw::kUnknownInstruction); }

std::string CryptoProApplet::describe() const {
    return "a selection only: every command answers 6D 00\n";
}

std::unique_ptr<javacard::Applet> install(javacard::InitOptions&) {
    return std::make_unique<CryptoProApplet>();
}

std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state) {
    if (!state.is_object()) throw std::invalid_argument("state: not an object");
    return std::make_unique<CryptoProApplet>();
}

}  // namespace vtoken::cryptopro
