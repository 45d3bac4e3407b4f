/* The exported crypto toolkit of libkrFS: hashes, DES and triple DES in ECB
 * and CBC, CBC MACs, the PKCS #12 key derivation, a random generator and
 * memory helpers. Usable from C and C++.
 *
 * Status: every function that returns unsigned int returns the global `rv`.
 * A failure stores its code in `rv` and a success does not clear it, so a
 * failure sticks through later good calls. Only qnCryptoCbc,
 * qnCryptoCbcFinal, qnCryptoMacUpdate, qnCryptoMacUpdatePadded and
 * qnCryptoMacResult store a fresh result, and that result is 0 only when the
 * call completed no block, was a size query, or ran with `rv` already 0.
 * Clear `rv` yourself (rv = 0) to start afresh. Not thread-safe.
 *
 * An algorithm is named by its set-up function (qnCryptoAlgMD5 and so on).
 * A context lives from its init call to qnCryptoFree. */
#ifndef KRFS_QNCRYPTO_H
#define KRFS_QNCRYPTO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QN_CRYPTO_OK 0u
#define QN_CRYPTO_E_ARGUMENT 0xFFFF0004u /* bad argument, or algorithm of the wrong kind */
#define QN_CRYPTO_E_PADDING 0xFFFF0005u  /* padding of decrypted data is not valid */
#define QN_CRYPTO_E_LENGTH 0xFFFF0006u   /* data is not a whole number of blocks */
#define QN_CRYPTO_E_MEMORY 0xFFFF0007u   /* out of memory */

#define QN_CRYPTO_ENCRYPT 0u
#define QN_CRYPTO_DECRYPT 1u

/* Padding modes of the final operations. */
#define QN_PAD_NONE 0  /* data must end on a block boundary */
#define QN_PAD_PKCS5 1 /* n bytes of value n; a whole block when aligned */
#define QN_PAD_ISO 2   /* 0x80 then zeros; a whole block when aligned */
#define QN_PAD_ZERO 3  /* zeros, nothing when aligned; encryption and MAC only */

/* Big enough for MD5, SHA-1 or three DES key schedules. */
#define QN_CRYPTO_STATE_BYTES 384

typedef struct qnCryptoContext qnCryptoContext;

/* Sets up `ctx` for one algorithm. Hash algorithms ignore the last three. */
typedef uint32_t (*qnCryptoAlgorithm)(qnCryptoContext* ctx, uint32_t direction,
                                      const unsigned char* key, int keyLength);
/* One block (ciphers) or a hash step; returns `rv`. */
typedef uint32_t (*qnCryptoProcess)(qnCryptoContext* ctx, const unsigned char* input,
                                    int inputLength, unsigned char* output, int* outputLength);
typedef void (*qnCryptoFinalizer)(qnCryptoContext* ctx);

/* Caller-owned, normally on the stack. Treat the fields as read-only. */
struct qnCryptoContext {
    qnCryptoFinalizer finalize; /* run by qnCryptoFree, may be null */
    qnCryptoAlgorithm algorithm;
    qnCryptoProcess process;
    uint32_t direction; /* 0 encrypt, 1 decrypt */
    union {
        unsigned char bytes[QN_CRYPTO_STATE_BYTES];
        uint64_t alignment;
    } state; /* MD5_CTX, SHAstate_st, or DES K1, K2, K3 */
    unsigned char chain[64];
    unsigned char block[64];
    uint32_t position;   /* bytes held in block */
    uint32_t blockSize;  /* 0 for a hash, 8 for DES */
    uint32_t digestSize; /* 16 or 20 for a hash, 0 for a cipher */
    uint32_t keySize;
};

extern uint32_t rv;

/* size bytes with the size kept ahead of them; null for size < 1 or no memory. */
void* qnAllocateMemory(int size);
/* Zero-fills the block, then frees it. Null is ignored. */
uint32_t qnFreeMemory(void* p);
/* Zero-fills; a negative size or a null p with size != 0 returns
 * QN_CRYPTO_E_ARGUMENT and leaves rv alone. */
