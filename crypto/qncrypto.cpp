// The qn* toolkit over the primitives. Status lives in the global rv; see
// qncrypto.h for the rule of which calls may clear it.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "qncrypto.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "crypto/primitives.h"

using libapdu::MD5_CTX;
using libapdu::SHAstate_st;
using libapdu::tagDesContext;

extern "C" {
uint32_t rv = 0;
}

namespace {

static_assert(sizeof(MD5_CTX) <= QN_CRYPTO_STATE_BYTES, "MD5 state does not fit");
static_assert(sizeof(SHAstate_st) <= QN_CRYPTO_STATE_BYTES, "SHA-1 state does not fit");
static_assert(3 * sizeof(tagDesContext) <= QN_CRYPTO_STATE_BYTES, "DES keys do not fit");
static_assert(alignof(SHAstate_st) <= alignof(uint64_t) &&
                  alignof(tagDesContext) <= alignof(uint64_t),
              "state alignment");

uint32_t fail(uint32_t code) {
    rv = code;
    return rv;
}

MD5_CTX* md5State(qnCryptoContext* c) {
    return std::launder(reinterpret_cast<MD5_CTX*>(c->state.bytes));
}
SHAstate_st* shaState(qnCryptoContext* c) {
    return std::launder(reinterpret_cast<SHAstate_st*>(c->state.bytes));
}
// Key i of K1, K2, K3.
tagDesContext* desKey(qnCryptoContext* c, int i) {
    return std::launder(
        reinterpret_cast<tagDesContext*>(c->state.bytes + i * sizeof(tagDesContext)));
}

// Stops the compiler from dropping a wipe of memory that is about to die.
void wipe(void* p, size_t n) {
    if (n == 0) return;
    std::memset(p, 0, n);
    __asm__ __volatile__("" : : "r"(p) : "memory");
}

// ---- algorithms ----

uint32_t md5Process(qnCryptoContext* c, const unsigned char* in, int inLen, unsigned char* out,
                    int* outLen) {
    if (in != nullptr && inLen > 0)
        libapdu::MD5Update(md5State(c), const_cast<unsigned char*>(in),
                           static_cast<unsigned>(inLen));
    if (out != nullptr) {
        libapdu::MD5Final(out, md5State(c));
        if (outLen != nullptr) *outLen = 16;
    }
    return rv;
}

uint32_t sha1Process(qnCryptoContext* c, const unsigned char* in, int inLen, unsigned char* out,
                     int* outLen) {
    if (in != nullptr && inLen > 0)
        libapdu::SHA1_Update(shaState(c), const_cast<unsigned char*>(in),
                             static_cast<unsigned long>(inLen));
    if (out != nullptr) {
        libapdu::SHA1_Final(out, shaState(c));
        if (outLen != nullptr) *outLen = 20;
    }
    return rv;
}

uint32_t des3Process(qnCryptoContext* c, const unsigned char* in, int inLen, unsigned char* out,
                     int* outLen) {
    if (in == nullptr || out == nullptr || inLen != 8 || outLen == nullptr)
        return fail(QN_CRYPTO_E_ARGUMENT);
    if (c->direction > 1) return fail(QN_CRYPTO_E_ARGUMENT);
    DES_ecb3_encrypt(reinterpret_cast<const_DES_cblock*>(const_cast<unsigned char*>(in)),
                     reinterpret_cast<DES_cblock*>(out), &desKey(c, 0)->schedule,
                     &desKey(c, 1)->schedule, &desKey(c, 2)->schedule,
                     c->direction == 0 ? DES_ENCRYPT : DES_DECRYPT);
    *outLen = 8;
    return rv;
}

uint32_t des3LiteProcess(qnCryptoContext* c, const unsigned char* in, int inLen, unsigned char* out,
                         int* outLen) {
    if (in == nullptr || out == nullptr || inLen != 8 || outLen == nullptr)
        return fail(QN_CRYPTO_E_ARGUMENT);
    if (c->direction > 1) return fail(QN_CRYPTO_E_ARGUMENT);
    if (out != in) std::memcpy(out, in, 8);
    if (c->direction == 0)
        libapdu::des_encrypt(desKey(c, 0), out);
    else
        libapdu::des_decrypt(desKey(c, 0), out);
    *outLen = 8;
    return rv;
}

void des3Finalize(qnCryptoContext* c) {
    for (int i = 0; i < 3; ++i) libapdu::des_finalize(desKey(c, i));
}

uint32_t setUpDes3(qnCryptoContext* c, uint32_t direction, const unsigned char* key, int keyLength,
                   qnCryptoAlgorithm self, qnCryptoProcess process) {
    if (c == nullptr || key == nullptr || direction > 1 || (keyLength != 16 && keyLength != 24))
        return fail(QN_CRYPTO_E_ARGUMENT);
    for (int i = 0; i < 3; ++i) {
        tagDesContext* k = new (c->state.bytes + i * sizeof(tagDesContext)) tagDesContext;
        // With a 16-byte key, K3 is K1.
        libapdu::des_initialize(key + (i == 2 && keyLength == 16 ? 0 : 8 * i), k);
    }
    c->finalize = des3Finalize;
    c->algorithm = self;
    c->process = process;
    c->direction = direction;
    c->blockSize = 8;
    c->digestSize = 0;
    c->keySize = static_cast<uint32_t>(keyLength);
    return rv;
}

// ---- the CBC cores ----

bool validPadding(int padding) { return padding >= 0 && padding <= 3; }

// Encrypts `in` through the chain. With `final`, pads the last block by
// `padding`. Stops at the first non-zero result of process, before that
// block reaches the output.
uint32_t encryptCore(qnCryptoContext* c, const unsigned char* in, int length, unsigned char* out,
                     int* count, bool final, int padding) {
    const uint32_t bs = c->blockSize;
    int produced = 0, n = 0;
    uint32_t result = 0;
    for (int i = 0; i < length; ++i) {
        c->block[c->position] = in[i] ^ c->chain[c->position];
        if (++c->position == bs) {
            c->position = 0;
            result = c->process(c, c->block, static_cast<int>(bs), c->chain, &n);
            if (result != 0) break;
            if (out != nullptr) {
                std::memcpy(out, c->chain, bs);
                out += bs;
            }
            produced += static_cast<int>(bs);
        }
    }
    if (result == 0 && final) {
        const uint32_t pos = c->position;
        bool adds = true;
        if (padding == 0) {
            if (pos != 0) result = QN_CRYPTO_E_LENGTH;
            adds = false;
        } else if (padding == 3 && pos == 0) {
            adds = false;
        }
        if (result == 0 && adds) {
            for (uint32_t k = pos; k < bs; ++k) {
                unsigned char pad = 0;
                if (padding == 1) pad = static_cast<unsigned char>(bs - pos);
                if (padding == 2 && k == pos) pad = 0x80;
                c->block[k] = pad ^ c->chain[k];
            }
            c->position = 0;
            result = c->process(c, c->block, static_cast<int>(bs), c->chain, &n);
            if (result == 0) {
                if (out != nullptr) std::memcpy(out, c->chain, bs);
                produced += static_cast<int>(bs);
            }
        }
    }
    if (count != nullptr) *count = produced;
    return result;
}

// Decrypts `in` through the chain, always holding the newest plaintext block
// back in `block` (position == blockSize marks it), because only the final
// step can tell whether it carries padding.
uint32_t decryptCore(qnCryptoContext* c, const unsigned char* in, int length, unsigned char* out,
                     int* count, bool final, int padding) {
    const uint32_t bs = c->blockSize;
    int produced = 0, n = 0;
    uint32_t result = 0;
    unsigned char plain[64];
    for (int i = 0; i < length && result == 0; ++i) {
        if (c->position == bs) {
            if (out != nullptr) {
                std::memcpy(out, c->block, bs);
                out += bs;
            }
            produced += static_cast<int>(bs);
            c->position = 0;
        }
        c->block[c->position++] = in[i];
        if (c->position == bs) {
            result = c->process(c, c->block, static_cast<int>(bs), plain, &n);
            if (result != 0) break;
            for (uint32_t k = 0; k < bs; ++k) plain[k] ^= c->chain[k];
            std::memcpy(c->chain, c->block, bs);
            std::memcpy(c->block, plain, bs);
        }
    }
    wipe(plain, sizeof plain);
    if (result == 0 && final) {
        if (c->position != bs) {
            result = QN_CRYPTO_E_LENGTH;
        } else {
            uint32_t keep = bs;
            if (padding == 1) {
                uint32_t v = c->block[bs - 1];
                // A last byte of 0 passes as no padding at all.
                if (v > bs) result = QN_CRYPTO_E_PADDING;
                for (uint32_t k = bs - v; result == 0 && k < bs; ++k)
                    if (c->block[k] != v) result = QN_CRYPTO_E_PADDING;
                keep = bs - v;
            } else if (padding == 2) {
                uint32_t k = bs;
                while (k > 0 && c->block[k - 1] == 0) --k;
                if (k == 0 || c->block[k - 1] != 0x80)
                    result = QN_CRYPTO_E_PADDING;
                else
                    keep = k - 1;
            }
            if (result == 0) {
                if (out != nullptr) std::memcpy(out, c->block, keep);
                produced += static_cast<int>(keep);
                c->position = 0;
            }
        }
    }
    if (count != nullptr) *count = produced;
    return result;
}

uint32_t runCore(qnCryptoContext* c, const unsigned char* in, int length, unsigned char* out,
                 int* count, bool final, int padding) {
    return c->direction == 0 ? encryptCore(c, in, length, out, count, final, padding)
                             : decryptCore(c, in, length, out, count, final, padding);
}

int roundDown(long value, uint32_t bs) { return static_cast<int>(value - value % bs); }

// The output size of a CBC step, without changing the context.
uint32_t sizeQuery(qnCryptoContext* c, int length, bool final, int padding, int* size) {
    const uint32_t bs = c->blockSize;
    const long total = static_cast<long>(length) + c->position;
    *size = 0;
    if (c->direction == 0) {
        if (!final) {
            *size = roundDown(total, bs);
        } else if (padding == 0) {
            if (total % bs != 0) return QN_CRYPTO_E_LENGTH;
            *size = static_cast<int>(total);
        } else {
            // Counts a padding block even for mode 3 on aligned data, which
            // then writes one block less: a safe upper bound.
            *size = roundDown(total + bs, bs);
        }
        return 0;
    }
    if (!final) {
        *size = total > bs ? roundDown(total - bs, bs) : 0;
        return 0;
    }
    if (padding == 0) {
        if (total % bs != 0) return QN_CRYPTO_E_LENGTH;
        *size = static_cast<int>(total);
        return 0;
    }
    return 0xFFFFFFFFu;  // needs a trial run, see cbcStep
}

bool badContext(const qnCryptoContext* c) {
    return c == nullptr || c->blockSize == 0 || c->blockSize > 64 || c->process == nullptr;
}

uint32_t cbcStep(qnCryptoContext* c, const unsigned char* in, int length, bool final, int padding,
                 unsigned char* out, int* outLen) {
    if (badContext(c) || outLen == nullptr || length < 0 || (in == nullptr && length > 0) ||
        !validPadding(padding) || (final && c->direction == 1 && padding == 3))
        return fail(QN_CRYPTO_E_ARGUMENT);
    if (out != nullptr) {
        if (final && c->direction == 0 && padding == 0 &&
            (c->position + length) % c->blockSize != 0)
            return fail(QN_CRYPTO_E_LENGTH);
        rv = runCore(c, in, length, out, outLen, final, padding);
        return rv;
    }
    uint32_t result = sizeQuery(c, length, final, padding, outLen);
    if (result == 0xFFFFFFFFu) {
        // The exact plaintext length needs the padding: decrypt once without
        // output and put the context back as it was.
        unsigned char block[64], chain[64];
        const uint32_t position = c->position;
        std::memcpy(block, c->block, sizeof block);
        std::memcpy(chain, c->chain, sizeof chain);
        result = decryptCore(c, in, length, nullptr, outLen, true, padding);
        std::memcpy(c->block, block, sizeof block);
        std::memcpy(c->chain, chain, sizeof chain);
        c->position = position;
        wipe(block, sizeof block);
        wipe(chain, sizeof chain);
    }
    rv = result;
    return rv;
}

uint32_t macStep(qnCryptoContext* c, const unsigned char* data, int length, bool final,
                 int padding) {
    if (badContext(c) || c->direction != 0 || length < 0 || (data == nullptr && length > 0) ||
        !validPadding(padding))
        return fail(QN_CRYPTO_E_ARGUMENT);
    rv = encryptCore(c, data, length, nullptr, nullptr, final, padding);
    return rv;
}

// Clears what identifies a context; a hash never reads chain or block, so
// these are left for qnCryptoFree to wipe.
void resetFields(qnCryptoContext* ctx) {
    ctx->finalize = nullptr;
    ctx->algorithm = nullptr;
    ctx->process = nullptr;
    ctx->direction = 0;
    ctx->position = ctx->blockSize = ctx->digestSize = ctx->keySize = 0;
}

}  // namespace

