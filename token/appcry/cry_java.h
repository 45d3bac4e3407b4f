// The crypto drivers of the Java and Joker applets; copies but for the
// instruction bytes of the key query and the decipher command.
#pragma once

#include "token/appcry/cry_common.h"

namespace libapdu {

class CCryJava : public CCryListed {
public:
    explicit CCryJava(IApplet* owner);

    void select(TPath path) override;
    TBytes decrypt(const TBytes& data) override;

protected:
    std::vector<CCryptoInfo> find() override;
};

class CCryJoker : public CCryListed {
public:
    explicit CCryJoker(IApplet* owner);

    void select(TPath path) override;
    TBytes decrypt(const TBytes& data) override;

protected:
    std::vector<CCryptoInfo> find() override;
};

}  // namespace libapdu
