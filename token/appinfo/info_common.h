// The shared base of the information drivers.
#pragma once

#include "libapdu/apdu.h"
#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

class CInfoCommon : public IAppInfo, public IAPDUDefinitions {
public:
    explicit CInfoCommon(IApplet* owner) : applet(owner) {}

    void send(const TBytes& command, TBytes& response);
    WORD extractSW(const TBytes& response);
    void raiseSW(WORD sw);
    void checkSW(const TBytes& response);

protected:
    IApplet* applet;  // the owner, not owned
};

}  // namespace libapdu
