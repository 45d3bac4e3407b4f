// The GOST applet on a Java card: a flat store of numbered objects, reached
// by its AID, on which the file-system driver builds the tree.
#pragma once

#include "libapdu/applet.h"

namespace libapdu {

class CAppletGost : public IApplet {
public:
    // Fills the slots and selects the AID; a card without it fails here.
    explicit CAppletGost(ISender* sender);
    // Refuses a card whose status record is too short to be one we know.
    void init() override;
    // Whether the card answers the AID selection with 90 00; raises nothing.
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
