// Building and splitting command APDUs, the simple and BER TLV views, status
// word translation, and the table of known tokens by ATR.
#include "libapdu/apdu.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "libapdu/error.h"
#include "libapdu/token_type.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;
using D = IAPDUDefinitions;

TEST(AddHelpers, NumbersGoBigEndianAndLengthsTakeTheirFormAtTheBoundaries) {
    TBytes out{0xEE};
    D::add_w(out, 0x1234);
    D::add_tagw(out, 0x80, 0xA1B2);
    out << static_cast<unsigned char>(0x01) << TBytes{0x02, 0x03};
    EXPECT_EQ(out, hex("EE 1234 80 02 A1B2 01 0203"));
    // The length prefix of add_1, and of add_12 with escape FF, which takes the
    // escaped form one byte earlier; empty: refused, the output left alone.
    const std::tuple<size_t, const char*, const char*> rows[] = {
        {0, "00", "00"},       {254, "FE", "FE"},        {255, "FF", "FF 00 FF"},
        {256, "", "FF 01 00"}, {0xFFFF, "", "FF FF FF"}, {0x10000, "", ""}};
    for (const auto& [size, add1, add12] : rows) {
        const TBytes data(size, 0x5A);
        TBytes one{0xEE}, twelve{0xEE};
        EXPECT_EQ(failureCode([&] { D::add_1(one, data); }), *add1 ? 0 : code(0x6281));
        EXPECT_EQ(failureCode([&] { D::add_12(twelve, data, 0xFF); }), *add12 ? 0 : code(0x6281));
        EXPECT_EQ(one, *add1 ? cat({{0xEE}, hex(add1), data}) : TBytes{0xEE}) << size;
        EXPECT_EQ(twelve, *add12 ? cat({{0xEE}, hex(add12), data}) : TBytes{0xEE}) << size;
    }
}

TEST(ParseCapdu, SplitsEveryCaseOrRejects) {
    const TBytes big(256, 0x5A);
    const std::tuple<TBytes, TBytes, unsigned short> split[] = {
        // command, data, Le
        {hex("00A40000"), {}, 0},
        {hex("00B00000 10"), {}, 0x10},
        {hex("00D60000 02 AABB 05"), hex("AABB"), 5},
        {cat({hex("00D60000 000100"), big, hex("001000")}), big, 0x1000},
        {hex("00D60000 02 AABB"), hex("AABB"), 0},
        {hex("00D60000 01 AA 000102"), hex("AA"), 0x0102},
        {hex("00B00000 000102"), {}, 0x0102},
        {hex("00D60000 000000 05"), {}, 5}};
    for (const auto& [apdu, expected, expectedLe] : split) {
        TBytes header{0x99}, data{0x99};  // stale content is replaced, not appended to
        unsigned short le = 0x9999;
        D::parse_capdu(apdu, header, data, le);
        EXPECT_EQ(header, TBytes(apdu.begin(), apdu.begin() + 4));
        EXPECT_EQ(data, expected) << toHex(apdu);
        EXPECT_EQ(le, expectedLe) << toHex(apdu);
    }
    // Lc beyond the buffer, extended or not; three Le bytes without the leading
    // zero; four trailing bytes.
    for (const char* apdu : {"", "00D60000 05 AABB", "00D60000 00FFFF AA", "00D60000 01 AA 010102",
                             "00D60000 01 AA 00000000"}) {
        TBytes header, data;
        unsigned short le = 0;
        EXPECT_EQ(failureCode([&] { D::parse_capdu(hex(apdu), header, data, le); }), code(0x6B00))
            << apdu;
    }
}

// Whether f throws the plain integer 0, the failure of both TLV views.
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

