// The virtual Gost applet: a flat store of objects with card-assigned
// handles and 32-bit attributes, two PINs, a label and a status record. All
// commands are CLA 80 and every number big endian, but for the attribute id
// that a command carries, which comes low byte first.
//
// The card's own status words; the host folds the low byte:
//   6D00  a command the card does not know
//   6D01  log out with nobody logged in
//   6D06  not enough free memory, or no handle left
//   6D10  needs the user PIN (newFile, removeFile, setAtr, label write), or
//         a system object touched
//   6D12  no such object or attribute
//   6D13  bad length or parameter
//   6D63  a new PIN not of 1 to 32 bytes
//   6D82  the value of a private object without the user PIN
//   6DA0  wrong PIN, tries remain
//   6DA4  PIN blocked, or blocked by this wrong attempt
//   6F00  no random bytes
// A wrong PIN also ends that PIN's login; a right one resets its counter.
#pragma once

#include "gost/gost_state.h"
#include "javacard/javacard.h"
#include "persist/java_dialects.h"

#include <memory>

namespace vtoken::gost {

// What a power event or another applet's selection clears.
struct Session {
    bool user = false;
    bool admin = false;
};

class GostApplet : public javacard::Applet {
public:
    explicit GostApplet(GostState state) : state_(std::move(state)) {}

    std::string kind() const override { return "gost"; }
    const Bytes& aid() const override { return gost::aid(); }
    Bytes process(const Bytes& apdu) override;
    void deselect() override { session_ = {}; }

    nlohmann::ordered_json save() const override { return toJson(state_); }
    std::string describe() const override { return gost::describe(state_); }

    const GostState& state() const { return state_; }
    const Session& session() const { return session_; }

private:
    Bytes newFile(const Bytes& data);
    Bytes removeFile(const Bytes& data);
    Bytes listFile(const Bytes& data);
    Bytes listAtr(const Bytes& data);
    Bytes getAtr(const Bytes& data);
    Bytes setAtr(const Bytes& data);
    Bytes status(const Bytes& data);
    Bytes logout(const Bytes& data);
    Bytes login(const Bytes& data);
    Bytes change(const Bytes& data);
    Bytes random(const Bytes& data);
    Bytes readLabel(const Bytes& data);
    Bytes writeLabel(const Bytes& data);

    // A wrong attempt on `pin`: the answer, 6DA0 or 6DA4.
    Bytes wrongPin(Pin& pin, bool& verified);

    GostState state_;
    Session session_;
};

// `krfs-vtoken init --dialect gost`: the Gost applet, personalised from
// --user-pin, --admin-pin, --pin-tries, --label, --id, --memory, --file and
// --private-file.
JavaInstallation install(javacard::InitOptions& options);
std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state);

}  // namespace vtoken::gost
