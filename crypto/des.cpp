// Single DES from libcrypto's block functions; DES-X composed on top of it.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "crypto/primitives.h"

#include <cstring>

namespace libapdu {

void des_initialize(const unsigned char* key, tagDesContext* ctx) {
    DES_set_key_unchecked(reinterpret_cast<const_DES_cblock*>(const_cast<unsigned char*>(key)),
                          &ctx->schedule);
}

void des_encrypt(tagDesContext* ctx, unsigned char* block) {
    DES_ecb_encrypt(reinterpret_cast<const_DES_cblock*>(block),
                    reinterpret_cast<DES_cblock*>(block), &ctx->schedule, DES_ENCRYPT);
}

void des_decrypt(tagDesContext* ctx, unsigned char* block) {
    DES_ecb_encrypt(reinterpret_cast<const_DES_cblock*>(block),
                    reinterpret_cast<DES_cblock*>(block), &ctx->schedule, DES_DECRYPT);
}

void des_finalize(tagDesContext*) {}

void desx_initialize(const unsigned char* key, tagDesxContext* ctx) {
    des_initialize(key, &ctx->des);
    std::memcpy(ctx->whitening, key + 8, 8);
}

namespace {
void whiten(const tagDesxContext* ctx, unsigned char* block) {
    for (int i = 0; i < 8; ++i) block[i] ^= ctx->whitening[i];
}
}  // namespace

void desx_encrypt(tagDesxContext* ctx, unsigned char* block) {
    whiten(ctx, block);
    des_encrypt(&ctx->des, block);
    whiten(ctx, block);
}

void desx_decrypt(tagDesxContext* ctx, unsigned char* block) {
    whiten(ctx, block);
    des_decrypt(&ctx->des, block);
    whiten(ctx, block);
}

void desx_finalize(tagDesxContext*) {}

}  // namespace libapdu
