// The virtual Pro token: an ISO 7816 file system with the Pro family's
// select answers, create templates, list command, information objects and
// reader control code.
#pragma once

#include "core/apdu.h"
#include "core/card.h"
#include "core/rsa_key.h"
#include "pro/pro_state.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

namespace vtoken::pro {

// What a power-up or reset clears.
struct Session {
    Path df;                          // the current directory, below the master file
    std::optional<std::uint16_t> ef;  // the current file in it, if any
    // A verified PIN counts while the current directory stays within the
    // application (first directory below the master file) that holds it:
    // selecting the master file is the logout.
    struct Verified {
        Path dir;
        unsigned char id;
    };
    std::vector<Verified> verified;
    Bytes challenge;  // the last GET CHALLENGE answer, good for one answer
    // Secure messaging keys, from the PIN set that authenticated last in a
    // FIPS layout; they go with the login, when the session leaves `smDir`.
    Bytes smMac;
    Bytes smEnc;
    Path smDir;
    // The key MANAGE SECURITY ENVIRONMENT made current: its index in the
    // state's key table.
    std::optional<std::size_t> key;
};

class ProCard : public ICard {
public:
    // The reader's control code for the token's basic information and
    // configuration block.
    static constexpr unsigned int kControlCode = 0x9C41264C;

    explicit ProCard(ProState state);

    Bytes atr() const override { return state_.info().atr; }
    Bytes process(const Bytes& command) override;
    std::optional<Bytes> control(unsigned int code, const Bytes& input) override;
    void powerOn() override { newSession(); }
    void powerOff() override { newSession(); }
    void reset() override { newSession(); }

    const ProState& state() const { return state_; }
    // For tests and personalisation: changes here are not announced.
    ProState& state() { return state_; }
    // Stores a key and its certificate in the token's layout (see
    // pro_keys.h), and announces the change.
    void addKey(const RsaKey& key, const std::string& id);
    const Session& session() const { return session_; }

    // Marks a PIN of directory `dir` verified, as a successful
    // authentication does.
    void verify(const Path& dir, unsigned char id);
    // PINs this run treats as verified on top of the stored ones; they are
    // not saved with the state.
    void setAssumedVerified(std::vector<unsigned char> ids) { assumed_ = std::move(ids); }
    // Called with the new state after each command that changed it.
    void setOnChange(std::function<void(const ProState&)> onChange) {
        onChange_ = std::move(onChange);
    }
    // The commands since the last power-up (the most recent 4096).
    const std::vector<Bytes>& history() const { return history_; }

    // The answer to reading the configuration block through the reader.
    Bytes configBlock() const;

private:
    void newSession();
    Bytes dispatch(const Command& c);
    Bytes select(const Command& c);
    Bytes create(const Command& c);
    Bytes remove(const Command& c);
    Bytes list(const Command& c);
    Bytes readBinary(const Command& c);
    Bytes updateBinary(const Command& c);
    Bytes getData(const Command& c);
    Bytes getChallenge(const Command& c);
    Bytes activate(const Command& c);
    // The PIN protocol (pro_pin.cpp).
    Bytes authenticate(const Command& c);
    Bytes changeReference(const Command& c, bool protectedCommand);
    Bytes unblock(const Command& c);
    Bytes secureMessaging(const Command& c);
    // The key commands (pro_keys.cpp).
    Bytes manageEnvironment(const Command& c);
    Bytes decipher(const Command& c, bool protectedCommand);
    // The object a key reference names, and the directory holding it: with
    // bit 0x80 a PIN of the current directory, else one of the master file.
    PinObject* pinByReference(unsigned char reference, Path& dir);

    Node& currentDf();
    Node* currentEf();
    void enter(const Path& df, std::optional<std::uint16_t> ef);
    bool granted(unsigned char right) const;
    Bytes controlData(const Node& node) const;
    unsigned char colour() const;

    ProState state_;
    Session session_;
    bool changed_ = false;
    std::function<void(const ProState&)> onChange_;
    std::vector<Bytes> history_;
    std::vector<unsigned char> assumed_;
};

}  // namespace vtoken::pro
