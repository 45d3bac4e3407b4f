// The crypto drivers of the Java and Joker applets: one driver that differs
// only in the instruction bytes of the key query and the decipher command,
// and in whether the host checks the block before deciphering.
#pragma once

#include "token/appcry/cry_common.h"
#include "token/appfs/fs_javafamily.h"

namespace libapdu {

class CCryJavaFamily : public CCryListed {
public:
    // The key's length is learnt here, from the card: the finder leaves it 0.
    void select(TPath path) override;
    TBytes decrypt(const TBytes& data) override;

protected:
    CCryJavaFamily(IApplet* owner, const JavaFamilyCommands& commands, bool checksOnDecrypt);

private:
    const JavaFamilyCommands& commands;  // keyQuery and decipher
    // Joker refuses a block the key cannot take, or a container without key,
    // before sending; Java leaves both to the card.
    bool checksOnDecrypt;
};

class CCryJava : public CCryJavaFamily {
public:
    explicit CCryJava(IApplet* owner);

protected:
    std::vector<CCryptoInfo> find() override;
};

class CCryJoker : public CCryJavaFamily {
public:
    explicit CCryJoker(IApplet* owner);

protected:
    std::vector<CCryptoInfo> find() override;
};

}  // namespace libapdu
