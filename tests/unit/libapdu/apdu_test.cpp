// Command building helpers and the splitting of command APDUs.
#include "libapdu/apdu.h"

#include <gtest/gtest.h>

#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using D = IAPDUDefinitions;

TEST(AddHelpers, NumbersGoBigEndianAndLengthsTakeTheirFormAtTheBoundaries) {
    EXPECT_EQ(D::endian(static_cast<unsigned short>(0x12FF)), 0xFF12);
    EXPECT_EQ(D::endian(0xFF000080u), 0x800000FFu);
    TBytes out{0xEE};
    D::add_w(out, 0x1234);
    D::add_tagw(out, 0x80, 0xA1B2);
    out << static_cast<unsigned char>(0x01) << TBytes{0x02, 0x03};
    EXPECT_EQ(out, hex("EE 1234 80 02 A1B2 01 0203"));

    // The length prefix of add_1, and of add_12 with escape FF, which takes the
    // escaped form one byte earlier; empty: refused, the output left alone.
    const struct {
        size_t size;
        const char *add1, *add12;
    } rows[] = {{0, "00", "00"},       {254, "FE", "FE"},        {255, "FF", "FF 00 FF"},
                {256, "", "FF 01 00"}, {0xFFFF, "", "FF FF FF"}, {0x10000, "", ""}};
    for (const auto& r : rows) {
        const TBytes data(r.size, 0x5A);
        TBytes one{0xEE}, tagOne{0xEE}, twelve{0xEE}, tagTwelve{0xEE};
        EXPECT_EQ(failureCode([&] { D::add_1(one, data); }), *r.add1 ? 0 : code(0x6281));
        EXPECT_EQ(failureCode([&] { D::add_tag1(tagOne, 0x81, data); }),
                  *r.add1 ? 0 : code(0x6281));
        EXPECT_EQ(failureCode([&] { D::add_12(twelve, data, 0xFF); }), *r.add12 ? 0 : code(0x6281));
        EXPECT_EQ(failureCode([&] { D::add_tag12(tagTwelve, 0x81, data, 0xFF); }),
                  *r.add12 ? 0 : code(0x6281));
        EXPECT_EQ(one, *r.add1 ? cat({{0xEE}, hex(r.add1), data}) : TBytes{0xEE}) << r.size;
        EXPECT_EQ(tagOne, *r.add1 ? cat({{0xEE, 0x81}, hex(r.add1), data}) : TBytes{0xEE});
        EXPECT_EQ(twelve, *r.add12 ? cat({{0xEE}, hex(r.add12), data}) : TBytes{0xEE}) << r.size;
        EXPECT_EQ(tagTwelve, *r.add12 ? cat({{0xEE, 0x81}, hex(r.add12), data}) : TBytes{0xEE});
    }
    TBytes escaped;
    D::add_12(escaped, TBytes(300), 0x00);
    EXPECT_EQ(TBytes(escaped.begin(), escaped.begin() + 3), hex("00 01 2C"));
}

TEST(ParseCapdu, SplitsEveryCaseOrRejects) {
    const TBytes big(256, 0x5A);
    const struct {
        TBytes apdu;
        bool ok;
        TBytes data;
        unsigned short le;
    } rows[] = {
        {hex("00A40000"), true, {}, 0},
        {hex("00B00000 10"), true, {}, 0x10},
        {hex("00D60000 02 AABB 05"), true, hex("AABB"), 5},
        {cat({hex("00D60000 000100"), big, hex("001000")}), true, big, 0x1000},
        {hex("00D60000 02 AABB"), true, hex("AABB"), 0},
        {hex("00D60000 01 AA 0102"), true, hex("AA"), 0x0102},
        {hex("00D60000 01 AA 000102"), true, hex("AA"), 0x0102},
        {hex("00B00000 000102"), true, {}, 0x0102},
        {hex("00B00000 0010"), true, {}, 0x0010},
        {hex("00B00000 00"), true, {}, 0},
        {hex("00D60000 000000 05"), true, {}, 5},
        {{}, false, {}, 0},
        {hex("00A400"), false, {}, 0},
        {hex("00D60000 05 AABB"), false, {}, 0},        // Lc beyond the buffer
        {hex("00D60000 00FFFF AA"), false, {}, 0},      // extended Lc beyond it
        {hex("00D60000 01 AA 010102"), false, {}, 0},   // three Le bytes, no leading zero
        {hex("00D60000 01 AA 00000000"), false, {}, 0}  // four trailing bytes
    };
    for (const auto& r : rows) {
        TBytes header{0x99}, data{0x99};  // stale content is replaced, not appended to
        unsigned short le = 0x9999;
        const long failure = failureCode([&] { D::parse_capdu(r.apdu, header, data, le); });
        EXPECT_EQ(failure, r.ok ? 0 : code(0x6B00)) << toHex(r.apdu);
        if (failure || !r.ok) continue;
        EXPECT_EQ(header, TBytes(r.apdu.begin(), r.apdu.begin() + 4));
        EXPECT_EQ(data, r.data) << toHex(r.apdu);
        EXPECT_EQ(le, r.le) << toHex(r.apdu);
    }
}

}  // namespace
