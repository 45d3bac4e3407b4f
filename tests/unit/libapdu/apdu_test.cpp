// Command building helpers and the splitting of command APDUs.
#include "libapdu/apdu.h"

#include <gtest/gtest.h>

#include "libapdu/exception.h"

namespace {

using libapdu::IAPDUDefinitions;
using libapdu::operator<<;

TBytes filled(size_t n, unsigned char first = 0) {
    TBytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(first + i);
    return b;
}

TBytes cat(std::initializer_list<TBytes> parts) {
    TBytes out;
    for (const TBytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The code of the CAPDUException that f throws, or 0 when it returns.
template <class F>
long raised(F f) {
    try {
        f();
        return 0;
    } catch (const CAPDUException& e) {
        return e.code();
    }
}

TEST(Endian, SwapsBytes) {
    EXPECT_EQ(IAPDUDefinitions::endian(static_cast<unsigned short>(0x1234)), 0x3412);
    EXPECT_EQ(IAPDUDefinitions::endian(static_cast<unsigned short>(0x00FF)), 0xFF00);
    EXPECT_EQ(IAPDUDefinitions::endian(0x12345678u), 0x78563412u);
    EXPECT_EQ(IAPDUDefinitions::endian(0xFF000080u), 0x800000FFu);
}

TEST(AddHelpers, AppendBehindExistingBytes) {
    TBytes out{0xEE};
    IAPDUDefinitions::add_w(out, 0x1234);
    EXPECT_EQ(out, (TBytes{0xEE, 0x12, 0x34}));

    out = {0xEE};
    IAPDUDefinitions::add_tagw(out, 0x80, 0xA1B2);
    EXPECT_EQ(out, (TBytes{0xEE, 0x80, 0x02, 0xA1, 0xB2}));

    out = {0xEE};
    IAPDUDefinitions::add_1(out, {});
    EXPECT_EQ(out, (TBytes{0xEE, 0x00}));

    out = {0xEE};
    IAPDUDefinitions::add_tag1(out, 0x83, {0x01, 0x02});
    EXPECT_EQ(out, (TBytes{0xEE, 0x83, 0x02, 0x01, 0x02}));

    out = {0xEE};
    IAPDUDefinitions::add_tag12(out, 0x84, {0x07}, 0xFF);
    EXPECT_EQ(out, (TBytes{0xEE, 0x84, 0x01, 0x07}));

    out = {0xEE};
    out << static_cast<unsigned char>(0x01) << TBytes{0x02, 0x03};
    EXPECT_EQ(out, (TBytes{0xEE, 0x01, 0x02, 0x03}));
}

struct LengthCase {
    size_t size;
    TBytes add1;   // expected length prefix of add_1; empty when it fails
    TBytes add12;  // expected length prefix of add_12 with escape 0xFF; empty when it fails
};

// add_12 takes the three-byte form one byte before add_1 runs out.
const LengthCase kLengthCases[] = {
    {1, {0x01}, {0x01}},
    {254, {0xFE}, {0xFE}},
    {255, {0xFF}, {0xFF, 0x00, 0xFF}},
    {256, {}, {0xFF, 0x01, 0x00}},
    {0xFFFF, {}, {0xFF, 0xFF, 0xFF}},
    {0x10000, {}, {}},
};

TEST(AddHelpers, LengthFormsAtTheirBoundaries) {
    for (const LengthCase& c : kLengthCases) {
        SCOPED_TRACE(c.size);
        const TBytes data = filled(c.size, 0x10);
        TBytes out{0xEE};
        if (c.add1.empty()) {
            EXPECT_EQ(raised([&] { IAPDUDefinitions::add_1(out, data); }), 0x86E06281);
            EXPECT_EQ(raised([&] { IAPDUDefinitions::add_tag1(out, 0x81, data); }), 0x86E06281);
            EXPECT_EQ(out, TBytes{0xEE}) << "a failed add leaves the output alone";
        } else {
            IAPDUDefinitions::add_1(out, data);
            EXPECT_EQ(out, cat({{0xEE}, c.add1, data}));
        }

        out = {0xEE};
        if (c.add12.empty()) {
            EXPECT_EQ(raised([&] { IAPDUDefinitions::add_12(out, data, 0xFF); }), 0x86E06281);
            EXPECT_EQ(raised([&] { IAPDUDefinitions::add_tag12(out, 0x81, data, 0xFF); }),
                      0x86E06281);
            EXPECT_EQ(out, TBytes{0xEE});
        } else {
            IAPDUDefinitions::add_12(out, data, 0xFF);
            EXPECT_EQ(out, cat({{0xEE}, c.add12, data}));
            out = {};
            IAPDUDefinitions::add_tag12(out, 0x81, data, 0xFF);
            EXPECT_EQ(out, cat({{0x81}, c.add12, data}));
        }
    }
}

TEST(AddHelpers, Add12UsesTheGivenEscape) {
    TBytes out;
    IAPDUDefinitions::add_12(out, filled(300), 0x00);
    EXPECT_EQ(TBytes(out.begin(), out.begin() + 3), (TBytes{0x00, 0x01, 0x2C}));
    EXPECT_EQ(out.size(), 303u);
}

struct CapduCase {
    const char* name;
    TBytes apdu;
    long failure;  // 0 when the split succeeds
    TBytes data;
    unsigned short le;
};

std::vector<CapduCase> capduCases() {
    const TBytes big = filled(256, 0x40);
    return {
        {"header only", {0x00, 0xA4, 0x00, 0x00}, 0, {}, 0},
        {"le only", {0x00, 0xB0, 0x00, 0x00, 0x10}, 0, {}, 0x10},
        {"lc data le", {0x00, 0xD6, 0x00, 0x00, 0x02, 0xAA, 0xBB, 0x05}, 0, {0xAA, 0xBB}, 5},
        {"extended lc, extended le",
         cat({{0x00, 0xD6, 0x00, 0x00, 0x00, 0x01, 0x00}, big, {0x00, 0x10, 0x00}}), 0, big,
         0x1000},
        {"lc data, no le", {0x00, 0xD6, 0x00, 0x00, 0x02, 0xAA, 0xBB}, 0, {0xAA, 0xBB}, 0},
        {"two le bytes", {0x00, 0xD6, 0x00, 0x00, 0x01, 0xAA, 0x01, 0x02}, 0, {0xAA}, 0x0102},
        {"three le bytes",
         {0x00, 0xD6, 0x00, 0x00, 0x01, 0xAA, 0x00, 0x01, 0x02},
         0,
         {0xAA},
         0x0102},
        {"extended le only", {0x00, 0xB0, 0x00, 0x00, 0x00, 0x01, 0x02}, 0, {}, 0x0102},
        {"zero byte then word", {0x00, 0xB0, 0x00, 0x00, 0x00, 0x10}, 0, {}, 0x0010},
        {"single zero le", {0x00, 0xB0, 0x00, 0x00, 0x00}, 0, {}, 0},
        {"extended lc of zero", {0x00, 0xD6, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05}, 0, {}, 5},
        {"empty", {}, 0x86E06B00, {}, 0},
        {"three bytes", {0x00, 0xA4, 0x00}, 0x86E06B00, {}, 0},
        {"lc beyond the buffer", {0x00, 0xD6, 0x00, 0x00, 0x05, 0xAA, 0xBB}, 0x86E06B00, {}, 0},
        {"extended lc beyond the buffer",
         {0x00, 0xD6, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xAA},
         0x86E06B00,
         {},
         0},
        {"three le bytes without leading zero",
         {0x00, 0xD6, 0x00, 0x00, 0x01, 0xAA, 0x01, 0x01, 0x02},
         0x86E06B00,
         {},
         0},
        {"four trailing bytes",
         {0x00, 0xD6, 0x00, 0x00, 0x01, 0xAA, 0x00, 0x00, 0x00, 0x00},
         0x86E06B00,
         {},
         0},
    };
}

TEST(ParseCapdu, SplitsOrRejects) {
    for (const CapduCase& c : capduCases()) {
        SCOPED_TRACE(c.name);
        // Stale content must be replaced, not appended to.
        TBytes header{0x99, 0x99};
        TBytes data{0x99};
        unsigned short le = 0x9999;
        const long failure =
            raised([&] { IAPDUDefinitions::parse_capdu(c.apdu, header, data, le); });
        EXPECT_EQ(failure, c.failure);
        if (failure || c.failure) continue;
        EXPECT_EQ(header, TBytes(c.apdu.begin(), c.apdu.begin() + 4));
        EXPECT_EQ(data, c.data);
        EXPECT_EQ(le, c.le);
    }
}

}  // namespace
