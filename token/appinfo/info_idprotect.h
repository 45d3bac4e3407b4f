// Token information of the IDProtect applet, each value by its own APDU.
#pragma once

#include "token/appinfo/info_common.h"

namespace libapdu {

class CInfoIdprotect : public CInfoCommon {
public:
    explicit CInfoIdprotect(IApplet* owner) : CInfoCommon(owner) {}

    // In pieces of at most 8 bytes, the most the card gives at once.
    TBytes rnd(unsigned long count) override;
    bool isFips() override { return false; }
    TBytes version(unsigned char selector) override;
    TBytes id(unsigned char selector) override;
    unsigned int color() override { return 0xFFFFFFFF; }
    unsigned int memoryFree() override;
    unsigned int memoryTotal() override;

private:
    // A memory figure: four data bytes, or two on older cards.
    unsigned int memory(unsigned char p2);
};

}  // namespace libapdu
