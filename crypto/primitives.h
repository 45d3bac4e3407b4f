// Single DES, DES-X, MD5 and SHA-1: the lowest layer under the qn* toolkit.
// DES and the SHA-1 block function come from libcrypto; MD5 is our own.
#pragma once

#include <openssl/des.h>

#include <cstdint>

namespace libapdu {

// The sixteen round keys of one DES key, in encryption order.
struct tagDesContext {
    DES_key_schedule schedule;
};

// DES-X with one key fewer: the same 8 whitening bytes go in before and after.
struct tagDesxContext {
    tagDesContext des;
    unsigned char whitening[8];
};

// Parity bits are ignored, weak keys are not refused.
void des_initialize(const unsigned char* key, tagDesContext* ctx);
void des_encrypt(tagDesContext* ctx, unsigned char* block);
void des_decrypt(tagDesContext* ctx, unsigned char* block);
// Leaves the schedule in place on purpose; the toolkit wipes whole contexts.
void des_finalize(tagDesContext* ctx);

// key: 8 bytes of DES key, then 8 whitening bytes.
void desx_initialize(const unsigned char* key, tagDesxContext* ctx);
void desx_encrypt(tagDesxContext* ctx, unsigned char* block);
void desx_decrypt(tagDesxContext* ctx, unsigned char* block);
void desx_finalize(tagDesxContext* ctx);

struct MD5_CTX {
    uint32_t state[4];
    uint32_t count[2];  // message bits, low word first
    unsigned char buffer[64];
};

void MD5Init(MD5_CTX* ctx);
void MD5Update(MD5_CTX* ctx, unsigned char* input, unsigned int length);
// Writes 16 bytes, then zeroes the whole context.
void MD5Final(unsigned char* digest, MD5_CTX* ctx);

// Each field carries 32 significant bits whatever the width of unsigned long.
struct SHAstate_st {
    unsigned long h0, h1, h2, h3, h4;
    unsigned long Nl, Nh;    // message bits, low and high half
    unsigned long data[16];  // the incomplete block as big-endian words
    int num;                 // bytes held in data
};

void SHA1_Init(SHAstate_st* c);
void SHA1_Update(SHAstate_st* c, unsigned char* data, unsigned long length);
// One whole 64-byte block into h0..h4; counters and buffer are untouched.
void SHA1_Transform(SHAstate_st* c, unsigned char* block);
// Writes 20 bytes and sets num to 0; SHA1_Init must run before reuse.
void SHA1_Final(unsigned char* digest, SHAstate_st* c);

extern const char* SHA1_version;

}  // namespace libapdu
