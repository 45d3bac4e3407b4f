#include "core/random.h"

#include <openssl/rand.h>

#include <stdexcept>

namespace vtoken {

Bytes randomBytes(std::size_t n) {
    Bytes out(n);
    if (n && RAND_bytes(out.data(), static_cast<int>(n)) != 1)
        throw std::runtime_error("no random bytes from OpenSSL");
    return out;
}

}  // namespace vtoken
