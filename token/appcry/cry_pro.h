// The crypto drivers of Pro tokens: CCryPro (the oldest tokens), CCryPro4
// (every initialised token) and CCryPro4Fips (FIPS tokens, through secure
// messaging).
#pragma once

#include "token/appcry/cry_common.h"

namespace libapdu {

class CCryPro : public CCryListed {
public:
    explicit CCryPro(IApplet* owner);

    void select(TPath path) override;
    TBytes decrypt(const TBytes& data) override;

protected:
    CCryPro(IApplet* owner, std::vector<WORD> sizes);
    std::vector<CCryptoInfo> find() override;
};

class CCryPro4 : public CCryPro {
public:
    explicit CCryPro4(IApplet* owner);
};

class CCryPro4Fips : public CCryListed {
public:
    explicit CCryPro4Fips(IApplet* owner);

    void select(TPath path) override;
    TBytes decrypt(const TBytes& data) override;

protected:
    std::vector<CCryptoInfo> find() override;
};

// The ISO decipher command of the Pro family: `00 2A 80 86`, the data field
// opened by the padding-indicator byte 00, short up to 255 bytes of data,
// extended beyond.
TBytes CryProDecipherApdu(const TBytes& data);

}  // namespace libapdu
