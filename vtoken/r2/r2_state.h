// What a virtual R2 token keeps across sessions: identity, memory figures,
// the file tree with its private flags, and the user PIN with its retry
// counter. The session (selection, login) lives in R2Card.
#pragma once

#include "core/bytes.h"
#include "core/faults.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtoken::r2 {

constexpr std::uint16_t kRoot = 0x3F00;
// Where the host keeps the label: file AAAA in directory 8000.
constexpr std::uint16_t kLabelDir = 0x8000;
constexpr std::uint16_t kLabelFile = 0xAAAA;

// Memory a node takes beside a file's content.
constexpr std::size_t kNodeCost = 16;

using Path = std::vector<std::uint16_t>;

// The R2 ATR announces T=15 only, which pcscd will not connect with T=0 or
// T=1: through pcscd the card needs the reconnecting shim.
const Bytes& atr();

struct Node {
    std::uint16_t id = 0;
    bool dir = false;
    bool isPrivate = false;      // files: reading needs the user PIN
    Bytes data;                  // a file's content: its size is the file's
    std::vector<Node> children;  // directories only, in creation order

    static Node directory(std::uint16_t id);
    static Node file(std::uint16_t id, bool isPrivate, Bytes data);

    Node* child(std::uint16_t childId);
    const Node* child(std::uint16_t childId) const;
    // What the node takes from free memory.
    std::size_t cost() const { return kNodeCost + data.size(); }
};

// The card keeps the PIN itself and compares what VERIFY sends.
struct UserPin {
    Bytes value = defaultValue();
    // Wrong attempts it still takes; at 0 it is blocked.
    unsigned char tries = 10;
    unsigned char maxTries = 10;

    // 1234567890, as a fresh token has it.
    static Bytes defaultValue();
};

// The lengths CHANGE accepts for a new PIN.
constexpr std::size_t kPinMin = 4;
constexpr std::size_t kPinMax = 16;

struct R2State {
    Bytes id{0x00, 0x00, 0x00, 0x01};  // 4 bytes
    Bytes version{0x02, 0x01};         // 2 bytes
    std::uint16_t memoryTotal = 0x8000;
    // The card's free-memory counter: CREATE takes a node's cost from it,
    // DELETE gives it back.
    std::uint16_t memoryFree = 0x7000;
    unsigned char colour = 0;
    Node root = Node::directory(kRoot);
    UserPin pin;
    Faults faults;

    // The 20-byte block: identifier, version, total memory (little endian),
    // eight reserved bytes, free memory (little endian), colour, a zero.
    Bytes configBlock() const;

    // A node by its path below the root (empty: the root).
    Node* find(const Path& path);
    const Node* find(const Path& path) const;
};

struct Personalisation {
    std::string userPin = "1234567890";  // 4 to 16 bytes
    unsigned char maxTries = 10;         // 1 to 255
    std::optional<std::string> label;    // at most 32 bytes, no zero byte
    std::optional<Bytes> id;             // 4 bytes; random if not given
    unsigned char colour = 0;
    std::uint16_t memoryTotal = 0x8000;
};

// The part of the total the card's own system keeps: free memory of a
// fresh token is the total less this, less the cost of its nodes.
std::size_t systemArea(std::size_t memoryTotal);

// A fresh token; the label, if given, becomes file 8000 AAAA of exactly its
// length, public. Throws std::invalid_argument on a PIN, label, identifier
// or try count out of range, or a label that does not fit the memory.
R2State personalise(const Personalisation& p);

// The stored form. fromJsonText throws std::invalid_argument naming the
// fault; a state without a tree or PIN gets an empty root and the default
// PIN.
std::string toJsonText(const R2State& state);
R2State fromJsonText(std::string_view text);

// A developer's view of the card: identity, memory, PIN tries, label, tree.
std::string describe(const R2State& state);

}  // namespace vtoken::r2
