// The virtual R2 token: a small file tree addressed by whole paths, one user
// PIN, and a configuration block. Every number in its commands and answers
// is little endian, and so is the status word: 9000 goes as 00 90.
//
// The card's own status words, beside the ISO ones:
//   6406  refused on this node: create in or list a file, read or write a
//         directory, delete the root, a non-empty directory or a node of
//         another type than the command names
//   6407  no such node (select)
//   6408  the identifier exists in this directory (create)
//   6416  wrong PIN; the retry counter went down
// Access: reading a private file, writing, creating and deleting need the
// user PIN verified in this session, else 6982; a blocked PIN answers 6983.
#pragma once

#include "core/apdu.h"
#include "core/card.h"
#include "r2/r2_state.h"

#include <functional>

namespace vtoken::r2 {

// What a power-up or reset clears.
struct Session {
    Path selected;  // below the root; empty: the root
    bool verified = false;
};

class R2Card : public ICard {
public:
    explicit R2Card(R2State state) : state_(std::move(state)) {}

    Bytes atr() const override { return r2::atr(); }
    bool statusLowByteFirst() const override { return true; }
    Bytes process(const Bytes& command) override;
    void powerOn() override { session_ = {}; }
    void powerOff() override { session_ = {}; }
    void reset() override { session_ = {}; }

    const R2State& state() const { return state_; }
    // For tests and personalisation: changes here are not announced.
    R2State& state() { return state_; }
    const Session& session() const { return session_; }

    // Called with the new state after each command that changed it.
    void setOnChange(std::function<void(const R2State&)> onChange) {
        onChange_ = std::move(onChange);
    }

private:
    Bytes dispatch(const Command& c);
    Bytes select(const Command& c);
    Bytes create(const Command& c);
    Bytes remove(const Command& c);
    Bytes list(const Command& c);
    Bytes read(const Command& c);
    Bytes write(const Command& c);
    Bytes verify(const Command& c);
    Bytes changePin(const Command& c);
    Bytes logout(const Command& c);
    Bytes config(const Command& c);

    // The selected node; the root if a test edited the tree under it.
    Node& selected();

    R2State state_;
    Session session_;
    bool changed_ = false;
    std::function<void(const R2State&)> onChange_;
};

}  // namespace vtoken::r2
