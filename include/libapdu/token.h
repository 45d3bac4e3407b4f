// The bound token: owns the sender and exactly one applet.
#pragma once

#include <memory>

#include "libapdu/interfaces.h"
#include "libapdu/sender.h"

namespace libapdu {

class IToken {
public:
    virtual ~IToken();
    virtual bool checkIfExist(unsigned short applet) = 0;
    virtual void selectApplet(unsigned short applet) = 0;
    virtual void switchToApplet(unsigned short applet) = 0;
    virtual void switchToFileSystem(unsigned short fs) = 0;
    virtual IAppFS* fs() = 0;
    virtual IAppPin* pin() = 0;
    virtual IAppInfo* info() = 0;
    virtual IAppLabel* label() = 0;
    virtual IAppCrypto* crypto() = 0;
    virtual IAppLic* lic() = 0;
    virtual IAppBio* bio() = 0;

    static std::unique_ptr<IToken> create(std::unique_ptr<ISender>& sender);
};

}  // namespace libapdu
