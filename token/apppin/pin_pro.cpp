#include "pin_pro.h"

namespace libapdu {

void CPinPro::NamesInitProc() {
    setPaths(PinPaths(isFips() ? TPinFamily::ProFips : TPinFamily::Pro));
}

}  // namespace libapdu
