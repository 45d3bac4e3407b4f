#include "libapdu/applet.h"

#include "libapdu/exception.h"
#include "libapdu/token.h"

namespace libapdu {

namespace {
template <class T>
T* held(const std::unique_ptr<T>& slot) {
    if (!slot) APDU_RAISE(0xFACE);
    return slot.get();
}
}  // namespace

IApplet::IApplet(ISender* sender)
    : sender_(sender),
      error_(new IAppError),
      pack_(new IAppPack),
      fs_(new IAppFS),
      pin_(new IAppPin),
      info_(new IAppInfo),
      label_(new IAppLabel),
      crypto_(new IAppCrypto),
      lic_(new IAppLic),
      bio_(new IAppBio) {}

IApplet::~IApplet() = default;

void IApplet::init() {}
void IApplet::switchToFileSystem(unsigned short) {}

ISender* IApplet::sender() {
    if (sender_ == nullptr) APDU_RAISE(0xFACE);
    return sender_;
}
IAppError* IApplet::error() { return held(error_); }
IAppPack* IApplet::pack() { return held(pack_); }
IAppFS* IApplet::fs() { return held(fs_); }
IAppPin* IApplet::pin() { return held(pin_); }
IAppInfo* IApplet::info() { return held(info_); }
IAppLabel* IApplet::label() { return held(label_); }
IAppCrypto* IApplet::crypto() { return held(crypto_); }
IAppLic* IApplet::lic() { return held(lic_); }
IAppBio* IApplet::bio() { return held(bio_); }

void IApplet::send(const TBytes& command, TBytes& response) { sender()->send(command, response); }
unsigned short IApplet::extractSW(const TBytes& response) { return error()->extractSW(response); }
void IApplet::raiseSW(unsigned short sw) { error()->raiseSW(sw); }
void IApplet::checkSW(const TBytes& response) { raiseSW(extractSW(response)); }

CAdapter::CAdapter()
    : fs(&IAppFS::stub),
      pin(&IAppPin::stub),
      info(&IAppInfo::stub),
      crypto(&IAppCrypto::stub),
      label(&IAppLabel::stub),
      lic(&IAppLic::stub) {}

CAdapter AppletToAdapter(IApplet* applet) {
    CAdapter a;
    a.fs = applet->fs();
    a.pin = applet->pin();
    a.info = applet->info();
    a.crypto = applet->crypto();
    a.label = applet->label();
    a.lic = applet->lic();
    return a;
}

CAdapter TokenToAdapter(IToken* token) {
    CAdapter a;
    a.fs = token->fs();
    a.pin = token->pin();
    a.info = token->info();
    a.crypto = token->crypto();
    a.label = token->label();
    a.lic = token->lic();
    return a;
}

IToken::~IToken() = default;

}  // namespace libapdu
