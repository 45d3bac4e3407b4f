// The shared base of the PIN drivers and the PIN object identifiers of every
// token family.
#pragma once

#include "libapdu/apdu.h"
#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

// PIN object identifiers on the card. A path names a PIN: its last element is
// the identifier, the elements before it the directory holding it.
namespace pin_id {
constexpr WORD ProUser = 0x0001;
constexpr WORD ProAdmin = 0x0005;
constexpr WORD ProFipsUser = 0x0011;
constexpr WORD ProFipsEnc = 0x0012;
constexpr WORD ProFipsSig = 0x0013;
constexpr WORD ProFipsUser2 = 0x001A;
constexpr WORD ProFipsEnc2 = 0x001B;
constexpr WORD ProFipsSig2 = 0x001C;
constexpr WORD JavaUser = 0x0011;  // also Joker
constexpr WORD JavaAdmin = 0x0021;
constexpr WORD JavaGlobal = 0x00FE;
constexpr WORD JavaFipsUser2 = 0x001A;
constexpr WORD IdprotectRoot = 0x3F00;  // directory of all Idprotect PINs
constexpr WORD IdprotectAdmin = 0x0010;
constexpr WORD IdprotectGlobal = 0x0001;
constexpr WORD IdprotectFourth = 0x0020;
constexpr WORD R2User = 0x0001;
constexpr WORD GostUser = 0x0002;
constexpr WORD GostAdmin = 0x0001;
constexpr WORD DataStoreUser = 0x0001;
constexpr WORD DataStoreAdmin = 0x0002;
constexpr WORD DataStoreGlobal = 0x0003;
}  // namespace pin_id

enum class TPinFamily { Pro, ProFips, JavaJoker, Idprotect, R2, Gost, DataStore };

struct CPinPathSet {
    TPath user;
    TPath admin;
    TPath global;
};

// The three paths of a family; an empty path is a PIN the family lacks.
// Idprotect names its user PIN on the card, so the caller passes that
// identifier; the other families ignore the argument.
CPinPathSet PinPaths(TPinFamily family, WORD idprotectUser = 0);

class CPinCommon : public IAppPin, public IAPDUDefinitions {
public:
    explicit CPinCommon(IApplet* owner) : applet(owner) {}

    const TPath& pathUser() override;
    const TPath& pathAdmin() override;
    const TPath& pathGlobal() override;

    // Fills the paths; run at most once, on first demand, since it may need
    // the card.
    virtual void NamesInitProc() {}

    void NamesInit();

    void send(const TBytes& apdu, TBytes& response);
    WORD extractSW(const TBytes& response);
    void raiseSW(WORD sw);
    void checkSW(const TBytes& response);
    bool isFips();

protected:
    void setPaths(const CPinPathSet& paths);

    IApplet* applet;  // the owner, not owned
    TPath user;
    TPath admin;
    TPath global;
    bool namesReady = false;
};

// The PIN identifier that goes into access conditions: the path's last element.
WORD PinExtractAccess(const TPath& path);

}  // namespace libapdu
