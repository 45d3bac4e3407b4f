// A file system in memory for drivers that only select, list and read: files
// by absolute path and the directories above them. Shared by the unit tests
// and the fuzz targets, so it needs nothing but the library.
#pragma once

#include <algorithm>
#include <map>

#include "libapdu/exception.h"
#include "libapdu/interfaces.h"

namespace krfs_test {

inline TPath child(TPath p, WORD id) { return p.push_back(id), p; }

struct MemFS : libapdu::IAppFS {
    std::map<TPath, TBytes> files;
    std::map<TPath, bool> dirs;
    TPath current;

    // Selecting an absent node fails with 6A82.
    void select(TPath p) override {
        if (!files.count(p) && !dirs.count(p)) APDU_RAISE(0x6A82);
        current = p;
    }
    libapdu::CFileInfo info() override {
        const auto f = files.find(current);
        return f == files.end() ? libapdu::CFileInfo(2, 0, 0, 0)
                                : libapdu::CFileInfo(1, static_cast<WORD>(f->second.size()), 0, 0);
    }
    // 1 files, 2 directories, in identifier order.
    TPath list(unsigned char kind) override {
        TPath ids;
        const auto take = [&](const TPath& p) {
            if (child(current, p.back()) == p) ids.push_back(p.back());
        };
        for (const auto& f : files)
            if (kind == 1) take(f.first);
        for (const auto& d : dirs)
            if (kind == 2) take(d.first);
        return ids;
    }
    void read(TBytes& data, WORD offset) override {
        const TBytes& f = files.at(current);
        if (offset + data.size() > f.size()) APDU_RAISE(0x6B00);
        std::copy_n(f.begin() + offset, data.size(), data.begin());
    }
    void put(const TPath& p, const TBytes& content) {
        files[p] = content;
        for (TPath d(p.begin(), p.end() - 1); !d.empty(); d.pop_back()) dirs[d] = true;
    }
};

}  // namespace krfs_test
