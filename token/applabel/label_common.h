// The shared base of the label drivers: the owner, an adapter of its drivers
// for the File* helpers, and the APDU plumbing.
#pragma once

#include "libapdu/apdu.h"
#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

class CLabelCommon : public IAppLabel, public IAPDUDefinitions {
public:
    // The applet's other drivers must be in place: the adapter is taken now.
    explicit CLabelCommon(IApplet* owner);

    void send(const TBytes& command, TBytes& response);
    WORD extractSW(const TBytes& response);
    void raiseSW(WORD sw);
    void checkSW(const TBytes& response);
    bool isFips();

protected:
    IApplet* applet;  // the owner, not owned
    CAdapter adapter;
};

}  // namespace libapdu
