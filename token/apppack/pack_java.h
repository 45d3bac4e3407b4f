// Secure messaging of the Java-family applets: a private TLV format, a fresh
// IV and host challenge per command, a card challenge fetched for each one,
// and separate keys for the two directions.
#pragma once

#include "token/appfs/fs_javafamily.h"
#include "token/apppack/pack_common.h"

namespace libapdu {

class CPackJava : public CPackCommon {
public:
    // Key numbers in the table the PIN driver fills.
    static constexpr unsigned long kKeyEnc = 1;        // command data
    static constexpr unsigned long kKeyMac = 2;        // MAC of the command
    static constexpr unsigned long kKeyDec = 3;        // answer data
    static constexpr unsigned long kKeyAnswerMac = 4;  // MAC of the answer

    explicit CPackJava(IApplet* owner);

    // Wraps `apdu`, sends it and leaves the plain data and SW1 SW2 in
    // `response`. A failing status word is raised before the answer is read;
    // a fault in a protected answer raises 0x6281.
    void sm(const TBytes& apdu, TBytes& response) override;
    void chain(const TBytes& apdu, TBytes& response) override;  // raises 0xFACE

    // The card's 8-byte secure messaging challenge; it serves one command.
    TBytes challengeGet();

    struct CWrapped {
        TBytes command;
        TBytes hostChallenge;    // as sent: the answer's MAC covers it
        std::size_t answerSize;  // the buffer the answer needs
    };
    // The two halves of sm, apart so that each can be checked alone. `iv` and
    // `hostChallenge` are the random values as drawn; wrap fetches the card's
    // challenge.
    CWrapped wrap(const TBytes& apdu, const TBytes& iv, TBytes hostChallenge);
    void unwrap(const TBytes& answer, const TBytes& hostChallenge, TBytes& response);

protected:
    // The dialects differ only in the instruction that fetches the challenge.
    CPackJava(IApplet* owner, const JavaFamilyCommands& commands);

private:
    // Checks and decrypts a protected answer whose status word was good.
    TBytes open(const TBytes& answer, const TBytes& hostChallenge);

    const JavaFamilyCommands& commands;
};

// Sends a Java-family challenge command and returns the card's 8 bytes; any
// other length raises 0x6281. The PIN driver asks with the same shape.
TBytes JavaChallengeGet(IApplet* applet, const TBytes& command);

}  // namespace libapdu
