// The token-free pieces of krfs keys and krfs decrypt: key paths and PKCS#1
// unpadding.
#include "keyparts.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace krfstool;

TEST(KeyPath, TakesOnlyHexElementsOfSixteenBits) {
    EXPECT_EQ(parseKeyPath("3F00/6666/6000/1001/0001"),
              (TPath{0x3F00, 0x6666, 0x6000, 0x1001, 0x0001}));
    EXPECT_EQ(parseKeyPath("3f00/3000/3002/205"), (TPath{0x3F00, 0x3000, 0x3002, 0x0205}));
    for (const char* bad : {"", "/", "3F00/zz", "3F00/10000", "3F00/+1", "3F00/0x12", "3F00/ 1"})
        EXPECT_THROW(parseKeyPath(bad), std::invalid_argument) << bad;
}

// 00 02, `padding` nonzero bytes, then `tail`; `head` replaces the 00 02.
TBytes block(std::size_t padding, TBytes tail, TBytes head = {0x00, 0x02}) {
    head.insert(head.end(), padding, 0xA5);
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

TEST(Pkcs1, Type2UnpaddingTakesOnlyWellFormedBlocks) {
    const struct {
        const char* what;
        TBytes block;
        bool good;
        TBytes message;
    } rows[] = {
        {"eight bytes of padding", block(8, {0x00, 0x00, 'h'}), true, {0x00, 'h'}},
        {"an empty message", block(117, {0x00}), true, {}},
        {"block type 1 (signature)", block(8, {0x00, 'h'}, {0x00, 0x01}), false, {}},
        {"seven bytes of padding", block(7, {0x00, 'h'}), false, {}},
        {"no 00 after the padding", block(20, {}), false, {}},
        {"first byte not 00", block(8, {0x00, 'h'}, {0x01, 0x02}), false, {}},
        {"too short for a header", {0x00}, false, {}},
    };
    for (const auto& r : rows) {
        if (r.good) {
            EXPECT_EQ(unpadPkcs1Type2(r.block), r.message) << r.what;
        } else {
            EXPECT_THROW(unpadPkcs1Type2(r.block), std::invalid_argument) << r.what;
        }
    }
}

}  // namespace
