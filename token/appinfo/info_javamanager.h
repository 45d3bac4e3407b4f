// Information from the card manager of the Java cards: the operating
// system's version, the card's identifier and the model text.
#pragma once

#include "token/appinfo/info_common.h"

namespace libapdu {

class CInfoJavaManager : public CInfoCommon {
public:
    explicit CInfoJavaManager(IApplet* owner) : CInfoCommon(owner) {}

    // Two bytes of the card production life cycle data, in swapped order.
    TBytes version(unsigned char selector) override;
    TBytes id(unsigned char selector) override;
    // 2: the model text; anything else: empty, without an exchange.
    TBytes value(unsigned char selector) override;

private:
    // The value of tag `tag` in the answer to GET DATA `command`; 0x6281
    // when it is missing.
    TBytes getData(const TBytes& command, unsigned char tag);
};

}  // namespace libapdu
