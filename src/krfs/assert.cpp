#include "assert.h"

#include <errno.h>

#include <cstdio>
#include <cstdlib>

namespace krfs {

void AssertionFailed(const char* text, const char* file, unsigned line, const char* signature) {
    std::fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
                 file, line, signature, text);
    std::fflush(stderr);
    std::abort();
}

}  // namespace krfs
