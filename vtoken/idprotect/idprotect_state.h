// What the IDProtect applet keeps across sessions: an ISO file tree under
// 3F00 with file control parameters and access conditions, the PIN objects
// beside it with their retry counters, the identity and the memory. The
// session (selection, verified PINs, key exchange) lives in IdprotectApplet.
#pragma once

#include "core/bytes.h"
#include "core/rsa_key.h"
#include "core/tree.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vtoken::idprotect {

const Bytes& aid();
// The ATR of an IDProtect token.
const Bytes& atr();

constexpr std::uint16_t kMf = 0x3F00;
// The application's home, where the host keeps its named directories.
const Path& homePath();
// The information file: the label in its first 32 bytes, blank padded, and
// the version byte that the host checks.
const Path& infoPath();
constexpr std::size_t kInfoSize = 128;
constexpr std::size_t kInfoVersionAt = 97;
constexpr std::size_t kLabelSize = 32;

// Access conditions: 00 always, FF never, anything else the PIN object that
// must be verified. A directory's first condition guards creating in it, its
// second deleting it; a file's are read, update, (unused), delete.
constexpr unsigned char kFree = 0x00;
constexpr unsigned char kNever = 0xFF;
enum Condition : std::size_t {
    kDirCreate = 0,
    kDirDelete = 1,
    kRead = 0,
    kUpdate = 1,
    kDelete = 3
};

// PIN objects, all directly under 3F00.
constexpr std::uint16_t kAdminPin = 0x0010;
constexpr std::uint16_t kUserPin = 0x0020;
// The kinds that the control parameters carry.
constexpr unsigned char kKindUser = 0x00;
constexpr unsigned char kKindAdmin = 0x01;
// A login object: it names how the user logs in, and stands for the user PIN.
constexpr unsigned char kKindLogin = 0x0F;
constexpr std::size_t kPinMin = 4;
constexpr std::size_t kPinMax = 16;
// Tries left and total share one byte of the control parameters.
constexpr unsigned kTriesMax = 15;

// Login types; a login type other than a plain PIN is a login object of that
// identifier.
constexpr unsigned char kLoginPin = 0x20;
constexpr unsigned char kLoginFinger = 0x23;
constexpr unsigned char kLoginPinOrFinger = 0x24;
constexpr unsigned char kLoginPinAndFinger = 0x25;

// The fingerprint object: always there, answering the fingerprint tries in
// its control parameters. For login type 0x23 it is the user's object.
constexpr std::uint16_t kFingerObject = 0x0023;
// Fingers by their position, 1 (right thumb) to 10 (left little finger).
constexpr unsigned kFingerMin = 1;
constexpr unsigned kFingerMax = 10;
constexpr std::size_t kTemplateMax = 2048;
constexpr std::size_t kTicketKeySize = 16;
constexpr std::size_t kReferenceSize = 4;

constexpr std::size_t kDirNameMax = 16;

// RSA keys below 3F00 3000: in 3002 the private key 02nn (PKCS#8 DER that no
// command reads) and its companion file (nn | 40) + 1 holding the modulus,
// whose size tells the host the key's length; in 3001 the certificate 84mm,
// mm = nn without bit 40: 125 zero bytes, the DER's length in two bytes, the
// DER. A certificate without a key has bit 40 of mm set.
constexpr std::uint16_t kSystemDir = 0x3000;
constexpr std::uint16_t kCertificateDir = 0x3001;
constexpr std::uint16_t kKeyDir = 0x3002;
constexpr std::size_t kCertificateHeader = 125;

// `access` is the value of tag 86 as created: pairs of 00 and a condition. A
// file's content is fixed at the size created.
struct Node : TreeNode<Node> {
    Bytes name;  // directories: the DF name, up to 16 bytes

    // The condition at `index`; never, if the node was created without it.
    unsigned char condition(std::size_t index) const;
};

struct PinObject {
    std::uint16_t id = 0;
    unsigned char kind = kKindUser;
    Bytes value;  // empty for a login object
    unsigned char triesLeft = 0;
};

// An enrolled finger: a capture matches when it equals the template, and a
// ticket proves the finger by the card's challenge under the ticket key.
struct Finger {
    unsigned char number = 0;
    Bytes templ;
    Bytes ticketKey;

    // The 4 bytes a ticket names the finger by: its number, big-endian.
    Bytes reference() const;
    // What the card hands out about the finger: SHA-256 of the template.
    Bytes publicData() const;
};

struct IdprotectState {
    Bytes version{0x01, 0x08, 0x00, 0x04};
    Bytes id = Bytes(8, 0x00);
    std::size_t memory = 65536;
    unsigned char triesTotal = 10;
    unsigned char loginType = kLoginPin;
    Node root;
    std::vector<PinObject> pins;
    std::vector<Finger> fingers;  // by number
    unsigned char fingerTriesLeft = 10;

    // Null if the path does not lead to a node; the path begins after 3F00.
    Node* find(const Path& below);
    PinObject* pin(std::uint16_t id);
    // The PIN whose value and counter a PIN object uses.
    PinObject* owner(std::uint16_t id);
    const Finger* finger(unsigned number) const;
    std::size_t memoryFree() const;
};

struct Personalisation {
    std::string userPin = "12345678";   // 4 to 16 bytes
    std::string adminPin = "87654321";  // 4 to 16 bytes
    unsigned triesTotal = 10;           // 1 to 15
    unsigned loginType = kLoginPin;     // 20, 23, 24 or 25
    std::string label;                  // at most 32 seven-bit bytes
    std::optional<Bytes> id;            // 8 bytes; random if not given
    std::size_t memory = 65536;
    unsigned infoVersion = 4;
    // Finger number and template; each gets a fresh ticket key.
    std::vector<std::pair<unsigned, Bytes>> fingers;
};

// A fresh token: MF, the PIN objects, 3000 with the information file and
// 3002 with the home. Throws std::invalid_argument for a value out of range.
IdprotectState personalise(const Personalisation& p);

// `krfs-vtoken add-key`: the key with the lowest free nn from 01 and its
// certificate, or with an empty private key the certificate alone (mm from
// 41), making 3001 if missing. Throws std::runtime_error when no identifier
// is free or the memory is short, leaving the state as it was.
void addKey(IdprotectState& state, const RsaKey& key);

// The private key whose companion file is at `below` (after 3F00), or null.
const Bytes* keyOfCompanion(IdprotectState& state, const Path& below);

// The stored form; fromJson throws std::invalid_argument naming the fault.
nlohmann::ordered_json toJson(const IdprotectState& state);
IdprotectState fromJson(const nlohmann::ordered_json& j);

// Identity, memory, PINs, the real tree with directory names, and the
// logical tree that the names spell below the home.
std::string describe(const IdprotectState& state);

// The identifiers a directory name holds: low byte first, trailing zeros
// dropped.
Path nameToPath(const Bytes& name);

}  // namespace vtoken::idprotect
