// Status word translation against tables written out here independently of
// the library's own: the common folding as ranges, and each dialect's
// rewrites, checked over all 65,536 words.
#include "libapdu/error.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

struct Range {
    unsigned first;
    unsigned last;
    unsigned short canonical;
};
using Rewrites = std::vector<Range>;

// The folding table, in ascending order; 0x9000 is success, 0xFFFF unknown.
const Rewrites kFold = {
    {0x0000, 0x60FF, 0xFFFF}, {0x6100, 0x61FF, 0x9000}, {0x6200, 0x6280, 0x6200},
    {0x6281, 0x6281, 0x6281}, {0x6282, 0x6282, 0x6282}, {0x6283, 0x6283, 0x6283},
    {0x6284, 0x6284, 0x6281}, {0x6285, 0x6285, 0x6283}, {0x6286, 0x6286, 0x6286},
    {0x6287, 0x62FF, 0x6200}, {0x6300, 0x6380, 0x6300}, {0x6381, 0x6381, 0x6400},
    {0x6382, 0x63FF, 0x6300}, {0x6400, 0x65FF, 0x6400}, {0x6600, 0x66FF, 0x6900},
    {0x6700, 0x68FF, 0x6B00}, {0x6900, 0x6980, 0x6900}, {0x6981, 0x6981, 0x6283},
    {0x6982, 0x6982, 0x6900}, {0x6983, 0x6983, 0x6983}, {0x6984, 0x6985, 0x6900},
    {0x6986, 0x6986, 0x6A82}, {0x6987, 0x69FF, 0x6900}, {0x6A00, 0x6A81, 0x6B00},
    {0x6A82, 0x6A83, 0x6A82}, {0x6A84, 0x6A84, 0x6400}, {0x6A85, 0x6A87, 0x6B00},
    {0x6A88, 0x6A88, 0x6A82}, {0x6A89, 0x6A8A, 0x6A89}, {0x6A8B, 0x6B00, 0x6B00},
    {0x6B01, 0x6BFF, 0xFFFF}, {0x6C00, 0x6EFF, 0x6B00}, {0x6F00, 0x6FFF, 0x6F00},
    {0x7000, 0x8FFF, 0xFFFF}, {0x9000, 0x90FF, 0x9000}, {0x9100, 0xFFFF, 0xFFFF},
};

unsigned apply(const Rewrites& rows, unsigned sw) {
    for (const Range& r : rows)
        if (sw >= r.first && sw <= r.last) return r.canonical;
    return sw;
}

const Rewrites kNone, kProR2 = {{0x6F86, 0x6F86, 0x6A82}, {0x9850, 0x9850, 0x6F00}};
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
    {0x670A, 0x670B, 0x6B00}, {0x6F00, 0x6F00, 0x6400},
};
// GOST words are numbers; 6D and 6E words are masked down to them first.
const Rewrites kGost = {
    {0x0005, 0x0005, 0x6F00}, {0x0006, 0x0006, 0x6400}, {0x0010, 0x0010, 0x6900},
    {0x0012, 0x0012, 0x6A82}, {0x0013, 0x0013, 0x6B00}, {0x0030, 0x0030, 0x6F00},
    {0x0031, 0x0031, 0x6400}, {0x00A0, 0x00A0, 0x6300}, {0x00A2, 0x00A2, 0x6300},
    {0x00A4, 0x00A4, 0x6983}, {0x0060, 0x0060, 0x6A82}, {0x0062, 0x0063, 0x6B00},
    {0x0082, 0x0082, 0x6A82}, {0x0121, 0x0121, 0x6F00}, {0x0170, 0x0170, 0x6900},
    {0x0101, 0x0102, 0x6900}, {0x0104, 0x0104, 0x6900}, {0x0103, 0x0103, 0x6B00},
};

template <class E>
std::unique_ptr<libapdu::IAppError> make() {
    return std::make_unique<E>();
}

TEST(StatusRaise, EveryDialectRaisesItsRewriteThenTheFoldForEveryWord) {
    using namespace libapdu;
    const struct {
        const char* name;
        std::unique_ptr<IAppError> (*make)();
        const Rewrites& rewrites;
    } dialects[] = {{"plain", make<IAppError>, kNone},
                    {"R2", make<CErrorR2>, kProR2},
                    {"Pro", make<CErrorPro>, kProR2},
                    {"Java", make<CErrorJava>, kJava},
                    {"Joker", make<CErrorJoker>, kJava},
                    {"Gost", make<CErrorGost>, kGost},
                    {"Idprotect", make<CErrorIdprotect>, kIdprotect},
                    {"DataStore", make<CErrorDataStore>, kDataStore}};
    for (const auto& d : dialects) {
        auto error = d.make();
        int mismatches = 0;
        for (unsigned sw = 0; sw <= 0xFFFF; ++sw) {
            unsigned word = sw;
            if (&d.rewrites == &kGost && (sw >> 8) == 0x6D) word &= 0x92FF;
            if (&d.rewrites == &kGost && (sw >> 8) == 0x6E) word &= 0x91FF;
            const unsigned canonical = apply(kFold, apply(d.rewrites, word));
            const long want =
                canonical == 0x9000 ? 0 : code(static_cast<unsigned short>(canonical));
            const long got = failureCode([&] { error->raiseSW(static_cast<unsigned short>(sw)); });
            if (got != want && ++mismatches <= 10)
                ADD_FAILURE() << d.name << std::hex << ": raiseSW(0x" << sw << ") gave 0x" << got
                              << ", want 0x" << want;
        }
        EXPECT_EQ(mismatches, 0) << d.name;
    }
}

TEST(StatusExtract, LastTwoBytesHighByteFirstButLowByteFirstOnR2) {
    libapdu::IAppError plain;
    libapdu::CErrorR2 r2;
    const struct {
        const char* response;
        unsigned short plain, r2;
    } rows[] = {
        {"", 0, 0}, {"90", 0, 0}, {"90 00", 0x9000, 0x0090}, {"01 02 6A 82", 0x6A82, 0x826A}};
    for (const auto& r : rows) {
        EXPECT_EQ(plain.extractSW(hex(r.response)), r.plain) << r.response;
        EXPECT_EQ(r2.extractSW(hex(r.response)), r.r2) << r.response;
    }
    EXPECT_EQ(failureCode([&] { r2.raiseSW(r2.extractSW(hex("AA 00 90"))); }), 0);
    IApplet applet;  // a response too short for a word is the unknown word
    EXPECT_EQ(failureCode([&] { applet.checkSW(hex("90")); }), code(0xFFFF));
    EXPECT_EQ(failureCode([&] { applet.pin()->pathUser(); }), code(0xFACE)) << "and holds stubs";
}

}  // namespace
