// The whole Java-family stack against a card whose every answer is fuzz
// input: the first byte chooses the Java applet or its Joker copy (other
// instruction bytes, no administrator branch), the rest are the answers to
// the AID selection, node descriptions, list pages, file data, the FIPS file
// and the PIN dialogue.
#include "fuzz_stack.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    fuzz_stack::run(
        {0x3B, 0xD5, 0x18, 0x00, 0x81, 0x31, 0xFE, 0x7D, 0x80, 0x73, 0xC8, 0x21, 0x10, 0xF4},
        (data[0] & 1) ? 0x2204 : 0x2001, data + 1, size - 1);
    return 0;
}
