// The certificate walk that finds an RSA modulus, on untrusted bytes: it
// must give a modulus inside the input or fail, never read past it.
#include <cstddef>
#include <cstdint>

#include "crypto/rsa_helpers.h"
#include "fuzz_check.h"
#include "libapdu/exception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const TBytes certificate(data, data + size);
    try {
        const TBytes modulus = libapdu::extractPublicKeyFromCert(certificate);
        FUZZ_CHECK(modulus.size() <= size);
    } catch (const CAException&) {
    } catch (int) {
    }
    return 0;
}
