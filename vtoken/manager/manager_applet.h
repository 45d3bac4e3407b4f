// The virtual card manager: the applet a Java card answers for itself
// rather than for one application. The host asks it three things with GET
// DATA (INS CA), each answered as one TLV object:
//   80 CA 9F 7F  the card production life cycle data (CPLC), tag 9F 7F
//   80 CA 00 46  the card's identifier, tag 46
//   00 CA 00 01  the model text, tag 01
// It keeps no session and no command changes it. Another command of class
// 00 or 80 answers 6D00, another class 6E00; an Le other than 00 or the
// object's length answers 6C with that length.
#pragma once

#include "core/bytes.h"
#include "javacard/init_options.h"
#include "javacard/javacard.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <memory>
#include <string>

namespace vtoken::manager {

const Bytes& aid();

constexpr std::size_t kCplcSize = 42;
constexpr std::size_t kModelMax = 64;
constexpr std::size_t kIdMax = 32;

struct ManagerState {
    std::string model = "krFS Virtual Token";
    Bytes id;
    // Global Platform's layout: IC fabricator, IC type, operating system
    // identifier, release date and release level (bytes 8 and 9), then the
    // fabrication, module, embedding and personalisation data.
    Bytes cplc;
};

// The CPLC a new manager gets.
const Bytes& defaultCplc();

// The stored form; fromJson throws std::invalid_argument naming the fault.
nlohmann::ordered_json toJson(const ManagerState& state);
ManagerState fromJson(const nlohmann::ordered_json& j);

class ManagerApplet : public javacard::Applet {
public:
    explicit ManagerApplet(ManagerState state) : state_(std::move(state)) {}

    std::string kind() const override { return "manager"; }
    const Bytes& aid() const override { return manager::aid(); }
    Bytes process(const Bytes& apdu) override;

    nlohmann::ordered_json save() const override { return toJson(state_); }
    std::string describe() const override;

    const ManagerState& state() const { return state_; }

private:
    ManagerState state_;
};

// `--applets manager`: takes --model-name (at most 64 bytes) and
// --manager-id (hex, 1 to 32 bytes; default 8 random bytes).
std::unique_ptr<javacard::Applet> install(javacard::InitOptions& options);
std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state);

}  // namespace vtoken::manager
