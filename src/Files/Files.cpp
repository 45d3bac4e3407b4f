#include "Files.h"

#include <memory>

#include "src/Dir/Dir.h"

namespace {
void requirePointer(const void* p) {
    if (p == nullptr) KR_RAISE(0x80000005L);
}
}  // namespace

void CFiles::Open(CDir* dir, CFiles** out) {
    requirePointer(dir);
    requirePointer(out);
    std::unique_ptr<CFiles> e(new CFiles);
    TSharedTokenPtr token = dir->SharedToken();
    token->fs()->select(dir->Path());
    for (WORD id : token->fs()->list(1)) {
        TPath p = dir->Path();
        p.push_back(id);
        e->paths.push_back(p);
    }
    e->token = token;
    *out = e.release();
}

void CFiles::GetNext(__tag_FileInfo* info) {
    if (cursor >= paths.size()) KR_RAISE(0x80070103L);
    requirePointer(info);
    token->fs()->select(paths[cursor]);
    const libapdu::CFileInfo i = token->fs()->info();
    info->id = paths[cursor].back();
    info->size = i.size;
    info->isPrivate = i.read != 0 ? 1 : 0;
    ++cursor;
}
