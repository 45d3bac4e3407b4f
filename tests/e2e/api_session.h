// Helpers of the end-to-end tests that work through the exported API.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "krfs.h"

namespace krfs::e2e {

// Result codes the stories meet.
constexpr long kNoLogin = 0x86E06900L, kWrongPin = 0x86E06300L, kNoRoom = 0x86E06400L,
               kTooLong = 0x86E06B00L, kExists = 0x86E06A89L, kNotFound = 0x86E06A82L;
constexpr long kBadArgument = 0x80000003L, kNullPointer = 0x80000005L, kEnd = 0x80070103L;

// A bound and locked session that ends with the test.
class Session {
public:
    explicit Session(const std::string& reader) {
        EXPECT_EQ(KRTokenBind(&h, reader.c_str()), 0);
        if (h != nullptr) {
            EXPECT_EQ(KRTokenLock(h), 0);
        }
    }
    ~Session() {
        if (h == nullptr) return;
        EXPECT_EQ(KRTokenUnLock(h), 0);
        EXPECT_EQ(KRTokenUnbind(h), 0);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    __tag_HToken* h = nullptr;
};

// The library's APDU log, in a file of its own while this lives.
class ApduLog {
public:
    ApduLog() { KREnableLogging(path_.c_str()); }
    ~ApduLog() { KRDisableLogging(); }
    // What was logged since the last take().
    std::string take() {
        const std::string text = harness::readFile(path_);
        std::remove(path_.c_str());
        return text;
    }

private:
    harness::TempDir dir_{"krfs-e2e-log"};
    std::string path_ = dir_.file("apdu.log");
};

// How often `what` stands in `text`, e.g. command lines in an APDU log.
inline int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// What an enumeration of `dir` gives, checking that it ends as enumerations end.
template <typename Enum, typename Info>
std::vector<Info> list(__tag_HDir* dir, long (*open)(Enum**, __tag_HDir*),
                       long (*next)(Enum*, Info*), long (*close)(Enum*)) {
    std::vector<Info> out;
    Enum* e = nullptr;
    EXPECT_EQ(open(&e, dir), 0);
    Info info;
    long rc;
    while ((rc = next(e, &info)) == 0) out.push_back(info);
    EXPECT_EQ(rc, kEnd);
    EXPECT_EQ(close(e), 0);
    return out;
}
inline std::vector<WORD> dirs(__tag_HDir* d) {
    std::vector<WORD> ids;
    for (const auto& i : list(d, KRDirEnumOpen, KRDirEnumNext, KRDirEnumClose)) ids.push_back(i.id);
    return ids;
}
// A file as an enumeration reports it.
struct Entry {
    WORD id, size;
    int isPrivate;
    bool operator==(const Entry& o) const {
        return id == o.id && size == o.size && isPrivate == o.isPrivate;
    }
};
inline std::vector<Entry> entries(__tag_HDir* d) {
    std::vector<Entry> out;
    for (const auto& i : list(d, KRFilesEnumOpen, KRFilesEnumNext, KRFilesEnumClose))
        out.push_back({i.id, i.size, i.isPrivate});
    return out;
}

// A token made by krfs-vtoken init.
inline harness::VTokenOptions madeToken(const char* dialect, const char* id, const char* userPin,
                                        const char* label, std::vector<std::string> more = {}) {
    harness::TokenInit init;
    init.dialect = dialect;
    init.id = id;
    init.userPin = userPin;
    init.label = label;
    init.more = std::move(more);
    harness::VTokenOptions o;
    o.init = init;
    return o;
}

// A token text (identifier, model, label) through its two calls: the size,
// then the text.
inline std::string text(long (*get)(__tag_HToken*, char*, DWORD*), __tag_HToken* h) {
    DWORD size = 0;
    EXPECT_EQ(get(h, nullptr, &size), 0);
    std::string out(size, '\0');
    EXPECT_EQ(get(h, out.data(), &size), 0);
    return out.c_str();
}

inline DWORD number(long (*get)(__tag_HToken*, DWORD*), __tag_HToken* h) {
    DWORD n = 0;
    EXPECT_EQ(get(h, &n), 0);
    return n;
}

// The first `size` bytes of a file, or the result code as text.
inline std::string readAll(__tag_HFile* f, WORD size) {
    std::string out(size, '\0');
    const long rc = KRFileRead(f, 0, size, reinterpret_cast<unsigned char*>(out.data()), size);
    return rc == 0 ? out : "error " + std::to_string(rc);
}
inline long writeText(__tag_HFile* f, WORD offset, const std::string& data) {
    return KRFileWrite(f, offset, reinterpret_cast<const unsigned char*>(data.data()),
                       static_cast<WORD>(data.size()));
}
// Bytes that differ from their neighbours, so a shifted block shows.
inline std::string pattern(std::size_t n) {
    std::string data(n, '\0');
    for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<char>(i * 7 + 3);
    return data;
}

#ifdef KRFS_CLI_PATH
// One run of the krfs tool.
struct Call {
    std::string args;  // simple words; the shell sees them as written
    int status;
    std::string says;  // in stdout or stderr; exact stdout if it ends in a newline
    std::string input = "";
    std::string env = "";
};

// Runs krfs as a shell would, checks what it says and how it exits, and
// returns all it said.
inline std::string krfsTool(const Call& call) {
    static harness::TempDir dir("krfs-cli");
    const std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err");
    harness::writeFile(in, call.input);
    const std::string cmd =
        call.env + " " + KRFS_CLI_PATH + " " + call.args + " <" + in + " >" + out + " 2>" + err;
    const int raw = std::system(cmd.c_str());
    const std::string stdout_ = harness::readFile(out), stderr_ = harness::readFile(err);
    EXPECT_EQ(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, call.status) << call.args << "\n" << stderr_;
    if (!call.says.empty() && call.says.back() == '\n')
        EXPECT_EQ(stdout_, call.says) << call.args;
    else
        EXPECT_NE((stdout_ + stderr_).find(call.says), std::string::npos) << call.args << " says\n"
                                                                          << stdout_ << stderr_;
    EXPECT_EQ(stderr_.find("CAException"), std::string::npos) << stderr_;
    return stdout_ + stderr_;
}
#endif

}  // namespace krfs::e2e
