#include "alloc.h"

#include <gtest/gtest.h>

#include <set>

namespace {

TEST(SizedAlloc, SmallSizesComeFromTheirListAndAreReused) {
    void* p = sized_alloc::alloc(120);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(sized_alloc::heads[15] != nullptr, true) << "list 15 refilled for 120 bytes";
    sized_alloc::free(p, 120);
    EXPECT_EQ(sized_alloc::heads[15], p) << "a freed block goes to the front of its list";
    EXPECT_EQ(sized_alloc::alloc(113), p) << "113..120 bytes share list 15";
    sized_alloc::free(p, 113);
}

TEST(SizedAlloc, LargeSizesBypassTheLists) {
    void* before[sized_alloc::lists];
    for (unsigned long i = 0; i < sized_alloc::lists; ++i) before[i] = sized_alloc::heads[i];
    void* p = sized_alloc::alloc(121);
    for (unsigned long i = 0; i < sized_alloc::lists; ++i)
        EXPECT_EQ(sized_alloc::heads[i], before[i]);
    sized_alloc::free(p, 121);
    for (unsigned long i = 0; i < sized_alloc::lists; ++i)
        EXPECT_EQ(sized_alloc::heads[i], before[i]);
}

TEST(FixedAlloc, BlocksAreDistinctAlignedAndRecycled) {
    struct Obj {
        char bytes[24];
    };
    std::set<void*> seen;
    std::vector<void*> blocks;
    // More than one 4096-byte chunk's worth.
    for (int i = 0; i < 400; ++i) {
        void* p = fixed_alloc<Obj>::alloc();
        EXPECT_TRUE(seen.insert(p).second);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(void*), 0u);
        blocks.push_back(p);
    }
    void* last = blocks.back();
    for (void* p : blocks) fixed_alloc<Obj>::free(p);
    EXPECT_EQ(fixed_alloc<Obj>::alloc(), last) << "the last freed block is handed out first";
}

}  // namespace
