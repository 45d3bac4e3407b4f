// The simple and BER TLV views: headers, lengths, bounds and child walks.
#include <gtest/gtest.h>

#include <climits>

#include "libapdu/apdu.h"

namespace {

using libapdu::CBERTLV;
using libapdu::CTLV;

// Whether f throws the plain integer 0, the failure of both views.
template <class F>
bool throwsZero(F f) {
    try {
        f();
    } catch (int code) {
        return code == 0;
    }
    return false;
}

TBytes withTail(TBytes head, size_t tail) {
    for (size_t i = 0; i < tail; ++i) head.push_back(static_cast<unsigned char>(i));
    return head;
}

// ---- getle ----

TEST(Getle, BigEndianOfAtMostFourBytes) {
    const unsigned char p[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
    const struct {
        unsigned long n;
        unsigned long want;
    } cases[] = {
        {0, 0},          {1, 0x12},
        {2, 0x1234},     {3, 0x123456},
        {4, 0x12345678}, {5, 0x12345678},
        {6, 0x12345678}, {ULONG_MAX, 0x12345678},  // negative as a signed number
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CTLV::getle(p, c.n), c.want) << "n=" << c.n;
        EXPECT_EQ(CBERTLV::getle(p, c.n), c.want) << "n=" << c.n;
    }
}

// ---- CTLV ----

struct SimpleCase {
    const char* name;
    TBytes encoded;
    bool ok;
    unsigned int tag;
    unsigned long headerSize;  // offset of the value
    unsigned long size;
};

std::vector<SimpleCase> simpleCases() {
    return {
        {"short length", {0x81, 0x03, 0x01, 0x02, 0x03}, true, 0x81, 2, 3},
        {"empty value", {0x01, 0x00}, true, 0x01, 2, 0},
        {"word length", withTail({0x82, 0xFF, 0x01, 0x00}, 256), true, 0x82, 4, 256},
        {"0xFE is still a short length", withTail({0x83, 0xFE}, 254), true, 0x83, 2, 254},
        {"tag FF", {0xFF, 0x00}, false, 0, 0, 0},
        {"tag 00", {0x00, 0x01, 0xAA}, false, 0, 0, 0},
        {"nothing", {}, false, 0, 0, 0},
        {"no length byte", {0x81}, false, 0, 0, 0},
        {"value past the end", {0x81, 0x05, 0x01, 0x02}, false, 0, 0, 0},
        {"word length cut", {0x81, 0xFF, 0x01}, false, 0, 0, 0},
        {"word length past the end", withTail({0x81, 0xFF, 0x01, 0x00}, 255), false, 0, 0, 0},
    };
}

TEST(SimpleTlv, BoundedParse) {
    for (const SimpleCase& c : simpleCases()) {
        SCOPED_TRACE(c.name);
        const unsigned char* p = c.encoded.data();
        if (!c.ok) {
            EXPECT_TRUE(throwsZero([&] { CTLV::parse(p, c.encoded.size()); }));
            continue;
        }
        const CTLV t = CTLV::parse(p, c.encoded.size());
        EXPECT_EQ(t.tag(), c.tag);
        EXPECT_EQ(t.begin(), p + c.headerSize);
        EXPECT_EQ(t.size(), c.size);
        EXPECT_EQ(t.end(), p + c.headerSize + c.size);
        EXPECT_EQ(t.asBytes(), TBytes(c.encoded.begin() + c.headerSize, c.encoded.end()));
        // The trusted constructor reads the same header.
        const CTLV u(p);
        EXPECT_EQ(u.tag(), c.tag);
        EXPECT_EQ(u.begin(), t.begin());
        EXPECT_EQ(u.size(), t.size());
        // One byte short of the value must fail.
        if (c.size > 0) {
            EXPECT_TRUE(throwsZero([&] { CTLV::parse(p, c.encoded.size() - 1); }));
        }
    }
}

TEST(SimpleTlv, TrustedConstructorRejectsReservedTags) {
    const unsigned char ff[] = {0xFF, 0x00};
    const unsigned char zero[] = {0x00, 0x00};
    EXPECT_TRUE(throwsZero([&] { CTLV t(ff); }));
    EXPECT_TRUE(throwsZero([&] { CTLV t(zero); }));
}

TEST(SimpleTlv, AsNumberTakesTheFirstFourBytes) {
    const unsigned char six[] = {0x81, 0x06, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06};
    EXPECT_EQ(CTLV::parse(six, sizeof six).asNumber(), 0x01020304ul);
    const unsigned char two[] = {0x81, 0x02, 0xBE, 0xEF};
    EXPECT_EQ(CTLV::parse(two, sizeof two).asNumber(), 0xBEEFul);
    const unsigned char none[] = {0x81, 0x00};
    EXPECT_EQ(CTLV::parse(none, sizeof none).asNumber(), 0ul);
}

TEST(SimpleTlv, ContainerViewHasTagZero) {
    const unsigned char raw[] = {0x81, 0x01, 0xAA};
    const CTLV c(raw, sizeof raw);
    EXPECT_EQ(c.tag(), 0u);
    EXPECT_EQ(c.begin(), raw);
    EXPECT_EQ(c.size(), sizeof raw);
}

TEST(SimpleTlv, GetChildWalksRepeatedTags) {
    const unsigned char raw[] = {0x81, 0x01, 0xAA, 0x82, 0x02, 0xBB,
                                 0xCC, 0x81, 0x01, 0xDD, 0x83, 0x00};
    const CTLV list(raw, sizeof raw);

    const CTLV first = list.getChild(0x81);
    EXPECT_EQ(first.asBytes(), TBytes{0xAA});
    const CTLV second = list.getChild(0x81, &first);
    EXPECT_EQ(second.asBytes(), TBytes{0xDD});
    EXPECT_EQ(second.begin(), raw + 9);
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x81, &second); }));

    EXPECT_EQ(list.getChild(0x82).asBytes(), (TBytes{0xBB, 0xCC}));
    EXPECT_EQ(list.getChild(0x83).size(), 0u);
    EXPECT_EQ(list.getChild(0x83, &first).begin(), raw + sizeof raw);
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x84); }));
    EXPECT_TRUE(throwsZero([&] { CTLV(raw, 0).getChild(0x81); }));
}

