// Text conversion between the application's locale, UTF-8 and the wide form
// (UTF-16 code units in wchar_t elements), and base64.
#pragma once

#include <clocale>
#include <cstdlib>
#include <climits>
#include <string>

#include <utf8.h>

#include "libapdu/types.h"

namespace utf8 {

// Switches the process to the environment's locale.
inline void reset_locale() { std::setlocale(LC_ALL, ""); }

// Each wide element through wctomb, as it stands. Fails with invalid_code_point.
template <class WideIt, class OutIt>
OutIt utf16toascii(WideIt first, WideIt last, OutIt out) {
    char buffer[MB_LEN_MAX];
    for (; first != last; ++first) {
        const wchar_t wc = static_cast<wchar_t>(*first);
        int n = std::wctomb(buffer, wc);
        if (n < 0) {
            std::wctomb(nullptr, 0);  // a failure leaves the shift state undefined
            throw invalid_code_point(static_cast<uint32_t>(wc));
        }
        if (n == 0) n = 1;
        for (int i = 0; i < n; ++i) *out++ = buffer[i];
    }
    return out;
}

// Each char alone through mbtowc: a multi-byte character can't pass.
template <class CharIt, class OutIt>
OutIt asciitoutf16(CharIt first, CharIt last, OutIt out) {
    for (; first != last; ++first) {
        const char c = *first;
        wchar_t wc = 0;
        const int n = std::mbtowc(&wc, &c, 1);
        if (n < 0) {
            // A lead byte alone leaves the state mid-character; the next
            // conversion must not inherit it.
            std::mbtowc(nullptr, nullptr, 0);
            throw invalid_code_point(static_cast<unsigned char>(c));
        }
        *out++ = static_cast<wchar_t>(static_cast<uint32_t>(wc) & 0xFFFF);
    }
    return out;
}

}  // namespace utf8

namespace libapdu {

class IConv {
public:
    static std::string wchar2utf8(const std::wstring& text);
    static std::wstring utf82wchar(const std::string& text);
    static std::string wchar2char(const std::wstring& text);
    static std::wstring char2wchar(const std::string& text);
    static TBytes str2bytes(std::string text);
    static std::string bytes2str(TBytes bytes);
    // Sets the locale from the environment, once.
    static void init();

    static bool isInit;
};

// Encoding numbers: 2 the locale's 8-bit text as it is, 3 UTF-8.
class IConvert {
public:
    static TBytes string_to_bytes(const std::string& text, unsigned char encoding);
    static TBytes wstring_to_bytes(const std::wstring& text, unsigned char encoding);
    static std::string bytes_to_string(const TBytes& bytes, unsigned char encoding);
    static std::wstring bytes_to_wstring(const TBytes& bytes, unsigned char encoding);
};

std::string base64_encode(const TBytes& bytes);
// Lenient: stops at the first char outside the alphabet, keeping what it read.
TBytes base64_decode(const std::string& text);

}  // namespace libapdu
