// The applet frame: one driver per aspect of a card, stubs where it has none.
#pragma once

#include <memory>

#include "libapdu/error.h"
#include "libapdu/interfaces.h"
#include "libapdu/sender.h"

namespace libapdu {

class IToken;

class IApplet {
public:
    explicit IApplet(ISender* sender = nullptr);
    virtual ~IApplet();
    IApplet(const IApplet&) = delete;
    IApplet& operator=(const IApplet&) = delete;

    // The second phase of construction, run once the applet is current.
    virtual void init();
    virtual void switchToFileSystem(unsigned short fs);

    // Each accessor fails with 0xFACE when its slot is empty.
    ISender* sender();
    IAppError* error();
    IAppPack* pack();
    IAppFS* fs();
    IAppPin* pin();
    IAppInfo* info();
    IAppLabel* label();
    IAppCrypto* crypto();
    IAppLic* lic();
    IAppBio* bio();

    // The plumbing that every applet and driver base shares.
    void send(const TBytes& command, TBytes& response);
    unsigned short extractSW(const TBytes& response);
    void raiseSW(unsigned short sw);
    void checkSW(const TBytes& response);

protected:
    // Slots, in the order the drivers are declared; destroyed in reverse.
    ISender* sender_;
    std::unique_ptr<IAppError> error_;
    std::unique_ptr<IAppPack> pack_;
    std::unique_ptr<IAppFS> fs_;
    std::unique_ptr<IAppPin> pin_;
    std::unique_ptr<IAppInfo> info_;
    std::unique_ptr<IAppLabel> label_;
    std::unique_ptr<IAppCrypto> crypto_;
    std::unique_ptr<IAppLic> lic_;
    std::unique_ptr<IAppBio> bio_;
};

// Six borrowed interface pointers handed to the File* helpers as one value.
// By default they are the static stubs, so an unfilled adapter fails cleanly.
struct CAdapter {
    IAppFS* fs;
    IAppPin* pin;
    IAppInfo* info;
    IAppCrypto* crypto;
    IAppLabel* label;
    IAppLic* lic;

    CAdapter();
};

CAdapter AppletToAdapter(IApplet* applet);
CAdapter TokenToAdapter(IToken* token);

}  // namespace libapdu