TEST(SimpleTlv, GetChildOfAParsedTlv) {
    const unsigned char raw[] = {0xA1, 0x05, 0x81, 0x01, 0xAA, 0x82, 0x00, 0x82, 0x01, 0xEE};
    const CTLV outer = CTLV::parse(raw, sizeof raw);
    EXPECT_EQ(outer.getChild(0x82).begin(), raw + 7);
    EXPECT_EQ(outer.getChild(0x82).size(), 0u);
    // The 82 behind the parent is not its child.
    const CTLV inner = outer.getChild(0x82);
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x82, &inner); }));
}

TEST(SimpleTlv, GetChildStaysWithinTheParent) {
    // The buffer holds all of 82's value, but the parent ends after 4 bytes.
    const unsigned char raw[] = {0x81, 0x01, 0xAA, 0x82, 0x05, 1, 2, 3, 4, 5};
    const CTLV parent(raw, 4);
    EXPECT_EQ(parent.getChild(0x81).asBytes(), TBytes{0xAA});
    EXPECT_TRUE(throwsZero([&] { parent.getChild(0x82); }));
    // A corrupt child before the wanted one stops the walk.
    const unsigned char corrupt[] = {0x81, 0x01, 0xAA, 0x00, 0x00, 0x84, 0x00};
    const CTLV list(corrupt, sizeof corrupt);
    EXPECT_EQ(list.getChild(0x81).asBytes(), TBytes{0xAA});
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x84); }));
}

TEST(SimpleTlv, GetChildRejectsAnAfterFromElsewhere) {
    const unsigned char raw[] = {0x81, 0x01, 0xAA, 0x81, 0x01, 0xBB};
    const unsigned char other[] = {0x81, 0x01, 0xCC};
    const CTLV list(raw + 3, 3);
    const CTLV before(raw, 2);  // ends before the list starts
    const CTLV foreign = CTLV::parse(other, sizeof other);
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x81, &before); }));
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x81, &foreign); }));
}

// ---- CBERTLV ----

struct BerCase {
    const char* name;
    TBytes encoded;
    bool ok;
    unsigned int tag;
    bool constructed;
    unsigned long headerSize;
    unsigned long size;
};

