// Byte helpers, and references built on OpenSSL only: ciphers, digests, the
// retail MAC, PKCS #12, and the Pro PIN keys and secure messaging.
#pragma once

#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "libapdu/types.h"

namespace krfs_test {

// "00 A4 0A" or "00A40A"; spaces are ignored.
inline TBytes hex(const std::string& text) {
    TBytes out;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (text[i] != ' ') out.push_back(std::stoul(text.substr(i++, 2), nullptr, 16));
    return out;
}

inline std::string toHex(const TBytes& bytes) {
    std::string out;
    char b[4];
    for (unsigned char c : bytes) out += (std::snprintf(b, sizeof b, "%02X ", c), b);
    return out;
}

inline TBytes cat(std::initializer_list<TBytes> parts) {
    TBytes out;
    for (const TBytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

}  // namespace krfs_test

namespace oracle {

using krfs_test::cat;

inline TBytes random(size_t n) {
    TBytes out(n);
    if (n > 0) RAND_bytes(out.data(), static_cast<int>(n));
    return out;
}

// Single DES needs OpenSSL 3's legacy provider. Unloaded at exit so that the
// leak checker stays quiet.
struct Providers {
    OSSL_PROVIDER* base = OSSL_PROVIDER_load(nullptr, "default");
    OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    ~Providers() {
        if (legacy != nullptr) OSSL_PROVIDER_unload(legacy);
        if (base != nullptr) OSSL_PROVIDER_unload(base);
    }
};

// Whole blocks, padding off; iv empty for ECB.
inline TBytes evp(const char* name, const TBytes& key, const TBytes& iv, const TBytes& data,
                  bool encrypt) {
    static Providers providers;
    EXPECT_NE(providers.legacy, nullptr) << "OpenSSL legacy provider (single DES) not available";
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, name, nullptr);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    TBytes out(data.size() + 16);
    int n = 0, m = 0;
    EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv.empty() ? nullptr : iv.data(), encrypt);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &n, data.data(), static_cast<int>(data.size()));
    EVP_CipherFinal_ex(ctx, out.data() + n, &m);
    out.resize(static_cast<size_t>(n + m));
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
    return out;
}

inline TBytes digest(const char* name, const TBytes& data) {
    TBytes out(EVP_MAX_MD_SIZE);
    unsigned n = 0;
    EVP_Digest(data.data(), data.size(), out.data(), &n, EVP_get_digestbyname(name), nullptr);
    out.resize(n);
    return out;
}

// Zeros to a block boundary; ISO/IEC 9797-1 method 2 puts 0x80 first.
inline TBytes zeroPad(TBytes data) {
    data.resize((data.size() + 7) / 8 * 8, 0);
    return data;
}
inline TBytes isoPad(TBytes data) { return zeroPad(cat({data, {0x80}})); }

// ISO/IEC 9797-1 MAC algorithm 3 over whole blocks, from single DES only.
inline TBytes retailMac(const TBytes& key, const TBytes& padded) {
    auto part = [&](size_t i) {
        const size_t at = (i == 2 && key.size() == 16) ? 0 : 8 * i;
        return TBytes(key.begin() + at, key.begin() + at + 8);
    };
    TBytes chain(8, 0);
    for (size_t i = 0; i < padded.size(); i += 8) {
        for (size_t k = 0; k < 8; ++k) chain[k] ^= padded[i + k];
        chain = evp("DES-ECB", part(0), {}, chain, true);
    }
    return evp("DES-ECB", part(2), {}, evp("DES-ECB", part(1), {}, chain, false), true);
}

// The unsalted PIN key: bit 7i+j of MD5(00 || pin) || MD5(01 || pin), low bit
// first, is bit j of byte i.
inline TBytes plainKey(const TBytes& pin) {
    const TBytes b = cat({digest("MD5", cat({{0x00}, pin})), digest("MD5", cat({{0x01}, pin}))});
    TBytes out(24, 0);
    for (int n = 0; n < 24 * 7; ++n)
        if (b[n / 8] >> (n % 8) & 1) out[n / 7] |= static_cast<unsigned char>(1 << (n % 7));
    return out;
}

// PKCS #12 key derivation: SHA-1, 999 rounds, over the PIN as a BMPString.
inline TBytes saltedKey(int id, const TBytes& pin, const TBytes& salt) {
    TBytes bmp;
    for (unsigned char c : pin) bmp.insert(bmp.end(), {0x00, c});
    bmp.insert(bmp.end(), {0x00, 0x00});
    TBytes out(24);
    PKCS12_key_gen_uni(bmp.data(), static_cast<int>(bmp.size()),
                       const_cast<unsigned char*>(salt.data()), static_cast<int>(salt.size()), id,
                       999, 24, out.data(), EVP_sha1());
    return out;
}

// The answer to an 8-byte challenge: one triple DES block.
inline TBytes challengeMac(const TBytes& key, const TBytes& challenge) {
    return evp("DES-EDE3-ECB", key, {}, challenge, true);
}

// Pro secure messaging: triple DES CBC with a zero IV and 0x80 padding under
// `k3`, the retail MAC under `k1`. `header` is the class byte as sent.
inline TBytes smCommand(const TBytes& k1, const TBytes& k3, TBytes header, const TBytes& data) {
    header[0] |= 0x0C;
    const TBytes c = evp("DES-EDE3-CBC", k3, TBytes(8, 0), isoPad(data), true);
    const TBytes d = cat({{0x87, static_cast<unsigned char>(c.size() + 1), 0x01}, c});
    const TBytes mac = retailMac(
        k1, cat({zeroPad(cat({header, TBytes(4, 0), d})), {0x97, 0x01, 0xFF, 0, 0, 0, 0, 0}}));
    return cat({header,
                {static_cast<unsigned char>(d.size() + 13)},
                d,
                {0x97, 0x01, 0xFF, 0x8E, 0x08},
                mac,
                {0xFF}});
}

// A protected answer to the command whose wrapped header is `sent`: the 0x87
// object holding `value`, its MAC, and the status word.
inline TBytes smReply(const TBytes& k1, const TBytes& sent, const TBytes& value,
                      unsigned short sw) {
    const TBytes object = cat({{0x87, static_cast<unsigned char>(value.size())}, value});
    const TBytes mac =
        retailMac(k1, zeroPad(cat({TBytes(sent.begin(), sent.begin() + 4), TBytes(4, 0), object})));
    return cat({object,
                {0x8E, 0x08},
                mac,
                {static_cast<unsigned char>(sw >> 8), static_cast<unsigned char>(sw)}});
}

}  // namespace oracle
