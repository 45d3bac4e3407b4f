// The fingerprint functions of the IDProtect applet: how the user logs in,
// which fingers are enrolled and their public data, a captured template
// matched on the card, and the login by a ticket the front end issued.
#pragma once

#include "libapdu/apdu.h"
#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

class CBioIdprotect : public IAppBio, public IAPDUDefinitions {
public:
    explicit CBioIdprotect(IApplet* owner);

    void select(const TPath& path) override;
    // 0x20, 0x23, 0x24 or 0x25 from the login object; 0 for anything else.
    unsigned int loginType() override;
    // One finger number per enrolled finger: the card's slot value less one.
    TBytes getEnrolledFingers() override;
    TBytes readPublicBioData(unsigned char finger) override;
    // The card's 20 bytes after a match, or fewer if it sent fewer; a failed
    // match raises 0x6286.
    TBytes appletMoC(const TBytes& data, unsigned char finger) override;
    void loginByTicket(const TBytes& ticket) override;

    void send(const TBytes& apdu, TBytes& response);
    WORD extractSW(const TBytes& response);
    void raiseSW(WORD sw);
    void checkSW(const TBytes& response);

private:
    TPath path;       // the selected object
    IApplet* applet;  // the owner, not owned
};

}  // namespace libapdu
