// Telling the token type from the ATR through each row's mask.
#include "libapdu/token_type.h"

#include <gtest/gtest.h>

#include "unit/oracle.h"

namespace {

using krfs_test::hex;
using libapdu::TTokenType;

TEST(TokenType, EveryRowMatchesItsOwnAtrOnly) {
    const struct {
        const TTokenType* row;
        const char* atr;
    } rows[] = {
        {&TTokenType::TVandrelR2, "3B 81 1F 00 CC 52"},
        {&TTokenType::TVandrelPro16, "3B E2 00 FF C1 10 31 FE 55 C8 02 9C"},
        {&TTokenType::TVandrelPro32, "3B F2 98 00 FF C1 10 31 FE 55 C8 03 15"},
        {&TTokenType::TVandrelPro42, "3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00"},
        {&TTokenType::TVandrelPro42b, "3B F2 18 00 02 C1 0A 31 FE 58 C8 09 75"},
        {&TTokenType::TVandrelJava10, "3B D5 18 00 81 31 FE 7D 80 73 C8 21 10 F4"},
        {&TTokenType::TVandrelJava10b, "3B D5 18 00 81 31 3A 7D 80 73 C8 21 10 30"},
        {&TTokenType::TAthenaIDProtect, "3B D5 00 FF 80 91 FE 1F C3 80 73 C8 21 10 00"},
        {&TTokenType::TAthenaKestora,
         "3B DC 18 FF 81 91 FE 1F C3 80 73 C8 21 13 66 01 06 11 59 00 01 28"},
        {&TTokenType::TAthenaKestoraEMVT1,
         "3B FC 13 00 FF 81 31 FE 45 80 73 C8 21 13 66 01 06 11 59 00 01 3A"},
        {&TTokenType::TAthenaKestoraEMVT0, "3B 6C 00 FF 80 73 C8 21 13 66 01 06 11 59 00 01"},
        {&TTokenType::TAthenaKestoraLT,
         "3B DC 18 FF 81 11 FE 80 73 C8 21 13 66 01 06 01 30 80 01 8D"},
    };
    for (const auto& r : rows) {
        const TBytes atr = hex(r.atr);
        EXPECT_EQ(&TTokenType::fromAtr(atr), r.row) << r.atr;
        TBytes longer = atr, flipped = atr;
        longer.push_back(0x00);
        flipped[1] ^= 0x01;  // a byte the mask keeps whole
        EXPECT_EQ(&TTokenType::fromAtr(longer), &TTokenType::TUnknown) << r.atr << " + 1 byte";
        EXPECT_EQ(&TTokenType::fromAtr(TBytes(atr.begin(), atr.end() - 1)), &TTokenType::TUnknown)
            << r.atr << " - 1 byte";
        EXPECT_NE(&TTokenType::fromAtr(flipped), r.row) << r.atr << " with byte 1 changed";
    }
    EXPECT_EQ(&TTokenType::fromAtr({}), &TTokenType::TUnknown);
}

TEST(TokenType, MaskedBitsAreFree) {
    const TBytes pro42 = hex("3B F2 18 00 FF C1 0A 31 FE 55 C8 06 7F");  // 4 and 12 are free
    EXPECT_EQ(&TTokenType::fromAtr(pro42), &TTokenType::TVandrelPro42);
    TBytes idp = hex("3B D5 96 FF 8F 91 FE 1F C3 80 73 C8 21 1E 5A");  // 2, 14 and low nibbles
    EXPECT_EQ(&TTokenType::fromAtr(idp), &TTokenType::TAthenaIDProtect);
    idp[4] = 0x90;  // a high nibble counts
    EXPECT_EQ(&TTokenType::fromAtr(idp), &TTokenType::TUnknown);
}

}  // namespace
