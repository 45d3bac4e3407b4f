#include "token/appinfo/info_common.h"

namespace libapdu {

void CInfoCommon::send(const TBytes& command, TBytes& response) { applet->send(command, response); }
WORD CInfoCommon::extractSW(const TBytes& response) { return applet->extractSW(response); }
void CInfoCommon::raiseSW(WORD sw) { applet->raiseSW(sw); }
void CInfoCommon::checkSW(const TBytes& response) { applet->checkSW(response); }

}  // namespace libapdu
