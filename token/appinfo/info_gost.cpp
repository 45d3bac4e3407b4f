#include "token/appinfo/info_gost.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

// The fields of the status record read here.
constexpr std::size_t kVersion = 1;
constexpr std::size_t kVersionSize = 4;
constexpr std::size_t kMemoryFree = 9;
constexpr std::size_t kId = 16;
constexpr std::size_t kIdSize = 8;

}  // namespace

const TBytes tagGostStatus::kCommand{0x80, 0x15, 0x10, 0x00, 0x01, 0x01};

TBytes tagGostStatus::record(const TBytes& response) {
    if (response.size() < kSize + 2) APDU_RAISE(0x6281);
    return TBytes(response.begin(), response.begin() + kSize);
}

CInfoGost::CStatus CInfoGost::get_status() {
    TBytes response(tagGostStatus::kAnswer);
    send(tagGostStatus::kCommand, response);
    checkSW(response);
    const TBytes record = tagGostStatus::record(response);
    const auto at = [&](std::size_t offset) { return record.begin() + offset; };
    CStatus s;
    s.version.assign(at(kVersion), at(kVersion + kVersionSize));
    s.memoryFree = static_cast<WORD>(record[kMemoryFree] << 8 | record[kMemoryFree + 1]);
    s.id.assign(at(kId), at(kId + kIdSize));
    return s;
}

TBytes CInfoGost::rnd(unsigned long count) {
    // The count goes as 16 bits.
    if (count > 0xFFFF) APDU_RAISE(0x6B00);
    const TBytes command{0x80,
                         0x14,
                         0x40,
                         0x00,
                         0x02,
                         static_cast<unsigned char>(count >> 8),
                         static_cast<unsigned char>(count & 0xFF),
                         0x00};
    TBytes response(count + 2);
    send(command, response);
    checkSW(response);
    if (response.size() != count + 2) APDU_RAISE(0x6281);
    response.resize(count);
    return response;
}

TBytes CInfoGost::version(unsigned char) { return get_status().version; }

TBytes CInfoGost::id(unsigned char) { return get_status().id; }

unsigned int CInfoGost::memoryFree() { return get_status().memoryFree; }

}  // namespace libapdu
