#include "ctoken.h"

#include "libapdu/exception.h"
#include "token/applet_cryptopro.h"
#include "token/applet_datastore.h"
#include "token/applet_gost.h"
#include "token/applet_idprotect.h"
#include "token/applet_java.h"
#include "token/applet_javamanager.h"
#include "token/applet_joker.h"
#include "token/applet_pro.h"
#include "token/applet_r2.h"

namespace libapdu {

namespace {

// How an applet number is told on a card, and how its object is made.
struct AppletKind {
    unsigned short number;
    bool (*exists)(ISender*);
    std::unique_ptr<IApplet> (*make)(ISender*);
};

template <class T>
std::unique_ptr<IApplet> make(ISender* s) {
    return std::unique_ptr<IApplet>(new T(s));
}

const AppletKind kApplets[] = {
    {0x1001, &CAppletR2::checkIfExist, &make<CAppletR2>},
    {0x1002, &CAppletPro::checkIfExist, &make<CAppletPro>},
    {0x2001, &CAppletJava::checkIfExist, &make<CAppletJava>},
    {0x2002, &CAppletJavaManager::checkIfExist, &make<CAppletJavaManager>},
    {0x2101, &CAppletIdprotect::checkIfExist, &make<CAppletIdprotect>},
    {0x2202, &CAppletGost::checkIfExist, &make<CAppletGost>},
    {0x2203, &CAppletCryptoPro::checkIfExist, &make<CAppletCryptoPro>},
    {0x2204, &CAppletJoker::checkIfExist, &make<CAppletJoker>},
    {0x2205, &CAppletDataStore::checkIfExist, &make<CAppletDataStore>},
};

const AppletKind& kindOf(unsigned short number) {
    for (const AppletKind& k : kApplets)
        if (k.number == number) return k;
    APDU_RAISE(0xFACE);
}

}  // namespace

std::unique_ptr<IToken> IToken::create(std::unique_ptr<ISender>& sender) {
    return std::unique_ptr<IToken>(new CToken(std::move(sender)));
}

CToken::CToken(std::unique_ptr<ISender> s) : applet(new IApplet(s.get())), sender(std::move(s)) {}

CToken::~CToken() {
    sender.reset();
    applet.reset();
}

std::unique_ptr<IApplet> CToken::makeApplet(unsigned short number, ISender* s) {
    return kindOf(number).make(s);
}

bool CToken::checkIfExist(unsigned short number) {
    if (!sender) APDU_RAISE(0xFACE);
    return kindOf(number).exists(sender.get());
}

void CToken::replace(unsigned short number) {
    if (!sender) APDU_RAISE(0xFACE);
    // A constructor that fails leaves the old applet current.
    std::unique_ptr<IApplet> next = makeApplet(number, sender.get());
    applet = std::move(next);
}

void CToken::selectApplet(unsigned short number) {
    replace(number);
    applet->init();
}

void CToken::switchToApplet(unsigned short number) { replace(number); }

void CToken::switchToFileSystem(unsigned short n) { applet->switchToFileSystem(n); }

IAppFS* CToken::fs() { return applet->fs(); }
IAppPin* CToken::pin() { return applet->pin(); }
IAppInfo* CToken::info() { return applet->info(); }
IAppLabel* CToken::label() { return applet->label(); }
IAppCrypto* CToken::crypto() { return applet->crypto(); }
IAppLic* CToken::lic() { return applet->lic(); }
IAppBio* CToken::bio() { return applet->bio(); }

}  // namespace libapdu
