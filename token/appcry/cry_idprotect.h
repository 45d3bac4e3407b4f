// The crypto driver of the IDProtect applet: no list, the file identifiers
// tie a key 3F00 3000 3002 02nn to its certificate 3F00 3000 3001 84mm.
#pragma once

#include "token/appcry/cry_common.h"

namespace libapdu {

class CCryIdprotect : public CCryCommon {
public:
    explicit CCryIdprotect(IApplet* owner);

    void select(TPath path) override;
    std::vector<TPath> list(unsigned short provider) override;
    TBytes decrypt(const TBytes& data) override;

    static const TPath kKeys;          // 3F00 3000 3002
    static const TPath kCertificates;  // 3F00 3000 3001
};

// The DER certificate inside an IDProtect certificate object: 125 bytes, a
// 16-bit big-endian length, the certificate. 0x6281 if it does not fit.
TBytes IdprotectCertificate(const TBytes& object);

}  // namespace libapdu
