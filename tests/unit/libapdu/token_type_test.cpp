#include "libapdu/token_type.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using libapdu::TTokenType;

TBytes hex(const std::string& s) {
    TBytes out;
    for (std::size_t i = 0; i + 1 < s.size();) {
        if (s[i] == ' ') {
            ++i;
            continue;
        }
        out.push_back(static_cast<unsigned char>(std::stoul(s.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return out;
}

struct Row {
    const char* name;
    const TTokenType* row;
    const char* atr;
};

const std::vector<Row>& rows() {
    static const std::vector<Row> r = {
        {"R2", &TTokenType::TVandrelR2, "3B 81 1F 00 CC 52"},
        {"Pro16", &TTokenType::TVandrelPro16, "3B E2 00 FF C1 10 31 FE 55 C8 02 9C"},
        {"Pro32", &TTokenType::TVandrelPro32, "3B F2 98 00 FF C1 10 31 FE 55 C8 03 15"},
        {"Pro42", &TTokenType::TVandrelPro42, "3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00"},
        {"Pro42b", &TTokenType::TVandrelPro42b, "3B F2 18 00 02 C1 0A 31 FE 58 C8 09 75"},
        {"Java10", &TTokenType::TVandrelJava10, "3B D5 18 00 81 31 FE 7D 80 73 C8 21 10 F4"},
        {"Java10b", &TTokenType::TVandrelJava10b, "3B D5 18 00 81 31 3A 7D 80 73 C8 21 10 30"},
        {"IDProtect", &TTokenType::TAthenaIDProtect,
         "3B D5 00 FF 80 91 FE 1F C3 80 73 C8 21 10 00"},
        {"Kestora", &TTokenType::TAthenaKestora,
         "3B DC 18 FF 81 91 FE 1F C3 80 73 C8 21 13 66 01 06 11 59 00 01 28"},
        {"KestoraEMVT1", &TTokenType::TAthenaKestoraEMVT1,
         "3B FC 13 00 FF 81 31 FE 45 80 73 C8 21 13 66 01 06 11 59 00 01 3A"},
        {"KestoraEMVT0", &TTokenType::TAthenaKestoraEMVT0,
         "3B 6C 00 FF 80 73 C8 21 13 66 01 06 11 59 00 01"},
        {"KestoraLT", &TTokenType::TAthenaKestoraLT,
         "3B DC 18 FF 81 11 FE 80 73 C8 21 13 66 01 06 01 30 80 01 8D"},
    };
    return r;
}

TEST(TokenType, EveryRowMatchesItsOwnAtrOnly) {
    for (const Row& r : rows()) {
        const TBytes atr = hex(r.atr);
        EXPECT_EQ(&TTokenType::fromAtr(atr), r.row) << r.name;
        TBytes longer = atr;
        longer.push_back(0x00);
        EXPECT_EQ(&TTokenType::fromAtr(longer), &TTokenType::TUnknown) << r.name << " + 1 byte";
        TBytes shorter(atr.begin(), atr.end() - 1);
        EXPECT_EQ(&TTokenType::fromAtr(shorter), &TTokenType::TUnknown) << r.name << " - 1 byte";
        // Flipping a byte where the mask is all ones must break the match.
        TBytes flipped = atr;
        flipped[1] ^= 0x01;
        EXPECT_NE(&TTokenType::fromAtr(flipped), r.row) << r.name << " with byte 1 changed";
    }
}

TEST(TokenType, MaskedBytesAreFree) {
    TBytes pro42 = hex("3B F2 18 00 00 C1 0A 31 FE 55 C8 06 00");
    for (unsigned v : {0x01u, 0x7Fu, 0xFFu}) {
        TBytes a = pro42;
        a[4] = static_cast<unsigned char>(v);
        EXPECT_EQ(&TTokenType::fromAtr(a), &TTokenType::TVandrelPro42) << "index 4 = " << v;
        a = pro42;
        a[12] = static_cast<unsigned char>(v);
        EXPECT_EQ(&TTokenType::fromAtr(a), &TTokenType::TVandrelPro42) << "index 12 = " << v;
    }
    // Pro42b's ATR sits inside Pro42's mask only at index 4 and 12: it differs
    // elsewhere too, so it keeps its own row.
    EXPECT_EQ(&TTokenType::fromAtr(hex("3B F2 18 00 02 C1 0A 31 FE 58 C8 09 75")),
              &TTokenType::TVandrelPro42b);

    TBytes idp = hex("3B D5 00 FF 80 91 FE 1F C3 80 73 C8 21 10 00");
    idp[2] = 0x96;
    idp[14] = 0x5A;
    idp[4] = 0x8F;   // low nibble free
    idp[13] = 0x1E;  // low nibble free
    EXPECT_EQ(&TTokenType::fromAtr(idp), &TTokenType::TAthenaIDProtect);
    idp[4] = 0x90;  // high nibble counts
    EXPECT_EQ(&TTokenType::fromAtr(idp), &TTokenType::TUnknown);
}

TEST(TokenType, EmptyAndUnknownAtrs) {
    EXPECT_EQ(&TTokenType::fromAtr({}), &TTokenType::TUnknown);
    EXPECT_EQ(&TTokenType::fromAtr(hex("3B 02 14 50")), &TTokenType::TUnknown);
    EXPECT_EQ(TTokenType::TUnknown.atrLength, 0);
}

TEST(TokenType, RowHeaders) {
    EXPECT_EQ(TTokenType::TVandrelR2.kind, 1);
    EXPECT_EQ(TTokenType::TVandrelPro42b.model, 3);
    EXPECT_EQ(TTokenType::TAthenaKestoraLT.vendor, 2);
    EXPECT_EQ(TTokenType::TAthenaKestoraLT.model, 4);
    EXPECT_EQ(TTokenType::TVandrelJava10.kind, 2);
    EXPECT_EQ(TTokenType::TVandrelPro42.mask[4], 0x00);
    EXPECT_EQ(TTokenType::TVandrelPro32.mask[12], 0xFF);
    EXPECT_EQ(TTokenType::TVandrelPro32.mask[13], 0x00) << "zero-filled past the length";
}

}  // namespace
