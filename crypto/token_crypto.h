// Card-side recipes over the qn* toolkit: PIN key derivations, challenge
// answers, and secure messaging encryption and MACs. Every constant here is
// shared with the card, so none may change.
//
// None of them reports a failure. The raw-buffer functions return at once,
// leaving `out` untouched, when a length is not the one they require.
#pragma once

#include "libapdu/types.h"

namespace libapdu {

// out (16 bytes) = MD5 applied `iterations` times; 0 leaves out as it was.
void crypto_qntoken_md5_iterated(const unsigned char* data, unsigned long dataLen,
                                 unsigned char* out, unsigned long outLen,
                                 unsigned long iterations);
// out (32 bytes) = MD5(data) || MD5(MD5(data)). The salt is ignored.
void crypto_qntoken_md5_32(const unsigned char* data, unsigned long dataLen,
                           const unsigned char* salt, unsigned long saltLen, unsigned char* out,
                           unsigned long outLen);
// The unsalted PIN key (24 bytes) of Pro and Java cards: 7 bits per byte of
// MD5(00 || data) || MD5(01 || data). The salt is ignored.
void crypto_qntoken_md5_24(const unsigned char* data, unsigned long dataLen,
                           const unsigned char* salt, unsigned long saltLen, unsigned char* out,
                           unsigned long outLen);
// PKCS #12 key (24 bytes) from the PIN and a 20-byte salt, SHA-1, 999
// iterations, the low byte of `id` as diversifier.
void crypto_qntoken_java_sha1(int id, const unsigned char* pin, unsigned long pinLen,
                              const unsigned char* salt, unsigned long saltLen, unsigned char* out,
                              unsigned long outLen);
// The same recipe under the name the Pro drivers use.
void crypto_qntoken_pro_sha1(int id, const unsigned char* pin, unsigned long pinLen,
                             const unsigned char* salt, unsigned long saltLen, unsigned char* out,
                             unsigned long outLen);
// Triple DES CBC-MAC (8 bytes) under a 24-byte key, zero-padded only when
// the data is not block aligned.
void crypto_qntoken_des3_mac(const unsigned char* data, unsigned long dataLen,
                             const unsigned char* key, unsigned long keyLen, unsigned char* out,
                             unsigned long outLen);
// One 8-byte block, triple DES CBC under a 16-byte key and zero IV; dataLen is ignored.
void crypto_qntoken_des3cbc_enc(const unsigned char* data, unsigned long dataLen,
                                const unsigned char* key, unsigned long keyLen, unsigned char* out,
                                unsigned long outLen);
// One 8-byte block, triple DES ECB under a 24-byte key; dataLen is ignored.
void crypto_qntoken_des3_enc(const unsigned char* data, unsigned long dataLen,
                             const unsigned char* key, unsigned long keyLen, unsigned char* out,
                             unsigned long outLen);
// The 16-byte answer to an Athena challenge: two-key triple DES CBC of the
// challenge under the first 16 bytes of SHA-1(pin).
void crypto_athena_response(const unsigned char* pin, unsigned long pinLen,
                            const unsigned char* challenge, unsigned long challengeLen,
                            unsigned char* out, unsigned long outLen);
// Clock-seeded rand() bytes; see qnCryptoRandomGenerate.
void crypto_random(unsigned char* buffer, unsigned long length);

// Secure messaging. key: 16 or 24 bytes, else nothing happens. iv: empty for
// zeros, otherwise exactly 8 bytes.
void crypto_sm_enc(const TBytes& key, const TBytes& data, TBytes& out, const TBytes& iv);
void crypto_sm_enc_athena(const TBytes& key, const TBytes& data, TBytes& out, const TBytes& iv);
// On bad padding or a partial block, out keeps its size and contents.
void crypto_sm_dec(const TBytes& key, const TBytes& data, TBytes& out, const TBytes& iv);
// Full triple DES CBC-MAC, 0x80 padding always added.
void crypto_sm_mac(const TBytes& key, const TBytes& data, TBytes& out);
// Retail MAC, 0x80 padding always added.
void crypto_sm_mac_athena(const TBytes& key, const TBytes& data, TBytes& out);
// Retail MAC, zero padding only when unaligned (the caller pads itself).
void crypto_sm_mac_pro(const TBytes& key, const TBytes& data, TBytes& out);

}  // namespace libapdu
