// Independent references for the crypto tests, built on OpenSSL's EVP layer.
// Single DES lives in OpenSSL 3's legacy provider, which is loaded here.
#pragma once

#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libapdu/types.h"

namespace oracle {

inline TBytes hex(const std::string& text) {
    TBytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return out;
}

inline TBytes random(size_t n) {
    TBytes out(n);
    if (n > 0) RAND_bytes(out.data(), static_cast<int>(n));
    return out;
}

// Loaded once, unloaded at exit so that the leak checker stays quiet.
struct Providers {
    OSSL_PROVIDER* base = OSSL_PROVIDER_load(nullptr, "default");
    OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    ~Providers() {
        if (legacy != nullptr) OSSL_PROVIDER_unload(legacy);
        if (base != nullptr) OSSL_PROVIDER_unload(base);
    }
};

inline void loadLegacy() {
    static Providers providers;
    ASSERT_NE(providers.legacy, nullptr) << "OpenSSL legacy provider (single DES) not available";
}

// A cipher over whole blocks with padding off. iv may be empty for ECB.
inline TBytes evp(const char* name, const TBytes& key, const TBytes& iv, const TBytes& data,
                  bool encrypt) {
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, name, nullptr);
    EXPECT_NE(cipher, nullptr) << name;
    if (cipher == nullptr) return {};
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    TBytes out(data.size() + 16);
    int n = 0, m = 0;
    EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv.empty() ? nullptr : iv.data(),
                      encrypt ? 1 : 0);
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

// One DES block, legacy provider.
inline TBytes des(const TBytes& key8, const TBytes& block, bool encrypt) {
    loadLegacy();
    return evp("DES-ECB", key8, {}, block, encrypt);
}

inline TBytes keyPart(const TBytes& key, int i) {
    const size_t at = (i == 2 && key.size() == 16) ? 0 : 8 * static_cast<size_t>(i);
    return TBytes(key.begin() + static_cast<long>(at), key.begin() + static_cast<long>(at) + 8);
}

// ISO/IEC 9797-1 MAC algorithm 3 over data already padded to whole blocks,
// composed from single-DES calls only.
inline TBytes retailMac(const TBytes& key, const TBytes& padded) {
    TBytes chain(8, 0);
    for (size_t i = 0; i < padded.size(); i += 8) {
        for (size_t k = 0; k < 8; ++k) chain[k] ^= padded[i + k];
        chain = des(keyPart(key, 0), chain, true);
    }
    chain = des(keyPart(key, 1), chain, false);
    return des(keyPart(key, 2), chain, true);
}

// Full triple DES CBC-MAC: the last block of the CBC encryption.
inline TBytes des3CbcMac(const TBytes& key, const TBytes& padded) {
    TBytes c =
        evp(key.size() == 16 ? "DES-EDE-CBC" : "DES-EDE3-CBC", key, TBytes(8, 0), padded, true);
    return TBytes(c.end() - 8, c.end());
}

inline TBytes isoPad(TBytes data) {
    data.push_back(0x80);
    while (data.size() % 8 != 0) data.push_back(0);
    return data;
}

inline TBytes zeroPad(TBytes data) {
    while (data.size() % 8 != 0) data.push_back(0);
    return data;
}

}  // namespace oracle
