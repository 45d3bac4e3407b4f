#include "token/appinfo/info_datastore.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

// Offsets in the status record.
constexpr std::size_t kVersion = 0;
constexpr std::size_t kValue = 3;
constexpr std::size_t kFree = 5;
constexpr std::size_t kLoggedIn = 7;
constexpr std::size_t kWrong = 10;
constexpr std::size_t kTotal = 13;
constexpr std::size_t kMin = 16;
constexpr std::size_t kMax = 19;
constexpr std::size_t kId = 22;

WORD bigWord(const TBytes& b, std::size_t at) { return static_cast<WORD>(b[at] << 8 | b[at + 1]); }

template <std::size_t N>
void take(unsigned char (&field)[N], const TBytes& b, std::size_t at) {
    std::copy_n(b.begin() + at, N, field);
}

}  // namespace

const TBytes tagDataStoreStatus::kCommand = {0x80, 0x30, 0x30, 0x00, 0x1E};

tagDataStoreStatus tagDataStoreStatus::parse(const TBytes& data) {
    if (data.size() < kSize) APDU_RAISE(0x6281);
    tagDataStoreStatus s;
    take(s.version, data, kVersion);
    s.value = bigWord(data, kValue);
    s.memoryFree = bigWord(data, kFree);
    take(s.loggedIn, data, kLoggedIn);
    take(s.wrongAttempts, data, kWrong);
    take(s.attemptsTotal, data, kTotal);
    take(s.minLength, data, kMin);
    take(s.maxLength, data, kMax);
    take(s.id, data, kId);
    return s;
}

tagDataStoreStatus CInfoDataStore::get_status() {
    TBytes response(tagDataStoreStatus::kAnswer);
    send(tagDataStoreStatus::kCommand, response);
    checkSW(response);
    response.resize(response.size() >= 2 ? response.size() - 2 : 0);
    return tagDataStoreStatus::parse(response);
}

TBytes CInfoDataStore::version(unsigned char) {
    const tagDataStoreStatus s = get_status();
    return TBytes(std::begin(s.version), std::end(s.version));
}

TBytes CInfoDataStore::id(unsigned char) {
    const tagDataStoreStatus s = get_status();
    return TBytes(std::begin(s.id), std::end(s.id));
}

unsigned int CInfoDataStore::memoryFree() { return get_status().memoryFree; }

}  // namespace libapdu
