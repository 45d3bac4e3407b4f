// RSA data helpers for the host side of Idprotect secure messaging and the
// crypto drivers. Private-key operations never run on the host.
#pragma once

#include "libapdu/types.h"

namespace libapdu {

// The RSA modulus of an X.509 certificate, found by walking its DER: the
// fifth SEQUENCE of the to-be-signed part is the key information. The first
// byte of the INTEGER is dropped unconditionally (normally DER's leading
// zero), so the result has the key's length. Anything malformed raises
// 0x6281; nothing is read past the end of `certificate`.
TBytes extractPublicKeyFromCert(const TBytes& certificate);

// data has key's length and is below it as a big-endian number.
bool isValidDataForRSA(const TBytes& key, const TBytes& data);

// Prefixes data with 00 02, unseeded rand() % 255 bytes (zeros possible, no
// minimum count) and 00, until the total is a multiple of blockSize.
// blockSize below 1 raises 0x6B00.
void pkcs1pad(TBytes& data, int blockSize);

}  // namespace libapdu
