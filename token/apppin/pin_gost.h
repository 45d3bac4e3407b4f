// The PIN of the GOST applet: user and administrator PINs sent in plain form,
// counters from the applet's status record, and the PIN itself parked in the
// pack driver's key table, since a change must quote the old one.
#pragma once

#include "token/apppin/pin_common.h"

namespace libapdu {

class CPinGost : public CPinCommon {
public:
    static constexpr unsigned short kMinLength = 6;
    static constexpr unsigned short kMaxLength = 32;

    explicit CPinGost(IApplet* owner) : CPinCommon(owner) {}

    // Reads the counters of the PIN that `path` names.
    void select(const TPath& path) override;
    // Only the maximum length is checked here; the card judges the rest.
    void login(const TBytes& pin) override;
    // Quotes the PIN of the last login, which stays parked: a second change
    // needs a new login.
    void change(const TBytes& pin) override;
    void logout() override;
    CPinInfo info() override { return record; }
    unsigned int encoding() override { return 2; }

    void NamesInitProc() override { setPaths(PinPaths(TPinFamily::Gost)); }

    // The first 24 bytes of the applet's status record.
    TBytes get_status();

private:
    TBytes withReference(unsigned char p1, const TBytes& data);

    WORD reference = 0;  // the card's number of the selected PIN
    CPinInfo record;
};

}  // namespace libapdu
