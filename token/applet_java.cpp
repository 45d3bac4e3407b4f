#include "token/applet_java.h"

#include "token/appcry/cry_java.h"
#include "token/appfs/fs_java.h"
#include "token/appinfo/info_java.h"
#include "token/applabel/label_java.h"
#include "token/apppack/pack_java.h"
#include "token/apppin/pin_java.h"

namespace libapdu {

namespace {

constexpr std::size_t kSelectAnswer = 258;

}  // namespace

TBytes JavaSelectCommand(const TBytes& aid) {
    TBytes command{0x00, 0xA4, 0x04, 0x00, static_cast<unsigned char>(aid.size())};
    command << aid << 0x00;
    return command;
}

void JavaSelectApplet(IApplet& applet, const TBytes& aid) {
    TBytes response(kSelectAnswer);
    applet.send(JavaSelectCommand(aid), response);
    applet.checkSW(response);
}

bool JavaAppletExists(ISender* sender, const TBytes& aid) {
    TBytes response(kSelectAnswer);
    sender->send(JavaSelectCommand(aid), response);
    const std::size_t n = response.size();
    return n >= 2 && response[n - 2] == 0x90 && response[n - 1] == 0x00;
}

const TBytes CAppletJava::kAid = {0xA0, 0x00, 0x00, 0x03, 0x12, 0x02, 0x02};

CAppletJava::CAppletJava(ISender* s) : IApplet(s) {
    error_.reset(new CErrorJava);
    fs_.reset(new CFSJava(this));
    pin_.reset(new CPinJava(this));
    info_.reset(new CInfoJava(this));
    label_.reset(new CLabelJava(this));
    pack_.reset(new CPackJava(this));
    crypto_.reset(new CCryJava(this));
    JavaSelectApplet(*this, kAid);
}

void CAppletJava::init() { info()->isFips(); }

bool CAppletJava::checkIfExist(ISender* s) { return JavaAppletExists(s, kAid); }

}  // namespace libapdu
