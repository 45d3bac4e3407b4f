#include "session.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <iostream>

namespace krfstool {

namespace {

struct Meaning {
    unsigned long code;
    const char* text;
};

const Meaning kMeanings[] = {
    {0x00000103, "no more readers"},
    {0x80070103, "no more items"},
    {0x80000003, "invalid argument"},
    {0x80000005, "null pointer"},
    {0x80004005, "unspecified failure"},
    {0x8007000E, "out of memory"},
    {0x80100017, "reader unavailable"},
    {0x80100009, "unknown reader"},
    {0x8010000C, "no smart card"},
    {0x8010001D, "no PC/SC service"},
    {0x8010002E, "no readers"},
    {0x80100069, "card removed"},
    {0x80100068, "card reset"},
    {0x80100066, "card not responding"},
    {0x8010000B, "sharing violation"},
    {0x86E0001D, "no PC/SC service"},
    {0x86E0002E, "no readers"},
    {0x86E06200, "warning, memory unchanged"},
    {0x86E06281, "bad answer from the token"},
    {0x86E06282, "read outside the file"},
    {0x86E06283, "wrong kind of node"},
    {0x86E06286, "warning"},
    {0x86E06300, "wrong PIN"},
    {0x86E06400, "no room, or too deep"},
    {0x86E06900, "not allowed (log in first?)"},
    {0x86E06982, "security status not satisfied (log in first)"},
    {0x86E06983, "PIN blocked"},
    {0x86E06A82, "not found"},
    {0x86E06A84, "write outside the file"},
    {0x86E06A89, "already exists"},
    {0x86E06B00, "wrong parameters"},
    {0x86E06F00, "token failure"},
    {0x86E0FACE, "not available on this token"},
    {0x86E0FFFF, "unknown status word"},
};

}  // namespace

std::string describe(long code) {
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%08lX", static_cast<unsigned long>(code) & 0xFFFFFFFFul);
    for (const Meaning& m : kMeanings)
        if (m.code == (static_cast<unsigned long>(code) & 0xFFFFFFFFul))
            return std::string(hex) + ": " + m.text;
    return std::string(hex) + ": " +
           ((static_cast<unsigned long>(code) >> 16) == 0x8010 ? "PC/SC failure" : "failure");
}

void check(long rc, const std::string& what) {
    if (rc != 0) throw Failure(rc, what);
}

std::vector<ReaderEntry> listReaders() {
    __tag_HReadersEnum* e = nullptr;
    check(KRReadersEnumOpen(&e), "listing readers");
    std::vector<ReaderEntry> out;
    __tag_ReaderInf info;
    long rc;
    while ((rc = KRReadersEnumNext(e, &info)) == 0) {
        std::string name(info.name, strnlen(info.name, sizeof(info.name)));
        out.push_back({name, info.tokenPresent != 0});
    }
    KRReadersEnumClose(e);
    if (rc != KR_NO_MORE_READERS) check(rc, "listing readers");
    // The last entry is PC/SC's notification pseudo-reader, not a reader.
    if (!out.empty()) out.pop_back();
    return out;
}

std::string chooseReader(const Options& o) {
    if (!o.reader.empty()) return o.reader;
    for (const ReaderEntry& r : listReaders())
        if (r.tokenPresent) return r.name;
    throw Failure(KR_NO_SMARTCARD, "no reader holds a token");
}

Session::Session(const Options& o) {
    if (!o.log.empty()) KREnableLogging(o.log.c_str());
    reader_ = chooseReader(o);
    check(KRTokenBind(&token_, reader_.c_str()), "binding to '" + reader_ + "'");
    check(KRTokenLock(token_), "locking the token");
    locked_ = true;
    if (o.applet >= 0)
        check(KRSelectApplet(token_, static_cast<WORD>(o.applet)), "selecting the applet");
}

Session::~Session() {
    if (locked_) KRTokenUnLock(token_);
    if (token_ != nullptr) KRTokenUnbind(token_);
}

std::vector<WORD> parsePath(const std::string& text) {
    std::vector<WORD> path;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = text.find('/', at);
        if (end == std::string::npos) end = text.size();
        const std::string part = text.substr(at, end - at);
        if (!part.empty()) {
            // Digits only: a number parse alone would take a sign, blanks and 0x.
            const bool digits =
                part.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
            if (!digits || part.size() > 4)
                throw std::invalid_argument("'" + part + "' is no 16-bit hexadecimal identifier");
            path.push_back(static_cast<WORD>(std::stoul(part, nullptr, 16)));
        }
        at = end + 1;
    }
    return path;
}

std::string formatId(WORD id) {
    char s[8];
    std::snprintf(s, sizeof(s), "%04X", id);
    return s;
}

Dir& Dir::operator=(Dir&& o) noexcept {
    if (this != &o) {
        if (h_ != nullptr) KRDirClose(h_);
        h_ = o.h_;
        o.h_ = nullptr;
    }
    return *this;
}

Dir::~Dir() {
    if (h_ != nullptr) KRDirClose(h_);
}

File::~File() {
    if (h_ != nullptr) KRFileClose(h_);
}

Dir openDir(__tag_HToken* token, unsigned vendor, const std::vector<WORD>& path) {
    __tag_HDir* h = nullptr;
    check(KRRootDirOpen(&h, token, static_cast<WORD>(vendor)), "opening the vendor directory");
    Dir dir(h);
    std::string walked;
    for (WORD id : path) {
        walked += "/" + formatId(id);
        __tag_HDir* child = nullptr;
        check(KRDirOpen(&child, id, dir.get()), "opening " + walked);
        dir = Dir(child);
    }
    return dir;
}

Listing list(__tag_HDir* dir) {
    Listing out;
    __tag_HDirEnum* de = nullptr;
    check(KRDirEnumOpen(&de, dir), "listing directories");
    __tag_DirInfo di;
    long rc;
    while ((rc = KRDirEnumNext(de, &di)) == 0) out.dirs.push_back(di.id);
    KRDirEnumClose(de);
    if (rc != KR_NO_MORE_ITEMS) check(rc, "listing directories");
    __tag_HFilesEnum* fe = nullptr;
    check(KRFilesEnumOpen(&fe, dir), "listing files");
    __tag_FileInfo fi;
    while ((rc = KRFilesEnumNext(fe, &fi)) == 0) out.files.push_back(fi);
    KRFilesEnumClose(fe);
    if (rc != KR_NO_MORE_ITEMS) check(rc, "listing files");
    return out;
}

std::string readPin(const PinSource& src, const std::string& prompt) {
    if (!src.env.empty()) {
        const char* v = std::getenv(src.env.c_str());
        if (v == nullptr) throw std::invalid_argument("$" + src.env + " is not set");
        return v;
    }
    std::string pin;
    if (src.stdin_ || !isatty(STDIN_FILENO)) {
        if (!std::getline(std::cin, pin)) throw std::invalid_argument("no PIN on standard input");
        return pin;
    }
    // A terminal: prompt on stderr, without echo.
    std::cerr << prompt << std::flush;
    termios old{};
    tcgetattr(STDIN_FILENO, &old);
    termios quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    std::getline(std::cin, pin);
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::cerr << "\n";
    return pin;
}

}  // namespace krfstool