extern "C" {

void* qnAllocateMemory(int size) {
    if (size < 1) return nullptr;
    // The size sits in the 4 bytes just ahead of the block; the header is 16
    // bytes so that the block keeps malloc's alignment.
    unsigned char* raw = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(size) + 16));
    if (raw == nullptr) return nullptr;
    const uint32_t stored = static_cast<uint32_t>(size);
    std::memcpy(raw + 12, &stored, 4);
    return raw + 16;
}

uint32_t qnFreeMemory(void* p) {
    if (p == nullptr) return rv;
    unsigned char* block = static_cast<unsigned char*>(p);
    uint32_t size;
    std::memcpy(&size, block - 4, 4);
    wipe(block, size);
    std::free(block - 16);
    return rv;
}

uint32_t qnZeroMemory(void* p, int size) {
    if (size < 0 || (p == nullptr && size != 0)) return QN_CRYPTO_E_ARGUMENT;
    if (size > 0) wipe(p, static_cast<size_t>(size));
    return rv;
}

uint32_t qnCryptoFree(qnCryptoContext* ctx) {
    if (ctx == nullptr) return fail(QN_CRYPTO_E_ARGUMENT);
    if (ctx->finalize != nullptr) ctx->finalize(ctx);
    wipe(ctx, sizeof *ctx);
    return rv;
}

