#include "conv.h"

#include <cctype>
#include <iterator>

#include "libapdu/exception.h"

namespace libapdu {

bool IConv::isInit = false;

namespace {

template <class F>
auto orBadData(F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (...) {
        APDU_RAISE(0x6281);
    }
}

template <class S>
S cutAtZero(S text) {
    const auto at = text.find(typename S::value_type(0));
    if (at != S::npos) text.resize(at);
    return text;
}

[[noreturn]] void unknownEncoding() { APDU_RAISE(0xFACE); }

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

std::string IConv::wchar2utf8(const std::wstring& text) {
    return orBadData([&] {
        // Wide elements carry UTF-16 units: each is cut to 16 bits.
        std::u16string units;
        units.reserve(text.size());
        for (wchar_t w : text) units.push_back(static_cast<char16_t>(w & 0xFFFF));
        std::string out;
        utf8::utf16to8(units.begin(), units.end(), std::back_inserter(out));
        return out;
    });
}

std::wstring IConv::utf82wchar(const std::string& text) {
    return orBadData([&] {
        std::u16string units;
        utf8::utf8to16(text.begin(), text.end(), std::back_inserter(units));
        return std::wstring(units.begin(), units.end());
    });
}

std::string IConv::wchar2char(const std::wstring& text) {
    init();
    return orBadData([&] {
        std::string out;
        utf8::utf16toascii(text.begin(), text.end(), std::back_inserter(out));
        return out;
    });
}

std::wstring IConv::char2wchar(const std::string& text) {
    init();
    return orBadData([&] {
        std::wstring out;
        utf8::asciitoutf16(text.begin(), text.end(), std::back_inserter(out));
        return out;
    });
}

TBytes IConv::str2bytes(std::string text) { return TBytes(text.begin(), text.end()); }

std::string IConv::bytes2str(TBytes bytes) { return std::string(bytes.begin(), bytes.end()); }

void IConv::init() {
    if (isInit) return;
    isInit = true;
    utf8::reset_locale();
}

TBytes IConvert::string_to_bytes(const std::string& text, unsigned char encoding) {
    if (encoding == 2) return IConv::str2bytes(text);
    if (encoding == 3) return IConv::str2bytes(IConv::wchar2utf8(IConv::char2wchar(text)));
    unknownEncoding();
}

TBytes IConvert::wstring_to_bytes(const std::wstring& text, unsigned char encoding) {
    if (encoding == 2) return IConv::str2bytes(IConv::wchar2char(text));
    if (encoding == 3) return IConv::str2bytes(IConv::wchar2utf8(text));
    unknownEncoding();
}

std::string IConvert::bytes_to_string(const TBytes& bytes, unsigned char encoding) {
    if (encoding == 2) return cutAtZero(IConv::bytes2str(bytes));
    if (encoding == 3)
        return cutAtZero(IConv::wchar2char(IConv::utf82wchar(IConv::bytes2str(bytes))));
    unknownEncoding();
}

std::wstring IConvert::bytes_to_wstring(const TBytes& bytes, unsigned char encoding) {
    if (encoding == 2) return cutAtZero(IConv::char2wchar(IConv::bytes2str(bytes)));
    if (encoding == 3) return cutAtZero(IConv::utf82wchar(IConv::bytes2str(bytes)));
    unknownEncoding();
}

std::string base64_encode(const TBytes& bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const unsigned v = bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2];
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += kAlphabet[v >> 6 & 63];
        out += kAlphabet[v & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        const unsigned v = bytes[i] << 16 | (rest == 2 ? bytes[i + 1] << 8 : 0);
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += rest == 2 ? kAlphabet[v >> 6 & 63] : '=';
        out += '=';
    }
    return out;
}

TBytes base64_decode(const std::string& text) {
    TBytes out;
    unsigned group = 0;
    int count = 0;
    for (char c : text) {
        if (c == '=') break;
        const int v = base64Value(c);
        if (v < 0) break;
        group = group << 6 | static_cast<unsigned>(v);
        if (++count == 4) {
            out.push_back(static_cast<unsigned char>(group >> 16));
            out.push_back(static_cast<unsigned char>(group >> 8));
            out.push_back(static_cast<unsigned char>(group));
            group = 0;
            count = 0;
        }
    }
    // A last group of 2 or 3 chars gives 1 or 2 bytes; a lone char gives none.
    if (count == 2) {
        out.push_back(static_cast<unsigned char>(group >> 4));
    } else if (count == 3) {
        out.push_back(static_cast<unsigned char>(group >> 10));
        out.push_back(static_cast<unsigned char>(group >> 2));
    }
    return out;
}

}  // namespace libapdu
