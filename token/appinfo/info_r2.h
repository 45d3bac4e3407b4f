// Token information of the R2 cards: one configuration block serves all.
#pragma once

#include "token/appinfo/info_common.h"

namespace libapdu {

class CInfoR2 : public CInfoCommon {
public:
    explicit CInfoR2(IApplet* owner) : CInfoCommon(owner) {}

    TBytes rnd(unsigned long count) override;
    bool isFips() override { return false; }
    TBytes version(unsigned char selector) override;
    TBytes id(unsigned char selector) override;
    unsigned int color() override;
    unsigned int memoryFree() override;
    unsigned int memoryTotal() override;

    // The configuration block, read anew on every call, status word dropped.
    TBytes config();
};

}  // namespace libapdu