uint32_t qnCryptoAlgMD5(qnCryptoContext* ctx, uint32_t, const unsigned char*, int) {
    if (ctx == nullptr) return fail(QN_CRYPTO_E_ARGUMENT);
    libapdu::MD5Init(new (ctx->state.bytes) MD5_CTX);
    ctx->finalize = nullptr;
    ctx->algorithm = qnCryptoAlgMD5;
    ctx->process = md5Process;
    ctx->direction = 0;
    ctx->blockSize = 0;
    ctx->digestSize = 16;
    ctx->keySize = 0;
    return rv;
}

uint32_t qnCryptoAlgSHA1(qnCryptoContext* ctx, uint32_t, const unsigned char*, int) {
    if (ctx == nullptr) return fail(QN_CRYPTO_E_ARGUMENT);
    libapdu::SHA1_Init(new (ctx->state.bytes) SHAstate_st);
    ctx->finalize = nullptr;
    ctx->algorithm = qnCryptoAlgSHA1;
    ctx->process = sha1Process;
    ctx->direction = 0;
    ctx->blockSize = 0;
    ctx->digestSize = 20;
    ctx->keySize = 0;
    return rv;
}

uint32_t qnCryptoAlgDES3(qnCryptoContext* ctx, uint32_t direction, const unsigned char* key,
                         int keyLength) {
    return setUpDes3(ctx, direction, key, keyLength, qnCryptoAlgDES3, des3Process);
}

