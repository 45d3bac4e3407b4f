// Shared by the fuzz targets: a failed invariant must crash, so that
// libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                  \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)
