#include "token/appinfo/info_r2.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {

// Offsets in the configuration block.
constexpr std::size_t kId = 0;
constexpr std::size_t kVersion = 4;
constexpr std::size_t kMemoryTotal = 6;
constexpr std::size_t kMemoryFree = 16;
constexpr std::size_t kColour = 18;

unsigned int littleWord(const TBytes& b, std::size_t at) { return b[at] | b[at + 1] << 8; }

}  // namespace

TBytes CInfoR2::config() {
    const TBytes command{0x00, 0xDA, 0x00, 0x00, 0x01, 0x00, 0x00};
    TBytes response(258);
    send(command, response);
    raiseSW(extractSW(response));
    // Guarantees every offset above lies within the block.
    if (response.size() <= 20) APDU_RAISE(0x6281);
    response.resize(response.size() - 2);
    return response;
}

TBytes CInfoR2::rnd(unsigned long) { APDU_RAISE(0xFACE); }

TBytes CInfoR2::version(unsigned char) {
    const TBytes c = config();
    return TBytes(c.begin() + kVersion, c.begin() + kVersion + 2);
}

TBytes CInfoR2::id(unsigned char) {
    const TBytes c = config();
    return TBytes(c.begin() + kId, c.begin() + kId + 4);
}

unsigned int CInfoR2::color() { return config()[kColour]; }

unsigned int CInfoR2::memoryFree() { return littleWord(config(), kMemoryFree); }

unsigned int CInfoR2::memoryTotal() { return littleWord(config(), kMemoryTotal); }

}  // namespace libapdu
