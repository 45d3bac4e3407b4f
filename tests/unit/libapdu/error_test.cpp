// Status word translation against tables written out here independently of
// the library's own: the common folding as ranges, and each dialect's
// rewrites, checked over all 65,536 words.
#include "libapdu/error.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "libapdu/exception.h"

namespace {

using libapdu::IAppError;

constexpr unsigned short kOk = 0x9000;
constexpr unsigned short kUnknown = 0xFFFF;

struct Range {
    unsigned first;
    unsigned last;
    unsigned short canonical;
};

// The folding table, row by row in ascending order.
const Range kFoldTable[] = {
    {0x0000, 0x60FF, kUnknown}, {0x6100, 0x61FF, kOk},    {0x6200, 0x6280, 0x6200},
    {0x6281, 0x6281, 0x6281},   {0x6282, 0x6282, 0x6282}, {0x6283, 0x6283, 0x6283},
    {0x6284, 0x6284, 0x6281},   {0x6285, 0x6285, 0x6283}, {0x6286, 0x6286, 0x6286},
    {0x6287, 0x62FF, 0x6200},   {0x6300, 0x6380, 0x6300}, {0x6381, 0x6381, 0x6400},
    {0x6382, 0x63FF, 0x6300},   {0x6400, 0x65FF, 0x6400}, {0x6600, 0x66FF, 0x6900},
    {0x6700, 0x68FF, 0x6B00},   {0x6900, 0x6980, 0x6900}, {0x6981, 0x6981, 0x6283},
    {0x6982, 0x6982, 0x6900},   {0x6983, 0x6983, 0x6983}, {0x6984, 0x6985, 0x6900},
    {0x6986, 0x6986, 0x6A82},   {0x6987, 0x69FF, 0x6900}, {0x6A00, 0x6A81, 0x6B00},
    {0x6A82, 0x6A83, 0x6A82},   {0x6A84, 0x6A84, 0x6400}, {0x6A85, 0x6A87, 0x6B00},
    {0x6A88, 0x6A88, 0x6A82},   {0x6A89, 0x6A8A, 0x6A89}, {0x6A8B, 0x6B00, 0x6B00},
    {0x6B01, 0x6BFF, kUnknown}, {0x6C00, 0x6EFF, 0x6B00}, {0x6F00, 0x6FFF, 0x6F00},
    {0x7000, 0x8FFF, kUnknown}, {0x9000, 0x90FF, kOk},    {0x9100, 0xFFFF, kUnknown},
};

unsigned short expectedFold(unsigned sw) {
    for (const Range& r : kFoldTable)
        if (sw >= r.first && sw <= r.last) return r.canonical;
    ADD_FAILURE() << "word " << sw << " is in no row of the test table";
    return 0;
}

// A dialect's rewrites, as the rows of its table, applied before the folding.
using Rewrites = std::vector<Range>;

unsigned applyRewrites(const Rewrites& rows, unsigned sw) {
    for (const Range& r : rows)
        if (sw >= r.first && sw <= r.last) return r.canonical;
    return sw;
}

const Rewrites kProR2 = {{0x6F86, 0x6F86, 0x6A82}, {0x9850, 0x9850, 0x6F00}};

const Rewrites kJava = {
    {0x6701, 0x6701, 0x6283}, {0x6702, 0x6702, 0x6F00}, {0x6703, 0x6703, 0x6A89},
    {0x6704, 0x6704, 0x6B00}, {0x6705, 0x6705, 0x6300}, {0x6706, 0x6706, 0x6B00},
    {0x6707, 0x6707, 0x6A82}, {0x6708, 0x6708, 0x6B00}, {0x6709, 0x6709, 0x6B00},
    {0x6710, 0x6720, 0x6F00}, {0x6721, 0x6721, 0x6B00}, {0x6722, 0x6722, 0x6F00},
    {0x6723, 0x6723, 0x6B00}, {0x6724, 0x6724, 0x6F00}, {0x6725, 0x6725, 0x6B00},
    {0x6726, 0x6730, 0x6F00}, {0x6731, 0x6731, 0x6B00}, {0x6732, 0x6733, 0x6F00},
    {0x6734, 0x6734, 0x6A82}, {0x6735, 0x6735, 0x6400}, {0x6736, 0x6736, 0x6900},
    {0x6737, 0x67FF, 0x6F00},
};

const Rewrites kIdprotect = {{0x6B00, 0x6B00, 0x6A84}};

const Rewrites kDataStore = {
    {0x6701, 0x6701, 0x6A82}, {0x6702, 0x6702, 0x6400}, {0x6703, 0x6703, 0x6300},
    {0x6704, 0x6704, 0x6983}, {0x6705, 0x6705, 0x6300}, {0x6706, 0x6706, 0x6983},
    {0x6707, 0x6707, 0x6300}, {0x6708, 0x6708, 0x6A89}, {0x6709, 0x6709, 0x6900},
    {0x670A, 0x670A, 0x6B00}, {0x670B, 0x670B, 0x6B00}, {0x6F00, 0x6F00, 0x6400},
};

const Rewrites kGostNumbers = {
    {0x0005, 0x0005, 0x6F00}, {0x0006, 0x0006, 0x6400}, {0x0010, 0x0010, 0x6900},
    {0x0012, 0x0012, 0x6A82}, {0x0013, 0x0013, 0x6B00}, {0x0030, 0x0030, 0x6F00},
    {0x0031, 0x0031, 0x6400}, {0x00A0, 0x00A0, 0x6300}, {0x00A2, 0x00A2, 0x6300},
    {0x00A4, 0x00A4, 0x6983}, {0x0060, 0x0060, 0x6A82}, {0x0062, 0x0062, 0x6B00},
    {0x0063, 0x0063, 0x6B00}, {0x0082, 0x0082, 0x6A82}, {0x0121, 0x0121, 0x6F00},
    {0x0170, 0x0170, 0x6900}, {0x0101, 0x0101, 0x6900}, {0x0102, 0x0102, 0x6900},
    {0x0104, 0x0104, 0x6900}, {0x0103, 0x0103, 0x6B00},
};

unsigned gostRewrite(unsigned sw) {
    if ((sw >> 8) == 0x6D) sw &= 0x92FF;
    if ((sw >> 8) == 0x6E) sw &= 0x91FF;
    return applyRewrites(kGostNumbers, sw);
}

// What raiseSW did: 0 for a normal return, else the code of the failure.
long outcome(IAppError& e, unsigned short sw) {
    try {
        e.raiseSW(sw);
        return 0;
    } catch (const CAPDUException& x) {
        return x.code();
    }
}

long expectedOutcome(unsigned short canonical) {
    return canonical == kOk ? 0 : 0x86E00000L | canonical;
}

TEST(StatusFold, TestTableCoversEveryWordOnce) {
    unsigned next = 0;
    for (const Range& r : kFoldTable) {
        ASSERT_EQ(r.first, next) << "gap or overlap before row " << std::hex << r.first;
        ASSERT_LE(r.first, r.last);
        next = r.last + 1;
    }
    EXPECT_EQ(next, 0x10000u);
}

TEST(StatusFold, EveryWordFoldsAsTheTableSays) {
    int mismatches = 0;
    for (unsigned sw = 0; sw <= 0xFFFF; ++sw) {
        const unsigned short got = IAppError::fold(static_cast<unsigned short>(sw));
        if (got != expectedFold(sw) && ++mismatches <= 10)
            ADD_FAILURE() << std::hex << "fold(0x" << sw << ") = 0x" << got << ", want 0x"
                          << expectedFold(sw);
    }
    EXPECT_EQ(mismatches, 0);
}

struct Dialect {
    const char* name;
    std::function<std::unique_ptr<IAppError>()> make;
    std::function<unsigned(unsigned)> rewrite;
};

std::vector<Dialect> dialects() {
    auto plain = [](const Rewrites& rows) {
        return [&rows](unsigned sw) { return applyRewrites(rows, sw); };
    };
    return {
        {"IAppError", [] { return std::make_unique<IAppError>(); }, [](unsigned sw) { return sw; }},
        {"R2", [] { return std::make_unique<libapdu::CErrorR2>(); }, plain(kProR2)},
        {"Pro", [] { return std::make_unique<libapdu::CErrorPro>(); }, plain(kProR2)},
        {"Java", [] { return std::make_unique<libapdu::CErrorJava>(); }, plain(kJava)},
        {"Joker", [] { return std::make_unique<libapdu::CErrorJoker>(); }, plain(kJava)},
        {"Idprotect", [] { return std::make_unique<libapdu::CErrorIdprotect>(); },
         plain(kIdprotect)},
        {"Gost", [] { return std::make_unique<libapdu::CErrorGost>(); }, gostRewrite},
        {"DataStore", [] { return std::make_unique<libapdu::CErrorDataStore>(); },
         plain(kDataStore)},
    };
}

class DialectRaise : public ::testing::TestWithParam<Dialect> {};

TEST_P(DialectRaise, RaisesItsRewriteThenTheFoldForEveryWord) {
    const Dialect& d = GetParam();
    auto error = d.make();
    int mismatches = 0;
    for (unsigned sw = 0; sw <= 0xFFFF; ++sw) {
        const long want = expectedOutcome(expectedFold(d.rewrite(sw)));
        const long got = outcome(*error, static_cast<unsigned short>(sw));
        if (got != want && ++mismatches <= 10)
            ADD_FAILURE() << std::hex << "raiseSW(0x" << sw << ") gave 0x" << got << ", want 0x"
                          << want;
    }
    EXPECT_EQ(mismatches, 0);
}

INSTANTIATE_TEST_SUITE_P(AllDialects, DialectRaise, ::testing::ValuesIn(dialects()),
                         [](const ::testing::TestParamInfo<Dialect>& info) {
                             return std::string(info.param.name);
                         });

struct Case {
    const char* dialect;
    unsigned short sw;
    long result;  // 0 for success
};

// Words whose results callers depend on, spelled out one by one.
const Case kEdgeCases[] = {
    {"IAppError", 0x9000, 0},          {"IAppError", 0x6100, 0},
    {"IAppError", 0x61FF, 0},          {"IAppError", 0x90FF, 0},
    {"IAppError", 0x63C2, 0x86E06300}, {"IAppError", 0x6A80, 0x86E06B00},
    {"IAppError", 0x6982, 0x86E06900}, {"IAppError", 0x6981, 0x86E06283},
    {"IAppError", 0x6381, 0x86E06400}, {"IAppError", 0x6B01, 0x86E0FFFF},
    {"IAppError", 0x0000, 0x86E0FFFF}, {"IAppError", 0x9100, 0x86E0FFFF},
    {"IAppError", 0x6F00, 0x86E06F00}, {"IAppError", 0x6700, 0x86E06B00},
    {"Idprotect", 0x6A84, 0x86E06400}, {"Idprotect", 0x6B00, 0x86E06400},
    {"Pro", 0x6B00, 0x86E06B00},       {"Pro", 0x6F86, 0x86E06A82},
    {"Pro", 0x9850, 0x86E06F00},       {"R2", 0x6F86, 0x86E06A82},
    {"R2", 0x9850, 0x86E06F00},        {"Java", 0x6F86, 0x86E06F00},
    {"Java", 0x6700, 0x86E06B00},      {"Java", 0x670A, 0x86E06B00},
    {"Java", 0x6701, 0x86E06283},      {"Java", 0x6705, 0x86E06300},
    {"Java", 0x6735, 0x86E06400},      {"Java", 0x6736, 0x86E06900},
    {"Joker", 0x6703, 0x86E06A89},     {"Joker", 0x67FF, 0x86E06F00},
    {"Gost", 0x6D12, 0x86E06A82},      {"Gost", 0x6E12, 0x86E06A82},
    {"Gost", 0x6DA4, 0x86E06983},      {"Gost", 0x6D00, 0x86E0FFFF},
    {"Gost", 0x6D99, 0x86E0FFFF},      {"Gost", 0x0121, 0x86E06F00},
    {"Gost", 0x0103, 0x86E06B00},      {"Gost", 0x9000, 0},
    {"Gost", 0x6A82, 0x86E06A82},      {"DataStore", 0x6F00, 0x86E06400},
    {"DataStore", 0x6F01, 0x86E06F00}, {"DataStore", 0x6704, 0x86E06983},
    {"DataStore", 0x670B, 0x86E06B00}, {"DataStore", 0x670C, 0x86E06B00},
    {"Java", 0x6F00, 0x86E06F00},
};

TEST(StatusRaise, EdgeCases) {
    const auto all = dialects();
    for (const Case& c : kEdgeCases) {
        const Dialect* d = nullptr;
        for (const Dialect& candidate : all)
            if (std::string(candidate.name) == c.dialect) d = &candidate;
        ASSERT_NE(d, nullptr) << c.dialect;
        auto error = d->make();
        EXPECT_EQ(outcome(*error, c.sw), c.result) << c.dialect << std::hex << " word 0x" << c.sw;
    }
}

TEST(StatusExtract, LastTwoBytesHighByteFirst) {
    IAppError plain;
    EXPECT_EQ(plain.extractSW({}), 0);
    EXPECT_EQ(plain.extractSW({0x90}), 0);
    EXPECT_EQ(plain.extractSW({0x90, 0x00}), 0x9000);
    EXPECT_EQ(plain.extractSW({0x01, 0x02, 0x6A, 0x82}), 0x6A82);
    // A response too short for a word is an unknown failure, as checkSW sees it.
    EXPECT_EQ(outcome(plain, plain.extractSW({0x90})), 0x86E0FFFF);
}

TEST(StatusExtract, R2ReadsTheLowByteFirst) {
    libapdu::CErrorR2 r2;
    EXPECT_EQ(r2.extractSW({}), 0);
    EXPECT_EQ(r2.extractSW({0x00}), 0);
    EXPECT_EQ(r2.extractSW({0x00, 0x90}), 0x9000);
    EXPECT_EQ(r2.extractSW({0x90, 0x00}), 0x0090);
    EXPECT_EQ(r2.extractSW({0xAA, 0x82, 0x6A}), 0x6A82);

    EXPECT_EQ(outcome(r2, r2.extractSW({0xAA, 0x00, 0x90})), 0);
    EXPECT_EQ(outcome(r2, r2.extractSW({0xAA, 0x90, 0x00})), 0x86E0FFFF);
    // Only the byte order differs: the other dialects keep the usual order.
    libapdu::CErrorPro pro;
    EXPECT_EQ(pro.extractSW({0x90, 0x00}), 0x9000);
}

}  // namespace
