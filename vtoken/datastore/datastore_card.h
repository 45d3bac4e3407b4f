// The virtual DataStore applet: a pool of records numbered by the card,
// each with a 16-bit label, a private flag and content of a fixed size,
// replaced whole through an update buffer (begin, write, finish); three PINs
// with wrong-attempt counters; a label; a 30-byte status record. Every
// command has CLA 80 and P2 00; numbers are big endian.
//
// The card's own status words:
//   6701  no such record; also the content of a private record without the
//         user PIN
//   6702  no room for the record (finish)
//   6703  wrong PIN; its wrong counter went up
//   6704  the PIN is blocked (the wrong counter reached the total)
//   6709  the user PIN (or, to change a PIN, that PIN) is not verified
//   670A  bad parameters or lengths, or no update buffer
//   670B  a read outside the record
//   6F00  begin: no room for a new copy beside the old content
//   6D00  unknown instruction, 6E00 another class
#pragma once

#include "datastore/datastore_state.h"
#include "javacard/init_options.h"
#include "javacard/javacard.h"
#include "persist/java_dialects.h"

#include <array>
#include <memory>
#include <optional>

namespace vtoken::datastore {

// What deselect() ends.
struct Session {
    std::array<bool, kPinCount> loggedIn{};
    // Opened by begin, filled by write, handed to a record by finish.
    std::optional<Bytes> buffer;
};

// A command as this applet reads it: Lc, data and Le all optional.
struct Apdu {
    unsigned char cla = 0;
    unsigned char ins = 0;
    unsigned char p1 = 0;
    unsigned char p2 = 0;
    bool hasLc = false;
    Bytes data;
    std::optional<unsigned char> le;

    // Nothing if the lengths do not add up.
    static std::optional<Apdu> parse(const Bytes& raw);
};

class DataStoreApplet : public javacard::Applet {
public:
    explicit DataStoreApplet(DataStoreState state) : state_(std::move(state)) {}

    std::string kind() const override { return "datastore"; }
    const Bytes& aid() const override { return datastore::aid(); }
    Bytes process(const Bytes& apdu) override;
    void deselect() override { session_ = {}; }
    nlohmann::ordered_json save() const override { return toJson(state_); }
    std::string describe() const override { return datastore::describe(state_); }

    const DataStoreState& state() const { return state_; }
    // For tests: changes here are not announced.
    DataStoreState& state() { return state_; }
    const Session& session() const { return session_; }

private:
    Bytes list(const Apdu& c);
    Bytes begin(const Apdu& c);
    Bytes write(const Apdu& c);
    Bytes finish(const Apdu& c);
    Bytes read(const Apdu& c);
    Bytes remove(const Apdu& c);
    Bytes login(const Apdu& c);
    Bytes changePin(const Apdu& c);
    Bytes logout(const Apdu& c);
    Bytes readLabel(const Apdu& c);
    Bytes writeLabel(const Apdu& c);
    Bytes status(const Apdu& c);

    // Counts a successful finish against the power-cut knob.
    void finished();

    struct Handler;
    static const Handler* handlerFor(const Apdu& c);

    DataStoreState state_;
    Session session_;
};

// `init --dialect datastore`: the applet alone on the Java card.
JavaInstallation install(javacard::InitOptions& options);
// The applet from its saved state.
std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state);

}  // namespace vtoken::datastore
