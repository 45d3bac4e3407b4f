// The Pro dialect: a native card OS told by its ATR, with drivers by model.
#pragma once

#include "libapdu/applet.h"

namespace libapdu {

class CAppletPro : public IApplet, public IAPDUDefinitions {
public:
    // Fails with 0xFACE on a card whose ATR is no Pro row.
    explicit CAppletPro(ISender* sender);
    void init() override;
    static bool checkIfExist(ISender* sender);

private:
    void installCrypto(bool fips);

    static const TPath kPathHome;  // 3F00 6666
    static const TPath kPathRoot;  // 3F00
};

}  // namespace libapdu
