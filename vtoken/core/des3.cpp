#include "core/des3.h"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

namespace vtoken {

namespace {

using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

}  // namespace

Bytes des3Key(const Bytes& key) {
    Bytes full = key;
    if (full.size() == 16) full.insert(full.end(), key.begin(), key.begin() + kDesBlock);
    return full;
}

Bytes des3(Des3Mode mode, bool encrypt, const Bytes& key, const Bytes& iv, const Bytes& data) {
    if (data.size() % kDesBlock != 0) throw std::invalid_argument("triple DES: partial block");
    const Bytes full = des3Key(key);
    if (full.size() != 24) throw std::invalid_argument("triple DES: key of 16 or 24 bytes");
    if (mode == Des3Mode::kCbc && iv.size() != kDesBlock)
        throw std::invalid_argument("triple DES CBC: an 8-byte IV");
    const EVP_CIPHER* cipher = mode == Des3Mode::kCbc ? EVP_des_ede3_cbc() : EVP_des_ede3_ecb();
    CipherCtx ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    Bytes out(data.size() + kDesBlock);
    int n = 0, last = 0;
    if (!ctx ||
        EVP_CipherInit_ex(ctx.get(), cipher, nullptr, full.data(),
                          mode == Des3Mode::kCbc ? iv.data() : nullptr, encrypt) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
        EVP_CipherUpdate(ctx.get(), out.data(), &n, data.data(), static_cast<int>(data.size())) !=
            1 ||
        EVP_CipherFinal_ex(ctx.get(), out.data() + n, &last) != 1)
        throw std::runtime_error("triple DES failed in OpenSSL");
    out.resize(static_cast<std::size_t>(n + last));
    return out;
}

Bytes pad80(const Bytes& data) {
    Bytes out = data;
    out.push_back(0x80);
    while (out.size() % kDesBlock != 0) out.push_back(0x00);
    return out;
}

Bytes des3CbcPadded(const Bytes& key, const Bytes& iv, const Bytes& data) {
    return des3(Des3Mode::kCbc, true, key, iv, pad80(data));
}

std::optional<Bytes> des3CbcUnpadded(const Bytes& key, const Bytes& iv, const Bytes& cipher) {
    if (cipher.empty() || cipher.size() % kDesBlock != 0) return std::nullopt;
    Bytes plain = des3(Des3Mode::kCbc, false, key, iv, cipher);
    const std::size_t size = plain.size();
    while (!plain.empty() && plain.back() == 0x00) plain.pop_back();
    // The padding lies in the last block.
    if (plain.empty() || plain.back() != 0x80 || size - plain.size() >= kDesBlock)
        return std::nullopt;
    plain.pop_back();
    return plain;
}

}  // namespace vtoken