std::vector<BerCase> berCases() {
    return {
        {"one-byte tag", {0x04, 0x02, 0xAA, 0xBB}, true, 0x04, false, 2, 2},
        {"constructed", {0x61, 0x00}, true, 0x61, true, 2, 0},
        {"context constructed", {0xA5, 0x01, 0x00}, true, 0xA5, true, 2, 1},
        {"5F is a whole tag", withTail({0x5F, 0x24}, 0x24), true, 0x5F, false, 2, 0x24},
        {"7F is a whole tag", {0x7F, 0x49, 0x00}, false, 0, false, 0, 0},
        {"7F with its value", withTail({0x7F, 0x03}, 3), true, 0x7F, true, 2, 3},
        {"two-byte tag", {0x1F, 0x01, 0x00}, true, 0x011F, false, 3, 0},
        {"three-byte tag", {0x1F, 0x81, 0x01, 0x00}, true, 0x01811F, false, 4, 0},
        {"tag byte 00", {0x1F, 0x00, 0x00}, false, 0, false, 0, 0},
        {"tag byte 80", {0x1F, 0x80, 0x01, 0x00}, false, 0, false, 0, 0},
        {"tag byte 1E", {0x1F, 0x1E, 0x00}, false, 0, false, 0, 0},
        {"fourth tag byte", {0x1F, 0x81, 0x81, 0x01, 0x00}, false, 0, false, 0, 0},
        {"tag cut after 1F", {0x1F}, false, 0, false, 0, 0},
        {"tag cut after 1F 81", {0x1F, 0x81}, false, 0, false, 0, 0},
        {"no length", {0x04}, false, 0, false, 0, 0},
        {"length 81", {0x04, 0x81, 0x02, 0xAA, 0xBB}, true, 0x04, false, 3, 2},
        {"length 82", withTail({0x04, 0x82, 0x01, 0x00}, 256), true, 0x04, false, 4, 256},
        {"length 83", {0x04, 0x83, 0x00, 0x00, 0x01, 0xAA}, true, 0x04, false, 5, 1},
        {"length 84", {0x04, 0x84, 0x00, 0x00, 0x00, 0x01, 0xAA}, true, 0x04, false, 6, 1},
        {"length 80", {0x04, 0x80, 0x00, 0x00}, false, 0, false, 0, 0},
        {"length 85", {0x04, 0x85, 0, 0, 0, 0, 1, 0xAA}, false, 0, false, 0, 0},
        {"length FF", {0x04, 0xFF, 0x00}, false, 0, false, 0, 0},
        {"length bytes cut", {0x04, 0x82, 0x01}, false, 0, false, 0, 0},
        {"huge length", {0x04, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0xAA}, false, 0, false, 0, 0},
        {"value past the end", {0x04, 0x03, 0xAA, 0xBB}, false, 0, false, 0, 0},
        {"nothing", {}, false, 0, false, 0, 0},
    };
}

TEST(BerTlv, BoundedParse) {
    for (const BerCase& c : berCases()) {
        SCOPED_TRACE(c.name);
        const unsigned char* p = c.encoded.data();
        if (!c.ok) {
            EXPECT_TRUE(throwsZero([&] { CBERTLV::parse(p, c.encoded.size()); }));
            continue;
        }
        const CBERTLV t = CBERTLV::parse(p, c.encoded.size());
        EXPECT_EQ(t.tag(), c.tag);
        EXPECT_EQ(t.isConstructed(), c.constructed);
        EXPECT_EQ(t.begin(), p + c.headerSize);
        EXPECT_EQ(t.size(), c.size);
        EXPECT_EQ(t.asBytes(), TBytes(c.encoded.begin() + c.headerSize, c.encoded.end()));
        const CBERTLV u(p);
        EXPECT_EQ(u.tag(), c.tag);
        EXPECT_EQ(u.begin(), t.begin());
        EXPECT_EQ(u.size(), t.size());
        if (c.size > 0) {
            EXPECT_TRUE(throwsZero([&] { CBERTLV::parse(p, c.encoded.size() - 1); }));
        }
    }
}

TEST(BerTlv, ClassBearingFirstByteIsAOneByteTag) {
    // 5F 24 reads as tag 5F with length 0x24, not as the two-byte tag 5F24.
    const TBytes raw = withTail({0x5F, 0x24, 0x01, 0xAA}, 0x30);
    const CBERTLV t(raw.data());
    EXPECT_EQ(t.tag(), 0x5Fu);
    EXPECT_EQ(t.size(), 0x24u);
    EXPECT_EQ(t.begin(), raw.data() + 2);
    EXPECT_TRUE(throwsZero([&] { CBERTLV::parse(raw.data(), 4); }));
}

TEST(BerTlv, TrustedConstructorRejectsBadHeaders) {
    const unsigned char indefinite[] = {0x30, 0x80, 0x00, 0x00};
    const unsigned char badTag[] = {0x1F, 0x80, 0x01, 0x00};
    EXPECT_TRUE(throwsZero([&] { CBERTLV t(indefinite); }));
    EXPECT_TRUE(throwsZero([&] { CBERTLV t(badTag); }));
}

