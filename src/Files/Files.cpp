#include "Files.h"

#include <memory>

#include "src/Dir/Dir.h"

void CFiles::Open(CDir* dir, CFiles** out) {
    RequirePointer(dir);
    RequirePointer(out);
    std::unique_ptr<CFiles> e(new CFiles);
    e->paths = dir->ChildPaths(1);
    e->token = dir->SharedToken();
    *out = e.release();
}

void CFiles::GetNext(__tag_FileInfo* info) {
    if (cursor >= paths.size()) KR_RAISE(0x80070103L);
    RequirePointer(info);
    token->fs()->select(paths[cursor]);
    const libapdu::CFileInfo i = token->fs()->info();
    info->id = paths[cursor].back();
    info->size = i.size;
    info->isPrivate = i.read != 0 ? 1 : 0;
    ++cursor;
}
