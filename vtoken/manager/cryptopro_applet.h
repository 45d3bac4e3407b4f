// The virtual CryptoPro applet: present so that the host can select it,
// and nothing more. Its selection answers 9000, every command 6D00.
#pragma once

#include "core/bytes.h"
#include "javacard/init_options.h"
#include "javacard/javacard.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <string>

namespace vtoken::cryptopro {

const Bytes& aid();

class CryptoProApplet : public javacard::Applet {
public:
    std::string kind() const override { return "cryptopro"; }
    const Bytes& aid() const override { return cryptopro::aid(); }
    Bytes process(const Bytes& apdu) override;

    nlohmann::ordered_json save() const override { return nlohmann::ordered_json::object(); }
    std::string describe() const override;
};

// `--applets cryptopro`: takes no option.
std::unique_ptr<javacard::Applet> install(javacard::InitOptions& options);
// The state holds nothing; anything but an object is refused.
std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state);

}  // namespace vtoken::cryptopro
