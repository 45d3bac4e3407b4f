#include "crypto/token_crypto.h"

#include <climits>
#include <cstring>

#include "qncrypto.h"

namespace libapdu {

namespace {

constexpr int kPkcs12Iterations = 999;  // not 1000: the cards count 999

int asInt(unsigned long n) { return n > INT_MAX ? -1 : static_cast<int>(n); }

void md5(const unsigned char* prefix, int prefixLen, const unsigned char* data, int dataLen,
         unsigned char* out) {
    qnCryptoContext ctx;
    int n = 0;
    qnCryptoHashInit(&ctx, qnCryptoAlgMD5);
    qnCryptoHashUpdate(&ctx, prefix, prefixLen);
    qnCryptoHashUpdate(&ctx, data, dataLen);
    qnCryptoHashResult(&ctx, out, &n);
    qnCryptoFree(&ctx);
}

void pkcs12Sha1(int id, const unsigned char* pin, unsigned long pinLen, const unsigned char* salt,
                unsigned long saltLen, unsigned char* out, unsigned long outLen) {
    if (saltLen != 20 || outLen != 24) return;
    qnCryptoPbePkcs12(qnCryptoAlgSHA1, pin, asInt(pinLen), salt, 20, kPkcs12Iterations, id & 0xFF,
                      out, 24);
}

bool smKey(const TBytes& key) { return key.size() == 16 || key.size() == 24; }
bool smIv(const TBytes& iv) { return iv.empty() || iv.size() == 8; }
const unsigned char* ivOrZero(const TBytes& iv) { return iv.empty() ? nullptr : iv.data(); }

void smMac(qnCryptoAlgorithm algorithm, int padding, const TBytes& key, const TBytes& data,
           TBytes& out) {
    if (!smKey(key)) return;
    out.resize(8);
    qnCryptoContext ctx;
    int n = 0;
    qnCryptoMacInit(&ctx, algorithm, key.data(), static_cast<int>(key.size()));
    qnCryptoMacUpdate(&ctx, data.data(), asInt(data.size()));
    qnCryptoMacResult(&ctx, padding, out.data(), &n);
    qnCryptoFree(&ctx);
}

}  // namespace

void crypto_qntoken_md5_iterated(const unsigned char* data, unsigned long dataLen,
                                 unsigned char* out, unsigned long outLen,
                                 unsigned long iterations) {
    if (outLen != 16) return;
    unsigned char digest[16];
    const unsigned char* input = data;
    int inputLen = asInt(dataLen);
    for (unsigned long i = 0; i < iterations; ++i) {
        md5(nullptr, 0, input, inputLen, digest);
        std::memcpy(out, digest, 16);
        input = out;
        inputLen = 16;
    }
    qnZeroMemory(digest, sizeof digest);
}

void crypto_qntoken_md5_32(const unsigned char* data, unsigned long dataLen, const unsigned char*,
                           unsigned long, unsigned char* out, unsigned long outLen) {
    if (outLen != 32) return;
    crypto_qntoken_md5_iterated(data, dataLen, out, 16, 1);
    crypto_qntoken_md5_iterated(data, dataLen, out + 16, 16, 2);
}

void crypto_qntoken_md5_24(const unsigned char* data, unsigned long dataLen, const unsigned char*,
                           unsigned long, unsigned char* out, unsigned long outLen) {
    if (outLen != 24) return;
    unsigned char b[32];
    for (unsigned char counter = 0; counter < 2; ++counter)
        md5(&counter, 1, data, asInt(dataLen), b + 16 * counter);
    std::memset(out, 0, 24);
    // out[i] bit j is bit 7i + j of B, counted from bit 0 of B[0] upwards;
    // bit 7 of every output byte stays clear and 88 bits of B are unused.
    for (unsigned i = 0; i < 24; ++i) {
        for (unsigned j = 0; j < 7; ++j) {
            const unsigned bit = 7 * i + j;
            if ((b[bit / 8] >> (bit % 8)) & 1) out[i] |= static_cast<unsigned char>(1u << j);
        }
    }
    qnZeroMemory(b, sizeof b);
}

void crypto_qntoken_java_sha1(int id, const unsigned char* pin, unsigned long pinLen,
                              const unsigned char* salt, unsigned long saltLen, unsigned char* out,
                              unsigned long outLen) {
    pkcs12Sha1(id, pin, pinLen, salt, saltLen, out, outLen);
}

void crypto_qntoken_pro_sha1(int id, const unsigned char* pin, unsigned long pinLen,
                             const unsigned char* salt, unsigned long saltLen, unsigned char* out,
                             unsigned long outLen) {
    pkcs12Sha1(id, pin, pinLen, salt, saltLen, out, outLen);
}

void crypto_qntoken_des3_mac(const unsigned char* data, unsigned long dataLen,
                             const unsigned char* key, unsigned long keyLen, unsigned char* out,
                             unsigned long outLen) {
    if (keyLen != 24 || outLen != 8) return;
    qnCryptoContext ctx;
    int n = 0;
    qnCryptoMacInit(&ctx, qnCryptoAlgDES3, key, 24);
    qnCryptoMacUpdate(&ctx, data, asInt(dataLen));
    qnCryptoMacResult(&ctx, QN_PAD_ZERO, out, &n);
    qnCryptoFree(&ctx);
}

void crypto_qntoken_des3cbc_enc(const unsigned char* data, unsigned long, const unsigned char* key,
                                unsigned long keyLen, unsigned char* out, unsigned long outLen) {
    if (keyLen != 16 || outLen != 8) return;
    static const unsigned char zeroIv[8] = {0};
    qnCryptoContext ctx;
    int n = 0;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, QN_CRYPTO_ENCRYPT, key, 16, zeroIv, 8);
    qnCryptoCbc(&ctx, data, 8, out, &n);
    qnCryptoFree(&ctx);
}

