// What a virtual Pro token keeps across sessions: its model, file tree with
// access conditions, PIN objects and identity. The session (selection,
// verified PINs) lives in ProCard.
#pragma once

#include "core/bytes.h"
#include "core/faults.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtoken::pro {

enum class Model { Pro16, Pro32, Pro42, Pro42b };

struct ModelInfo {
    Model model;
    const char* name;  // as the command line spells it: "pro42b"
    Bytes atr;
    unsigned char number;  // 1 to 4, oldest first
    Bytes version;         // the two version bytes the ATR also carries
    std::size_t memoryKb;
    // Version 4 cards: create takes the 0x62 template, and a file's size
    // travels under tag 0x80 instead of 0x81.
    bool pro4;

    unsigned char fileSizeTag() const { return pro4 ? 0x80 : 0x81; }
};

const ModelInfo& modelInfo(Model model);
std::optional<Model> modelByName(std::string_view name);

using Path = std::vector<std::uint16_t>;

// Well-known identifiers of the fresh layout.
constexpr std::uint16_t kMf = 0x3F00;
constexpr std::uint16_t kHome = 0x6666;
constexpr std::uint16_t kFipsHome = 0x5000;
constexpr std::uint16_t kMarker = 0x0001;
constexpr std::uint16_t kInfoDir = 0x1000;
constexpr std::uint16_t kCounter = 0x0004;
constexpr std::uint16_t kLabel = 0x0005;
constexpr std::uint16_t kLegacyLabel = 0x0002;
constexpr std::uint16_t kColour = 0x0006;
constexpr std::uint16_t kFipsLabel = 0x0002;
constexpr std::uint16_t kFipsColour = 0x000A;
constexpr std::uint16_t kFipsCounter = 0x000F;

// PIN object numbers, which access bytes name.
constexpr unsigned char kUserPin = 0x01;
constexpr unsigned char kAdminPin = 0x05;
constexpr unsigned char kFipsUserPin = 0x11;
constexpr unsigned char kFipsShadowPin = 0x1A;

// The access bytes of a node: one right per position. 0x00 is free, 0xFF
// never, anything else the number of the PIN that must be verified.
namespace right {
constexpr std::size_t kRead = 0;  // files
constexpr std::size_t kUpdate = 1;
constexpr std::size_t kDeleteFile = 2;
constexpr std::size_t kCreate = 0;  // directories: create inside
constexpr std::size_t kDeleteDir = 1;
constexpr unsigned char kFree = 0x00;
constexpr unsigned char kNever = 0xFF;
}  // namespace right

// A PIN or key object. The card never sees a PIN: it keeps the 24-byte
// key the host derives from it, and checks answers made with that key.
struct PinObject {
    unsigned char id = 0;
    std::string role;  // "user", "admin", "encryption", "user-shadow", ...
    Bytes key;
    // Wrong answers the object still takes; at 0 it is blocked.
    unsigned char tries = 15;
    unsigned char maxTries = 15;

    // PIN objects answer challenges; the encryption and signature key
    // objects of the FIPS layout only hold keys.
    bool authenticates() const {
        return role == "user" || role == "admin" || role == "user-shadow";
    }
};

struct Node {
    std::uint16_t id = 0;
    bool dir = false;
    Bytes access;
    Bytes data;                   // a file's content: its size is the file's
    std::vector<Node> children;   // directories only, in creation order
    std::vector<PinObject> pins;  // directories only

    Node* child(std::uint16_t childId);
    const Node* child(std::uint16_t childId) const;
    PinObject* pin(unsigned char pinId);
    const PinObject* pin(unsigned char pinId) const;
    // A right that the access bytes do not reach is never granted.
    unsigned char right(std::size_t position) const {
        return position < access.size() ? access[position] : right::kNever;
    }
};

// Memory a node takes beside its content.
constexpr std::size_t kNodeOverhead = 32;

// Access bytes as the host writes them. Files: read, update, delete (never),
// then four more rights that follow update. Directories: create inside,
// delete (never), then six more that follow create.
Bytes fileAccess(unsigned char read, unsigned char update);
Bytes dirAccess(unsigned char create);
Node makeDir(std::uint16_t id, Bytes access);
Node makeFile(std::uint16_t id, Bytes access, Bytes data);

// A private key the card keeps. The plain layout names it by the key
// reference R in the first byte of its key file, the FIPS layout by its key
// directory 3xxx in 6666 5000 0220.
struct ProKey {
    unsigned char reference = 0;  // 0 in the FIPS layout
    std::uint16_t directory = 0;  // 0 in the plain layout
    std::string id;               // the container
    Bytes privateKey;             // PKCS#8 DER: kept in the state, no command reads it
};

struct ProState {
    Model model = Model::Pro42;
    bool fips = false;
    Bytes id;  // 4 bytes
    // GET DATA 0x0183; the host sends 80 10 00 00 when it reads 0x10.
    unsigned char lifeCycle = 0x10;
    Node mf;
    std::vector<ProKey> keys;
    // PINs every session starts with verified, and keeps: lets tests and
    // developers write where a PIN is needed before logging in is possible.
    std::vector<unsigned char> assumeVerified;
    Faults faults;

    const ModelInfo& info() const { return modelInfo(model); }
    std::size_t memoryTotal() const { return info().memoryKb * 1024; }
    std::size_t memoryUsed() const;
    // The home of relative paths: 6666, or 6666 5000 on a FIPS token.
    Path home() const;
    // The counter file, whose first 20 bytes salt the FIPS keys.
    Path counterFile() const;
    // The salt as the counter file holds it now (empty without the file).
    Bytes salt() const;
    // The key a PIN object of this token holds for `pin`: unsalted outside
    // the FIPS layout, else salted for the object's role.
    Bytes pinKey(const PinObject& object, const std::string& pin) const;

    // A node by its path below the master file (empty: the master file).
    Node* find(const Path& path);
    const Node* find(const Path& path) const;
};

struct Personalisation {
    Model model = Model::Pro42;
    bool fips = false;
    std::string label;  // UTF-8, at most 32 bytes
    std::string userPin = "1234567890";
    std::optional<std::string> adminPin;  // plain layout only
    std::optional<Bytes> id;              // 4 bytes; random if not given
    unsigned char colour = 0;
};

// A fresh token: the file tree, PIN objects and files the host expects.
// Throws std::invalid_argument on a label above 32 bytes, an empty PIN, an
// identifier that is not 4 bytes, or an administrator PIN on a FIPS token.
ProState personalise(const Personalisation& p);

// The stored form. fromJson throws std::invalid_argument naming the fault.
std::string toJsonText(const ProState& state);
ProState fromJsonText(std::string_view text);

// A developer's view of the card: tree, sizes, access, PIN objects.
std::string describe(const ProState& state);

}  // namespace vtoken::pro
