// Helpers of the end-to-end tests that work through the exported API.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "harness/harness.h"
#include "krfs.h"

namespace krfs::e2e {

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

// The identifiers an enumeration of `dir` gives, checking that it ends as
// enumerations end.
template <typename Enum, typename Info>
std::vector<WORD> list(__tag_HDir* dir, long (*open)(Enum**, __tag_HDir*),
                       long (*next)(Enum*, Info*), long (*close)(Enum*)) {
    std::vector<WORD> ids;
    Enum* e = nullptr;
    EXPECT_EQ(open(&e, dir), 0);
    Info info;
    long rc;
    while ((rc = next(e, &info)) == 0) ids.push_back(info.id);
    EXPECT_EQ(rc, 0x80070103L);
    EXPECT_EQ(close(e), 0);
    return ids;
}
inline std::vector<WORD> files(__tag_HDir* d) {
    return list(d, KRFilesEnumOpen, KRFilesEnumNext, KRFilesEnumClose);
}
inline std::vector<WORD> dirs(__tag_HDir* d) {
    return list(d, KRDirEnumOpen, KRDirEnumNext, KRDirEnumClose);
}

}  // namespace krfs::e2e
