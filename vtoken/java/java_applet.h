// The virtual Java and Joker file-system applets: one card program in two
// variants that differ in their instruction bytes and in the unblock, which
// the Joker lacks. Each emulates a file tree in its own commands with simple
// tag, length and value bodies (length FF and two bytes when long), keeps
// PIN objects with five keys each, answers a login by a MAC of its challenge,
// takes commands wrapped in its private secure messaging, and keeps RSA
// keys that it answers a query about and deciphers with (raw RSA) once the
// user PIN is verified.
//
// Status words:
//   6700  lengths that do not add up, a read or challenge without Le
//   6701  list, read, write or resize on the wrong kind of node, create or
//         delete in a file
//   6703  the identifier exists in that directory
//   6705  wrong PIN (one try less)
//   6707  no such node or PIN object, no key in the current directory
//   6735  not enough memory
//   6736  the access byte's PIN is not verified, a decipher before the
//         user PIN
//   6982  a PIN change or unblock outside secure messaging on a FIPS token
//   6983  the PIN is blocked
//   6985  no challenge for the login, a directory not empty, an empty key
//   6988  wrapped command malformed, without a challenge or with a bad MAC
//   6A80  a block to decipher not of the key's length or not below it
//   6B00  bad parameters or a body without its objects, an offset or size
//         out of range
//   6D00  unknown instruction; 6E00 a class the instruction does not take
#pragma once

#include "java/java_state.h"
#include "javacard/javacard.h"
#include "persist/java_dialects.h"

#include <memory>
#include <optional>
#include <set>

namespace vtoken::java {

enum class Variant { kJava, kJoker };

// What a power event, a reset or a new SELECT clears.
struct Session {
    Path current;  // below 3F00; empty is the master file
    std::set<unsigned char> verified;
    // The PIN verified last: its slots 1 to 4 key secure messaging.
    std::optional<unsigned char> sessionPin;
    Bytes loginChallenge;
    Bytes smChallenge;
};

class JavaApplet : public javacard::Applet {
public:
    JavaApplet(Variant variant, JavaState state) : variant_(variant), state_(std::move(state)) {}

    std::string kind() const override;
    const Bytes& aid() const override;
    Bytes select() override;
    Bytes process(const Bytes& apdu) override;
    void deselect() override { session_ = {}; }
    void addKey(const RsaKey& key, const std::string& id) override;

    nlohmann::ordered_json save() const override { return toJson(state_); }
    std::string describe() const override { return java::describe(state_); }

    const JavaState& state() const { return state_; }
    const Session& session() const { return session_; }

private:
    Bytes run(const Command& c);
    Bytes unwrap(const Bytes& apdu);

    Bytes selectNode(const Command& c);
    Bytes createNode(const Command& c);
    Bytes deleteNode(const Command& c);
    Bytes listNodes(const Command& c);
    Bytes readFile(const Command& c);
    Bytes writeFile(const Command& c);
    Bytes setSize(const Command& c);
    Bytes changeMarker(const Command& c);
    Bytes information(const Command& c);
    Bytes pinStatus(const Command& c);
    Bytes challenge(const Command& c);
    Bytes authenticate(const Command& c);
    Bytes change(const Command& c);
    Bytes unblock(const Command& c);
    Bytes keyStatus(const Command& c);
    Bytes decipher(const Command& c);

    bool allowed(const Node& n, std::size_t index) const;
    // Whether `pin` was verified, or its partner on a FIPS token.
    bool verified(unsigned char pin) const;
    Node* currentNode() { return state_.find(session_.current); }
    // The private key of the current directory, or null.
    const Bytes* currentKey() const;
    // The 24-byte key of tag 10 into a slot.
    Bytes writeKey(const Command& c, PinObject& pin, std::size_t slot);

    Variant variant_;
    JavaState state_;
    Session session_;
    bool wrapped_ = false;  // the command being run came in secure messaging
};

// `krfs-vtoken init --dialect java|joker`: the applet, personalised from
// --user-pin, --admin-pin, --pin-tries, --fips, --label, --id, --memory,
// --colour, --version and --date.
JavaInstallation installJava(javacard::InitOptions& options);
JavaInstallation installJoker(javacard::InitOptions& options);
std::unique_ptr<javacard::Applet> loadJava(const nlohmann::ordered_json& state);
std::unique_ptr<javacard::Applet> loadJoker(const nlohmann::ordered_json& state);

}  // namespace vtoken::java
