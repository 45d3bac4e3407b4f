#include "File.h"

#include <algorithm>
#include <memory>

#include "libapdu/applet.h"
#include "src/Dir/Dir.h"
#include "token/appfs/fs_common.h"
#include "token/apppin/pin_common.h"

namespace {

constexpr long kInvalidArgument = 0x80000003L;
constexpr unsigned short kNotFound = 0x6A82;

}  // namespace

void CFile::Open(CDir* dir, WORD id, CFile** out) {
    RequirePointer(dir);
    RequirePointer(out);
    TSharedTokenPtr token = dir->SharedToken();
    TPath p = dir->Path();
    p.push_back(id);
    libapdu::CFileInfo info;
    try {
        token->fs()->select(p);
        info = token->fs()->info();
    } catch (const CAException& e) {
        if (!LowBitsAre(e, kNotFound)) throw;
    }
    if (info.type != 1) APDU_RAISE(kNotFound);
    std::unique_ptr<CFile> f(new CFile);
    f->path = p;
    f->token = token;
    *out = f.release();
}

void CFile::Create(CDir* dir, WORD id, WORD size, short isPrivate, CFile** out) {
    RequirePointer(dir);
    RequirePointer(out);
    TSharedTokenPtr token = dir->SharedToken();
    TPath p = dir->Path();
    p.push_back(id);
    // Write access always needs the user PIN, named by its low byte; read
    // access only when the file is private.
    auto createIn = [&] {
        token->fs()->select(dir->Path());
        const unsigned char pinId =
            static_cast<unsigned char>(libapdu::PinExtractAccess(token->pin()->pathUser()));
        token->fs()->create(id, libapdu::CFileInfo(1, size, isPrivate != 0 ? pinId : 0, pinId));
    };
    try {
        createIn();
    } catch (const CAException& e) {
        if (!LowBitsAre(e, kNotFound)) throw;
        // The directory went away behind the handle: make it again, open.
        libapdu::FileCreatePath(libapdu::TokenToAdapter(token.get()), dir->Path(),
                                libapdu::CFileInfo(2, 0, 0, 0));
        createIn();
    }
    std::unique_ptr<CFile> f(new CFile);
    f->path = p;
    f->token = token;
    *out = f.release();
}

void CFile::Read(WORD offset, WORD length, unsigned char* buffer, DWORD bufferSize) {
    token->fs()->select(path);
    const unsigned long size = token->fs()->info().size;
    if (offset > size) KR_RAISE(kInvalidArgument);
    const unsigned long rest = size - offset;
    if (length <= rest) {
        if (length > bufferSize) KR_RAISE(kInvalidArgument);
    } else if (rest > bufferSize) {
        KR_RAISE(kInvalidArgument);
    }
    // A null buffer tests the request without reading.
    if (buffer == nullptr) return;
    // 0xFFFF asks for the whole file; the driver judges a request past the end.
    const unsigned long wanted = length == 0xFFFF ? size : length;
    TBytes bytes(wanted);
    token->fs()->read(bytes, offset);
    // Never past the caller's buffer, whatever the driver left in `bytes`.
    std::copy_n(bytes.begin(), std::min<std::size_t>(bytes.size(), bufferSize), buffer);
}

void CFile::Write(WORD offset, const unsigned char* data, WORD length) {
    RequirePointer(data);
    token->fs()->select(path);
    const unsigned long size = token->fs()->info().size;
    // Not cut to 16 bits: files never grow.
    if (static_cast<unsigned long>(offset) + length > size) KR_RAISE(kInvalidArgument);
    token->fs()->write(TBytes(data, data + length), offset);
}

void CFile::Delete() {
    token->fs()->select(path);
    token->fs()->remove();
}

void CFile::GetInfo(__tag_FileInfo* info) {
    RequirePointer(info);
    const libapdu::CFileInfo i = token->fs()->info();
    info->id = path.back();
    info->size = i.size;
    info->isPrivate = i.read != 0 ? 1 : 0;
}
