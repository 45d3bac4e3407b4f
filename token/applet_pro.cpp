#include "applet_pro.h"

#include "libapdu/exception.h"
#include "libapdu/token_type.h"
#include "token/appcry/cry_pro.h"
#include "token/appfs/fs_pro.h"
#include "token/appinfo/info_pro.h"
#include "token/applabel/label_pro.h"
#include "token/apppack/pack_pro.h"
#include "token/apppin/pin_pro.h"

namespace libapdu {

const TPath CAppletPro::kPathHome{0x3F00, 0x6666};
const TPath CAppletPro::kPathRoot{0x3F00};

namespace {

bool isPro(const TTokenType& t) {
    return &t == &TTokenType::TVandrelPro16 || &t == &TTokenType::TVandrelPro32 ||
           &t == &TTokenType::TVandrelPro42 || &t == &TTokenType::TVandrelPro42b;
}

}  // namespace

CAppletPro::CAppletPro(ISender* s) : IApplet(s) {
    const TTokenType& type = TTokenType::fromAtr(sender()->atr());
    if (!isPro(type)) APDU_RAISE(0xFACE);
    error_.reset(new CErrorPro);
    info_.reset(new CInfoPro(this));
    const bool older = &type == &TTokenType::TVandrelPro16 || &type == &TTokenType::TVandrelPro32;
    if (older) {
        fs_.reset(new CFSPro(this));
        pin_.reset(new CPinPro(this));
    } else {
        fs_.reset(new CFSPro4(this));
        pin_.reset(new CPinPro4(this));
    }
    // The label takes its adapter from the drivers above.
    label_.reset(new CLabelPro(this));
    pack_.reset(new CPackPro(this));
    // Replaced by init; stays only on the oldest tokens, where init fails.
    if (older) crypto_.reset(new CCryPro(this));
}

void CAppletPro::init() {
    fs()->select(kPathHome);
    TBytes config(258);
    send({0x00, 0xCA, 0x01, 0x83, 0x00}, config);
    checkSW(config);
    fs()->select(kPathRoot);
    // Only the first byte counts: a bare 90 00 reads as 0x90 here.
    if (!config.empty() && config[0] == 0x10) {
        TBytes r(2);
        send({0x80, 0x10, 0x00, 0x00}, r);
        checkSW(r);
    }
    info()->isFips();
    const bool fips = info()->isFips();  // asked twice; the second answer counts
    installCrypto(fips);
}

void CAppletPro::installCrypto(bool fips) {
    if (fips)
        crypto_.reset(new CCryPro4Fips(this));
    else
        crypto_.reset(new CCryPro4(this));
}

bool CAppletPro::checkIfExist(ISender* s) { return isPro(TTokenType::fromAtr(s->atr())); }

}  // namespace libapdu
