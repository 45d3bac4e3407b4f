#include "token/applet_idprotect.h"

#include "libapdu/exception.h"
#include "token/appbio/bio_idprotect.h"
#include "token/appcry/cry_idprotect.h"
#include "token/appfs/fs_idprotect.h"
#include "token/appinfo/info_idprotect.h"
#include "token/applabel/label_idprotect.h"
#include "token/apppack/pack_idprotect.h"
#include "token/apppin/pin_idprotect.h"

namespace libapdu {

namespace {

const TBytes kAid = {0xA0, 0x00, 0x00, 0x01, 0x64, 0x4C, 0x41, 0x53, 0x45, 0x52, 0x00, 0x01};
constexpr std::size_t kLongAnswer = 258;
const TPath kInfoFile = {0x3F00, 0x3000, 0xC000};
// The byte of the information file that tells the card's generation; 3 and
// below are cards the library refuses.
constexpr std::size_t kGeneration = 97;
constexpr unsigned char kOldestGeneration = 4;

TBytes selectByAid() {
    TBytes command{0x00, 0xA4, 0x04, 0x00, static_cast<unsigned char>(kAid.size())};
    command << kAid << 0x00;
    return command;
}

}  // namespace

CAppletIdprotect::CAppletIdprotect(ISender* s) : IApplet(s) {
    error_.reset(new CErrorIdprotect);
    fs_.reset(new CFSIdprotect(this));
    pin_.reset(new CPinIdprotect(this));
    info_.reset(new CInfoIdprotect(this));
    label_.reset(new CLabelIdprotect(this));
    pack_.reset(new CPackIdprotect(this));
    crypto_.reset(new CCryIdprotect(this));
    bio_.reset(new CBioIdprotect(this));

    TBytes response(kLongAnswer);
    send(selectByAid(), response);
    checkSW(response);
}

void CAppletIdprotect::init() {
    pin()->logout();
    fs()->select(kInfoFile);
    const CFileInfo file = fs()->info();
    if (file.size <= kGeneration) APDU_RAISE(0x6400);
    TBytes content(file.size, 0x00);
    fs()->read(content, 0);
    if (content[kGeneration] < kOldestGeneration) APDU_RAISE(0x6400);
    info()->isFips();  // lets the driver learn the FIPS state; the answer is not needed
}

bool CAppletIdprotect::checkIfExist(ISender* s) {
    TBytes response(kLongAnswer);
    s->send(selectByAid(), response);
    const std::size_t n = response.size();
    return n >= 2 && response[n - 2] == 0x90 && response[n - 1] == 0x00;
}

}  // namespace libapdu
