// The file-system applet of the Java cards, reached by its AID, and the AID
// selection that every applet of the Java-card family shares.
#pragma once

#include "libapdu/apdu.h"
#include "libapdu/applet.h"

namespace libapdu {

// SELECT by AID: 00 A4 04 00 Lc AID 00.
TBytes JavaSelectCommand(const TBytes& aid);
// Selects `aid` through `applet` and checks the answer with its own status
// words, so a card without the application fails the constructor.
void JavaSelectApplet(IApplet& applet, const TBytes& aid);
// Whether the card answers the selection of `aid` with 90 00; raises nothing.
bool JavaAppletExists(ISender* sender, const TBytes& aid);

class CAppletJava : public IApplet, public IAPDUDefinitions {
public:
    static const TBytes kAid;

    // Fills the slots and selects the AID; a card without it fails here.
    explicit CAppletJava(ISender* sender);
    // Lets the information driver learn the FIPS state once, at selection.
    void init() override;
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
