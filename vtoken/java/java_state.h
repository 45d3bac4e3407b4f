// What the Java and Joker file-system applets keep across sessions: the
// emulated file tree under 3F00 with its access bytes, the PIN objects with
// their five key slots and retry counters, the FIPS flag, the change marker
// and the values of the information query. The session (current node,
// verified PINs, challenges) lives in JavaApplet.
#pragma once

#include "core/bytes.h"
#include "core/rsa_key.h"
#include "core/tree.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vtoken::java {

constexpr std::uint16_t kMf = 0x3F00;
constexpr std::uint16_t kApplicationDir = 0x6666;
constexpr std::uint16_t kHomeDir = 0x5000;
// Files of the home at init: the label, the FIPS mark, the PIN salt.
constexpr std::uint16_t kLabelFile = 0x0002;
constexpr std::uint16_t kFipsFile = 0x000A;
constexpr std::uint16_t kSaltFile = 0x000F;
constexpr std::size_t kLabelMax = 32;
constexpr std::size_t kSaltSize = 20;

// Where the host looks for certificates and private keys: a directory 1xxx
// for each certificate (0002 the DER, 0001 its attributes) and 3xxx for each
// key (0001 its attributes), below 3F00.
const Path& keysHome();
constexpr std::uint16_t kAttributesFile = 0x0001;
constexpr std::uint16_t kCertificateFile = 0x0002;
// The key object of a key directory, as the key query and decipher name it.
constexpr unsigned char kKeyObject = 0x31;
// The key query's kind byte for an RSA private key, and its size flag for a
// 2048-bit modulus.
constexpr unsigned char kRsaKeyKind = 0x05;
constexpr unsigned char kRsa2048 = 0x04;
inline unsigned char sizeFlag(std::size_t modulusBytes) {
    return modulusBytes == 256 ? kRsa2048 : 0x00;
}

// PIN objects; the shadow of the user PIN exists on a FIPS token only.
constexpr unsigned char kUserPin = 0x11;
constexpr unsigned char kShadowPin = 0x1A;
constexpr unsigned char kAdminPin = 0x21;
constexpr std::size_t kSlots = 5;
constexpr std::size_t kKeySize = 24;
constexpr unsigned kTriesMax = 15;

// Access bytes name the PIN that must be verified, 00 none. A file's first
// governs reading, its second writing, resizing and deleting; a directory's
// first governs creating and deleting inside it.
constexpr std::size_t kAccessSize = 5;
constexpr unsigned char kFree = 0x00;
enum AccessIndex : std::size_t { kRead = 0, kWrite = 1, kInside = 0 };

struct Node : TreeNode<Node> {
    Node() { access = Bytes(kAccessSize, kFree); }
};

struct PinObject {
    unsigned char id = 0;
    unsigned char triesTotal = 10;
    unsigned char triesLeft = 10;
    // Slot 0 answers the login; slots 1 to 4 key secure messaging. An empty
    // slot holds no key.
    std::array<Bytes, kSlots> slots;
};

struct Information {
    Bytes id;
    Bytes date;
    unsigned char colour = 1;
    Bytes version{0x01, 0x00};
};

struct JavaState {
    bool fips = false;
    Bytes marker;  // the last change marker, 16 bytes, or none yet
    std::size_t memory = 32768;
    Information info;
    std::vector<PinObject> pins;
    Node root;
    // Private keys, PKCS#8 DER, by the identifier of their directory in
    // keysHome(). No command reads them.
    std::map<std::uint16_t, Bytes> keys;

    // Null if the path (below 3F00) does not lead to a node.
    Node* find(const Path& below);
    PinObject* pin(unsigned char id);
    std::size_t memoryFree() const;
};

struct Personalisation {
    std::string userPin = "12345678";
    std::string adminPin = "87654321";
    unsigned triesTotal = 10;  // 1 to 15
    bool fips = false;
    std::string label = "krFS Java";  // at most 32 bytes
    std::optional<Bytes> id;          // 8 random bytes if not given
    std::size_t memory = 32768;
    unsigned colour = 1;
    Bytes version{0x01, 0x00};
    std::optional<Bytes> date;  // today in BCD (YY YY MM DD) if not given
};

// A fresh token: 3F00, 6666, 5000 with the label, FIPS and salt files, the
// PIN objects keyed from the PINs and a new salt. Throws
// std::invalid_argument for a value out of range.
JavaState personalise(const Personalisation& p);

// `krfs-vtoken add-key`: a certificate directory (the next free from 1001)
// and, unless the private key is empty, a key directory (from 3001) under
// keysHome(), creating the directories on the way as the host would.
// Attributes are fields of tag, length and value: the certificate's 01
// class 01, 02 modulus bits, 03 the id; the key's a 6-byte header (kind 05,
// size flag, modulus bits, 00 00) and class 03, bits, id. Throws
// std::runtime_error for an id above 255 bytes, no free identifier or no
// memory, leaving the state as it was.
void addKey(JavaState& state, const RsaKey& key, const std::string& id);

// The stored form; fromJson throws std::invalid_argument naming the fault.
nlohmann::ordered_json toJson(const JavaState& state);
JavaState fromJson(const nlohmann::ordered_json& j);

// Information, memory, FIPS, marker, PIN objects (counters and which slots
// hold keys, never the keys), certificates and private keys (size, never the
// key) and the tree.
std::string describe(const JavaState& state);

}  // namespace vtoken::java
