#include "Dir.h"

#include <memory>

#include "libapdu/applet.h"
#include "src/Token/Token.h"
#include "src/krfs/assert.h"
#include "token/appfs/fs_common.h"

namespace {

constexpr unsigned short kNotFound = 0x6A82;
constexpr unsigned short kExists = 0x6A89;

// Directories are made open: read and write access 0, whatever the login.
libapdu::CFileInfo openDirectory() { return libapdu::CFileInfo(2, 0, 0, 0); }

}  // namespace

TPath CDir::VendorPath(WORD vendor) {
    if (vendor == 0x0000) return {};
    if (vendor == 0x0001) return {0xE00E};
    if (vendor >= 0xF001 && vendor <= 0xF00B) return {static_cast<WORD>(0xE000 | (vendor & 0xFF))};
    if (vendor == 0xFFFF) return {0xE015, 1};
    // 0xF015..0xF021 rise from 2 to 14; 0xF022 on skip 15, which no vendor gets.
    if (vendor >= 0xF015 && vendor <= 0xF021) return {0xE015, static_cast<WORD>(vendor - 0xF013)};
    if (vendor >= 0xF022 && vendor <= 0xF025) return {0xE015, static_cast<WORD>(vendor - 0xF012)};
    // Everything else shares 0xE015, with an identifier that wraps at 16 bits.
    WORD id = static_cast<WORD>(vendor + 0x0FDB);
    id = static_cast<WORD>(id + 0x13);
    return {0xE015, id};
}

TPath CDir::OpenVendorDir(CToken* token, WORD vendor) {
    const TPath path = VendorPath(vendor);
    OpenDirAlways(token->Token(), path);
    return path;
}

void CDir::OpenDirAlways(TSharedTokenPtr token, TPath path) {
    try {
        token->fs()->select(path);
    } catch (const CAException& e) {
        if (!LowBitsAre(e, kNotFound)) throw;
        libapdu::FileCreatePath(libapdu::TokenToAdapter(token.get()), path, openDirectory());
    }
}

void CDir::CreateDirRec(TSharedTokenPtr token, TPath path, libapdu::CFileInfo& info) {
    KRFS_ASSERT(0 != path.size(), "0 != path.size()",
                "static void CDir::CreateDirRec(TSharedTokenPtr, libapdu::TPath, "
                "libapdu::CFileInfo&)");
    try {
        token->fs()->create(path.back(), info);
    } catch (const CAException& e) {
        if (path.size() == 1 || e.Code() != 0x86E06A82L) throw CAException(e);
        const WORD last = path.back();
        path.pop_back();
        CreateDirRec(token, path, info);
        path.push_back(last);
        token->fs()->create(path.back(), info);
    }
}

void CDir::Open(CToken* token, CDir** out, WORD vendor) {
    RequirePointer(out);
    std::unique_ptr<CDir> dir(new CDir);
    dir->path = OpenVendorDir(token, vendor);
    dir->token = token->Token();
    *out = dir.release();
}

void CDir::Open(WORD id, CDir** out) {
    RequirePointer(out);
    TPath child = path;
    child.push_back(id);
    token->fs()->select(child);
    // A file's identifier reports as a missing directory.
    if (token->fs()->info().type != 2) APDU_RAISE(kNotFound);
    std::unique_ptr<CDir> dir(new CDir);
    dir->path = child;
    dir->token = token;
    *out = dir.release();
}

void CDir::Create(WORD id, CDir** out) {
    RequirePointer(out);
    TPath child = path;
    child.push_back(id);
    try {
        token->fs()->select(path);
        token->fs()->create(id, openDirectory());
    } catch (const CAException& e) {
        if (!LowBitsAre(e, kExists)) throw;
        OpenDirAlways(token, child);
    }
    std::unique_ptr<CDir> dir(new CDir);
    dir->path = child;
    dir->token = token;
    *out = dir.release();
}

void CDir::Delete() {
    token->fs()->select(path);
    token->fs()->remove();
}

void CDir::GetInfo(__tag_DirInfo* info) {
    RequirePointer(info);
    const libapdu::CFileInfo i = token->fs()->info();
    // The vendor-0 directory has no identifier of its own: report 0.
    info->id = path.empty() ? 0 : path.back();
    info->size = i.size;
}

std::vector<TPath> CDir::ChildPaths(unsigned char kind) {
    token->fs()->select(path);
    std::vector<TPath> children;
    for (WORD id : token->fs()->list(kind)) {
        children.push_back(path);
        children.back().push_back(id);
    }
    return children;
}
