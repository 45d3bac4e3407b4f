// The card manager of the Java cards: the model text and the information that
// lies outside the file-system applets. It has no file system, PIN or label.
#pragma once

#include "token/applet_java.h"

namespace libapdu {

class CAppletJavaManager : public IApplet, public IAPDUDefinitions {
public:
    static const TBytes kAid;

    // Fills the slots and selects the AID; a card without it fails here.
    explicit CAppletJavaManager(ISender* sender);
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
