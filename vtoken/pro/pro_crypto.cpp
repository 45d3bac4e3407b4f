#include "pro/pro_crypto.h"

#include "core/des3.h"

#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/pkcs12.h>

#include <stdexcept>

namespace vtoken::pro {

namespace {

constexpr int kPkcs12Rounds = 999;

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
    return des3(Des3Mode::kEcb, true, key, {}, block);
}

Bytes retailMac(const Bytes& key, const Bytes& aligned) {
    if (aligned.empty() || aligned.size() % kBlock != 0 || key.size() != 24)
        throw std::invalid_argument("retail MAC: aligned data and a 24-byte key");
    // Single DES under the first key is triple DES with that key three
    // times; the last block then takes the whole key, which is the MAC's
    // final decrypt and encrypt.
    const Bytes k1(key.begin(), key.begin() + kBlock);
    Bytes single;
    for (int i = 0; i < 3; ++i) append(single, k1);
    Bytes chain(kBlock, 0x00);
    const Bytes head(aligned.begin(), aligned.end() - kBlock);
    if (!head.empty()) {
        const Bytes c = des3(Des3Mode::kCbc, true, single, chain, head);
        chain.assign(c.end() - kBlock, c.end());
    }
    Bytes last(aligned.end() - kBlock, aligned.end());
    for (std::size_t i = 0; i < kBlock; ++i) last[i] ^= chain[i];
    return des3Encrypt(key, last);
}

Bytes cbcEncrypt(const Bytes& key, const Bytes& data) {
    return des3CbcPadded(key, Bytes(kBlock, 0x00), data);
}

std::optional<Bytes> cbcDecrypt(const Bytes& key, const Bytes& cipher) {
    return des3CbcUnpadded(key, Bytes(kBlock, 0x00), cipher);
}

void padZeros(Bytes& m) { m.insert(m.end(), kBlock - m.size() % kBlock, 0x00); }

}  // namespace vtoken::pro
