#include "libapdu/sender.h"

#include "libapdu/exception.h"

namespace libapdu {

void ISender::control(unsigned int, const TBytes&, TBytes&) { APDU_RAISE(0xFACE); }

ISender::~ISender() = default;

}  // namespace libapdu
