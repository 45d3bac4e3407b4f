#include "token/apppin/pin_common.h"

#include "libapdu/exception.h"

namespace libapdu {

CPinPathSet PinPaths(TPinFamily family, WORD idprotectUser) {
    using namespace pin_id;
    switch (family) {
        case TPinFamily::Pro:
            return {{ProUser}, {ProAdmin}, {}};
        case TPinFamily::ProFips:
            return {{ProFipsUser}, {}, {}};
        case TPinFamily::JavaJoker:
            return {{JavaUser}, {JavaAdmin}, {JavaGlobal}};
        case TPinFamily::Idprotect:
            return {{IdprotectRoot, idprotectUser},
                    {IdprotectRoot, IdprotectAdmin},
                    {IdprotectRoot, IdprotectGlobal}};
        case TPinFamily::R2:
            return {{R2User}, {}, {}};
        case TPinFamily::Gost:
            return {{GostUser}, {GostAdmin}, {}};
        case TPinFamily::DataStore:
            return {{DataStoreUser}, {DataStoreAdmin}, {DataStoreGlobal}};
    }
    APDU_RAISE(0x6B00);
}

void CPinCommon::NamesInit() {
    if (namesReady) return;
    // Set first: a failing NamesInitProc is not retried.
    namesReady = true;
    NamesInitProc();
}

const TPath& CPinCommon::pathUser() {
    NamesInit();
    return user;
}

const TPath& CPinCommon::pathAdmin() {
    NamesInit();
    return admin;
}

const TPath& CPinCommon::pathGlobal() {
    NamesInit();
    return global;
}

void CPinCommon::setPaths(const CPinPathSet& paths) {
    user = paths.user;
    admin = paths.admin;
    global = paths.global;
}

void CPinCommon::send(const TBytes& apdu, TBytes& response) { applet->send(apdu, response); }
WORD CPinCommon::extractSW(const TBytes& response) { return applet->extractSW(response); }
void CPinCommon::raiseSW(WORD sw) { applet->raiseSW(sw); }
void CPinCommon::checkSW(const TBytes& response) { applet->checkSW(response); }
bool CPinCommon::isFips() { return applet->info()->isFips(); }

WORD PinExtractAccess(const TPath& path) {
    // No family has an empty user path; an empty one is a caller's mistake.
    if (path.empty()) APDU_RAISE(0x6B00);
    return path.back();
}

}  // namespace libapdu
