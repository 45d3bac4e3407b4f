// The Java secure messaging as a card checks it, from OpenSSL only: triple DES
// CBC over data padded with 0x80, its last block as the MAC, and a command
// wrapped under the session keys.
#pragma once

#include <vector>

#include "libapdu/apdu.h"
#include "unit/oracle.h"

namespace oracle::java {

using Keys = std::vector<TBytes>;
using uc = unsigned char;

inline TBytes cbc(const TBytes& key, const TBytes& iv, const TBytes& data) {
    return evp("DES-EDE3-CBC", key, iv, isoPad(data), true);
}
inline TBytes mac(const TBytes& key, const TBytes& data) {
    const TBytes c = cbc(key, TBytes(8, 0), data);
    return TBytes(c.end() - 8, c.end());
}
inline TBytes withLength(const TBytes& head, std::size_t n, uc escape) {
    return n > 254 ? cat({head, {escape, uc(n >> 8), uc(n)}}) : cat({head, {uc(n)}});
}
// `apdu` wrapped under keys `k` with the card's challenge `c`, `iv` and the
// host challenge `h`: the MAC covers the command and c with its last byte plus one.
inline TBytes wrapped(const Keys& k, TBytes c, const TBytes& apdu, const TBytes& iv,
                      const TBytes& h) {
    TBytes header, data;
    unsigned short le = 0;
    libapdu::IAPDUDefinitions::parse_capdu(apdu, header, data, le);
    header[0] |= 0x04, ++c[7];
    const TBytes e = cbc(k[1], iv, data);
    const TBytes body =
        cat({withLength({0x32}, e.size(), 0xFF), e, {0x22, 8}, iv, {0x34, 2, 1, 0x3E, 0x33, 8}, h});
    const TBytes head = cat({withLength(header, body.size() + 10, 0x00), body, {0x0D, 8}});
    return cat({head, mac(k[2], cat({head, c})), {uc((le + 0x20) >> 8), uc(le + 0x20)}});
}

}  // namespace oracle::java
