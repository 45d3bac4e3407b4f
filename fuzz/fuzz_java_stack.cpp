// The whole Java stack against a card whose every answer is fuzz input: the
// AID selection, node descriptions, list pages, file data, the FIPS file.
#include "fuzz_stack.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_stack::run(
        {0x3B, 0xD5, 0x18, 0x00, 0x81, 0x31, 0xFE, 0x7D, 0x80, 0x73, 0xC8, 0x21, 0x10, 0xF4},
        0x2001, data, size);
    return 0;
}