// Bounded parses: each accepted TLV gives its tag and the value from `header`
// on, as the trusted constructor does, and fails one byte short; each refused
// one fails.
template <class T>
void checkParse(const std::vector<std::tuple<TBytes, unsigned, size_t>>& accepted,
                const std::vector<TBytes>& refused) {
    for (const auto& [encoded, tag, header] : accepted) {
        SCOPED_TRACE(toHex(encoded));
        const unsigned char* p = encoded.data();
        const T t = T::parse(p, encoded.size()), u(p);
        EXPECT_EQ(t.tag(), tag);
        EXPECT_EQ(t.begin(), p + header);
        EXPECT_EQ(t.end(), p + encoded.size());
        EXPECT_EQ(u.tag(), tag);
        EXPECT_EQ(u.end(), t.end());
        EXPECT_TRUE(throwsZero([&] { T::parse(p, encoded.size() - 1); }));
    }
    for (const TBytes& encoded : refused)
        EXPECT_TRUE(throwsZero([&] { T::parse(encoded.data(), encoded.size()); }))
            << toHex(encoded);
}

TEST(Tlv, SimpleViewParsesWithinItsBufferAndWalksChildrenWithinTheParent) {
    checkParse<libapdu::CTLV>({{hex("81 03 010203"), 0x81, 2},
                               {withTail("82 FF 0100", 256), 0x82, 4},
                               {withTail("83 FE", 254), 0x83, 2}},  // FE is still a short length
                              {hex("FF 00"),
                               hex("00 01 AA"),
                               {},
                               hex("81"),
                               hex("81 05 0102"),
                               hex("81 FF 01"),
                               withTail("81 FF 0100", 255)});
    const TBytes raw = hex("81 01 AA 82 02 BBCC 81 01 DD 83 00");
    const libapdu::CTLV list(raw.data(), raw.size());
    const libapdu::CTLV first = list.getChild(0x81), second = list.getChild(0x81, &first);
    EXPECT_EQ(second.asBytes(), hex("DD"));
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x81, &second); }));
    EXPECT_EQ(list.getChild(0x82).asNumber(), 0xBBCCul);
    EXPECT_EQ(list.getChild(0x83, &first).begin(), raw.data() + raw.size());
    EXPECT_TRUE(throwsZero([&] { list.getChild(0x84); }));
    EXPECT_TRUE(throwsZero([&] { libapdu::CTLV(raw.data() + 7, 3).getChild(0x81, &first); }))
        << "an 'after' from before the view";
    // The parent ends after 4 bytes though the buffer holds all of 82's value.
    const TBytes longer = hex("81 01 AA 82 05 0102030405");
    EXPECT_TRUE(throwsZero([&] { libapdu::CTLV(longer.data(), 4).getChild(0x82); }));
}

TEST(Tlv, BerViewParsesWithinItsBufferAndWalksChildrenWithinAConstructedParent) {
    checkParse<libapdu::CBERTLV>(
        {{hex("04 02 AABB"), 0x04, 2},
         {withTail("5F 24", 0x24), 0x5F, 2},  // whole tags
         {withTail("7F 03", 3), 0x7F, 2},
         {hex("1F 81 01 00"), 0x01811F, 4},
         {hex("04 81 02 AABB"), 0x04, 3},
         {withTail("04 82 0100", 256), 0x04, 4},
         {hex("04 84 00000001 AA"), 0x04, 6}},
        {hex("7F 49 00"), hex("1F 00 00"), hex("1F 80 01 00"), hex("1F 1E 00"),
         hex("1F 81 81 01 00"), hex("1F 81"), hex("04"), hex("04 80 0000"),
         hex("04 85 0000000001 AA"), hex("04 82 01"), hex("04 84 FFFFFFFF AA"), hex("04 03 AABB")});
    const TBytes raw = hex("E1 0E 5F 01 AA 4F 01 BB 5F 01 CC 1F 81 01 01 EE 5F 00");
    const libapdu::CBERTLV outer = libapdu::CBERTLV::parse(raw.data(), raw.size());
    const libapdu::CBERTLV first = outer.getChild(0x5F), second = outer.getChild(0x5F, &first);
    EXPECT_EQ(second.asBytes(), hex("CC"));
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x5F, &second); }));  // 5F 00 is behind the end
    EXPECT_EQ(outer.getChild(0x01811F).asNumber(), 0xEEul);
    EXPECT_TRUE(throwsZero([&] { outer.getChild(0x811F); }));
    // A primitive parent whose value looks like a child, a child past its
    // parent (which the buffer holds), a long length past it, a corrupt sibling.
    for (const char* parent : {"04 03 04 01 AA", "30 04 04 05 0102030405", "30 03 04 82 0000",
                               "30 06 04 80 00 04 01 05"}) {
        const TBytes p = hex(parent);
        EXPECT_TRUE(throwsZero([&] { libapdu::CBERTLV::parse(p.data(), p.size()).getChild(0x04); }))
            << parent;
    }
}

