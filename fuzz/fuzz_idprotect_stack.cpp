// The whole IDProtect stack against a card whose every answer is fuzz input:
// the AID selection, the information file, file control data, directory
// names, lists, PIN objects, the verified-PIN list and the key agreement.
#include "fuzz_stack.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_stack::run(
        {0x3B, 0xD5, 0x18, 0xFF, 0x80, 0x91, 0xFE, 0x1F, 0xC3, 0x80, 0x73, 0xC8, 0x21, 0x10, 0x0A},
        0x2101, data, size);
    return 0;
}
