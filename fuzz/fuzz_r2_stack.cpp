// The whole R2 stack against a card whose every answer is fuzz input: select
// and list answers, blocks, status words low byte first.
#include "fuzz_stack.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_stack::run({0x3B, 0x81, 0x1F, 0x00, 0xCC, 0x52}, 0x1001, data, size);
    return 0;
}
