// Random bytes for challenges, keys and identifiers, from OpenSSL.
#pragma once

#include "core/bytes.h"

#include <cstddef>

namespace vtoken {

// `n` bytes from OpenSSL's generator; throws std::runtime_error if it has none.
Bytes randomBytes(std::size_t n);

}  // namespace vtoken
