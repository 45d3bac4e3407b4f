#include "token/applet_javamanager.h"

#include "token/appinfo/info_javamanager.h"

namespace libapdu {

const TBytes CAppletJavaManager::kAid = {0xA0, 0x00, 0x00, 0x01, 0x51, 0x00, 0x00};

CAppletJavaManager::CAppletJavaManager(ISender* s) : IApplet(s) {
    error_.reset(new CErrorJava);
    info_.reset(new CInfoJavaManager(this));
    // The licence store's driver is not in place: its slot keeps the stub.
    JavaSelectApplet(*this, kAid);
}

bool CAppletJavaManager::checkIfExist(ISender* s) { return JavaAppletExists(s, kAid); }

}  // namespace libapdu
