// The whole Pro stack against a card whose every answer is fuzz input: the
// applet's start, control data, list pages, counter files and challenges.
#include "fuzz_stack.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_stack::run({0x3B, 0xF2, 0x18, 0x00, 0x00, 0xC1, 0x0A, 0x31, 0xFE, 0x55, 0xC8, 0x06, 0x00},
                    0x1002, data, size);
    return 0;
}
