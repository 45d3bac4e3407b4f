#include "token/apppack/pack_common.h"

#include "libapdu/exception.h"

namespace libapdu {

CPackCommon::CPackCommon(IApplet* owner) : applet(owner) {}

CPackCommon::~CPackCommon() = default;

TBytes CPackCommon::keyGet(unsigned long index) {
    // Not logged in, or a number the PIN driver never set.
    if (index >= keys.size() || keys[index].empty()) APDU_RAISE(0x6900);
    return keys[index];
}

void CPackCommon::keyClear() { keys.clear(); }

void CPackCommon::keySet(unsigned long index, TBytes key) {
    // index + 1 must not wrap to 0 and leave the slot unallocated.
    if (index >= keys.max_size()) APDU_RAISE(0x6B00);
    if (keys.size() < index + 1) keys.resize(index + 1);
    keys[index] = std::move(key);
}

void CPackCommon::keySave() {
    saved = keys;
    keys.clear();
}

void CPackCommon::keyRestore() { keys = saved; }

void CPackCommon::send(const TBytes& command, TBytes& response) {
    applet->sender()->send(command, response);
}

unsigned short CPackCommon::extractSW(const TBytes& response) {
    return applet->error()->extractSW(response);
}

void CPackCommon::raiseSW(WORD sw) { applet->error()->raiseSW(sw); }

void CPackCommon::checkSW(const TBytes& response) { raiseSW(extractSW(response)); }

}  // namespace libapdu