// Words first..last, or a single word, go to `canonical`.
struct Range {
    Range(unsigned sw, unsigned short c) : Range(sw, sw, c) {}
    Range(unsigned f, unsigned l, unsigned short c) : first(f), last(l), canonical(c) {}
    unsigned first, last;
    unsigned short canonical;
};
using Rewrites = std::vector<Range>;

// The folding table, in ascending order; 0x9000 is success, 0xFFFF unknown.
const Rewrites kFold = {
    {0x0000, 0x60FF, 0xFFFF}, {0x6100, 0x61FF, 0x9000}, {0x6200, 0x6280, 0x6200},
    {0x6281, 0x6281},         {0x6282, 0x6282},         {0x6283, 0x6283},
    {0x6284, 0x6281},         {0x6285, 0x6283},         {0x6286, 0x6286},
    {0x6287, 0x62FF, 0x6200}, {0x6300, 0x6380, 0x6300}, {0x6381, 0x6400},
    {0x6382, 0x63FF, 0x6300}, {0x6400, 0x65FF, 0x6400}, {0x6600, 0x66FF, 0x6900},
    {0x6700, 0x68FF, 0x6B00}, {0x6900, 0x6980, 0x6900}, {0x6981, 0x6283},
    {0x6982, 0x6900},         {0x6983, 0x6983},         {0x6984, 0x6985, 0x6900},
    {0x6986, 0x6A82},         {0x6987, 0x69FF, 0x6900}, {0x6A00, 0x6A81, 0x6B00},
    {0x6A82, 0x6A83, 0x6A82}, {0x6A84, 0x6400},         {0x6A85, 0x6A87, 0x6B00},
    {0x6A88, 0x6A82},         {0x6A89, 0x6A8A, 0x6A89}, {0x6A8B, 0x6B00, 0x6B00},
    {0x6B01, 0x6BFF, 0xFFFF}, {0x6C00, 0x6EFF, 0x6B00}, {0x6F00, 0x6FFF, 0x6F00},
    {0x7000, 0x8FFF, 0xFFFF}, {0x9000, 0x90FF, 0x9000}, {0x9100, 0xFFFF, 0xFFFF},
};

unsigned apply(const Rewrites& rows, unsigned sw) {
    for (const Range& r : rows)
        if (sw >= r.first && sw <= r.last) return r.canonical;
    return sw;
}

const Rewrites kNone, kProR2 = {{0x6F86, 0x6A82}, {0x9850, 0x6F00}};
const Rewrites kJava = {
    {0x6701, 0x6283}, {0x6702, 0x6F00},         {0x6703, 0x6A89}, {0x6704, 0x6B00},
    {0x6705, 0x6300}, {0x6706, 0x6B00},         {0x6707, 0x6A82}, {0x6708, 0x6B00},
    {0x6709, 0x6B00}, {0x6710, 0x6720, 0x6F00}, {0x6721, 0x6B00}, {0x6722, 0x6F00},
    {0x6723, 0x6B00}, {0x6724, 0x6F00},         {0x6725, 0x6B00}, {0x6726, 0x6730, 0x6F00},
    {0x6731, 0x6B00}, {0x6732, 0x6733, 0x6F00}, {0x6734, 0x6A82}, {0x6735, 0x6400},
    {0x6736, 0x6900}, {0x6737, 0x67FF, 0x6F00},
};
const Rewrites kIdprotect = {{0x6B00, 0x6A84}};
const Rewrites kDataStore = {
    {0x6701, 0x6A82}, {0x6702, 0x6400},         {0x6703, 0x6300}, {0x6704, 0x6983},
    {0x6705, 0x6300}, {0x6706, 0x6983},         {0x6707, 0x6300}, {0x6708, 0x6A89},
    {0x6709, 0x6900}, {0x670A, 0x670B, 0x6B00}, {0x6F00, 0x6400},
};
// GOST words are numbers; 6D and 6E words are masked down to them first.
const Rewrites kGost = {
    {0x0005, 0x6F00}, {0x0006, 0x6400}, {0x0010, 0x6900}, {0x0012, 0x6A82},
    {0x0013, 0x6B00}, {0x0030, 0x6F00}, {0x0031, 0x6400}, {0x00A0, 0x6300},
    {0x00A2, 0x6300}, {0x00A4, 0x6983}, {0x0060, 0x6A82}, {0x0062, 0x0063, 0x6B00},
    {0x0082, 0x6A82}, {0x0121, 0x6F00}, {0x0170, 0x6900}, {0x0101, 0x0102, 0x6900},
    {0x0104, 0x6900}, {0x0103, 0x6B00},
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
    const std::tuple<const char*, unsigned short, unsigned short> rows[] = {
        {"", 0, 0}, {"90", 0, 0}, {"90 00", 0x9000, 0x0090}, {"01 02 6A 82", 0x6A82, 0x826A}};
    for (const auto& [response, highFirst, lowFirst] : rows) {
        EXPECT_EQ(plain.extractSW(hex(response)), highFirst) << response;
        EXPECT_EQ(r2.extractSW(hex(response)), lowFirst) << response;
    }
    IApplet applet;  // a response too short for a word is the unknown word
    EXPECT_EQ(failureCode([&] { applet.checkSW(hex("90")); }), code(0xFFFF));
}

