// What the Gost applet keeps across sessions: an object store of numbered
// objects, each a type byte and a bag of attributes, two PINs with their
// wrong-attempt counters, a label, an identity and a memory capacity. The
// session (who is logged in) lives in GostApplet.
#pragma once

#include "core/bytes.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtoken::gost {

const Bytes& aid();

// Object types: the host's data objects, and the card's own system objects
// it lists beside them.
constexpr unsigned char kTypePin = 0x01;
constexpr unsigned char kTypeLabel = 0x02;
constexpr unsigned char kTypeData = 0x04;

// The attributes the host gives its data objects.
constexpr std::uint32_t kAttrPrivate = 0x00000002;     // 01: value hidden without login
constexpr std::uint32_t kAttrValue = 0x00000011;       // a file's content
constexpr std::uint32_t kAttrSize = 0x00000161;        // the file's size, big endian
constexpr std::uint32_t kAttrPath = 0x8000F11E;        // the path, identifiers low byte first
constexpr std::uint32_t kAttrDataObject = 0x8000BADA;  // a private file's data object, LE

constexpr std::uint16_t kFirstHandle = 0x0100;
// Bytes an object and an attribute take from memory beside the values.
constexpr std::size_t kObjectCost = 32;
constexpr std::size_t kAttributeCost = 8;
// The longest attribute value: a file of 0x4000 bytes and some room.
constexpr std::size_t kValueMax = 0x4010;
// A list of objects answers in one short response: 3 bytes of head, 3 per object.
constexpr std::size_t kObjectsMax = 84;

constexpr std::size_t kPinMax = 32;
constexpr std::size_t kLabelMax = 32;
// The PIN references of login and change.
constexpr unsigned char kRefAdmin = 0;
constexpr unsigned char kRefUser = 1;

struct Attribute {
    std::uint32_t id = 0;
    Bytes value;
};

struct Object {
    std::uint16_t handle = 0;
    unsigned char type = kTypeData;
    std::vector<Attribute> attributes;  // in the order first set

    Attribute* find(std::uint32_t id);
    const Attribute* find(std::uint32_t id) const;
    // Attribute 2 holds 01.
    bool isPrivate() const;
    bool isSystem() const { return type != kTypeData; }
    std::size_t cost() const;
};

struct Pin {
    Bytes value;
    unsigned char wrong = 0;  // wrong attempts since the last right one
};

struct GostState {
    Bytes version{0x01, 0x00, 0x00, 0x00};
    Bytes id = Bytes(8, 0x00);
    std::size_t memory = 61440;  // capacity
    unsigned char triesTotal = 10;
    Pin user;
    Pin admin;
    Bytes label;
    std::vector<Object> objects;  // in handle order

    std::size_t used() const;
    // Never below zero: setAtr and newFile refuse what would not fit.
    std::size_t memoryFree() const { return memory - std::min(used(), memory); }
    bool blocked(const Pin& pin) const { return pin.wrong >= triesTotal; }

    Object* find(std::uint16_t handle);
    const Object* find(std::uint16_t handle) const;
    // A new object with the smallest free handle; null if none is left or
    // the store is full. Does not test memory.
    Object* add(unsigned char type);
    void remove(std::uint16_t handle);
};

using Path = std::vector<std::uint16_t>;

struct Personalisation {
    struct File {
        Path path;  // begins with 3F00
        Bytes content;
        bool isPrivate = false;
    };
    std::string userPin = "12345678";   // 1 to 32 bytes
    std::string adminPin = "87654321";  // 1 to 32 bytes
    unsigned char triesTotal = 10;      // 1 to 255
    std::string label;                  // at most 32 bytes
    std::optional<Bytes> id;            // 8 bytes; random if not given
    std::size_t memory = 61440;
    std::vector<File> files;
};

// A fresh applet: the system objects (administrator PIN, user PIN, label),
// then each file made as the host makes one. Throws std::invalid_argument
// for a value out of range, a path given twice or under a file, or files
// that do not fit the memory.
GostState personalise(const Personalisation& p);

// "3F00/1000/0001" (3F00 put in front if missing); throws std::invalid_argument.
Path parsePath(const std::string& text);

// The stored form; fromJson throws std::invalid_argument naming the fault.
nlohmann::ordered_json toJson(const GostState& state);
GostState fromJson(const nlohmann::ordered_json& j);

// Identity, memory, PIN counters, label, objects, and the tree that the
// path attributes make.
std::string describe(const GostState& state);

}  // namespace vtoken::gost
