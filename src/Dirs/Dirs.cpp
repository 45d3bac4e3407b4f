#include "Dirs.h"

#include <memory>

#include "src/Dir/Dir.h"

void CDirs::Open(CDir* dir, CDirs** out) {
    RequirePointer(dir);
    RequirePointer(out);
    std::unique_ptr<CDirs> e(new CDirs);
    e->paths = dir->ChildPaths(2);
    e->token = dir->SharedToken();
    *out = e.release();
}

void CDirs::GetNext(__tag_DirInfo* info) {
    if (cursor >= paths.size()) KR_RAISE(0x80070103L);
    RequirePointer(info);
    // No selection of the entry: the size is of the last node selected.
    const libapdu::CFileInfo i = token->fs()->info();
    info->id = paths[cursor].back();
    info->size = i.size;
    ++cursor;
}
