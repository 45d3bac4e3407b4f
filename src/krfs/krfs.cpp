// The exported KR and QN entries. Every entry runs inside the barrier, so only
// result codes leave the library.
#include "krfs.h"

#include <cstring>

#include "barrier.h"
#include "src/Log.h"
#include "src/Dir/Dir.h"
#include "src/Dirs/Dirs.h"
#include "src/File/File.h"
#include "src/Files/Files.h"
#include "src/Readers/Readers.h"
#include "src/Token/Token.h"

using krfs::Guard;
using krfs::GuardNew;

// The entries below that make an object write `*out` only after the work on
// the card. A null `out` is found only then: the object is dropped and the
// caller gets 0x80000005, with the work on the card done.
namespace {

template <class TObject, class THandle>
void handOut(TObject* object, THandle** out) {
    if (out == nullptr) {
        delete object;
        KR_RAISE(0x80000005L);
    }
    *out = object;
}

// The older directory record: id, a zero word, size; written whatever the result.
void toQN(const __tag_DirInfo& from, QNDirInfo* to) {
    to->id = from.id;
    to->reserved = 0;
    to->size = from.size;
}

}  // namespace

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

long KRRootDirOpen(__tag_HDir** out, __tag_HToken* h, WORD vendor) {
    return Guard([&] {
        CToken* t = CToken::CheckObjectType(h);
        CDir* dir = nullptr;
        CDir::Open(t, &dir, vendor);
        handOut(dir, out);
    });
}

long KRDirCreate(__tag_HDir** out, DWORD id, __tag_HDir* parent) {
    return Guard([&] {
        CDir* dir = nullptr;
        CDir::CheckObjectType(parent)->Create(static_cast<WORD>(id & 0xFFFF), &dir);
        handOut(dir, out);
    });
}

long KRDirOpen(__tag_HDir** out, DWORD id, __tag_HDir* parent) {
    return Guard([&] {
        CDir* dir = nullptr;
        CDir::CheckObjectType(parent)->Open(static_cast<WORD>(id & 0xFFFF), &dir);
        handOut(dir, out);
    });
}

long KRDirGetInfo(__tag_HDir* h, __tag_DirInfo* info) {
    return Guard([&] { CDir::CheckObjectType(h)->GetInfo(info); });
}

long KRDirDelete(__tag_HDir* h) {
    return Guard([&] { CDir::CheckObjectType(h)->Delete(); });
}

long KRDirClose(__tag_HDir* h) {
    return Guard([&] { delete CDir::CheckObjectType(h); });
}

long KRDirEnumOpen(__tag_HDirEnum** out, __tag_HDir* dir) {
    return Guard([&] {
        CDirs* e = nullptr;
        CDirs::Open(CDir::CheckObjectType(dir), &e);
        handOut(e, out);
    });
}

long KRDirEnumNext(__tag_HDirEnum* h, __tag_DirInfo* info) {
    return Guard([&] { CDirs::CheckObjectType(h)->GetNext(info); });
}

long KRDirEnumClose(__tag_HDirEnum* h) {
    return Guard([&] { delete CDirs::CheckObjectType(h); });
}

long KRFilesEnumOpen(__tag_HFilesEnum** out, __tag_HDir* dir) {
    return Guard([&] {
        CFiles* e = nullptr;
        CFiles::Open(CDir::CheckObjectType(dir), &e);
        handOut(e, out);
    });
}

long KRFilesEnumNext(__tag_HFilesEnum* h, __tag_FileInfo* info) {
    return Guard([&] { CFiles::CheckObjectType(h)->GetNext(info); });
}

long KRFilesEnumClose(__tag_HFilesEnum* h) {
    return Guard([&] { delete CFiles::CheckObjectType(h); });
}

long KRFileOpen(__tag_HFile** out, __tag_HDir* dir, WORD id) {
    return Guard([&] {
        CFile* f = nullptr;
        CFile::Open(CDir::CheckObjectType(dir), id, &f);
        handOut(f, out);
    });
}

