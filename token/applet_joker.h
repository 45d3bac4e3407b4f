// The Joker file-system applet: the Java applet's dialect with other
// instruction bytes, reached by its own AID.
#pragma once

#include "token/applet_java.h"

namespace libapdu {

class CAppletJoker : public IApplet, public IAPDUDefinitions {
public:
    static const TBytes kAid;

    // Fills the slots and selects the AID; a card without it fails here.
    explicit CAppletJoker(ISender* sender);
    // Lets the information driver learn the FIPS state once, at selection.
    void init() override;
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
