// The shared base of the pack drivers: the session key table that PIN
// drivers fill and secure messaging reads, and the APDU plumbing.
#pragma once

#include <vector>

#include "libapdu/apdu.h"
#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

class CPackCommon : public IAppPack, public IAPDUDefinitions {
public:
    explicit CPackCommon(IApplet* owner);
    ~CPackCommon() override;

    // A copy of key `index`; an unset or empty key raises 0x6900.
    TBytes keyGet(unsigned long index) override;
    void keyClear() override;
    // Grows the table with empty keys as needed; it never shrinks here.
    void keySet(unsigned long index, TBytes key) override;
    // Moves the table aside (replacing an earlier save) and empties it.
    void keySave() override;
    // Copies the saved table back; the save stays for another restore.
    void keyRestore() override;

    void send(const TBytes& command, TBytes& response);
    unsigned short extractSW(const TBytes& response);
    void raiseSW(WORD sw);
    void checkSW(const TBytes& response);

protected:
    IApplet* applet;  // the owner, not owned here
    std::vector<TBytes> keys;
    std::vector<TBytes> saved;
};

}  // namespace libapdu
