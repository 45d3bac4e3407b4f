// The table of known tokens: each row takes its own ATR, masked bytes may
// vary, anything longer, shorter or different is unknown.
#include "libapdu/token_type.h"

#include <gtest/gtest.h>

#include "unit/oracle.h"

namespace {

using krfs_test::hex;
using libapdu::TTokenType;

TEST(TokenType, EveryRowTakesItsOwnAtrAndTheMaskedBytesMayVary) {
    const struct {
        const TTokenType* row;
        const char* atr;
        const char* masked;  // the same ATR with masked-out bytes changed, or null
    } rows[] = {
        {&TTokenType::TVandrelR2, "3B 81 1F 00 CC 52", nullptr},
        {&TTokenType::TVandrelPro16, "3B E2 00 FF C1 10 31 FE 55 C8 02 9C", nullptr},
        {&TTokenType::TVandrelPro32, "3B F2 98 00 FF C1 10 31 FE 55 C8 03 15", nullptr},
        {&TTokenType::TVandrelPro42, "3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00",
         "3B F2 18 00 7E C1 0A 31 FE 55 C8 06 75"},
        {&TTokenType::TVandrelPro42b, "3B F2 18 00 02 C1 0A 31 FE 58 C8 09 75", nullptr},
        {&TTokenType::TVandrelJava10, "3B D5 18 00 81 31 FE 7D 80 73 C8 21 10 F4", nullptr},
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
    for (const auto& r : rows) {
        const TBytes atr = hex(r.atr);
        EXPECT_EQ(&TTokenType::fromAtr(atr), r.row) << r.atr;
        if (r.masked) {
            EXPECT_EQ(&TTokenType::fromAtr(hex(r.masked)), r.row) << r.masked;
        }
        TBytes longer = atr, shorter = atr, other = atr;
        longer.push_back(0x00);
        shorter.pop_back();
        other[1] ^= 0x01;
        for (const TBytes& a : {longer, shorter, other})
            EXPECT_EQ(&TTokenType::fromAtr(a), &TTokenType::TUnknown) << r.atr;
    }
    EXPECT_EQ(&TTokenType::fromAtr({}), &TTokenType::TUnknown);
}

}  // namespace
