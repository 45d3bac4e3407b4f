// Enumerations of a directory's children: sub-directories and files.
#pragma once

#include <vector>

#include "krfs.h"
#include "src/Object/Object.h"

class CDir;

class CDirs : public CObject<__tag_HDirEnum, CDirs, eDirEnum> {
public:
    static void Open(CDir* dir, CDirs** out);
    // The size reported is that of whatever the token has selected.
    void GetNext(__tag_DirInfo* info);

private:
    std::vector<TPath> paths;
    std::size_t cursor = 0;
};
