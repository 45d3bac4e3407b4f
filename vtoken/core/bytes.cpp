#include "core/bytes.h"

#include <cstdio>
#include <stdexcept>

namespace vtoken {

namespace {

int digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

Bytes fromHex(std::string_view text) {
    Bytes out;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == ':') {
            if (high >= 0) throw std::invalid_argument("hex: a byte split by a separator");
            continue;
        }
        int d = digit(c);
        if (d < 0) throw std::invalid_argument(std::string("hex: not a digit: '") + c + "'");
        if (high < 0) {
            high = d;
        } else {
            out.push_back(static_cast<unsigned char>(high << 4 | d));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("hex: odd number of digits");
    return out;
}

std::string toHex(const Bytes& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char b : bytes) {
        if (!out.empty()) out += ' ';
        out += digits[b >> 4];
        out += digits[b & 0x0F];
    }
    return out;
}

std::string hexNumber(unsigned long w, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "%0*lX", digits, w);
    return text;
}

}  // namespace vtoken
