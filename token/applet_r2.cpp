#include "applet_r2.h"

#include "libapdu/exception.h"
#include "libapdu/token_type.h"
#include "token/appfs/fs_r2.h"
#include "token/appinfo/info_r2.h"
#include "token/applabel/label_r2.h"
#include "token/apppin/pin_r2.h"

namespace libapdu {

CAppletR2::CAppletR2(ISender* s) : IApplet(s) {
    error_.reset(new CErrorR2);
    fs_.reset(new CFSR2(this));
    pin_.reset(new CPinR2(this));
    info_.reset(new CInfoR2(this));
    // The label takes its adapter from the drivers above.
    label_.reset(new CLabelR2(this));
}

void CAppletR2::init() {
    if (&TTokenType::fromAtr(sender()->atr()) != &TTokenType::TVandrelR2) APDU_RAISE(0xFACE);
}

bool CAppletR2::checkIfExist(ISender* s) {
    return &TTokenType::fromAtr(s->atr()) == &TTokenType::TVandrelR2;
}

}  // namespace libapdu
