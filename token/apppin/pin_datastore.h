// The PIN of the DataStore applet: three PINs, sent in plain form, with their
// counters and limits in the applet's status record.
#pragma once

#include "token/appinfo/info_datastore.h"
#include "token/apppin/pin_common.h"

namespace libapdu {

class CPinDataStore : public CPinCommon {
public:
    explicit CPinDataStore(IApplet* owner) : CPinCommon(owner) {}

    // The PIN's identifier (1 to 3) picks its column of the status record.
    void select(const TPath& path) override;
    // Only the maximum length is enforced here, with 0x6B00.
    void login(const TBytes& pin) override;
    void change(const TBytes& pin) override;
    void logout() override;
    CPinInfo info() override { return record; }
    unsigned int encoding() override { return 2; }

    void NamesInitProc() override { setPaths(PinPaths(TPinFamily::DataStore)); }

    tagDataStoreStatus get_status();

private:
    // INS 10, the PIN behind the reference and its length.
    TBytes withPin(unsigned char p1, const TBytes& pin);

    WORD reference = 0;  // the card's number of the selected PIN
    CPinInfo record;
};

}  // namespace libapdu
