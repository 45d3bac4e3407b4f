#include "Dirs.h"

#include <memory>

#include "src/Dir/Dir.h"

namespace {
void requirePointer(const void* p) {
    if (p == nullptr) KR_RAISE(0x80000005L);
}
}  // namespace

void CDirs::Open(CDir* dir, CDirs** out) {
    requirePointer(dir);
    requirePointer(out);
    std::unique_ptr<CDirs> e(new CDirs);
    TSharedTokenPtr token = dir->SharedToken();
    token->fs()->select(dir->Path());
    for (WORD id : token->fs()->list(2)) {
        TPath p = dir->Path();
        p.push_back(id);
        e->paths.push_back(p);
    }
    e->token = token;
    *out = e.release();
}

void CDirs::GetNext(__tag_DirInfo* info) {
    if (cursor >= paths.size()) KR_RAISE(0x80070103L);
    requirePointer(info);
    // No selection of the entry: the size is of the last node selected.
    const libapdu::CFileInfo i = token->fs()->info();
    info->id = paths[cursor].back();
    info->size = i.size;
    ++cursor;
}
