// The virtual IDProtect applet: an ISO file system with file control
// parameters, access conditions and DF names, PIN objects verified by a
// challenge and answer, enrolled fingers proven by a simulated match on the
// card or by a ticket, and a Diffie-Hellman channel that carries the PIN
// change and unblock encrypted and MACed, and RSA keys that decipher (raw
// RSA) once the user has logged in. Long commands come chained (CLA bit 10),
// answers above 256 bytes in parts behind 61xx and GET RESPONSE.
//
// Status words:
//   61xx  more of the answer waits for GET RESPONSE
//   6282  a read past the end: what there is
//   63Cx  wrong PIN, x tries left (63C0: now blocked); for a failed match on
//         the card or a refused ticket, x fingerprint tries left
//   6700  lengths that do not add up
//   6981  delete with P1 naming the other kind of node
//   6982  an access condition or PIN change not met, or a change not wrapped
//   6983  the PIN is blocked
//   6985  no challenge, no PIN or channel selected (the fingerprint object
//         takes no PIN), nothing to GET RESPONSE
//   6986  read, write or list without a file or directory selected
//   6987  a wrapped command without its objects; 6988 a bad MAC or padding
//   6A80  a malformed create template, new PIN or host value, a block to
//         decipher not of the key's length or not below it
//   6A82  no such file, directory or DF name
//   6A84  not enough memory (the host's read of a full card), or a write past
//         the end of the file
//   6A86  P1 or P2 not of this command
//   6A88  an information item the card does not have, a finger not enrolled,
//         a decipher without a key's companion file current
//   6A89  the identifier or DF name exists in that directory
//   6B00  a read offset past the end of the file
//   6D00  unknown instruction; 6E00 a class the instruction does not take
#pragma once

#include "idprotect/idprotect_crypto.h"
#include "idprotect/idprotect_state.h"
#include "javacard/javacard.h"
#include "persist/java_dialects.h"

#include <memory>
#include <optional>
#include <set>

namespace vtoken::idprotect {

// One Diffie-Hellman channel: keyed once the host's value came, then good
// for wrapped commands counted from 1 until it is closed.
struct Channel {
    std::shared_ptr<const KeyExchange> exchange;
    std::optional<SessionKeys> keys;
    std::uint32_t counter = 1;
};

// What a power event, a reset or a new SELECT clears.
struct Session {
    Path current;  // below 3F00; empty is the MF
    std::optional<std::uint16_t> pin;
    std::set<std::uint16_t> verified;  // PIN objects with a value
    bool fingerProven = false;         // by a ticket or a match on the card
    Bytes challenge;
    std::optional<std::uint16_t> unblockArmed;
    std::optional<Channel> channel;
    Bytes chainHead;  // INS P1 P2 of a chain under way
    Bytes chained;
    Bytes pending;  // the rest of a long answer
};

class IdprotectApplet : public javacard::Applet {
public:
    explicit IdprotectApplet(IdprotectState state) : state_(std::move(state)) {}

    std::string kind() const override { return "idprotect"; }
    const Bytes& aid() const override { return idprotect::aid(); }
    Bytes select() override;
    Bytes process(const Bytes& apdu) override;
    void deselect() override { session_ = {}; }
    void addKey(const RsaKey& key, const std::string& id) override;

    nlohmann::ordered_json save() const override { return toJson(state_); }
    std::string describe() const override { return idprotect::describe(state_); }

    const IdprotectState& state() const { return state_; }
    const Session& session() const { return session_; }

    struct Apdu {
        unsigned char cla = 0, ins = 0, p1 = 0, p2 = 0;
        Bytes data;
        std::optional<std::size_t> le;

        std::uint16_t p1p2() const { return static_cast<std::uint16_t>(p1 << 8 | p2); }
    };

private:
    Bytes run(const Apdu& c, bool wrapped);
    Bytes unwrap(const Apdu& c);
    Bytes answerInParts(Bytes answer);
    Bytes getResponse(const Apdu& c);

    Bytes selectFile(const Apdu& c);
    Bytes createFile(const Apdu& c);
    Bytes deleteFile(const Apdu& c);
    Bytes readBinary(const Apdu& c);
    Bytes updateBinary(const Apdu& c);
    Bytes listFiles(const Apdu& c);
    Bytes getData(const Apdu& c);
    Bytes getChallenge(const Apdu& c);
    Bytes verify(const Apdu& c);
    Bytes logout(const Apdu& c);
    Bytes verifiedList(const Apdu& c);
    Bytes changePin(const Apdu& c, bool wrapped);
    Bytes prepareUnblock(const Apdu& c);
    Bytes readData(const Apdu& c);
    Bytes readGroup();
    Bytes enrolledFingers();
    Bytes publicFingerData(unsigned char finger);
    Bytes biometry(const Apdu& c);
    Bytes matchOnCard(const Apdu& c);
    Bytes ticketAuthenticate(const Apdu& c);
    Bytes fingerFailed();
    void fingerPassed();
    Bytes keyAgreement(const Apdu& c);
    Bytes decipher(const Apdu& c);

    bool allowed(unsigned char condition) const;
    // Whether the proof a login object or the fingerprint object asks for
    // was given in this session.
    bool loginMet(std::uint16_t id) const;
    Node* currentNode() { return state_.find(session_.current); }
    // The current directory, or the directory of the current file.
    Path currentDir();
    Bytes fcp(const Node& n) const;

    IdprotectState state_;
    Session session_;
};

// `krfs-vtoken init --dialect idprotect`: the applet, personalised from
// --user-pin, --admin-pin, --pin-tries, --login-type, --label, --id,
// --memory, --info-version and --finger N=FILE (repeatable).
JavaInstallation install(javacard::InitOptions& options);
std::unique_ptr<javacard::Applet> load(const nlohmann::ordered_json& state);

}  // namespace vtoken::idprotect
