// MD5 as RFC 1321 defines it.
#include <cstring>

#include "crypto/primitives.h"

namespace libapdu {

namespace {

inline uint32_t rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// Per-round shift amounts and the sine-derived constants T[1..64].
constexpr int kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                            5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                            4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                            6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};
constexpr uint32_t kT[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

void transform(uint32_t state[4], const unsigned char* block) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) {
        x[i] = uint32_t(block[4 * i]) | uint32_t(block[4 * i + 1]) << 8 |
               uint32_t(block[4 * i + 2]) << 16 | uint32_t(block[4 * i + 3]) << 24;
    }
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (int i = 0; i < 64; ++i) {
        uint32_t f;
        int g;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (b & d) | (c & ~d);
            g = (5 * i + 1) & 15;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) & 15;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) & 15;
        }
        uint32_t next = b + rotl(a + f + kT[i] + x[g], kShift[i]);
        a = d;
        d = c;
        c = b;
        b = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    std::memset(x, 0, sizeof x);
}

}  // namespace

void MD5Init(MD5_CTX* ctx) {
    ctx->count[0] = ctx->count[1] = 0;
    ctx->state[0] = 0x67452301;
    ctx->state[1] = 0xefcdab89;
    ctx->state[2] = 0x98badcfe;
    ctx->state[3] = 0x10325476;
}

void MD5Update(MD5_CTX* ctx, unsigned char* input, unsigned int length) {
    if (length == 0) return;
    unsigned int index = (ctx->count[0] >> 3) & 0x3F;
    uint32_t bits = uint32_t(length) << 3;
    ctx->count[0] += bits;
    if (ctx->count[0] < bits) ++ctx->count[1];
    ctx->count[1] += uint32_t(length) >> 29;

    unsigned int room = 64 - index;
    unsigned int i = 0;
    if (length >= room) {
        std::memcpy(ctx->buffer + index, input, room);
        transform(ctx->state, ctx->buffer);
        for (i = room; i + 63 < length; i += 64) transform(ctx->state, input + i);
        index = 0;
    }
    std::memcpy(ctx->buffer + index, input + i, length - i);
}

void MD5Final(unsigned char* digest, MD5_CTX* ctx) {
    unsigned char bits[8];
    for (int i = 0; i < 8; ++i)
        bits[i] = static_cast<unsigned char>(ctx->count[i / 4] >> (8 * (i % 4)));
    unsigned int index = (ctx->count[0] >> 3) & 0x3F;
    unsigned int padLen = index < 56 ? 56 - index : 120 - index;
    unsigned char padding[64] = {0x80};
    MD5Update(ctx, padding, padLen);
    MD5Update(ctx, bits, 8);
    for (int i = 0; i < 16; ++i)
        digest[i] = static_cast<unsigned char>(ctx->state[i / 4] >> (8 * (i % 4)));
    // Wiped so that a stale context cannot continue the old message.
    std::memset(ctx, 0, sizeof *ctx);
}

}  // namespace libapdu
