// The exported KR and QN entries. Every entry runs inside the barrier, so only
// result codes leave the library.
#include "krfs.h"

#include <cstring>

#include "barrier.h"
#include "src/Log.h"
#include "src/Readers/Readers.h"
#include "src/Token/Token.h"

using krfs::Guard;
using krfs::GuardNew;

extern "C" {

long KRReadersEnumOpen(__tag_HReadersEnum** out) {
    return GuardNew<CReaders>(out, [](CReaders& r) { r.Open(); });
}

long KRReadersEnumNext(__tag_HReadersEnum* h, __tag_ReaderInf* info) {
    return Guard([&] { CReaders::CheckObjectType(h)->GetNext(info); });
}

long KRReadersEnumClose(__tag_HReadersEnum* h) {
    return Guard([&] { delete CReaders::CheckObjectType(h); });
}

long KRTokenBind(__tag_HToken** out, const char* reader) {
    return GuardNew<CToken>(out, [&](CToken& t) { t.Bind(reader); });
}

long KRTokenRebind(__tag_HToken* h) {
    return Guard([&] { CToken::CheckObjectType(h)->Rebind(); });
}

long KRTokenUnbind(__tag_HToken* h) {
    return Guard([&] {
        CToken* t = CToken::CheckObjectType(h);
        t->Unbind();
        delete t;
    });
}

long KRTokenLock(__tag_HToken* h) {
    return Guard([&] { CToken::CheckObjectType(h)->Lock(); });
}

long KRTokenUnLock(__tag_HToken* h) {
    return Guard([&] { CToken::CheckObjectType(h)->Unlock(); });
}

long KRSelectApplet(__tag_HToken* h, WORD applet) {
    return Guard([&] { CToken::CheckObjectType(h)->SelectApplet(applet); });
}

long KRTokenLogin(__tag_HToken* h, const char* pin) {
    return Guard([&] { CToken::CheckObjectType(h)->Login(pin); });
}

long KRTokenLogout(__tag_HToken* h) {
    return Guard([&] { CToken::CheckObjectType(h)->Logout(); });
}

long KRTokenPinChange(__tag_HToken* h, const char* pin) {
    return Guard([&] { CToken::CheckObjectType(h)->ChangePin(pin); });
}

long KRTokenPinAttemptsGet(__tag_HToken* h, DWORD* attempts) {
    return Guard([&] { CToken::CheckObjectType(h)->GetPinAttempts(attempts); });
}

long KRTokenLabelGet(__tag_HToken* h, char* buffer, DWORD* size) {
    return Guard([&] { CToken::CheckObjectType(h)->GetLabel(buffer, size); });
}

long KRTokenIDGet(__tag_HToken* h, char* buffer, DWORD* size) {
    return Guard([&] { CToken::CheckObjectType(h)->GetID(buffer, size); });
}

long KRTokenModelGet(__tag_HToken* h, char* buffer, DWORD* size) {
    return Guard([&] { CToken::CheckObjectType(h)->GetModel(buffer, size); });
}

long KRTokenMaxPinGet(__tag_HToken* h, DWORD* length) {
    return Guard([&] { CToken::CheckObjectType(h)->GetMaxPinLen(length); });
}

long KRTokenMinPinGet(__tag_HToken* h, DWORD* length) {
    return Guard([&] { CToken::CheckObjectType(h)->GetMinPinLen(length); });
}

void KREnableLogging(const char* path) {
    // Bounded and not forced to end: a path of 4096 chars or more leaves the
    // buffer unterminated, and the writer copes with that.
    if (path == nullptr) {
        g_krFSLogging[0] = '\0';
        return;
    }
    const std::size_t n = strnlen(path, sizeof(g_krFSLogging));
    std::memcpy(g_krFSLogging, path, n);
    if (n < sizeof(g_krFSLogging)) g_krFSLogging[n] = '\0';
}

void KRDisableLogging(void) { g_krFSLogging[0] = '\0'; }

long QNReadersEnumOpen(__tag_HReadersEnum** out) { return KRReadersEnumOpen(out); }
long QNReadersEnumNext(__tag_HReadersEnum* h, __tag_ReaderInf* info) {
    return KRReadersEnumNext(h, info);
}
long QNReadersEnumClose(__tag_HReadersEnum* h) { return KRReadersEnumClose(h); }
long QNTokenBind(__tag_HToken** out, const char* reader) { return KRTokenBind(out, reader); }
long QNTokenRebind(__tag_HToken* h) { return KRTokenRebind(h); }
long QNTokenUnbind(__tag_HToken* h) { return KRTokenUnbind(h); }
long QNTokenLock(__tag_HToken* h) { return KRTokenLock(h); }
long QNTokenUnLock(__tag_HToken* h) { return KRTokenUnLock(h); }
long QNSelectApplet(__tag_HToken* h, WORD applet) { return KRSelectApplet(h, applet); }
long QNTokenLogin(__tag_HToken* h, const char* pin) { return KRTokenLogin(h, pin); }
long QNTokenLogout(__tag_HToken* h) { return KRTokenLogout(h); }
long QNTokenPinChange(__tag_HToken* h, const char* pin) { return KRTokenPinChange(h, pin); }
long QNTokenLabelGet(__tag_HToken* h, char* buffer, DWORD* size) {
    return KRTokenLabelGet(h, buffer, size);
}
long QNTokenIDGet(__tag_HToken* h, char* buffer, DWORD* size) {
    return KRTokenIDGet(h, buffer, size);
}
long QNTokenMaxPinGet(__tag_HToken* h, DWORD* length) { return KRTokenMaxPinGet(h, length); }
long QNTokenMinPinGet(__tag_HToken* h, DWORD* length) { return KRTokenMinPinGet(h, length); }

}  // extern "C"
