// Token information of the DataStore applet: one status record serves the
// version, the identifier and the free memory.
#pragma once

#include "token/appinfo/info_common.h"

namespace libapdu {

// The applet's 30-byte status record, numbers in host order. The PIN driver
// reads the same record for its counters.
struct tagDataStoreStatus {
    static constexpr std::size_t kSize = 30;
    static constexpr std::size_t kAnswer = 258;
    static const TBytes kCommand;  // 80 30 30 00 1E

    unsigned char version[3];
    WORD value;       // not interpreted
    WORD memoryFree;  // also the second value of the PIN's view
    unsigned char loggedIn[3];
    unsigned char wrongAttempts[3];
    unsigned char attemptsTotal[3];
    unsigned char minLength[3];
    unsigned char maxLength[3];
    unsigned char id[8];

    // From an answer with the status word cut; fails with 0x6281 below 30 bytes.
    static tagDataStoreStatus parse(const TBytes& data);
};

class CInfoDataStore : public CInfoCommon {
public:
    explicit CInfoDataStore(IApplet* owner) : CInfoCommon(owner) {}

    // Every call asks the card anew; the selectors are ignored.
    TBytes version(unsigned char selector) override;
    TBytes id(unsigned char selector) override;
    unsigned int memoryFree() override;
    // The card does not tell: 0xFFFFFFFF, with no APDU.
    unsigned int memoryTotal() override { return 0xFFFFFFFF; }
    unsigned int color() override { return 0xFFFFFFFF; }
    bool isFips() override { return false; }

    tagDataStoreStatus get_status();
};

}  // namespace libapdu
