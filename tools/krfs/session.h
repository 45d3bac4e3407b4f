// The krfs tool's view of the library: a bound, locked token and the helpers
// every command shares. Written only against the exported C API.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "krfs.h"

namespace krfstool {

// A failed library call: the code and what was being done.
struct Failure : std::runtime_error {
    long code;
    Failure(long c, const std::string& what) : std::runtime_error(what), code(c) {}
};

// Throws Failure unless `rc` is 0.
void check(long rc, const std::string& what);
// "0x86E06A82: not found"
std::string describe(long code);

struct ReaderEntry {
    std::string name;
    bool tokenPresent;
};
std::vector<ReaderEntry> listReaders();

struct Options {
    std::string reader;   // empty: the first reader holding a token
    unsigned vendor = 0;  // the vendor directory that paths start from
    long applet = -1;     // select this applet first, if not -1
    std::string log;      // the APDU log
};

// The reader the options name, or the first one holding a token.
std::string chooseReader(const Options& o);

// Binds, locks, and selects the applet; unlocks and unbinds at the end.
class Session {
public:
    explicit Session(const Options& o);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    __tag_HToken* token() const { return token_; }
    const std::string& reader() const { return reader_; }

private:
    __tag_HToken* token_ = nullptr;
    bool locked_ = false;
    std::string reader_;
};

// A path of hexadecimal identifiers, "1000/0005"; "" or "/" is the start.
std::vector<WORD> parsePath(const std::string& text);
std::string formatId(WORD id);

// An open directory handle, closed at the end of its scope.
class Dir {
public:
    Dir() = default;
    explicit Dir(__tag_HDir* h) : h_(h) {}
    Dir(Dir&& o) noexcept : h_(o.h_) { o.h_ = nullptr; }
    Dir& operator=(Dir&& o) noexcept;
    ~Dir();
    __tag_HDir* get() const { return h_; }
    __tag_HDir* release() {
        __tag_HDir* h = h_;
        h_ = nullptr;
        return h;
    }

private:
    __tag_HDir* h_ = nullptr;
};

// An open file handle, closed at the end of its scope.
class File {
public:
    explicit File(__tag_HFile* h) : h_(h) {}
    File(File&& o) noexcept : h_(o.h_) { o.h_ = nullptr; }
    ~File();
    __tag_HFile* get() const { return h_; }

private:
    __tag_HFile* h_;
};

// Opens the vendor directory and walks `path`, all of it directories.
Dir openDir(__tag_HToken* token, unsigned vendor, const std::vector<WORD>& path);
inline Dir openDir(const Session& s, unsigned vendor, const std::vector<WORD>& path) {
    return openDir(s.token(), vendor, path);
}

// A directory's sub-directories and files, as its enumerations give them.
struct Listing {
    std::vector<WORD> dirs;
    std::vector<__tag_FileInfo> files;
};
Listing list(__tag_HDir* dir);

// Reads the PIN without putting it on the command line.
struct PinSource {
    std::string env;      // the name of an environment variable holding it
    bool stdin_ = false;  // one line from standard input
};
std::string readPin(const PinSource& src, const std::string& prompt);

}  // namespace krfstool