uint32_t qnZeroMemory(void* p, int size);
/* Runs the finalizer, then zero-fills the context. */
uint32_t qnCryptoFree(qnCryptoContext* ctx);

uint32_t qnCryptoAlgMD5(qnCryptoContext* ctx, uint32_t direction, const unsigned char* key,
                        int keyLength);
uint32_t qnCryptoAlgSHA1(qnCryptoContext* ctx, uint32_t direction, const unsigned char* key,
                         int keyLength);
/* Triple DES, EDE. A 16-byte key has K3 = K1; 24 bytes give K1, K2, K3. */
uint32_t qnCryptoAlgDES3(qnCryptoContext* ctx, uint32_t direction, const unsigned char* key,
                         int keyLength);
/* Single DES with K1 per block; qnCryptoMacResult finishes with K2 and K3
 * (ISO/IEC 9797-1 MAC algorithm 3, the retail MAC). */
uint32_t qnCryptoAlgDES3_Lite(qnCryptoContext* ctx, uint32_t direction, const unsigned char* key,
                              int keyLength);

uint32_t qnCryptoHashInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm);
uint32_t qnCryptoHashUpdate(qnCryptoContext* ctx, const unsigned char* data, int length);
/* With output: writes the digest and its size. With a null output: the size only. */
uint32_t qnCryptoHashResult(qnCryptoContext* ctx, unsigned char* output, int* length);

uint32_t qnCryptoEcbInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm, uint32_t direction,
                         const unsigned char* key, int keyLength);
/* length must be a multiple of the block size; output gets length bytes. */
uint32_t qnCryptoEcb(qnCryptoContext* ctx, const unsigned char* input, int length,
                     unsigned char* output);

/* A null iv means zeros; a non-null iv has exactly one block. */
uint32_t qnCryptoCbcInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm, uint32_t direction,
                         const unsigned char* key, int keyLength, const unsigned char* iv,
                         int ivLength);
/* Whole blocks only; decryption holds back the last block for the final call.
 * A null output makes this a size query that changes nothing. */
uint32_t qnCryptoCbc(qnCryptoContext* ctx, const unsigned char* input, int length,
                     unsigned char* output, int* outputLength);
uint32_t qnCryptoCbcFinal(qnCryptoContext* ctx, const unsigned char* input, int length, int padding,
                          unsigned char* output, int* outputLength);

uint32_t qnCryptoMacInit(qnCryptoContext* ctx, qnCryptoAlgorithm algorithm,
                         const unsigned char* key, int keyLength);
uint32_t qnCryptoMacUpdate(qnCryptoContext* ctx, const unsigned char* data, int length);
uint32_t qnCryptoMacUpdatePadded(qnCryptoContext* ctx, const unsigned char* data, int length,
                                 int padding);
/* padding must not be 0. Writes one block of MAC and stores its size. */
uint32_t qnCryptoMacResult(qnCryptoContext* ctx, int padding, unsigned char* output, int* length);

/* RFC 7292 appendix B with v = 64; the password is used as given. */
uint32_t qnCryptoPbePkcs12_Raw(qnCryptoAlgorithm algorithm, const unsigned char* password,
                               int passwordLength, const unsigned char* salt, int saltLength,
                               int iterations, int id, unsigned char* output, int outputLength);
/* As above, with the password of single bytes turned into big-endian 16-bit
 * characters and a 00 00 terminator. */
uint32_t qnCryptoPbePkcs12(qnCryptoAlgorithm algorithm, const unsigned char* password,
                           int passwordLength, const unsigned char* salt, int saltLength,
                           int iterations, int id, unsigned char* output, int outputLength);

/* handle must be null. Reseeds srand() from time() at every call, then takes
 * the low byte of rand() per output byte: NOT cryptographically strong, and two
 * calls within one second return the same bytes. */
uint32_t qnCryptoRandomGenerate(void* handle, unsigned char* output, int length);

#ifdef __cplusplus
}
#endif

#endif /* KRFS_QNCRYPTO_H */
