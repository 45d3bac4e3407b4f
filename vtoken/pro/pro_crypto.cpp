#include "pro/pro_crypto.h"

#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/pkcs12.h>

#include <memory>
#include <stdexcept>

namespace vtoken::pro {

namespace {

constexpr int kPkcs12Rounds = 999;

using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

// Triple DES without padding: the callers pad themselves.
Bytes des3(const EVP_CIPHER* cipher, bool encrypt, const Bytes& key, const Bytes& data) {
    if (data.size() % kBlock != 0) throw std::invalid_argument("triple DES: partial block");
    Bytes full = key;
    if (full.size() == 16) full.insert(full.end(), key.begin(), key.begin() + 8);
    if (full.size() != 24) throw std::invalid_argument("triple DES: key of 16 or 24 bytes");
    CipherCtx ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    const unsigned char iv[kBlock] = {};
    Bytes out(data.size() + kBlock);
    int n = 0, last = 0;
    if (!ctx || EVP_CipherInit_ex(ctx.get(), cipher, nullptr, full.data(), iv, encrypt) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
        EVP_CipherUpdate(ctx.get(), out.data(), &n, data.data(), static_cast<int>(data.size())) !=
            1 ||
        EVP_CipherFinal_ex(ctx.get(), out.data() + n, &last) != 1)
        throw std::runtime_error("triple DES failed in OpenSSL");
    out.resize(static_cast<std::size_t>(n + last));
    return out;
}

Bytes md5(unsigned char counter, const std::string& pin) {
    Bytes in{counter};
    in.insert(in.end(), pin.begin(), pin.end());
    Bytes out(MD5_DIGEST_LENGTH);
    unsigned int n = 0;
    if (EVP_Digest(in.data(), in.size(), out.data(), &n, EVP_md5(), nullptr) != 1)
        throw std::runtime_error("MD5 failed in OpenSSL");
    return out;
}

}  // namespace

Bytes md5Key(const std::string& pin) {
    Bytes bits = md5(0x00, pin);
    const Bytes second = md5(0x01, pin);
    bits.insert(bits.end(), second.begin(), second.end());
    Bytes key(kPinKeySize, 0x00);
    for (std::size_t bit = 0; bit < 7 * kPinKeySize; ++bit)
        if (bits[bit / 8] >> (bit % 8) & 1)
            key[bit / 7] |= static_cast<unsigned char>(1 << bit % 7);
    return key;
}

Bytes saltedKey(unsigned char id, const std::string& pin, const Bytes& salt) {
    // The password in its BMP form: 00 and each byte, then 00 00.
    Bytes bmp;
    for (char c : pin) bmp.insert(bmp.end(), {0x00, static_cast<unsigned char>(c)});
    bmp.insert(bmp.end(), {0x00, 0x00});
    Bytes key(kPinKeySize);
    if (PKCS12_key_gen_uni(bmp.data(), static_cast<int>(bmp.size()),
                           const_cast<unsigned char*>(salt.data()), static_cast<int>(salt.size()),
                           id, kPkcs12Rounds, static_cast<int>(key.size()), key.data(),
                           EVP_sha1()) != 1)
        throw std::runtime_error("PKCS#12 key derivation failed in OpenSSL");
    return key;
}

Bytes des3Encrypt(const Bytes& key, const Bytes& block) {
    return des3(EVP_des_ede3_ecb(), true, key, block);
}

Bytes retailMac(const Bytes& key, const Bytes& aligned) {
    if (aligned.empty() || aligned.size() % kBlock != 0 || key.size() != 24)
        throw std::invalid_argument("retail MAC: aligned data and a 24-byte key");
    // Single DES under the first key is triple DES with that key three
    // times; the last block then takes the whole key, which is the MAC's
    // final decrypt and encrypt.
    const Bytes k1(key.begin(), key.begin() + kBlock);
    Bytes single = k1;
    single.insert(single.end(), k1.begin(), k1.end());
    single.insert(single.end(), k1.begin(), k1.end());
    Bytes chain(kBlock, 0x00);
    const Bytes head(aligned.begin(), aligned.end() - kBlock);
    if (!head.empty()) {
        const Bytes c = des3(EVP_des_ede3_cbc(), true, single, head);
        chain.assign(c.end() - kBlock, c.end());
    }
    Bytes last(aligned.end() - kBlock, aligned.end());
    for (std::size_t i = 0; i < kBlock; ++i) last[i] ^= chain[i];
    return des3Encrypt(key, last);
}

Bytes cbcEncrypt(const Bytes& key, const Bytes& data) {
    Bytes padded = data;
    padded.push_back(0x80);
    while (padded.size() % kBlock != 0) padded.push_back(0x00);
    return des3(EVP_des_ede3_cbc(), true, key, padded);
}

std::optional<Bytes> cbcDecrypt(const Bytes& key, const Bytes& cipher) {
    if (cipher.empty() || cipher.size() % kBlock != 0) return std::nullopt;
    Bytes plain = des3(EVP_des_ede3_cbc(), false, key, cipher);
    const std::size_t size = plain.size();
    while (!plain.empty() && plain.back() == 0x00) plain.pop_back();
    // The padding lies in the last block.
    if (plain.empty() || plain.back() != 0x80 || size - plain.size() >= kBlock) return std::nullopt;
    plain.pop_back();
    return plain;
}

void padZeros(Bytes& m) { m.insert(m.end(), kBlock - m.size() % kBlock, 0x00); }

}  // namespace vtoken::pro
