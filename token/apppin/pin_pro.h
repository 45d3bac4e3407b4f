// The Pro PIN drivers. The host turns the PIN into a triple DES key and
// answers a card challenge with it; the attempt counters live in a file that
// the host keeps up to date itself.
#pragma once

#include "token/apppin/pin_common.h"

namespace libapdu {

class CPinPro : public CPinCommon {
public:
    // Key numbers in the applet's pack key table.
    static constexpr unsigned long kKeyPlain = 0;  // unsalted, non-FIPS login and change
    static constexpr unsigned long kKeyMac = 1;    // salted: FIPS login, MAC of secure messaging
    static constexpr unsigned long kKeyEnc = 3;    // salted: encryption of secure messaging

    explicit CPinPro(IApplet* owner) : CPinCommon(owner) {}

    void select(const TPath& path) override;
    void login(const TBytes& pin) override;
    void change(const TBytes& pin) override;
    void unblock(const TBytes& pin) override;
    void logout() override;
    CPinInfo info() override { return record; }
    unsigned int encoding() override { return 3; }

    // The user and administrator PINs, or the FIPS set on a FIPS token.
    void NamesInitProc() override;
    virtual const TPath& pathEnc();
    virtual const TPath& pathSig();
    virtual const TPath& pathUser2();
    virtual const TPath& pathEnc2();
    virtual const TPath& pathSig2();

    // 20 bytes at the start of the counter file.
    TBytes saltGet();
    // The card's 8-byte challenge; any other length raises 0x6281.
    TBytes challengeGet();
    // Fills the pack key table: key 0 always, keys 1 and 3 when the salt can
    // be read.
    void keyGen(const TBytes& pin);
    WORD offset_userpin();
    WORD offset_adminpin();

protected:
    // The counter file of the token's mode.
    TPath counterPath();
    // Selects the counter file and reads the two counter bytes at `offset`.
    TBytes counterRead(WORD offset);
    // The selected PIN's counter offset, or false for a PIN without one.
    bool counterOffset(WORD& offset);
    void selectDirectory();
    // P2 of the commands that name the selected PIN.
    unsigned char reference() const;
    bool isAdmin();
    IAppFS* fs();
    IAppPack* pack();

    TPath enc;
    TPath sig;
    TPath user2;
    TPath enc2;
    TPath sig2;
    TPath selected;
    TPath directory;
    WORD id = 0;
    CPinInfo record;
};

class CPinPro4 : public CPinPro {
public:
    explicit CPinPro4(IApplet* owner) : CPinPro(owner) {}

    void change(const TBytes& pin) override;
    // Replaces key object `id` of kind 0 (PIN), 1 (encryption) or 2
    // (signature) under secure messaging.
    void FipsFinChange(unsigned char keyId, const TBytes& key, unsigned char kind);
};

}  // namespace libapdu
