#include "token/appcry/cry_common.h"

#include "libapdu/exception.h"

namespace libapdu {

CCryCommon::CCryCommon(IApplet* owner, std::vector<WORD> sizes)
    : applet(owner), adapter(AppletToAdapter(owner)) {
    provider_.id = kCryProvider;
    provider_.sizes = std::move(sizes);
    provider_.algorithm = kCryAlgorithm;
}

CCryptoInfo CCryCommon::info() { return selected; }

CCryptoProvider CCryCommon::provider(unsigned short id) {
    if (id != kCryProvider) APDU_RAISE(0xFACE);
    return provider_;
}

void CCryCommon::send(const TBytes& apdu, TBytes& response) { applet->send(apdu, response); }
WORD CCryCommon::extractSW(const TBytes& response) { return applet->extractSW(response); }
void CCryCommon::raiseSW(WORD sw) { applet->raiseSW(sw); }
void CCryCommon::checkSW(const TBytes& response) { applet->checkSW(response); }
bool CCryCommon::isFips() { return applet->info()->isFips(); }

unsigned char CryPinUser(IAppPin* pin) {
    const TPath& user = pin->pathUser();
    if (user.empty()) APDU_RAISE(0x6B00);
    return static_cast<unsigned char>(user.back());
}

unsigned char CCryCommon::pinUser() { return CryPinUser(applet->pin()); }

std::vector<TPath> CCryListed::list(unsigned short /*provider*/) {
    init();
    std::vector<TPath> paths;
    paths.reserve(containers.size());
    for (const CCryptoInfo& c : containers) paths.push_back(c.path);
    return paths;
}

void CCryListed::init() {
    if (ready) return;
    ready = true;
    containers = find();
}

void CCryListed::selectFromList(const TPath& path) {
    init();
    if (path.empty()) APDU_RAISE(0x6A82);
    selected = CCryptoInfo();
    // No early exit: of two containers with one path, the later one wins.
    for (const CCryptoInfo& c : containers)
        if (c.path == path) selected = c;
    if (selected.path != path) APDU_RAISE(0x6A82);
}

}  // namespace libapdu
