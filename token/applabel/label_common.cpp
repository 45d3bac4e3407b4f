#include "token/applabel/label_common.h"

namespace libapdu {

CLabelCommon::CLabelCommon(IApplet* owner) : applet(owner), adapter(AppletToAdapter(owner)) {}

void CLabelCommon::send(const TBytes& command, TBytes& response) {
    applet->send(command, response);
}
WORD CLabelCommon::extractSW(const TBytes& response) { return applet->extractSW(response); }
void CLabelCommon::raiseSW(WORD sw) { applet->raiseSW(sw); }
void CLabelCommon::checkSW(const TBytes& response) { applet->checkSW(response); }
bool CLabelCommon::isFips() { return applet->info()->isFips(); }

}  // namespace libapdu
