#include "token/appfs/fs_gost.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr WORD kMasterFile = 0x3F00;
constexpr WORD kHomeDir = 0xE00E;
constexpr unsigned char kTypeFile = 1;
constexpr unsigned char kTypeDir = 2;
// Objects of any other type in the card's list are not ours.
constexpr unsigned char kDataObjectType = 0x04;

// Attribute ids of the objects that make up a file.
constexpr unsigned int kAtrPrivate = 0x00000002;
constexpr unsigned int kAtrValue = 0x00000011;
constexpr unsigned int kAtrSize = 0x00000161;
constexpr unsigned int kAtrPath = 0x8000F11E;
constexpr unsigned int kAtrDataObject = 0x8000BADA;

constexpr WORD kLargestFile = 0x4000;
// Room the card needs beyond the content itself.
constexpr unsigned int kMemoryReserve = 0x2000;

constexpr std::size_t kLongAnswer = 258;
constexpr std::size_t kListAtrAnswer = 18434;
constexpr std::size_t kGetAtrAnswer = 16386;
// getAtr answers a header of this size before the value.
constexpr std::size_t kGetAtrHeader = 8;

constexpr long kNotFound = 0x86E06A82L;
constexpr long kExists = 0x86E06A89L;

// The response less its status word.
std::size_t dataLength(const TBytes& response) {
    return response.size() >= 2 ? response.size() - 2 : 0;
}

WORD bigWord(const unsigned char* p) { return static_cast<WORD>(p[0] << 8 | p[1]); }

// Attribute ids go out lowest byte first, though the card lists them big-endian.
void addId(TBytes& out, unsigned int id) {
    for (int shift = 0; shift < 32; shift += 8) out << static_cast<unsigned char>(id >> shift);
}

// Identifiers of a path attribute travel low byte first; an odd last byte is
// no identifier.
TPath pathFromValue(const TBytes& value) {
    TPath path;
    for (std::size_t at = 0; at + 2 <= value.size(); at += 2)
        path.push_back(static_cast<WORD>(value[at] | value[at + 1] << 8));
    return path;
}

TBytes valueFromPath(const TPath& path) {
    TBytes value;
    for (WORD id : path)
        value << static_cast<unsigned char>(id & 0xFF) << static_cast<unsigned char>(id >> 8);
    return value;
}

bool isParentOf(const TPath& parent, const TPath& child) {
    return child.size() == parent.size() + 1 &&
           std::equal(parent.begin(), parent.end(), child.begin());
}

}  // namespace

// ---- The card's object commands ----

WORD CFSGost::newFile() {
    TBytes response(kLongAnswer);
    send({0x80, 0x12, 0x20, 0x00, 0x01, kDataObjectType, 0x00}, response);
    checkSW(response);
    if (dataLength(response) < 2) APDU_RAISE(0x6281);
    return bigWord(response.data());
}

void CFSGost::removeFile(WORD handle) {
    TBytes command{0x80, 0x12, 0x30, 0x00, 0x02};
    add_w(command, handle);  // handles are big-endian
    command << 0x00;
    TBytes response(kLongAnswer);
    send(command, response);
    checkSW(response);
}

std::vector<CFSGost::CObject> CFSGost::listFile() {
    TBytes response(kLongAnswer);
    send({0x80, 0x12, 0x10, 0x00, 0x01, 0x01}, response);
    checkSW(response);
    // One byte we don't use, the count, then three bytes per object, exactly.
    const std::size_t n = dataLength(response);
    if (n < 3) APDU_RAISE(0x6281);
    const std::size_t count = bigWord(&response[1]);
    if (n - 3 != 3 * count) APDU_RAISE(0x6281);
    std::vector<CObject> objects;
    for (std::size_t at = 3; at < 3 + 3 * count; at += 3)
        objects.push_back({bigWord(&response[at]), response[at + 2]});
    return objects;
}