uint32_t qnCryptoAlgDES3_Lite(qnCryptoContext* ctx, uint32_t direction, const unsigned char* key,
                              int keyLength) {
    return setUpDes3(ctx, direction, key, keyLength, qnCryptoAlgDES3_Lite, des3LiteProcess);
}

uint32_t qnCryptoHashInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm) {
    if (ctx == nullptr || algorithm == nullptr) return fail(QN_CRYPTO_E_ARGUMENT);
    resetFields(ctx);
    algorithm(ctx, 0, nullptr, 0);
    if (ctx->blockSize != 0 || ctx->keySize != 0 || ctx->digestSize == 0 || ctx->process == nullptr)
        return fail(QN_CRYPTO_E_ARGUMENT);
    return rv;
}

uint32_t qnCryptoHashUpdate(qnCryptoContext* ctx, const unsigned char* data, int length) {
    if (ctx == nullptr || ctx->digestSize == 0 || length < 0 || (data == nullptr && length > 0))
        return fail(QN_CRYPTO_E_ARGUMENT);
    return ctx->process(ctx, data, length, nullptr, nullptr);
}

uint32_t qnCryptoHashResult(qnCryptoContext* ctx, unsigned char* output, int* length) {
    if (ctx == nullptr || ctx->digestSize == 0 || (output == nullptr && length == nullptr))
        return fail(QN_CRYPTO_E_ARGUMENT);
    if (output == nullptr) {
        *length = static_cast<int>(ctx->digestSize);
        return rv;
    }
    int written = 0;
    ctx->process(ctx, nullptr, 0, output, &written);
    if (length != nullptr) *length = written;
    return rv;
}