long KRFileCreate(__tag_HFile** out, __tag_HDir* dir, WORD id, WORD size, short isPrivate) {
    return Guard([&] {
        CFile* f = nullptr;
        CFile::Create(CDir::CheckObjectType(dir), id, size, isPrivate, &f);
        handOut(f, out);
    });
}

long KRFileRead(__tag_HFile* h, WORD offset, WORD length, unsigned char* buffer, DWORD bufferSize) {
    return Guard([&] { CFile::CheckObjectType(h)->Read(offset, length, buffer, bufferSize); });
}

long KRFileWrite(__tag_HFile* h, WORD offset, const unsigned char* data, WORD length) {
    return Guard([&] { CFile::CheckObjectType(h)->Write(offset, data, length); });
}

long KRFileDelete(__tag_HFile* h) {
    return Guard([&] { CFile::CheckObjectType(h)->Delete(); });
}

long KRFileGetInfo(__tag_HFile* h, __tag_FileInfo* info) {
    return Guard([&] { CFile::CheckObjectType(h)->GetInfo(info); });
}

long KRFileClose(__tag_HFile* h) {
    return Guard([&] { delete CFile::CheckObjectType(h); });
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

long QNRootDirOpen(__tag_HDir** out, __tag_HToken* h, WORD vendor) {
    return KRRootDirOpen(out, h, vendor);
}
long QNDirCreate(__tag_HDir** out, DWORD id, __tag_HDir* parent, WORD) {
    return KRDirCreate(out, id, parent);
}
long QNDirOpen(__tag_HDir** out, DWORD id, __tag_HDir* parent) {
    return KRDirOpen(out, id, parent);
}

long QNDirGetInfo(__tag_HDir* h, QNDirInfo* info) {
    if (info == nullptr) return 0x80000005L;
    __tag_DirInfo local = {0, 0};
    const long rc = KRDirGetInfo(h, &local);
    toQN(local, info);
    return rc;
}
long QNDirDelete(__tag_HDir* h) { return KRDirDelete(h); }
long QNDirClose(__tag_HDir* h) { return KRDirClose(h); }
long QNDirEnumOpen(__tag_HDirEnum** out, __tag_HDir* dir) { return KRDirEnumOpen(out, dir); }
long QNDirEnumNext(__tag_HDirEnum* h, QNDirInfo* info) {
    if (info == nullptr) return 0x80000005L;
    __tag_DirInfo local = {0, 0};
    const long rc = KRDirEnumNext(h, &local);
    toQN(local, info);
    return rc;
}
long QNDirEnumClose(__tag_HDirEnum* h) { return KRDirEnumClose(h); }
long QNFilesEnumOpen(__tag_HFilesEnum** out, __tag_HDir* dir) { return KRFilesEnumOpen(out, dir); }
long QNFilesEnumNext(__tag_HFilesEnum* h, __tag_FileInfo* info) { return KRFilesEnumNext(h, info); }
long QNFilesEnumClose(__tag_HFilesEnum* h) { return KRFilesEnumClose(h); }
long QNFileOpen(__tag_HFile** out, __tag_HDir* dir, WORD id) { return KRFileOpen(out, dir, id); }
long QNFileCreate(__tag_HFile** out, __tag_HDir* dir, WORD id, WORD size, short isPrivate) {
    return KRFileCreate(out, dir, id, size, isPrivate);
}
long QNFileRead(__tag_HFile* h, WORD offset, WORD length, unsigned char* buffer, DWORD bufferSize) {
    return KRFileRead(h, offset, length, buffer, bufferSize);
}
long QNFileWrite(__tag_HFile* h, WORD offset, const unsigned char* data, WORD length) {
    return KRFileWrite(h, offset, data, length);
}
long QNFileDelete(__tag_HFile* h) { return KRFileDelete(h); }
long QNFileGetInfo(__tag_HFile* h, __tag_FileInfo* info) { return KRFileGetInfo(h, info); }
long QNFileClose(__tag_HFile* h) { return KRFileClose(h); }

}  // extern "C"
