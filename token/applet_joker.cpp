#include "token/applet_joker.h"

#include "token/appcry/cry_java.h"
#include "token/appfs/fs_joker.h"
#include "token/appinfo/info_joker.h"
#include "token/applabel/label_joker.h"
#include "token/apppack/pack_joker.h"
#include "token/apppin/pin_joker.h"

namespace libapdu {

const TBytes CAppletJoker::kAid = {0xA0, 0x00, 0x00, 0x04, 0x48, 0x00, 0x04, 0x01};

CAppletJoker::CAppletJoker(ISender* s) : IApplet(s) {
    error_.reset(new CErrorJoker);
    fs_.reset(new CFSJoker(this));
    pin_.reset(new CPinJoker(this));
    info_.reset(new CInfoJoker(this));
    label_.reset(new CLabelJoker(this));
    pack_.reset(new CPackJoker(this));
    crypto_.reset(new CCryJoker(this));
    JavaSelectApplet(*this, kAid);
}

void CAppletJoker::init() { info()->isFips(); }

bool CAppletJoker::checkIfExist(ISender* s) { return JavaAppletExists(s, kAid); }

}  // namespace libapdu
