// Pieces of the stored card state shared by all dialects: hex fields, the
// fault knobs, and the atomic write of a state file.
#pragma once

#include "core/bytes.h"
#include "core/faults.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace vtoken {

// Throws std::invalid_argument naming `what` unless `value` is a string of
// hex bytes (of exactly `size` bytes, if given).
Bytes hexField(const nlohmann::ordered_json& value, const char* what, int size = -1);

// The JSON object of a state file of `dialect` ("pro", "r2"); throws
// std::invalid_argument for text that is not JSON or another dialect's state.
nlohmann::ordered_json parseStateText(std::string_view text, const char* dialect);

// The unsigned number `j[key]`, between `min` and `max`; `otherwise` when
// the key is absent, if given. Throws std::invalid_argument naming `key`.
unsigned long numberField(const nlohmann::ordered_json& j, const char* key, unsigned long min,
                          unsigned long max, std::optional<unsigned long> otherwise = std::nullopt);

nlohmann::ordered_json faultsToJson(const Faults& faults);
Faults faultsFromJson(const nlohmann::ordered_json& value);

// Reads a whole file; throws std::runtime_error if it cannot.
std::string readTextFile(const std::string& path);
// Writes a temporary file beside `path` and renames it over `path`, so a
// reader sees the old state or the new one, never half of one. Throws
// std::runtime_error.
void writeFileAtomically(const std::string& path, const std::string& text);

}  // namespace vtoken
