// Files in memory by whole path, the directories above them implied, for the finders' tests
// and fuzz targets. Fails as a Pro card: 6A82 unknown path, 6282 read past the end, 6283 list
// of a file.
#pragma once

#include <algorithm>
#include <map>
#include <set>

#include "libapdu/exception.h"
#include "libapdu/interfaces.h"

namespace memory_fs {

using namespace libapdu;

class MemoryFS : public IAppFS {
public:
    void put(const TPath& path, const TBytes& data) {
        files[path] = data;
        for (TPath d = path; d.pop_back(), !d.empty();) dirs.insert(d);
    }
    void select(TPath path) override {
        if (files.count(path) == 0 && dirs.count(path) == 0) APDU_RAISE(0x6A82);
        current = path;
    }
    CFileInfo info() override {
        const auto f = files.find(current);
        if (f == files.end()) return CFileInfo(2, 0, 0, 0);
        return CFileInfo(1, static_cast<WORD>(f->second.size()), 0, 0);  // no file exceeds 0xFFFF
    }
    // 1: the files of the current directory, 2: its directories.
    TPath list(unsigned char kind) override {
        if (dirs.count(current) == 0) APDU_RAISE(0x6283);
        TPath found;
        const auto below = [&](const TPath& p) {
            return p.size() == current.size() + 1 &&
                   std::equal(current.begin(), current.end(), p.begin());
        };
        for (const auto& f : files)
            if (kind == 1 && below(f.first)) found.push_back(f.first.back());
        for (const TPath& d : dirs)
            if (kind == 2 && below(d)) found.push_back(d.back());
        return found;
    }
    void read(TBytes& data, WORD offset) override {
        const auto f = files.find(current);
        if (f == files.end()) APDU_RAISE(0x6981);
        if (offset + data.size() > f->second.size()) APDU_RAISE(0x6282);
        std::copy_n(f->second.begin() + offset, data.size(), data.begin());
    }

    std::map<TPath, TBytes> files;
    std::set<TPath> dirs;
    TPath current;
};

// A user PIN of reference 3.
struct UserPin : IAppPin {
    const TPath& pathUser() override { return user; }
    TPath user{0x0003};
};

}  // namespace memory_fs
