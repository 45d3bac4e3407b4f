// Interim: only the frame of the status-word translation, replaced by the full
// folding table.
#include "libapdu/error.h"

#include "libapdu/exception.h"

namespace libapdu {

IAppError::~IAppError() = default;

unsigned short IAppError::extractSW(const TBytes& r) {
    if (r.size() < 2) return 0;
    return static_cast<unsigned short>(r[r.size() - 2] << 8 | r[r.size() - 1]);
}

unsigned short IAppError::fold(unsigned short sw) { return sw == 0x9000 ? 0x9000 : 0xFFFF; }

void IAppError::raiseSW(unsigned short sw) {
    const unsigned short c = fold(sw);
    if (c != 0x9000) APDU_RAISE(c);
}

}  // namespace libapdu
