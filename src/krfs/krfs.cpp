// The exported KR and QN entries. Every entry runs inside the barrier, so only
// result codes leave the library.
#include "krfs.h"

#include <cstring>

#include "barrier.h"
#include "src/Log.h"
#include "src/Readers/Readers.h"

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

}  // extern "C"
