// SHA-1 as FIPS 180-1 defines it. The compression function is libcrypto's,
// which uses the CPU's SHA extensions where present.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

#include <cstring>

#include "crypto/primitives.h"

namespace libapdu {

const char* SHA1_version = "SHA1 part of SSLeay 0.9.0b 29-Jun-1998";

namespace {

constexpr unsigned long kMask = 0xFFFFFFFFul;

void compress(SHAstate_st* c, const unsigned char* block) {
    SHA_CTX o;
    o.h0 = static_cast<SHA_LONG>(c->h0);
    o.h1 = static_cast<SHA_LONG>(c->h1);
    o.h2 = static_cast<SHA_LONG>(c->h2);
    o.h3 = static_cast<SHA_LONG>(c->h3);
    o.h4 = static_cast<SHA_LONG>(c->h4);
    ::SHA1_Transform(&o, block);
    c->h0 = o.h0;
    c->h1 = o.h1;
    c->h2 = o.h2;
    c->h3 = o.h3;
    c->h4 = o.h4;
}

// The buffered words back to the bytes they came from.
void bufferBytes(const SHAstate_st* c, unsigned char* out) {
    for (int i = 0; i < 64; ++i)
        out[i] = static_cast<unsigned char>(c->data[i / 4] >> (24 - 8 * (i % 4)));
}

void putByte(SHAstate_st* c, unsigned char b) {
    int i = c->num++;
    unsigned long& word = c->data[i / 4];
    int shift = 24 - 8 * (i % 4);
    word = (word & ~(0xFFul << shift)) | (static_cast<unsigned long>(b) << shift);
}

}  // namespace

void SHA1_Init(SHAstate_st* c) {
    c->h0 = 0x67452301ul;
    c->h1 = 0xEFCDAB89ul;
    c->h2 = 0x98BADCFEul;
    c->h3 = 0x10325476ul;
    c->h4 = 0xC3D2E1F0ul;
    c->Nl = c->Nh = 0;
    std::memset(c->data, 0, sizeof c->data);
    c->num = 0;
}

void SHA1_Update(SHAstate_st* c, unsigned char* data, unsigned long length) {
    if (length == 0) return;
    unsigned long low = (c->Nl + (length << 3)) & kMask;
    if (low < c->Nl) c->Nh = (c->Nh + 1) & kMask;
    c->Nh = (c->Nh + (length >> 29)) & kMask;
    c->Nl = low;

    while (length > 0 && c->num != 0) {
        if (c->num % 4 == 0 && length >= 4) {
            // A whole word at once.
            c->data[c->num / 4] = static_cast<unsigned long>(data[0]) << 24 |
                                  static_cast<unsigned long>(data[1]) << 16 |
                                  static_cast<unsigned long>(data[2]) << 8 | data[3];
            c->num += 4;
            data += 4;
            length -= 4;
        } else {
            putByte(c, *data++);
            --length;
        }
        if (c->num == 64) {
            unsigned char block[64];
            bufferBytes(c, block);
            compress(c, block);
            c->num = 0;
        }
    }
    for (; length >= 64; length -= 64, data += 64) compress(c, data);
    for (; length >= 4; length -= 4, data += 4) {
        c->data[c->num / 4] = static_cast<unsigned long>(data[0]) << 24 |
                              static_cast<unsigned long>(data[1]) << 16 |
                              static_cast<unsigned long>(data[2]) << 8 | data[3];
        c->num += 4;
    }
    while (length-- > 0) putByte(c, *data++);
}

void SHA1_Transform(SHAstate_st* c, unsigned char* block) { compress(c, block); }

void SHA1_Final(unsigned char* digest, SHAstate_st* c) {
    unsigned char block[64];
    int n = c->num;
    for (int i = 0; i < n; ++i)
        block[i] = static_cast<unsigned char>(c->data[i / 4] >> (24 - 8 * (i % 4)));
    block[n++] = 0x80;
    if (n > 56) {
        std::memset(block + n, 0, 64 - n);
        compress(c, block);
        n = 0;
    }
    std::memset(block + n, 0, 56 - n);
    for (int i = 0; i < 4; ++i) {
        block[56 + i] = static_cast<unsigned char>(c->Nh >> (24 - 8 * i));
        block[60 + i] = static_cast<unsigned char>(c->Nl >> (24 - 8 * i));
    }
    compress(c, block);
    unsigned long h[5] = {c->h0, c->h1, c->h2, c->h3, c->h4};
    for (int i = 0; i < 20; ++i)
        digest[i] = static_cast<unsigned char>(h[i / 4] >> (24 - 8 * (i % 4)));
    c->num = 0;
    std::memset(block, 0, sizeof block);
}

}  // namespace libapdu
