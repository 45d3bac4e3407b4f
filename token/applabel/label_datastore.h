// The label of the DataStore applet: an object of the applet behind two
// APDUs, kept in UTF-8.
#pragma once

#include "token/applabel/label_common.h"

namespace libapdu {

class CLabelDataStore : public CLabelCommon {
public:
    explicit CLabelDataStore(IApplet* owner) : CLabelCommon(owner) {}

    // Trailing blanks removed.
    TBytes read() override;
    // No length check: the card's status word answers a label too long.
    void write(const TBytes& label) override;
    unsigned int encoding() override { return 3; }
};

}  // namespace libapdu
