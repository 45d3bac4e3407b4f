#include "applet_datastore.h"

#include "token/appfs/fs_datastore.h"
#include "token/appfs/fs_datastore_v2.h"
#include "token/appinfo/info_datastore.h"
#include "token/applabel/label_datastore.h"
#include "token/apppin/pin_datastore.h"

namespace libapdu {

namespace {

constexpr std::size_t kSelectAnswer = 258;

// SELECT by AID: 00 A4 04 00 Lc AID 00.
TBytes selectAid(const TBytes& aid) {
    TBytes command{0x00, 0xA4, 0x04, 0x00, static_cast<unsigned char>(aid.size())};
    command << aid << 0x00;
    return command;
}

}  // namespace

const TBytes CAppletDataStore::kAid = {0xA0, 0x00, 0x00, 0x04, 0x48, 0x00, 0x03, 0x01};

CAppletDataStore::CAppletDataStore(ISender* s) : IApplet(s) {
    error_.reset(new CErrorDataStore);
    info_.reset(new CInfoDataStore(this));
    // The label speaks APDUs only; the adapter it takes now is never used.
    label_.reset(new CLabelDataStore(this));
    pin_.reset(new CPinDataStore(this));
    fs_.reset(new CFSDataStore(this));

    TBytes response(kSelectAnswer);
    send(selectAid(kAid), response);
    checkSW(response);
}

void CAppletDataStore::switchToFileSystem(unsigned short fs) {
    if (fs == 1) fs_.reset(new CFSDataStore(this));
    if (fs == 2) fs_.reset(new CFSDataStore_v2(this));
}

bool CAppletDataStore::checkIfExist(ISender* s) {
    TBytes response(kSelectAnswer);
    s->send(selectAid(kAid), response);
    const std::size_t n = response.size();
    return n >= 2 && response[n - 2] == 0x90 && response[n - 1] == 0x00;
}

}  // namespace libapdu
