// The PIN of the IDProtect applet: counters from the PIN object's control
// parameters, the login state from the card's list of verified PINs, and a
// challenge and response dialogue for the login. Change and unblock carry
// the new PIN through the pack driver's secure messaging. A ticket in place
// of a PIN logs in by a fingerprint proof, a PIN, or both.
#pragma once

#include "token/appfs/fs_idprotect.h"
#include "token/apppin/pin_common.h"

namespace libapdu {

class CPinIdprotect : public CPinCommon {
public:
    explicit CPinIdprotect(IApplet* owner) : CPinCommon(owner) {}

    void select(const TPath& path) override;
    // A PIN, or an authentication ticket in its place. Neither length nor
    // content of a PIN is checked: the card judges the answer.
    void login(const TBytes& pin) override;
    void change(const TBytes& pin) override;
    void unblock(const TBytes& pin) override;
    void logout() override;
    CPinInfo info() override { return record; }
    unsigned int encoding() override { return 2; }

    // The user PIN's identifier is read from the card: the access byte of
    // the login object.
    void NamesInitProc() override;

    // Eight bytes from the card.
    TBytes challengeGet();

    static bool isZeroes(const unsigned char* data, int count);
    static bool isZeroes(const wchar_t* data, int count);

private:
    // The challenge, and our answer from the PIN, which the card checks.
    void dialogue(const TBytes& pin);
    // The change command for `pin` through secure messaging.
    void sendNewPin(const TBytes& pin);
    // Value of tag 0x85 in the control parameters of the object at `path`.
    TBytes controlParameters(const TPath& path, std::size_t answerSize);

    TPath selected;
    TPath directory;
    WORD identifier = 0;
    CPinInfo record;
    TPath plain;  // the plain PIN object behind a composite one
};

}  // namespace libapdu
