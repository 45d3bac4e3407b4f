// The IDProtect applet on a Java card: a real file tree with one home
// directory for the application's data, reached by its AID.
#pragma once

#include "libapdu/applet.h"

namespace libapdu {

class CAppletIdprotect : public IApplet {
public:
    // Fills the slots and selects the AID; a card without it fails here.
    explicit CAppletIdprotect(ISender* sender);
    // Starts logged out, and refuses a card whose information file is too
    // old to be one the drivers know.
    void init() override;
    // Whether the card answers the AID selection with 90 00; raises nothing.
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
