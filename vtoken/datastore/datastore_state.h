// What the DataStore applet keeps across sessions: identity, memory, the
// label, three PINs with their counters, the pool of numbered records and
// the fault knobs. The session (logins, the update buffer) lives in the
// applet.
#pragma once

#include "core/bytes.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtoken::datastore {

// A0 00 00 04 48 00 03 01.
const Bytes& aid();

// Memory a record takes beside its content.
constexpr std::size_t kRecordCost = 16;
constexpr std::size_t kLabelMax = 32;
constexpr std::size_t kIdSize = 8;
constexpr std::size_t kVersionSize = 3;
// Record numbers the card hands out: 0 and FFFF stay unused.
constexpr std::uint16_t kFirstNumber = 0x0001;
constexpr std::uint16_t kLastNumber = 0xFFFE;

struct Record {
    std::uint16_t number = 0;
    std::uint16_t label = 0;
    unsigned char flags = 0;  // not 0: private, the content needs the user PIN
    Bytes content;

    bool isPrivate() const { return flags != 0; }
    std::size_t cost() const { return kRecordCost + content.size(); }
};

// The card keeps the PIN itself and compares what login sends.
struct Pin {
    Bytes value;
    unsigned char wrong = 0;  // wrong attempts since the last right one
    unsigned char total = 10;
    unsigned char minLength = 4;
    unsigned char maxLength = 16;

    bool blocked() const { return wrong >= total; }
};

// PINs 1 (user), 2 (administrator), 3 (global); the wire names them 0 to 2.
enum PinRef : std::size_t { kUserPin = 0, kAdminPin = 1, kGlobalPin = 2 };
constexpr std::size_t kPinCount = 3;

struct DataStoreState {
    Bytes version{0x01, 0x00, 0x00};
    Bytes id = Bytes(kIdSize, 0x00);
    std::size_t capacity = 32768;
    Bytes label;  // at most 32 bytes
    std::array<Pin, kPinCount> pins;
    std::vector<Record> records;  // in number order, numbers unique

    // Fault knobs, counted down as they act.
    // The next this many begin-updates answer 6F00.
    unsigned refuseBegin = 0;
    // After this many more finishes succeed, the command after the last of
    // them finds the card gone.
    unsigned cutPowerAfterFinish = 0;
    // The last counted finish has happened: the next command meets no card.
    bool cutPowerPending = false;

    std::size_t used() const;
    // Capacity less 16 plus the content size of every record; never below 0.
    std::size_t freeMemory() const;
    Record* find(std::uint16_t number);
    const Record* find(std::uint16_t number) const;
    // The smallest number not in use, or nothing when all are.
    std::optional<std::uint16_t> freeNumber() const;
    // Keeps the number order.
    void insert(Record record);
};

struct Personalisation {
    std::string userPin = "12345678";
    std::string adminPin = "87654321";
    std::string globalPin = "11111111";
    unsigned pinTries = 10;  // 1 to 15, all three PINs
    unsigned pinMin = 4;
    unsigned pinMax = 16;
    std::string label;
    std::optional<Bytes> id;  // 8 bytes; random if not given
    std::size_t memory = 32768;
};

// The largest capacity the card takes; the status record caps what it
// shows at 65535.
constexpr std::size_t kMemoryMax = 1 << 20;
constexpr unsigned kPinTriesMax = 15;
constexpr unsigned kPinLengthMax = 64;

// A fresh card. Throws std::invalid_argument for values out of range.
DataStoreState personalise(const Personalisation& p);

// The stored form; fromJson throws std::invalid_argument naming the fault.
nlohmann::ordered_json toJson(const DataStoreState& s);
DataStoreState fromJson(const nlohmann::ordered_json& j);

// Identity, memory, PINs, label, records, and the two trees the host reads
// out of the records.
std::string describe(const DataStoreState& s);

}  // namespace vtoken::datastore
