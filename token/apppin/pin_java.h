// The PIN driver of the Java-family applets. The host derives five keys from
// the PIN and a salt on the card, answers a card challenge with one of them,
// and reads the retry counter from the card. The Joker applet speaks the same
// dialogue with other instruction bytes and fewer branches (see CPinJoker).
#pragma once

#include <vector>

#include "token/appfs/fs_javafamily.h"
#include "token/apppin/pin_common.h"

namespace libapdu {

// What sets one applet's PIN dialogue apart from the other's.
struct CJavaPinDialect {
    const JavaFamilyCommands& commands;  // the challenge and the change marker
    unsigned char insStatus;
    unsigned char insAuthenticate;
    unsigned char insChange;
    unsigned char insUnblock;  // 0: the applet cannot unblock
    // The administrator has its own branch: its status is read, and its key
    // is the unsalted one, presented from 3F00 6666.
    bool adminBranch;
    // Login selects the directory by the PIN (user: its directory, the
    // administrator: 3F00 6666, others: none) and a plain change selects
    // none; otherwise both always select the PIN's directory.
    bool selectByPath;
};

class CPinJava : public CPinCommon {
public:
    // Key numbers in the applet's pack key table; keyGen fills all five.
    static constexpr unsigned long kKeyFipsLogin = 0;
    static constexpr unsigned long kKeyLogin = 3;  // also change and unblock outside FIPS mode
    static constexpr unsigned long kKeyCount = 5;

    explicit CPinJava(IApplet* owner);

    // Remembers the PIN and reads its status from the card (the user PIN,
    // and the administrator where the applet has that branch).
    void select(const TPath& path) override;
    void login(const TBytes& pin) override;
    // In FIPS mode the PIN and its shadow are rewritten in turn, under
    // secure messaging, so that a change broken off leaves one usable set.
    void change(const TBytes& pin) override;
    void unblock(const TBytes& pin) override;
    void logout() override;
    CPinInfo info() override { return record; }
    unsigned int encoding() override { return 3; }

    void NamesInitProc() override;
    // The shadow of the user PIN; empty outside FIPS mode.
    virtual const TPath& pathUser2();

    // 20 bytes at the start of file 000F.
    TBytes saltGet();
    // The card's 8-byte login challenge; any other length raises 0x6281.
    TBytes challengeGet();
    // Replaces the pack key table by keys 0 to 4 of the PIN.
    void keyGen(const TBytes& pin);
    // Writes key object `id` under secure messaging.
    void FipsFinChange(unsigned char id, const TBytes& key);
    // Stamps the token with a fresh change marker.
    void volatile_update();

protected:
    CPinJava(IApplet* owner, const CJavaPinDialect& dialect);

private:
    // 80 INS 00 P2 Lc 10 L value.
    TBytes command(unsigned char ins, unsigned char p2, const TBytes& value) const;
    void sendChecked(const TBytes& command);
    // Reads the status of PIN `id` into the record; the caller has selected its directory.
    void readStatus(unsigned char id);
    bool isAdmin();
    // The unsalted administrator key, or the PIN's key `index` from keyGen.
    TBytes pinKey(const TBytes& pin, unsigned long index);
    // keyGen, keeping keys 0 to 4.
    std::vector<TBytes> keySetOf(const TBytes& pin);
    // FipsFinChange of the key objects from `pin` on.
    void changeKeyObjects(const TPath& pin, const std::vector<TBytes>& keys);
    void fipsChange(const TBytes& pin);
    unsigned char reference() const;
    IAppFS* fs();
    IAppPack* pack();

    const CJavaPinDialect& dialect;
    TPath user2;
    TPath selected;
    TPath directory;
    WORD id = 0;
    CPinInfo record;
};

}  // namespace libapdu
