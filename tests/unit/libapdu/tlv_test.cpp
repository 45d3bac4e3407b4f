// The simple and BER TLV views: headers, lengths, bounds and child walks.
#include <gtest/gtest.h>

#include <climits>

#include "libapdu/apdu.h"
#include "unit/oracle.h"

namespace {

using krfs_test::hex;
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

TBytes withTail(const char* head, size_t tail) {
    TBytes out = hex(head);
    out.resize(out.size() + tail, 0x5A);
    return out;
}

struct Row {
    TBytes encoded;
    unsigned tag;   // 0: refused
    size_t header;  // where the value starts
};

// A bounded parse agrees with the trusted constructor, and fails one byte short.
template <class T>
void checkParse(const Row& r) {
    SCOPED_TRACE(krfs_test::toHex(r.encoded));
    const unsigned char* p = r.encoded.data();
    if (r.tag == 0) {
        EXPECT_TRUE(throwsZero([&] { T::parse(p, r.encoded.size()); }));
        return;
    }
    const T t = T::parse(p, r.encoded.size()), u(p);
    EXPECT_EQ(t.tag(), r.tag);
    EXPECT_EQ(t.begin(), p + r.header);
    EXPECT_EQ(t.end(), p + r.encoded.size());
    EXPECT_EQ(u.tag(), r.tag);
    EXPECT_EQ(u.end(), t.end());
    if (t.size() > 0) {
        EXPECT_TRUE(throwsZero([&] { T::parse(p, r.encoded.size() - 1); }));
    }
}

TEST(SimpleTlv, BoundedParseAndChildWalksWithinTheParent) {
    const Row rows[] = {{hex("81 03 010203"), 0x81, 2},
                        {hex("01 00"), 0x01, 2},
                        {withTail("82 FF 0100", 256), 0x82, 4},
                        {withTail("83 FE", 254), 0x83, 2},
                        {hex("FF 00"), 0, 0},
                        {hex("00 01 AA"), 0, 0},
                        {{}, 0, 0},
                        {hex("81"), 0, 0},
                        {hex("81 05 0102"), 0, 0},
                        {hex("81 FF 01"), 0, 0},
                        {withTail("81 FF 0100", 255), 0, 0}};
    for (const Row& r : rows) checkParse<CTLV>(r);
    EXPECT_TRUE(throwsZero([] { CTLV t(hex("FF 00").data()); }));

    const TBytes raw = hex("81 01 AA 82 02 BBCC 81 01 DD 83 00");
    const CTLV list(raw.data(), raw.size());
    const CTLV first = list.getChild(0x81), second = list.getChild(0x81, &first);
    EXPECT_EQ(second.asBytes(), hex("DD"));
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x81, &second); }));
    EXPECT_EQ(list.getChild(0x82).asNumber(), 0xBBCCul);
    EXPECT_EQ(list.getChild(0x83, &first).begin(), raw.data() + raw.size());
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x84); }));
    const CTLV tail(raw.data() + 7, 3);  // an "after" from before the view
    EXPECT_TRUE(throwsZero([&] { tail.getChild(0x81, &first); }));
    // The parent ends after 4 bytes though the buffer holds all of 82's value;
    // a corrupt child in front of the wanted one stops the walk.
    const TBytes longer = hex("81 01 AA 82 05 0102030405"), corrupt = hex("81 01 AA 00 00 84 00");
    EXPECT_TRUE(throwsZero([&] { CTLV(longer.data(), 4).getChild(0x82); }));
    EXPECT_TRUE(throwsZero([&] { CTLV(corrupt.data(), corrupt.size()).getChild(0x84); }));
}

TEST(BerTlv, BoundedParseAndChildWalksWithinAConstructedParent) {
    const Row rows[] = {{hex("04 02 AABB"), 0x04, 2},
                        {hex("61 00"), 0x61, 2},
                        {withTail("5F 24", 0x24), 0x5F, 2},  // 5F and 7F are whole tags
                        {hex("7F 49 00"), 0, 0},
                        {withTail("7F 03", 3), 0x7F, 2},
                        {hex("1F 01 00"), 0x011F, 3},
                        {hex("1F 81 01 00"), 0x01811F, 4},
                        {hex("1F 00 00"), 0, 0},
                        {hex("1F 80 01 00"), 0, 0},
                        {hex("1F 1E 00"), 0, 0},
                        {hex("1F 81 81 01 00"), 0, 0},
                        {hex("1F"), 0, 0},
                        {hex("1F 81"), 0, 0},
                        {hex("04"), 0, 0},
                        {hex("04 81 02 AABB"), 0x04, 3},
                        {withTail("04 82 0100", 256), 0x04, 4},
                        {hex("04 83 000001 AA"), 0x04, 5},
                        {hex("04 84 00000001 AA"), 0x04, 6},
                        {hex("04 80 0000"), 0, 0},
                        {hex("04 85 0000000001 AA"), 0, 0},
                        {hex("04 FF 00"), 0, 0},
                        {hex("04 82 01"), 0, 0},
                        {hex("04 84 FFFFFFFF AA"), 0, 0},
                        {hex("04 03 AABB"), 0, 0},
                        {{}, 0, 0}};
    for (const Row& r : rows) checkParse<CBERTLV>(r);
    EXPECT_TRUE(throwsZero([] { CBERTLV t(hex("30 80 0000").data()); }));

    const TBytes raw = hex("E1 0E 5F 01 AA 4F 01 BB 5F 01 CC 1F 81 01 01 EE 5F 00");
    const CBERTLV outer = CBERTLV::parse(raw.data(), raw.size());
    const CBERTLV first = outer.getChild(0x5F), second = outer.getChild(0x5F, &first);
    EXPECT_TRUE(outer.isConstructed());
    EXPECT_EQ(second.asBytes(), hex("CC"));
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x5F, &second); }));  // 5F 00 is behind the end
    EXPECT_EQ(outer.getChild(0x01811F).asNumber(), 0xEEul);
    EXPECT_EQ(outer.getChild(0x4F, &first).asBytes(), hex("BB"));
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x811F); }));
    EXPECT_EQ(CBERTLV(raw.data() + 2, raw.size() - 2).getChild(0x5F, &second).size(), 0u);
    const TBytes primitive = hex("04 03 81 01 AA");  // its value looks like a child
    EXPECT_TRUE(throwsZero([&] { CBERTLV::parse(primitive.data(), 5).getChild(0x81); }));
    // A child past its parent (which the buffer holds), a long length past it,
    // a corrupt sibling in front.
    for (const char* parent :
         {"30 04 04 05 0102030405", "30 03 04 82 0000", "30 06 04 80 00 04 01 05"}) {
        const TBytes p = hex(parent);
        EXPECT_TRUE(throwsZero([&] { CBERTLV::parse(p.data(), p.size()).getChild(0x04, nullptr); }))
            << parent;
    }
    const unsigned char n[] = {0x12, 0x34, 0x56, 0x78, 0x9A};
    const unsigned long numbers[][2] = {
        {0, 0}, {3, 0x123456}, {5, 0x12345678}, {ULONG_MAX, 0x12345678}};
    for (const auto& [len, want] : numbers) {
        EXPECT_EQ(CTLV::getle(n, len), want) << len;
        EXPECT_EQ(CBERTLV::getle(n, len), want) << len;
    }
}

}  // namespace
