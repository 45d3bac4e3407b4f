// The BER-TLV view on untrusted bytes. The first three input bytes are the
// tag to look for (first byte lowest), the fourth says how many of them count;
// the rest is the token's data. Views must stay within their bytes, and every
// value must be readable in full (ASan checks).
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "libapdu/apdu.h"

using libapdu::CBERTLV;

namespace {

constexpr size_t kSelector = 4;
constexpr int kMaxDepth = 6;
constexpr int kMaxSiblings = 64;

volatile unsigned long sink;

void touch(const CBERTLV& t) {
    unsigned long sum = t.asNumber();
    for (unsigned char b : t.asBytes()) sum += b;
    sink = sum;
}

void within(const CBERTLV& inner, const CBERTLV& outer) {
    FUZZ_CHECK(inner.begin() >= outer.begin());
    FUZZ_CHECK(inner.end() <= outer.end());
    FUZZ_CHECK(inner.begin() <= inner.end());
}

void walk(const CBERTLV& parent, unsigned int tag, int depth) {
    CBERTLV previous(parent.begin(), 0);
    const CBERTLV* after = nullptr;
    for (int i = 0; i < kMaxSiblings; ++i) {
        try {
            const CBERTLV child = parent.getChild(tag, after);
            FUZZ_CHECK(parent.isConstructed());
            within(child, parent);
            FUZZ_CHECK(child.tag() == tag);
            if (after) FUZZ_CHECK(child.begin() > after->end());
            touch(child);
            if (depth < kMaxDepth) walk(child, tag, depth + 1);
            previous = child;
            after = &previous;
        } catch (int code) {
            FUZZ_CHECK(code == 0);
            return;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kSelector) return 0;
    const unsigned int tagBytes = data[3] % 3 + 1;
    unsigned int tag = 0;
    for (unsigned int i = 0; i < tagBytes; ++i)
        tag |= static_cast<unsigned int>(data[i]) << (8 * i);
    const CBERTLV all(data + kSelector, size - kSelector);

    try {
        const CBERTLV first = CBERTLV::parse(all.begin(), all.size());
        within(first, all);
        touch(first);
        walk(first, tag, 1);
    } catch (int code) {
        FUZZ_CHECK(code == 0);
    }
    walk(all, tag, 0);
    return 0;
}
