// The DataStore applet on Java cards: a pool of records on which the library
// builds its own tree, in one of two layouts.
#pragma once

#include "libapdu/apdu.h"
#include "libapdu/applet.h"

namespace libapdu {

class CAppletDataStore : public IApplet, public IAPDUDefinitions {
public:
    static const TBytes kAid;

    // Selects the applet; a card without it makes this fail.
    explicit CAppletDataStore(ISender* sender);
    // 1: the label layout, 2: the table layout, a fresh driver either way.
    // Any other number keeps the current driver.
    void switchToFileSystem(unsigned short fs) override;
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
