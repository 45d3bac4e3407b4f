// The plain interface classes: every operation fails with 0xFACE.
#include "libapdu/interfaces.h"

#include "libapdu/exception.h"

namespace libapdu {

namespace {
[[noreturn]] void unavailable() { APDU_RAISE(0xFACE); }
}  // namespace

IAppFS IAppFS::stub;
IAppPin IAppPin::stub;
IAppInfo IAppInfo::stub;
IAppLabel IAppLabel::stub;
IAppCrypto IAppCrypto::stub;
IAppLic IAppLic::stub;
const TPath IAppPin::EmptyPath;

IAppFS::~IAppFS() = default;
void IAppFS::select(TPath) { unavailable(); }
void IAppFS::create(WORD, CFileInfo) { unavailable(); }
void IAppFS::remove() { unavailable(); }
CFileInfo IAppFS::info() { unavailable(); }
TPath IAppFS::list(unsigned char) { unavailable(); }
void IAppFS::read(TBytes&, WORD) { unavailable(); }
void IAppFS::write(const TBytes&, WORD) { unavailable(); }

IAppPin::~IAppPin() = default;
void IAppPin::select(const TPath&) { unavailable(); }
void IAppPin::login(const TBytes&) { unavailable(); }
void IAppPin::change(const TBytes&) { unavailable(); }
void IAppPin::unblock(const TBytes&) { unavailable(); }
void IAppPin::logout() { unavailable(); }
CPinInfo IAppPin::info() { unavailable(); }
const TPath& IAppPin::pathUser() { unavailable(); }
const TPath& IAppPin::pathAdmin() { unavailable(); }
const TPath& IAppPin::pathGlobal() { unavailable(); }
unsigned int IAppPin::encoding() { unavailable(); }

IAppInfo::~IAppInfo() = default;
TBytes IAppInfo::rnd(unsigned long) { unavailable(); }
bool IAppInfo::isFips() { unavailable(); }
TBytes IAppInfo::version(unsigned char) { unavailable(); }
TBytes IAppInfo::id(unsigned char) { unavailable(); }
unsigned int IAppInfo::color() { unavailable(); }
unsigned int IAppInfo::memoryFree() { unavailable(); }
unsigned int IAppInfo::memoryTotal() { unavailable(); }
TBytes IAppInfo::value(unsigned char) { unavailable(); }

IAppLabel::~IAppLabel() = default;
TBytes IAppLabel::read() { unavailable(); }
void IAppLabel::write(const TBytes&) { unavailable(); }
unsigned int IAppLabel::encoding() { unavailable(); }

IAppCrypto::~IAppCrypto() = default;
void IAppCrypto::select(TPath) { unavailable(); }
void IAppCrypto::create(CCryptoInfo) { unavailable(); }
void IAppCrypto::remove() { unavailable(); }
CCryptoInfo IAppCrypto::info() { unavailable(); }
std::vector<TPath> IAppCrypto::list(unsigned short) { unavailable(); }
TBytes IAppCrypto::encrypt(const TBytes&) { unavailable(); }
TBytes IAppCrypto::decrypt(const TBytes&) { unavailable(); }
CCryptoProvider IAppCrypto::provider(unsigned short) { unavailable(); }

IAppPack::~IAppPack() = default;
void IAppPack::sm(const TBytes&, TBytes&) { unavailable(); }
void IAppPack::chain(const TBytes&, TBytes&) { unavailable(); }
TBytes IAppPack::keyGet(unsigned long) { unavailable(); }
void IAppPack::keyClear() { unavailable(); }
void IAppPack::keySet(unsigned long, TBytes) { unavailable(); }
void IAppPack::keySave() { unavailable(); }
void IAppPack::keyRestore() { unavailable(); }

IAppBio::~IAppBio() = default;
void IAppBio::select(const TPath&) { unavailable(); }
unsigned int IAppBio::loginType() { unavailable(); }
TBytes IAppBio::getEnrolledFingers() { unavailable(); }
TBytes IAppBio::readPublicBioData(unsigned char) { unavailable(); }
TBytes IAppBio::appletMoC(const TBytes&, unsigned char) { unavailable(); }
void IAppBio::loginByTicket(const TBytes&) { unavailable(); }

IAppLic::~IAppLic() = default;

}  // namespace libapdu
