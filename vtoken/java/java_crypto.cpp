#include "java/java_crypto.h"

#include "pro/pro_crypto.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>
#include <stdexcept>

namespace vtoken::java {

namespace {

using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

Bytes des3Cbc(bool encrypt, const Bytes& key, const Bytes& iv, const Bytes& data) {
    if (key.size() != 24 || iv.size() != kBlock || data.size() % kBlock != 0)
        throw std::invalid_argument("triple DES CBC: a 24-byte key, an 8-byte IV, whole blocks");
    CipherCtx ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    Bytes out(data.size() + kBlock);
    int n = 0, last = 0;
    if (!ctx ||
        EVP_CipherInit_ex(ctx.get(), EVP_des_ede3_cbc(), nullptr, key.data(), iv.data(), encrypt) !=
            1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
        EVP_CipherUpdate(ctx.get(), out.data(), &n, data.data(), static_cast<int>(data.size())) !=
            1 ||
        EVP_CipherFinal_ex(ctx.get(), out.data() + n, &last) != 1)
        throw std::runtime_error("triple DES failed in OpenSSL");
    out.resize(static_cast<std::size_t>(n + last));
    return out;
}

Bytes padded(const Bytes& data) {
    Bytes out = data;
    out.push_back(0x80);
    while (out.size() % kBlock != 0) out.push_back(0x00);
    return out;
}

}  // namespace

Bytes randomBytes(std::size_t n) {
    Bytes out(n);
    if (n && RAND_bytes(out.data(), static_cast<int>(n)) != 1)
        throw std::runtime_error("no random bytes from OpenSSL");
    return out;
}

Bytes pinKey(unsigned char number, const std::string& pin, const Bytes& salt) {
    return pro::saltedKey(number, pin, salt);
}

Bytes adminKey(const std::string& pin) { return pro::md5Key(pin); }

Bytes loginAnswer(const Bytes& key, const Bytes& challenge) {
    return pro::des3Encrypt(key, challenge);
}

Bytes smEncrypt(const Bytes& key, const Bytes& iv, const Bytes& data) {
    return des3Cbc(true, key, iv, padded(data));
}

std::optional<Bytes> smDecrypt(const Bytes& key, const Bytes& iv, const Bytes& cipher) {
    if (cipher.empty() || cipher.size() % kBlock != 0) return std::nullopt;
    Bytes plain = des3Cbc(false, key, iv, cipher);
    const std::size_t size = plain.size();
    while (!plain.empty() && plain.back() == 0x00) plain.pop_back();
    // The padding lies in the last block.
    if (plain.empty() || plain.back() != 0x80 || size - plain.size() >= kBlock) return std::nullopt;
    plain.pop_back();
    return plain;
}

Bytes smMac(const Bytes& key, const Bytes& data) {
    const Bytes chain = des3Cbc(true, key, Bytes(kBlock, 0x00), padded(data));
    return Bytes(chain.end() - kBlock, chain.end());
}

}  // namespace vtoken::java