uint32_t qnCryptoEcbInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm, uint32_t direction,
                         const unsigned char* key, int keyLength) {
    if (ctx == nullptr || algorithm == nullptr) return fail(QN_CRYPTO_E_ARGUMENT);
    std::memset(ctx, 0, sizeof *ctx);
    algorithm(ctx, direction, key, keyLength);
    if (ctx->blockSize == 0 || ctx->digestSize != 0) return fail(QN_CRYPTO_E_ARGUMENT);
    return rv;
}

uint32_t qnCryptoEcb(qnCryptoContext* ctx, const unsigned char* input, int length,
                     unsigned char* output) {
    if (badContext(ctx) || length < 0 || (length > 0 && (input == nullptr || output == nullptr)))
        return fail(QN_CRYPTO_E_ARGUMENT);
    const int bs = static_cast<int>(ctx->blockSize);
    if (length % bs != 0) return fail(QN_CRYPTO_E_LENGTH);
    int n = 0;
    for (int i = 0; i < length; i += bs)
        if (ctx->process(ctx, input + i, bs, output + i, &n) != 0) break;
    return rv;
}

uint32_t qnCryptoCbcInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm, uint32_t direction,
                         const unsigned char* key, int keyLength, const unsigned char* iv,
                         int ivLength) {
    qnCryptoEcbInit(ctx, algorithm, direction, key, keyLength);
    if (ctx == nullptr || ctx->blockSize == 0) return rv;
    if (iv != nullptr) {
        if (ivLength != static_cast<int>(ctx->blockSize)) return fail(QN_CRYPTO_E_ARGUMENT);
        std::memcpy(ctx->chain, iv, ctx->blockSize);
    }
    ctx->position = 0;
    return rv;
}

uint32_t qnCryptoCbc(qnCryptoContext* ctx, const unsigned char* input, int length,
                     unsigned char* output, int* outputLength) {
    return cbcStep(ctx, input, length, false, 0, output, outputLength);
}

uint32_t qnCryptoCbcFinal(qnCryptoContext* ctx, const unsigned char* input, int length, int padding,
                          unsigned char* output, int* outputLength) {
    return cbcStep(ctx, input, length, true, padding, output, outputLength);
}

uint32_t qnCryptoMacInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm,
                         const unsigned char* key, int keyLength) {
    return qnCryptoCbcInit(ctx, algorithm, 0, key, keyLength, nullptr, 0);
}

uint32_t qnCryptoMacUpdate(qnCryptoContext* ctx, const unsigned char* data, int length) {
    return macStep(ctx, data, length, false, 0);
}

uint32_t qnCryptoMacUpdatePadded(qnCryptoContext* ctx, const unsigned char* data, int length,
                                 int padding) {
    return macStep(ctx, data, length, true, padding);
}

uint32_t qnCryptoMacResult(qnCryptoContext* ctx, int padding, unsigned char* output, int* length) {
    if (padding == 0 || length == nullptr) return fail(QN_CRYPTO_E_ARGUMENT);
    if (macStep(ctx, nullptr, 0, true, padding) != 0) return rv;
    if (output != nullptr) {
        std::memcpy(output, ctx->chain, ctx->blockSize);
        if (ctx->algorithm == qnCryptoAlgDES3_Lite) {
            // Retail MAC: the last chain value goes through K2 backwards, then K3.
            libapdu::des_decrypt(desKey(ctx, 1), output);
            libapdu::des_encrypt(desKey(ctx, 2), output);
        }
    }
    *length = static_cast<int>(ctx->blockSize);
    return rv;
}

