// CTest runs each end-to-end case as a process of its own, which enters a
// private pcscd world first: cases never share a pcscd or a vpcd port.
#include "harness/harness.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Listing the tests (CTest's discovery at build time) needs no privileges.
    if (!GTEST_FLAG_GET(list_tests)) {
        try {
            krfs::harness::enterPrivateNamespaces();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "krfs e2e: %s\n", e.what());
            return 1;
        }
    }
    return RUN_ALL_TESTS();
}
