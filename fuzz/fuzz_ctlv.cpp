// The simple TLV view on untrusted bytes. The first input byte is the tag to
// look for; the rest is the token's data. Every view must stay within the
// bytes it was given, and every value must be readable in full (ASan checks).
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "libapdu/apdu.h"

using libapdu::CTLV;

namespace {

constexpr int kMaxDepth = 4;
constexpr int kMaxSiblings = 64;

volatile unsigned long sink;

void touch(const CTLV& t) {
    unsigned long sum = t.asNumber();
    for (unsigned char b : t.asBytes()) sum += b;
    sink = sum;
}

void within(const CTLV& inner, const CTLV& outer) {
    FUZZ_CHECK(inner.begin() >= outer.begin());
    FUZZ_CHECK(inner.end() <= outer.end());
    FUZZ_CHECK(inner.begin() <= inner.end());
}

// Walks the children with `tag` one after the other, and into each.
void walk(const CTLV& parent, unsigned int tag, int depth) {
    CTLV previous(parent.begin(), 0);
    const CTLV* after = nullptr;
    for (int i = 0; i < kMaxSiblings; ++i) {
        try {
            const CTLV child = parent.getChild(tag, after);
            within(child, parent);
            FUZZ_CHECK(child.tag() == tag);
            if (after) FUZZ_CHECK(child.begin() > after->end());
            touch(child);
            if (depth < kMaxDepth) walk(CTLV(child.begin(), child.size()), tag, depth + 1);
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
    if (size < 1) return 0;
    const unsigned int tag = data[0];
    const CTLV all(data + 1, size - 1);

    try {
        const CTLV first = CTLV::parse(all.begin(), all.size());
        within(first, all);
        FUZZ_CHECK(first.tag() != 0 && first.tag() != 0xFF);
        touch(first);
        walk(CTLV(first.begin(), first.size()), tag, 1);
    } catch (int code) {
        FUZZ_CHECK(code == 0);
    }
    walk(all, tag, 0);
    return 0;
}