uint32_t qnCryptoPbePkcs12_Raw(qnCryptoAlgorithm algorithm, const unsigned char* password,
                               int passwordLength, const unsigned char* salt, int saltLength,
                               int iterations, int id, unsigned char* output, int outputLength) {
    // Iterations below 1 would copy an unset digest; they are refused.
    if (algorithm == nullptr || passwordLength < 0 || saltLength < 0 || outputLength < 0 ||
        iterations < 1 || (passwordLength > 0 && password == nullptr) ||
        (saltLength > 0 && salt == nullptr) || (outputLength > 0 && output == nullptr))
        return fail(QN_CRYPTO_E_ARGUMENT);
    constexpr int v = 64;
    const int sLen = (saltLength + v - 1) / v * v;
    const int pLen = (passwordLength + v - 1) / v * v;
    const int iLen = sLen + pLen;
    unsigned char* I = nullptr;
    if (iLen > 0) {
        I = static_cast<unsigned char*>(qnAllocateMemory(iLen));
        if (I == nullptr) return fail(QN_CRYPTO_E_MEMORY);
        for (int i = 0; i < sLen; ++i) I[i] = salt[i % saltLength];
        for (int i = 0; i < pLen; ++i) I[sLen + i] = password[i % passwordLength];
    }
    unsigned char D[v];
    std::memset(D, id & 0xFF, v);

    qnCryptoContext ctx;
    unsigned char A[64];
    int u = 0;
    while (outputLength > 0) {
        qnCryptoHashInit(&ctx, algorithm);
        if (ctx.digestSize == 0 || ctx.digestSize > sizeof A) {
            qnFreeMemory(I);
            return fail(QN_CRYPTO_E_ARGUMENT);
        }
        qnCryptoHashUpdate(&ctx, D, v);
        qnCryptoHashUpdate(&ctx, I, iLen);
        qnCryptoHashResult(&ctx, A, &u);
        for (int r = 1; r < iterations; ++r) {
            qnCryptoHashInit(&ctx, algorithm);
            qnCryptoHashUpdate(&ctx, A, u);
            qnCryptoHashResult(&ctx, A, &u);
        }
        const int take = outputLength < u ? outputLength : u;
        std::memcpy(output, A, static_cast<size_t>(take));
        output += take;
        outputLength -= take;
        if (outputLength == 0) break;
        // I_j = (I_j + B + 1) mod 2^512, B being A repeated to 64 bytes.
        for (int j = 0; j < iLen; j += v) {
            unsigned carry = 1;
            for (int k = v - 1; k >= 0; --k) {
                carry += static_cast<unsigned>(I[j + k]) + A[k % u];
                I[j + k] = static_cast<unsigned char>(carry);
                carry >>= 8;
            }
        }
    }
    qnCryptoFree(&ctx);
    wipe(A, sizeof A);
    qnFreeMemory(I);
    return rv;
}

uint32_t qnCryptoPbePkcs12(qnCryptoAlgorithm algorithm, const unsigned char* password,
                           int passwordLength, const unsigned char* salt, int saltLength,
                           int iterations, int id, unsigned char* output, int outputLength) {
    if (passwordLength < 0 || (passwordLength > 0 && password == nullptr) ||
        passwordLength > (0x7FFFFFFF / 2) - 1)
        return fail(QN_CRYPTO_E_ARGUMENT);
    const int bmpLength = (passwordLength + 1) * 2;
    unsigned char* bmp = static_cast<unsigned char*>(qnAllocateMemory(bmpLength));
    if (bmp == nullptr) return fail(QN_CRYPTO_E_MEMORY);
    for (int i = 0; i < passwordLength; ++i) {
        bmp[2 * i] = 0;
        bmp[2 * i + 1] = password[i];
    }
    bmp[bmpLength - 2] = bmp[bmpLength - 1] = 0;
    qnCryptoPbePkcs12_Raw(algorithm, bmp, bmpLength, salt, saltLength, iterations, id, output,
                          outputLength);
    qnFreeMemory(bmp);
    return rv;
}

uint32_t qnCryptoRandomGenerate(void* handle, unsigned char* output, int length) {
    if (output == nullptr || length < 1) return fail(QN_CRYPTO_E_ARGUMENT);
    if (handle != nullptr) return rv;
    // Reseeded from the clock at every call, as the token drivers expect.
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (int i = 0; i < length; ++i) output[i] = static_cast<unsigned char>(std::rand());
    return rv;
}

}  // extern "C"
