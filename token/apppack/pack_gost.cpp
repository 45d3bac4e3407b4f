#include "token/apppack/pack_gost.h"

#include "libapdu/exception.h"

namespace libapdu {

CPackGost::CPackGost(IApplet* owner) : CPackCommon(owner) {}

void CPackGost::sm(const TBytes&, TBytes&) { APDU_RAISE(0xFACE); }

void CPackGost::chain(const TBytes&, TBytes&) { APDU_RAISE(0xFACE); }

}  // namespace libapdu