void crypto_qntoken_des3_enc(const unsigned char* data, unsigned long, const unsigned char* key,
                             unsigned long keyLen, unsigned char* out, unsigned long outLen) {
    if (keyLen != 24 || outLen != 8) return;
    qnCryptoContext ctx;
    qnCryptoEcbInit(&ctx, qnCryptoAlgDES3, QN_CRYPTO_ENCRYPT, key, 24);
    qnCryptoEcb(&ctx, data, 8, out);
    qnCryptoFree(&ctx);
}

void crypto_athena_response(const unsigned char* pin, unsigned long pinLen,
                            const unsigned char* challenge, unsigned long challengeLen,
                            unsigned char* out, unsigned long outLen) {
    if (pinLen == 0 || challengeLen != 16 || outLen != 16) return;
    unsigned char d[20];
    qnCryptoContext ctx;
    int n = 0;
    qnCryptoHashInit(&ctx, qnCryptoAlgSHA1);
    qnCryptoHashUpdate(&ctx, pin, asInt(pinLen));
    qnCryptoHashResult(&ctx, d, &n);
    qnCryptoFree(&ctx);
    // Two-key triple DES under D[0..15]; D[16..19] are not used.
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, QN_CRYPTO_ENCRYPT, d, 16, nullptr, 0);
    qnCryptoCbcFinal(&ctx, challenge, 16, QN_PAD_NONE, out, &n);
    qnCryptoFree(&ctx);
    qnZeroMemory(d, sizeof d);
}

void crypto_random(unsigned char* buffer, unsigned long length) {
    if (length == 0) return;
    qnCryptoRandomGenerate(nullptr, buffer, asInt(length));
}

void crypto_sm_enc(const TBytes& key, const TBytes& data, TBytes& out, const TBytes& iv) {
    if (!smKey(key) || !smIv(iv)) return;
    qnCryptoContext ctx;
    int size = 0;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, QN_CRYPTO_ENCRYPT, key.data(),
                    static_cast<int>(key.size()), ivOrZero(iv), static_cast<int>(iv.size()));
    if (qnCryptoCbcFinal(&ctx, data.data(), asInt(data.size()), QN_PAD_ISO, nullptr, &size) == 0) {
        out.resize(static_cast<size_t>(size));
        qnCryptoCbcFinal(&ctx, data.data(), asInt(data.size()), QN_PAD_ISO, out.data(), &size);
    }
    qnCryptoFree(&ctx);
}

void crypto_sm_enc_athena(const TBytes& key, const TBytes& data, TBytes& out, const TBytes& iv) {
    crypto_sm_enc(key, data, out, iv);
}

void crypto_sm_dec(const TBytes& key, const TBytes& data, TBytes& out, const TBytes& iv) {
    if (!smKey(key) || !smIv(iv)) return;
    qnCryptoContext ctx;
    int size = 0;
    qnCryptoCbcInit(&ctx, qnCryptoAlgDES3, QN_CRYPTO_DECRYPT, key.data(),
                    static_cast<int>(key.size()), ivOrZero(iv), static_cast<int>(iv.size()));
    // The size query decrypts once to find the padding. On a fault nothing
    // is written, since the plaintext could outgrow the caller's buffer.
    if (qnCryptoCbcFinal(&ctx, data.data(), asInt(data.size()), QN_PAD_ISO, nullptr, &size) == 0) {
        out.resize(static_cast<size_t>(size));
        qnCryptoCbcFinal(&ctx, data.data(), asInt(data.size()), QN_PAD_ISO, out.data(), &size);
    }
    qnCryptoFree(&ctx);
}

void crypto_sm_mac(const TBytes& key, const TBytes& data, TBytes& out) {
    smMac(qnCryptoAlgDES3, QN_PAD_ISO, key, data, out);
}

void crypto_sm_mac_athena(const TBytes& key, const TBytes& data, TBytes& out) {
    smMac(qnCryptoAlgDES3_Lite, QN_PAD_ISO, key, data, out);
}

void crypto_sm_mac_pro(const TBytes& key, const TBytes& data, TBytes& out) {
    smMac(qnCryptoAlgDES3_Lite, QN_PAD_ZERO, key, data, out);
}

}  // namespace libapdu
