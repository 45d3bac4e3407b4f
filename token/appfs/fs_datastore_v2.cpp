#include "token/appfs/fs_datastore_v2.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr WORD kRoot = 0x3F00;
constexpr unsigned char kTypeFile = 1;
constexpr unsigned char kTypeDir = 2;

// The table's numbers are little-endian, unlike the rest of the card.
WORD littleWord(const TBytes& b, std::size_t at) {
    return static_cast<WORD>(b[at] | b[at + 1] << 8);
}

void putLittle(TBytes& b, std::size_t at, WORD value) {
    b[at] = static_cast<unsigned char>(value & 0xFF);
    b[at + 1] = static_cast<unsigned char>(value >> 8);
}

}  // namespace

void CFSDataStore_v2::init() {
    const unsigned char user = static_cast<unsigned char>(pinUser());
    const std::vector<tagRecordInfo> all = records.list();

    const auto tableInfo = std::find_if(all.begin(), all.end(), CUserLabelPredicate{kTableLabel});
    if (tableInfo != all.end()) {
        tableRecord = tableInfo->id;
        if (tableInfo->size != kTableSize) APDU_RAISE(0x6281);
        const std::size_t block = bit_size();
        for (std::size_t at = 0; at < kTableSize; at += block) {
            const WORD n = static_cast<WORD>(std::min(block, kTableSize - at));
            const TBytes part = records.read(tableRecord, static_cast<WORD>(at), n);
            if (part.size() != n) APDU_RAISE(0x6281);
            std::copy(part.begin(), part.end(), table.begin() + at);
        }
        for (std::size_t i = 0; i < kSlots; ++i) {
            const std::size_t at = i * kSlotSize;
            const WORD parent = littleWord(table, at);
            const WORD name = littleWord(table, at + 2);
            if (parent == 0 && name == 0) continue;
            // A slot whose record has gone drops out; the slot stays taken.
            const auto r =
                std::find_if(all.begin(), all.end(), CFileNamePredicate{static_cast<WORD>(i)});
            if (r == all.end()) continue;
            CFileInfoEx e;
            e.name = name;
            e.parent = parent;
            e.record = static_cast<WORD>(i);
            e.label = kNodeLabel;
            e.write = user;
            e.read = r->flags != 0 ? user : 0;
            e.type = r->size != 0 ? kTypeFile : kTypeDir;
            e.size = r->size;
            files.push_back(e);
        }
    }

    if (files.empty()) {
        // The root exists only in memory until the first create below it.
        CFileInfoEx r(CFileInfo(kTypeDir, 0, 0, user));
        r.path = {kRoot};
        r.name = kRoot;
        r.parent = kRoot;
        r.record = CDataStoreRecords::kNoRecord;
        r.label = kTableLabel;
        files.push_back(r);
        initialized = true;
        return;
    }

    const auto root = std::find_if(files.begin(), files.end(), CFindRootPredicate{});
    if (root != files.end()) {
        root->path = {kRoot};
        root->parent = root->record;
    }
    for (auto e = files.begin(); e != files.end(); ++e) {
        if (e == root) continue;
        TPath path;
        bool finished = false;
        // More steps than nodes can only go round a cycle of parents.
        std::size_t steps = files.size();
        auto p = std::find_if(files.begin(), files.end(), CFindFldrPredicate{e->parent});
        while (p != files.end() && steps-- > 0) {
            if (!p->path.empty() && p->path.front() == kRoot) {
                path.insert(path.begin(), p->path.begin(), p->path.end());
                finished = true;
                break;
            }
            path.insert(path.begin(), p->name);
            p = std::find_if(files.begin(), files.end(), CFindFldrPredicate{p->parent});
        }
        if (finished) {
            path.push_back(e->name);
            e->path = path;
        }
    }
    // Orphans vanish from the tree; their records and slots stay on the card.
    files.erase(std::remove_if(files.begin(), files.end(), CFindPathPredicate{TPath()}),
                files.end());
    initialized = true;
}

void CFSDataStore_v2::setSlot(WORD record, WORD parent, WORD name) {
    if (record >= kSlots) APDU_RAISE(0x6400);
    putLittle(table, record * kSlotSize, parent);
    putLittle(table, record * kSlotSize + 2, name);
}

void CFSDataStore_v2::update_fs() {
    records.begin(kTableSize);
    const std::size_t block = bit_size();
    for (std::size_t at = 0; at < kTableSize; at += block) {
        const std::size_t n = std::min(block, kTableSize - at);
        records.write(static_cast<WORD>(at), TBytes(table.begin() + at, table.begin() + at + n));
    }
    if (tableRecord == CDataStoreRecords::kNoRecord)
        tableRecord = records.finishNew(false, kTableLabel);
    else
        records.finishOver(tableRecord);
}

void CFSDataStore_v2::newFile(CFileInfoEx& entry, WORD /*parent*/) {
    entry.label = kNodeLabel;
    records.begin(entry.size);
    entry.record = records.finishNew(entry.read != 0, kNodeLabel);
    // The record stands first: a table write cut off leaves it unseen, and
    // the old table intact.
    setSlot(entry.record, entry.parent, entry.name);
    update_fs();
}

void CFSDataStore_v2::create(WORD id, CFileInfo info) {
    checkCreate(id, info);
    if (current.path == TPath{kRoot} && current.record == CDataStoreRecords::kNoRecord) {
        for (CFileInfoEx& e : files) {
            if (e.path != current.path) continue;
            if (e.record != CDataStoreRecords::kNoRecord) break;
            newFile(e, kRoot);
            current = e;
        }
    }
    const TPath path = probeFree(id);
    CFileInfoEx e(info);
    e.path = path;
    e.name = id;
    e.parent = current.record;
    newFile(e, current.name);
    files.push_back(e);
}

void CFSDataStore_v2::remove() {
    removeRecord();
    const auto e = std::find_if(files.begin(), files.end(), CFindPathPredicate{current.path});
    if (e == files.end()) return;
    setSlot(current.record, 0, 0);
    update_fs();
    files.erase(e);
}

}  // namespace libapdu
