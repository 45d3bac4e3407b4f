// The CryptoPro application of a Java card: a selection and nothing else, so
// that an application can make the card select it.
#pragma once

#include "token/applet_java.h"

namespace libapdu {

class CAppletCryptoPro : public IApplet, public IAPDUDefinitions {
public:
    static const TBytes kAid;

    // Selects the AID with the plain status words; every driver is a stub.
    explicit CAppletCryptoPro(ISender* sender);
    static bool checkIfExist(ISender* sender);
};

}  // namespace libapdu
