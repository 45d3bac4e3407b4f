// Splitting of command APDUs. A split either fails with 0x6B00 or yields the
// first four bytes as the header and data that lie in the command behind a
// one- or three-byte lc.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "libapdu/apdu.h"
#include "libapdu/exception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const TBytes apdu(bytes, bytes + size);
    TBytes header;
    TBytes data;
    unsigned short le = 0;
    try {
        libapdu::IAPDUDefinitions::parse_capdu(apdu, header, data, le);
    } catch (const CAPDUException& e) {
        FUZZ_CHECK(e.code() == 0x86E06B00);
        return 0;
    }
    FUZZ_CHECK(size >= 4);
    FUZZ_CHECK(std::equal(header.begin(), header.end(), apdu.begin()) && header.size() == 4);
    if (!data.empty()) {
        const bool shortLc = apdu[4] == data.size() && 5 + data.size() <= size &&
                             std::equal(data.begin(), data.end(), apdu.begin() + 5);
        const bool extendedLc = size >= 7 && apdu[4] == 0 &&
                                (apdu[5] << 8 | apdu[6]) == static_cast<int>(data.size()) &&
                                7 + data.size() <= size &&
                                std::equal(data.begin(), data.end(), apdu.begin() + 7);
        FUZZ_CHECK(shortLc || extendedLc);
    }
    return 0;
}
