// The PIN of the R2 cards: one user PIN, sent in plain form.
#pragma once

#include "token/apppin/pin_common.h"

namespace libapdu {

class CPinR2 : public CPinCommon {
public:
    explicit CPinR2(IApplet* owner) : CPinCommon(owner) {}

    // Only the user PIN exists; nothing is sent.
    void select(const TPath& path) override;
    void login(const TBytes& pin) override;
    // Leaves the token logged out, whatever the card said.
    void change(const TBytes& pin) override;
    void logout() override;
    // The card reports nothing: the limits are fixed, the counters unknown.
    CPinInfo info() override;
    unsigned int encoding() override { return 2; }

    void NamesInitProc() override { setPaths(PinPaths(TPinFamily::R2)); }

private:
    // The command with the PIN behind its length byte.
    TBytes withPin(unsigned char ins, const TBytes& pin);
};

}  // namespace libapdu