std::vector<CFSGost::CAtribute> CFSGost::listAtr(WORD handle) {
    TBytes command{0x80, 0x13, 0x40, 0x00, 0x02};
    add_w(command, handle);
    command << 0x00;
    TBytes response(kListAtrAnswer);
    send(command, response);
    checkSW(response);

    std::vector<CAtribute> attributes;
    const std::size_t end = dataLength(response);
    for (std::size_t at = 0; at < end;) {
        if (end - at < 6) APDU_RAISE(0x6281);
        const unsigned int id =
            static_cast<unsigned int>(bigWord(&response[at])) << 16 | bigWord(&response[at + 2]);
        const std::size_t length = bigWord(&response[at + 4]);
        at += 6;
        if (end - at < length) APDU_RAISE(0x6281);
        attributes.push_back({id, TBytes(response.begin() + at, response.begin() + at + length)});
        at += length;
    }
    return attributes;
}

TBytes CFSGost::getAtr(WORD handle, unsigned int id) {
    TBytes command{0x80, 0x13, 0x20, 0x00, 0x06};
    add_w(command, handle);
    addId(command, id);
    command << 0x00;
    TBytes response(kGetAtrAnswer);
    send(command, response);
    checkSW(response);
    const std::size_t end = dataLength(response);
    if (end < kGetAtrHeader) APDU_RAISE(0x6281);
    return TBytes(response.begin() + kGetAtrHeader, response.begin() + end);
}

void CFSGost::setAtr(WORD handle, unsigned int id, TBytes value) {
    // The card takes no empty value: a zero-size file holds one zero byte.
    if (value.empty()) value.push_back(0x00);
    // The length field below has 16 bits.
    if (value.size() > 0xFFFF) APDU_RAISE(0x6B00);
    const std::size_t lc = value.size() + 8;
    TBytes command{0x80, 0x13, 0x30, 0x00};
    if (lc <= 0xFF) {
        command << static_cast<unsigned char>(lc);
    } else {
        command << 0x00;
        add_w(command, static_cast<WORD>(lc));
    }
    add_w(command, handle);
    addId(command, id);
    add_w(command, static_cast<WORD>(value.size()));
    command << value << 0x00;
    TBytes response(2);
    send(command, response);
    checkSW(response);
}

// ---- The table ----

void CFSGost::init() {
    const unsigned char user = static_cast<unsigned char>(pinUser());
    std::vector<TPath> dirs = {{kMasterFile}, {kMasterFile, kHomeDir}};
    std::vector<CFileInfoEx> table;

    std::vector<WORD> handles;
    for (const CObject& o : listFile())
        if (o.type == kDataObjectType) handles.push_back(o.handle);

    for (WORD handle : handles) {
        CFileInfoEx entry;
        entry.object = handle;
        entry.write = user;
        entry.read = 0;
        entry.type = kTypeFile;
        entry.size = 0;
        for (const CAtribute& a : listAtr(handle)) {
            if (a.value.empty()) continue;
            if (a.id == kAtrPath) {
                const TPath path = pathFromValue(a.value);
                if (path.empty()) continue;
                entry.path = path;
                // The missing parents come in deepest first.
                TPath parent(path.begin(), path.end() - 1);
                while (!parent.empty() &&
                       std::find(dirs.begin(), dirs.end(), parent) == dirs.end()) {
                    dirs.push_back(parent);
                    parent.pop_back();
                }
            } else if (a.id == kAtrSize) {
                WORD size = 0;
                for (unsigned char b : a.value) size = static_cast<WORD>(size << 8 | b);
                entry.size = size;
            } else if (a.id == kAtrDataObject) {
                entry.read = user;
                // Low byte first; a one-byte value is taken as the low byte.
                entry.dataObject =
                    static_cast<WORD>(a.value[0] | (a.value.size() > 1 ? a.value[1] << 8 : 0));
            }
        }
        // An object without a path is no file: a private file's content, or
        // an interrupted creation.
        if (!entry.path.empty()) table.push_back(entry);
    }

    for (const TPath& dir : dirs) {
        CFileInfoEx entry;
        entry.type = kTypeDir;
        entry.size = 0;
        entry.read = 0;
        entry.write = user;
        entry.path = dir;
        table.push_back(entry);
    }
    // Only a complete table is kept, so a failed reading is tried again.
    files = std::move(table);
}

void CFSGost::select(TPath path) {
    if (files.empty()) init();
    if (path.empty() || path.front() != kMasterFile) path.insert(path.begin(), kMasterFile);
    for (const CFileInfoEx& e : files) {
        if (e.path == path) {
            current = e;
            return;
        }
    }
    APDU_RAISE(0x6A82);
}

