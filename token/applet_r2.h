// The R2 dialect: a native card OS told by its ATR alone.
#pragma once

#include "libapdu/applet.h"

namespace libapdu {

class CAppletR2 : public IApplet {
public:
    explicit CAppletR2(ISender* sender);
    // The only check between a card and the R2 dialect: the ATR row.
    void init() override;
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
