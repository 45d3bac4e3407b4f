#include "token/appfs/fs_common.h"

#include <algorithm>

#include "libapdu/exception.h"
#include "token/apppin/pin_common.h"

namespace libapdu {

namespace {

// Offsets travel as 16 bits; a range that would wrap past 0xFFFF is refused
// rather than silently continued at offset 0.
constexpr std::size_t kOffsetSpace = 0x10000;

}  // namespace

void CFSCommon::read(TBytes& data, WORD offset) {
    if (offset + data.size() > kOffsetSpace) APDU_RAISE(0x6282);
    const std::size_t block = bit_size();
    TBytes buffer;
    for (std::size_t done = 0; done < data.size(); done += block) {
        buffer.assign(std::min(block, data.size() - done), 0);
        if (buffer.empty()) break;
        read_bit(buffer, static_cast<WORD>((done + offset) & 0xFFFF));
        // A driver may hand back fewer bytes than asked; never copy past `data`.
        const std::size_t n = std::min(buffer.size(), data.size() - done);
        std::copy_n(buffer.begin(), n, data.begin() + done);
    }
}

void CFSCommon::write(const TBytes& data, WORD offset) {
    if (offset + data.size() > kOffsetSpace) APDU_RAISE(0x6A84);
    const std::size_t block = bit_size();
    TBytes buffer;
    for (std::size_t done = 0; done < data.size(); done += block) {
        const std::size_t n = std::min(block, data.size() - done);
        if (n == 0) break;
        buffer.assign(data.begin() + done, data.begin() + done + n);
        write_bit(buffer, static_cast<WORD>((done + offset) & 0xFFFF));
    }
}

void CFSCommon::send(const TBytes& command, TBytes& response) { applet->send(command, response); }
WORD CFSCommon::extractSW(const TBytes& response) { return applet->extractSW(response); }
void CFSCommon::raiseSW(WORD sw) { applet->raiseSW(sw); }
void CFSCommon::checkSW(const TBytes& response) { applet->checkSW(response); }

void CFSCommon::valid_name(WORD id) {
    if (id == 0x0000 || id == 0xFFFF || id == 0x3FFF || id == 0x3F00) APDU_RAISE(0x6900);
}

WORD CFSCommon::pinUser() { return PinExtractAccess(applet->pin()->pathUser()); }

bool CFSCommon::isFips() { return applet->info()->isFips(); }

void CFSCommon::readBinary(TBytes& data, WORD offset, WORD size) {
    FileCheckRange(offset, data.size(), size, 0x6282);
    const unsigned char length = static_cast<unsigned char>(data.size() & 0xFF);
    TBytes command{0x00, 0xB0};
    add_w(command, offset);
    command << length;
    TBytes response(length + 2u);
    send(command, response);
    checkSW(response);
    if (response.size() != data.size() + 2) APDU_RAISE(0x6282);
    data.assign(response.begin(), response.end() - 2);
}

void CFSCommon::updateBinary(const TBytes& data, WORD offset, WORD size) {
    FileCheckRange(offset, data.size(), size, 0x6A84);
    // Lc is one byte; the chunk loop never asks for more than bit_size().
    if (data.size() > 0xFF) APDU_RAISE(0x6B00);
    TBytes command{0x00, 0xD6};
    add_w(command, offset);
    command << static_cast<unsigned char>(data.size()) << data;
    TBytes response(2);
    send(command, response);
    checkSW(response);
}

void FileCheckRange(WORD offset, std::size_t length, WORD size, WORD code) {
    if (offset > size || offset + length > size) APDU_RAISE(code);
}

namespace {

unsigned char userAccess(CAdapter& adapter) {
    return static_cast<unsigned char>(PinExtractAccess(adapter.pin->pathUser()));
}

}  // namespace

CFileInfo FileMakeDirInfo(CAdapter adapter) {
    const unsigned char a = userAccess(adapter);
    return CFileInfo(2, 0, 0, a);
}

CFileInfo FileMakeFileInfo(CAdapter adapter, WORD size, bool isPrivate) {
    const unsigned char a = userAccess(adapter);
    return CFileInfo(1, size, isPrivate ? a : 0, a);
}

TPath PathChild(TPath path, WORD id) {
    path.push_back(id);
    return path;
}

TBytes FileRead(CAdapter adapter) {
    TBytes buffer(adapter.fs->info().size, 0);
    adapter.fs->read(buffer, 0);
    return buffer;
}

void FileCreateAndWrite(CAdapter adapter, TPath path, CFileInfo info, TBytes data) {
    if (path.empty()) APDU_RAISE(0x6B00);
    const WORD id = path.back();
    path.pop_back();
    adapter.fs->select(path);
    adapter.fs->create(id, info);
    path.push_back(id);
    adapter.fs->select(path);
    adapter.fs->write(data, 0);
}

void FileCreatePath(CAdapter adapter, const TPath& path, CFileInfo info) {
    TPath found = path;
    for (;;) {
        try {
            adapter.fs->select(found);
            break;
        } catch (const IException&) {
            // An empty path is the home directory; if even that fails, give up.
            if (found.empty()) throw;
            found.pop_back();
        }
    }
    while (found.size() < path.size()) {
        adapter.fs->select(found);
        const WORD id = path[found.size()];
        adapter.fs->create(id, info);
        found.push_back(id);
    }
}

void FileDeletePath(CAdapter adapter, TPath path) {
    adapter.fs->select(path);
    if (adapter.fs->info().type == 1) {
        adapter.fs->remove();
        return;
    }
    // Both lists before any deletion: a removal changes the card's selection.
    const TPath files = adapter.fs->list(1);
    const TPath dirs = adapter.fs->list(2);
    for (WORD id : files) {
        path.push_back(id);
        adapter.fs->select(path);
        adapter.fs->remove();
        path.pop_back();
    }
    for (WORD id : dirs) {
        path.push_back(id);
        FileDeletePath(adapter, path);
        path.pop_back();
    }
    adapter.fs->select(path);
    adapter.fs->remove();
}

}  // namespace libapdu