void CFSGost::create(WORD id, CFileInfo info) {
    valid_name(id);
    if (current.type != kTypeDir) APDU_RAISE(0x6283);
    if (info.size > kLargestFile) APDU_RAISE(0x6400);
    const bool isFile = info.type == kTypeFile;
    const WORD size = isFile ? info.size : 0;
    if (size != 0 && applet->info()->memoryFree() < size + kMemoryReserve) APDU_RAISE(0x6400);

    TPath path = current.path;
    path.push_back(id);
    bool exists = true;
    try {
        select(path);
    } catch (const IException& e) {
        if (e.code() == kExists) throw;
        exists = false;
    }
    if (exists) APDU_RAISE(0x6A89);

    const unsigned char user = static_cast<unsigned char>(pinUser());
    CFileInfoEx entry;
    entry.path = path;
    entry.size = size;
    entry.write = user;
    if (!isFile) {
        // Nothing of a directory exists on the card until a file is made in it.
        entry.type = kTypeDir;
        entry.read = 0;
        files.push_back(entry);
        return;
    }

    entry.type = kTypeFile;
    entry.object = newFile();
    const bool isPrivate = info.read != 0;
    entry.dataObject = isPrivate ? newFile() : 0;
    entry.read = isPrivate ? user : 0;
    files.push_back(entry);

    const WORD holder = entry.dataObject != 0 ? entry.dataObject : entry.object;
    if (isPrivate) {
        setAtr(entry.object, kAtrDataObject,
               {static_cast<unsigned char>(entry.dataObject & 0xFF),
                static_cast<unsigned char>(entry.dataObject >> 8)});
        setAtr(holder, kAtrPrivate, {0x01});
    }
    // The path makes the file exist for a later reading of the table, and
    // the size comes last.
    setAtr(entry.object, kAtrPath, valueFromPath(path));
    setAtr(holder, kAtrValue, TBytes(size, 0x00));
    TBytes sizeValue;
    add_w(sizeValue, size);
    setAtr(entry.object, kAtrSize, sizeValue);
}

void CFSGost::remove() {
    if (current.path.size() < 2) APDU_RAISE(0x6900);
    if (current.type == kTypeDir) {
        if (!list(kTypeFile).empty() || !list(kTypeDir).empty()) APDU_RAISE(0x6900);
    } else {
        if (current.dataObject != 0) removeFile(current.dataObject);
        removeFile(current.object);
    }
    const auto it = std::find_if(files.begin(), files.end(),
                                 [&](const CFileInfoEx& e) { return e.path == current.path; });
    if (it != files.end()) files.erase(it);
}

TPath CFSGost::list(unsigned char kind) {
    if (current.type != kTypeDir) APDU_RAISE(0x6283);
    if (kind != kTypeFile && kind != kTypeDir) APDU_RAISE(0xFACE);
    TPath children;
    for (const CFileInfoEx& e : files)
        if (e.type == kind && isParentOf(current.path, e.path)) children.push_back(e.path.back());
    return children;
}

// ---- Content ----

TBytes CFSGost::content(WORD rangeFailure, std::size_t offset, std::size_t length) {
    TBytes value;
    try {
        value = getAtr(holder(), kAtrValue);
    } catch (const IException& e) {
        // The card hides a private object from a caller without login.
        if (e.code() == kNotFound && current.read != 0) APDU_RAISE(0x6900);
        throw;
    }
    if (offset + length > value.size()) APDU_RAISE(rangeFailure);
    return value;
}

void CFSGost::read_bit(TBytes& data, WORD offset) {
    if (current.type != kTypeFile || current.object == 0) APDU_RAISE(0x6283);
    FileCheckRange(offset, data.size(), current.size, 0x6282);
    if (data.empty()) return;
    const TBytes value = content(0x6282, offset, data.size());
    std::copy_n(value.begin() + offset, data.size(), data.begin());
}

void CFSGost::write_bit(const TBytes& data, WORD offset) {
    if (current.type != kTypeFile || current.object == 0) APDU_RAISE(0x6283);
    FileCheckRange(offset, data.size(), current.size, 0x6A84);
    if (data.empty()) return;
    TBytes value = content(0x6A84, offset, data.size());
    std::copy(data.begin(), data.end(), value.begin() + offset);
    setAtr(holder(), kAtrValue, value);
}

}  // namespace libapdu
