#include "token/applet_cryptopro.h"

namespace libapdu {

const TBytes CAppletCryptoPro::kAid = {0xA0, 0x00, 0x00, 0x04, 0x48, 0x01, 0x02, 0x01, 0x02, 0x02};

CAppletCryptoPro::CAppletCryptoPro(ISender* s) : IApplet(s) { JavaSelectApplet(*this, kAid); }

bool CAppletCryptoPro::checkIfExist(ISender* s) { return JavaAppletExists(s, kAid); }

}  // namespace libapdu
