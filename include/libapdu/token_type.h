// The table of known tokens, told apart by their ATR. A row's identity is its
// address: callers compare pointers.
#pragma once

#include "libapdu/types.h"

namespace libapdu {

struct TTokenType {
    unsigned char vendor;  // 1 for TVandrel*, 2 for TAthena*
    unsigned char family;
    unsigned char model;
    unsigned char atrLength;
    unsigned char atr[36];
    unsigned char mask[36];
    unsigned char kind;  // 1 native card OS, 2 Java card

    static const TTokenType TUnknown;
    static const TTokenType TVandrelR2;
    static const TTokenType TVandrelPro16;
    static const TTokenType TVandrelPro32;
    static const TTokenType TVandrelPro42;
    static const TTokenType TVandrelPro42b;
    static const TTokenType TVandrelJava10;
    static const TTokenType TVandrelJava10b;
    static const TTokenType TAthenaIDProtect;
    static const TTokenType TAthenaKestora;
    static const TTokenType TAthenaKestoraEMVT1;
    static const TTokenType TAthenaKestoraEMVT0;
    static const TTokenType TAthenaKestoraLT;

    // The first row whose significant bytes match under its mask, else TUnknown.
    static const TTokenType& fromAtr(const TBytes& atr);
};

static_assert(sizeof(TTokenType) == 77, "the row is 77 bytes");

}  // namespace libapdu
