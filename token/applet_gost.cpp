#include "token/applet_gost.h"

#include "libapdu/exception.h"
#include "token/appfs/fs_gost.h"
#include "token/appinfo/info_gost.h"
#include "token/applabel/label_gost.h"
#include "token/apppack/pack_gost.h"
#include "token/apppin/pin_gost.h"

namespace libapdu {

namespace {

const TBytes kAid = {0xA0, 0x00, 0x00, 0x04, 0x48, 0x01, 0x01, 0x01, 0x06, 0x02};
constexpr std::size_t kLongAnswer = 258;
// The status record with its status word; a shorter answer is no GOST applet
// that the drivers can work with.
constexpr std::size_t kShortestStatus = 16;

TBytes selectByAid() {
    TBytes command{0x00, 0xA4, 0x04, 0x00, static_cast<unsigned char>(kAid.size())};
    command << kAid << 0x00;
    return command;
}

}  // namespace

CAppletGost::CAppletGost(ISender* s) : IApplet(s) {
    error_.reset(new CErrorGost);
    fs_.reset(new CFSGost(this));
    pin_.reset(new CPinGost(this));
    info_.reset(new CInfoGost(this));
    label_.reset(new CLabelGost(this));
    pack_.reset(new CPackGost(this));

    TBytes response(kLongAnswer);
    send(selectByAid(), response);
    checkSW(response);
}

void CAppletGost::init() {
    TBytes response(kLongAnswer);
    send(tagGostStatus::kCommand, response);
    checkSW(response);
    if (response.size() < kShortestStatus) APDU_RAISE(0x6400);
}

bool CAppletGost::checkIfExist(ISender* s) {
    TBytes response(kLongAnswer);
    s->send(selectByAid(), response);
    const std::size_t n = response.size();
    return n >= 2 && response[n - 2] == 0x90 && response[n - 1] == 0x00;
}

}  // namespace libapdu