using libapdu::TTokenType;

// Anything longer, shorter or different is unknown. The R2, Pro16 and Java10
// rows are recognised in the end-to-end stories of those cards.
TEST(TokenType, EveryRowTakesItsOwnAtrAndTheMaskedBytesMayVary) {
    // The row, its ATR, and the same with masked-out bytes changed.
    const std::tuple<const TTokenType*, const char*, const char*> rows[] = {
        {&TTokenType::TVandrelPro32, "3B F2 98 00 FF C1 10 31 FE 55 C8 03 15", nullptr},
        {&TTokenType::TVandrelPro42b, "3B F2 18 00 02 C1 0A 31 FE 58 C8 09 75", nullptr},
        {&TTokenType::TVandrelPro42, "3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00",
         "3B F2 18 00 7E C1 0A 31 FE 55 C8 06 75"},
        {&TTokenType::TVandrelJava10b, "3B D5 18 00 81 31 3A 7D 80 73 C8 21 10 30", nullptr},
        {&TTokenType::TAthenaIDProtect, "3B D5 00 FF 80 91 FE 1F C3 80 73 C8 21 10 00",
         "3B D5 18 FF 8F 91 FE 1F C3 80 73 C8 21 1A 5A"},
        {&TTokenType::TAthenaKestora,
         "3B DC 18 FF 81 91 FE 1F C3 80 73 C8 21 13 66 01 06 11 59 00 01 28", nullptr},
        {&TTokenType::TAthenaKestoraEMVT1,
         "3B FC 13 00 FF 81 31 FE 45 80 73 C8 21 13 66 01 06 11 59 00 01 3A", nullptr},
        {&TTokenType::TAthenaKestoraEMVT0, "3B 6C 00 FF 80 73 C8 21 13 66 01 06 11 59 00 01",
         nullptr},
        {&TTokenType::TAthenaKestoraLT,
         "3B DC 18 FF 81 11 FE 80 73 C8 21 13 66 01 06 01 30 80 01 8D", nullptr},
    };
    for (const auto& [row, text, masked] : rows) {
        const TBytes atr = hex(text);
        EXPECT_EQ(&TTokenType::fromAtr(atr), row) << text;
        EXPECT_EQ(&TTokenType::fromAtr(hex(masked ? masked : text)), row) << masked;
        TBytes longer = atr, shorter = atr, other = atr;
        longer.push_back(0x00);
        shorter.pop_back();
        other[1] ^= 0x01;
        for (const TBytes& a : {longer, shorter, other})
            EXPECT_EQ(&TTokenType::fromAtr(a), &TTokenType::TUnknown) << text;
    }
    EXPECT_EQ(&TTokenType::fromAtr({}), &TTokenType::TUnknown);
}

}  // namespace
