// Token information of the Pro cards, partly from the reader driver's
// control channel.
#pragma once

#include "token/appinfo/info_common.h"

namespace libapdu {

class CInfoPro : public CInfoCommon {
public:
    // The reader driver's control code for the identifier and configuration.
    static constexpr unsigned int kControlCode = 0x9C41264C;

    explicit CInfoPro(IApplet* owner) : CInfoCommon(owner) {}

    TBytes rnd(unsigned long count) override;
    bool isFips() override;
    TBytes version(unsigned char selector) override;
    // 1: the reader driver's identifier; anything else: the card's GET DATA.
    TBytes id(unsigned char selector) override;
    unsigned int color() override;
    unsigned int memoryFree() override;
    unsigned int memoryTotal() override;

    // The 8 bytes of basic information from the reader driver.
    TBytes readBasicInfo();
    // The configuration block, read in two steps from the reader driver.
    TBytes readCfg();
    // Bytes 4 to 7 of readBasicInfo, reversed. Any failure becomes 0xFACE.
    TBytes qntokenID();

private:
    static constexpr unsigned short kFipsUnknown = 16;
    static constexpr unsigned short kFipsYes = 255;
    static constexpr unsigned short kFipsNo = 0;

    // Sends a GET DATA for `object` and checks its status word.
    TBytes getData(unsigned char object, std::size_t capacity);

    unsigned short fips = kFipsUnknown;
};

}  // namespace libapdu
