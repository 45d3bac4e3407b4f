// The least a certificate needs for its public key to be read, for the key drivers' tests.
#pragma once

#include "unit/scripted_sender.h"

namespace krfs_test {

// A DER element: tag, short or long length, value.
inline TBytes der(unsigned char tag, const TBytes& value) {
    TBytes out{tag};
    const std::size_t n = value.size();
    if (n > 0xFF)
        out << 0x82 << static_cast<unsigned char>(n >> 8);
    else if (n > 0x7F)
        out << 0x81;
    out << static_cast<unsigned char>(n) << value;
    return out;
}
// Four empty fields, then the key: a modulus of `n` bytes `fill`.
inline TBytes certificate(unsigned char fill, std::size_t n = 128) {
    const TBytes modulus = der(0x02, cat({{0}, TBytes(n, fill)}));
    const TBytes key = der(0x30, cat({hex("3000"), der(0x03, cat({{0}, der(0x30, modulus)}))}));
    return der(0x30, der(0x30, cat({hex("3000 3000 3000 3000"), key})));
}

}  // namespace krfs_test
