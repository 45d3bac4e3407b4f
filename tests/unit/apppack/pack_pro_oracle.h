// Expected bytes of the Pro secure messaging and PIN keys, from OpenSSL only,
// and an applet whose pack and label slots a test can fill.
#pragma once

#include <openssl/pkcs12.h>

#include <string>

#include "unit/crypto/oracle.h"
#include "unit/scripted_sender.h"

namespace pro_oracle {

inline TBytes cat(std::initializer_list<TBytes> parts) {
    TBytes out;
    for (const TBytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Zeros to the next block boundary, a whole block when already aligned.
inline TBytes fill(TBytes m) {
    m.insert(m.end(), 8 - m.size() % 8, 0);
    return m;
}

// Triple DES CBC, zero IV, 0x80 padding.
inline TBytes smEncrypt(const TBytes& key, const TBytes& data) {
    return oracle::evp("DES-EDE3-CBC", key, TBytes(8, 0), oracle::isoPad(data), true);
}

// The wrapped form of a command with `header` (class byte as sent by the
// caller) and `data`, under MAC key `k1` and encryption key `k3`.
inline TBytes smCommand(const TBytes& k1, const TBytes& k3, TBytes header, const TBytes& data) {
    header[0] |= 0x0C;
    const TBytes c = smEncrypt(k3, data);
    const TBytes d = cat({{0x87, static_cast<unsigned char>(c.size() + 1), 0x01}, c});
    const TBytes m = fill(cat({fill(cat({fill(header), d})), {0x97, 0x01, 0xFF}}));
    const TBytes mac = oracle::retailMac(k1, m);
    return cat({header,
                {static_cast<unsigned char>(d.size() + 13)},
                d,
                {0x97, 0x01, 0xFF, 0x8E, 0x08},
                mac,
                {0xFF}});
}

// A protected answer to the command whose wrapped header is `sent`.
inline TBytes smAnswer(const TBytes& k1, const TBytes& k3, const TBytes& sent, const TBytes& plain,
                       unsigned short sw, unsigned char indicator = 0x01) {
    const TBytes value = cat({{indicator}, smEncrypt(k3, plain)});
    const TBytes head(sent.begin(), sent.begin() + 4);
    const TBytes object = cat({{0x87, static_cast<unsigned char>(value.size())}, value});
    const TBytes mac = oracle::retailMac(k1, oracle::zeroPad(cat({head, TBytes(4, 0), object})));
    return cat({object,
                {0x8E, 0x08},
                mac,
                {static_cast<unsigned char>(sw >> 8), static_cast<unsigned char>(sw)}});
}

// The unsalted PIN key: bit 7i+j of MD5(00 || pin) || MD5(01 || pin), low
// bit first, is bit j of byte i.
inline TBytes plainKey(const TBytes& pin) {
    const TBytes b =
        cat({oracle::digest("MD5", cat({{0x00}, pin})), oracle::digest("MD5", cat({{0x01}, pin}))});
    TBytes out(24, 0);
    for (int n = 0; n < 24 * 7; ++n)
        if (b[n / 8] >> (n % 8) & 1) out[n / 7] |= static_cast<unsigned char>(1 << (n % 7));
    return out;
}

// PKCS #12 key, SHA-1, 999 rounds, over the PIN as 16-bit big-endian units.
inline TBytes saltedKey(int id, const TBytes& pin, TBytes salt) {
    TBytes unicode;
    for (unsigned char c : pin) unicode.insert(unicode.end(), {0x00, c});
    unicode.insert(unicode.end(), {0x00, 0x00});
    TBytes out(24);
    PKCS12_key_gen_uni(unicode.data(), static_cast<int>(unicode.size()), salt.data(),
                       static_cast<int>(salt.size()), id, 999, 24, out.data(), EVP_sha1());
    return out;
}

// The answer to an 8-byte challenge: one triple DES block.
inline TBytes challengeMac(const TBytes& key, const TBytes& challenge) {
    return oracle::evp("DES-EDE3-ECB", key, {}, challenge, true);
}

inline std::string hexOf(const TBytes& b) { return krfs_test::toHex(b); }

}  // namespace pro_oracle

namespace krfs_test {

// ScriptedApplet with the pack and label slots as well.
class ProTestApplet : public ScriptedApplet {
public:
    using ScriptedApplet::ScriptedApplet;
    template <class T>
    T* installPack() {
        T* d = new T(this);
        pack_.reset(d);
        return d;
    }
    template <class T>
    T* installLabel() {
        T* d = new T(this);
        label_.reset(d);
        return d;
    }
};

// File control data: a file of `size` bytes (both size tags, for CFSPro and
// CFSPro4), and a directory.
inline std::string fileFcp(unsigned size) {
    char b[64];
    std::snprintf(b, sizeof b, "6F 0B 82 01 01 81 02 %02X %02X 80 02 %02X %02X 90 00", size >> 8,
                  size & 0xFF, size >> 8, size & 0xFF);
    return b;
}
inline const std::string kDirFcp = "6F 03 82 01 38 90 00";

}  // namespace krfs_test
