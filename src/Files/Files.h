// An enumeration of the files of a directory.
#pragma once

#include <vector>

#include "krfs.h"
#include "src/Object/Object.h"

class CDir;

class CFiles : public CObject<__tag_HFilesEnum, CFiles, eFilesEnum> {
public:
    static void Open(CDir* dir, CFiles** out);
    // Selects each entry, so the record describes the entry itself.
    void GetNext(__tag_FileInfo* info);

private:
    std::vector<TPath> paths;
    std::size_t cursor = 0;
};
