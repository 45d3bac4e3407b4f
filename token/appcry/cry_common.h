// The shared base of the crypto drivers, and the list-keeping frame of the
// drivers that search the token once and then work from their list.
#pragma once

#include <vector>

#include "libapdu/apdu.h"
#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

// Every container and provider of this library carries these two values.
constexpr WORD kCryProvider = 0x1001;
constexpr unsigned char kCryAlgorithm = 3;

// The reference of the user PIN: the last element of its path.
unsigned char CryPinUser(IAppPin* pin);

// Every driver's plumbing, its one provider (the key lengths it takes) and
// the selected container.
class CCryCommon : public IAppCrypto, public IAPDUDefinitions {
public:
    CCryCommon(IApplet* owner, std::vector<WORD> sizes);

    CCryptoInfo info() override;
    CCryptoProvider provider(unsigned short id) override;

    void send(const TBytes& apdu, TBytes& response);
    WORD extractSW(const TBytes& response);
    void raiseSW(WORD sw);
    void checkSW(const TBytes& response);
    bool isFips();
    // The reference of the user PIN: the last element of its path.
    unsigned char pinUser();

protected:
    IApplet* applet;  // the owner, not owned
    CAdapter adapter;
    CCryptoProvider provider_;
    CCryptoInfo selected;
};

// init and list of the drivers that keep a list, and the first steps of
// their select; each family adds the rest of select and decrypt.
class CCryListed : public CCryCommon {
public:
    using CCryCommon::CCryCommon;

    std::vector<TPath> list(unsigned short provider) override;

protected:
    // The family's finder run over `adapter`: its finished containers.
    virtual std::vector<CCryptoInfo> find() = 0;

    // Builds the list once per driver object; the flag is set first, so a
    // failed search is not retried and later calls see no containers.
    void init();
    // Steps 1 to 5 of every list-based select: the last container whose path
    // is `path` becomes the selected one, else 0x6A82.
    void selectFromList(const TPath& path);

    std::vector<CCryptoInfo> containers;
    bool ready = false;
};

}  // namespace libapdu
