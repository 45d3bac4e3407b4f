// Assertions of the public layer: live in every build, with the standard text.
#pragma once

namespace krfs {

[[noreturn]] void AssertionFailed(const char* text, const char* file, unsigned line,
                                  const char* signature);

}  // namespace krfs

#define KRFS_ASSERT(cond, text, signature) \
    ((cond) ? (void)0 : ::krfs::AssertionFailed(text, __FILE__, __LINE__, signature))