TEST(BerTlv, AsNumber) {
    const unsigned char five[] = {0x02, 0x05, 0x01, 0x02, 0x03, 0x04, 0x05};
    EXPECT_EQ(CBERTLV::parse(five, sizeof five).asNumber(), 0x01020304ul);
    const unsigned char one[] = {0x02, 0x81, 0x01, 0x7F};
    EXPECT_EQ(CBERTLV::parse(one, sizeof one).asNumber(), 0x7Ful);
}

TEST(BerTlv, GetChildWalksRepeatedAndMultiByteTags) {
    const unsigned char raw[] = {0xE1, 0x0E, 0x5F, 0x01, 0xAA, 0x4F, 0x01, 0xBB, 0x5F,
                                 0x01, 0xCC, 0x1F, 0x81, 0x01, 0x01, 0xEE, 0x5F, 0x00};
    const CBERTLV outer = CBERTLV::parse(raw, sizeof raw);
    ASSERT_TRUE(outer.isConstructed());

    std::vector<TBytes> seen;
    const CBERTLV first = outer.getChild(0x5F);
    seen.push_back(first.asBytes());
    const CBERTLV second = outer.getChild(0x5F, &first);
    seen.push_back(second.asBytes());
    EXPECT_EQ(seen, (std::vector<TBytes>{{0xAA}, {0xCC}}));
    // The 5F 00 behind the parent's end is not a child.
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x5F, &second); }));

    EXPECT_EQ(outer.getChild(0x01811F).asBytes(), TBytes{0xEE});
    EXPECT_EQ(outer.getChild(0x4F, &first).asBytes(), TBytes{0xBB});
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x4F, &second); }));
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x811F); }));

    // A container view over raw bytes is constructed and sees all of them.
    const CBERTLV all(raw + 2, sizeof raw - 2);
    EXPECT_EQ(all.tag(), 0u);
    ASSERT_TRUE(all.isConstructed());
    const CBERTLV last = all.getChild(0x5F, &second);
    EXPECT_EQ(last.size(), 0u);
    EXPECT_EQ(last.begin(), raw + sizeof raw);
}

TEST(BerTlv, GetChildNeedsAConstructedParent) {
    // The value of a primitive 04 happens to hold a well-formed 81 01 AA.
    const unsigned char raw[] = {0x04, 0x03, 0x81, 0x01, 0xAA};
    const CBERTLV primitive = CBERTLV::parse(raw, sizeof raw);
    ASSERT_FALSE(primitive.isConstructed());
    EXPECT_TRUE(throwsZero([&] { primitive.getChild(0x81); }));
    EXPECT_EQ(CBERTLV(raw + 2, 3).getChild(0x81).asBytes(), TBytes{0xAA});
}

TEST(BerTlv, GetChildStaysWithinTheParent) {
    // 30 says 4 bytes; its child 04 claims 5, which the buffer does hold.
    const unsigned char raw[] = {0x30, 0x04, 0x04, 0x05, 0x01, 0x02, 0x03, 0x04, 0x05};
    const CBERTLV outer = CBERTLV::parse(raw, sizeof raw);
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x04); }));
    // A long-form length running past the parent fails the same way.
    const unsigned char lengthy[] = {0x30, 0x03, 0x04, 0x82, 0x00, 0x00};
    EXPECT_TRUE(throwsZero([&] { CBERTLV::parse(lengthy, sizeof lengthy).getChild(0x04); }));
    // A corrupt sibling in front of the wanted child stops the walk.
    const unsigned char corrupt[] = {0x30, 0x06, 0x04, 0x80, 0x00, 0x02, 0x01, 0x05};
    EXPECT_TRUE(throwsZero([&] { CBERTLV::parse(corrupt, sizeof corrupt).getChild(0x02); }));
}

TEST(BerTlv, GetChildRejectsAnAfterFromElsewhere) {
    const unsigned char raw[] = {0x04, 0x01, 0xAA, 0x04, 0x01, 0xBB};
    const unsigned char other[] = {0x04, 0x01, 0xCC};
    const CBERTLV list(raw + 3, 3);
    const CBERTLV before(raw, 2);  // ends before the list starts
    const CBERTLV foreign = CBERTLV::parse(other, sizeof other);
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x04, &before); }));
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x04, &foreign); }));
}

}  // namespace
