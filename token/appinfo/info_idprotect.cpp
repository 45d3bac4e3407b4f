#include "token/appinfo/info_idprotect.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr unsigned long kRandomPiece = 8;
constexpr std::size_t kAnswerSize = 256;
constexpr std::size_t kVersionSize = 4;
constexpr std::size_t kIdSize = 8;
constexpr unsigned char kMemoryFree = 0x11;
constexpr unsigned char kMemoryTotal = 0x10;

}  // namespace

TBytes CInfoIdprotect::rnd(unsigned long count) {
    TBytes out;
    while (out.size() < count) {
        const unsigned long c = std::min(count - out.size(), kRandomPiece);
        TBytes response(c + 2);
        send({0x00, 0x84, 0x00, 0x00, static_cast<unsigned char>(c)}, response);
        checkSW(response);
        if (response.size() != c + 2) APDU_RAISE(0x6281);
        out.insert(out.end(), response.begin(), response.end() - 2);
    }
    return out;
}

TBytes CInfoIdprotect::version(unsigned char) {
    TBytes response(kAnswerSize);
    send({0x00, 0xCB, 0x00, 0x03, 0x00}, response);
    checkSW(response);
    if (response.size() != kVersionSize + 2) APDU_RAISE(0x6281);
    response.resize(kVersionSize);
    return response;
}

TBytes CInfoIdprotect::id(unsigned char) {
    TBytes response(kAnswerSize);
    send({0x80, 0xCB, 0x01, 0x14, 0x00}, response);
    checkSW(response);
    if (response.size() != kIdSize + 2) APDU_RAISE(0x6281);
    response.resize(kIdSize);
    return response;
}

unsigned int CInfoIdprotect::memory(unsigned char p2) {
    TBytes response(kAnswerSize);
    send({0x80, 0xCB, 0x01, p2, 0x00}, response);
    checkSW(response);
    const TBytes& r = response;
    if (r.size() == 6)
        return static_cast<unsigned int>(r[0]) << 24 | static_cast<unsigned int>(r[1]) << 16 |
               static_cast<unsigned int>(r[2]) << 8 | r[3];
    if (r.size() == 4) return static_cast<unsigned int>(r[0]) << 8 | r[1];
    APDU_RAISE(0x6281);
}

unsigned int CInfoIdprotect::memoryFree() { return memory(kMemoryFree); }

unsigned int CInfoIdprotect::memoryTotal() { return memory(kMemoryTotal); }

}  // namespace libapdu
