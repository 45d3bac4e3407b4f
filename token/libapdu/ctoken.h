// The factory and holder of applets: owns the sender and exactly one applet.
#pragma once

#include <memory>

#include "libapdu/applet.h"
#include "libapdu/token.h"

namespace libapdu {

class CToken : public IToken {
public:
    explicit CToken(std::unique_ptr<ISender> sender);
    ~CToken() override;

    bool checkIfExist(unsigned short applet) override;
    // Makes the applet current, then runs its init; a failing init leaves it current.
    void selectApplet(unsigned short applet) override;
    // The same without init.
    void switchToApplet(unsigned short applet) override;
    void switchToFileSystem(unsigned short fs) override;
    IAppFS* fs() override;
    IAppPin* pin() override;
    IAppInfo* info() override;
    IAppLabel* label() override;
    IAppCrypto* crypto() override;
    IAppLic* lic() override;
    IAppBio* bio() override;

    IApplet* current() { return applet.get(); }

    // Makes the applet object of a number; unknown numbers fail with 0xFACE.
    static std::unique_ptr<IApplet> makeApplet(unsigned short number, ISender* sender);

private:
    void replace(unsigned short number);

    // Declared in this order so that the sender goes first at destruction:
    // no driver may use it in its destructor.
    std::unique_ptr<IApplet> applet;
    std::unique_ptr<ISender> sender;
};

}  // namespace libapdu
