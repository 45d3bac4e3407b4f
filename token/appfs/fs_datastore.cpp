#include "token/appfs/fs_datastore.h"

#include <algorithm>

#include "libapdu/exception.h"

namespace libapdu {

namespace {

constexpr WORD kRoot = 0x3F00;
// The root record's label, and the parent that newFile turns into it.
constexpr WORD kRootLabel = 0x3F3F;
constexpr unsigned char kTypeFile = 1;
constexpr unsigned char kTypeDir = 2;

struct NameCode {
    unsigned char code;
    WORD id;
};

// 0xA9 and 0xAF both stand for 0x0001; the search by identifier walks the
// codes upwards, so new records get 0xA9.
constexpr NameCode kNames[] = {
    {0x3F, 0x3F00}, {0xEE, 0xE00E}, {0x0B, 0x0B00}, {0x0C, 0x0C00}, {0x1C, 0x0C01}, {0xC0, 0xCC00},
    {0xC1, 0xCC01}, {0xC2, 0xCC02}, {0xC3, 0xCC03}, {0xC4, 0xCC04}, {0xC5, 0xCC05}, {0xC6, 0xCC06},
    {0xC7, 0xCC07}, {0xC8, 0xCC08}, {0xC9, 0xCC09}, {0xCA, 0xCC10}, {0xCB, 0xCC11}, {0xCC, 0xCC12},
    {0xCD, 0xCC13}, {0xCE, 0xCC14}, {0xCF, 0xCC15}, {0xF0, 0xF000}, {0xF1, 0xF001}, {0xF2, 0xF002},
    {0xF3, 0xF003}, {0xF4, 0xF004}, {0xF5, 0xF005}, {0xF6, 0xF006}, {0xF7, 0xF007}, {0xDE, 0xDE01},
    {0xDF, 0xDE02}, {0xA1, 0x7210}, {0xA2, 0xBAD0}, {0xA3, 0xE1F8}, {0xA4, 0x0043}, {0xA5, 0x1213},
    {0xA6, 0x7000}, {0xA7, 0x130A}, {0xA8, 0x1805}, {0xA9, 0x0001}, {0xAA, 0xA002}, {0xAB, 0x1212},
    {0xAC, 0x5555}, {0xAD, 0x6666}, {0xAE, 0x7777}, {0xAF, 0x0001},
};

}  // namespace

CFSDataStore::CFSDataStore(IApplet* owner) : CFSDataStoreTree(owner) {
    for (const NameCode& n : kNames) names[n.code] = n.id;
}

void CFSDataStore::init() {
    const unsigned char user = static_cast<unsigned char>(pinUser());
    for (const tagRecordInfo& r : records.list()) {
        // Any other code is data of some other kind.
        const auto name = names.find(r.label & 0xFF);
        if (name == names.end()) continue;
        CFileInfoEx e;
        e.name = name->second;
        e.record = r.id;
        e.label = r.label;
        e.write = user;
        e.read = r.flags != 0 ? user : 0;
        e.type = r.size != 0 ? kTypeFile : kTypeDir;
        e.size = r.size;
        files.push_back(e);
    }

    const auto root = std::find_if(files.begin(), files.end(),
                                   [](const CFileInfoEx& e) { return e.label == kRootLabel; });
    if (root != files.end()) root->path = {kRoot};
    for (auto e = files.begin(); e != files.end(); ++e) {
        if (e == root) continue;
        // A parent later in the list has no path yet, so its children get
        // paths that no select matches.
        const WORD parent = e->label >> 8;
        const auto p = std::find_if(files.begin(), files.end(),
                                    [&](const CFileInfoEx& f) { return f.record == parent; });
        if (p != files.end()) e->path = p->path;
        e->path.push_back(e->name);
    }

    if (files.empty()) {
        // The root exists only in memory until the first create below it.
        CFileInfoEx r(CFileInfo(kTypeDir, 0, 0, user));
        r.path = {kRoot};
        r.name = kRoot;
        r.record = CDataStoreRecords::kNoRecord;
        r.label = 0xFFFF;
        files.push_back(r);
    }
    initialized = true;
}

void CFSDataStore::newFile(CFileInfoEx& entry, WORD parent) {
    WORD label = static_cast<WORD>(parent << 8);
    for (const auto& n : names) {
        if (n.second == entry.name) {
            label = static_cast<WORD>(label | n.first);
            break;
        }
    }
    if ((label & 0xFF) == 0) APDU_RAISE(0x6B00);
    records.begin(entry.size);
    entry.label = label;
    entry.record = records.finishNew(entry.read != 0, label);
}

void CFSDataStore::create(WORD id, CFileInfo info) {
    checkCreate(id, info);
    if (current.path == TPath{kRoot} && current.record == CDataStoreRecords::kNoRecord) {
        for (CFileInfoEx& e : files) {
            if (e.path != current.path) continue;
            if (e.record != CDataStoreRecords::kNoRecord) break;
            newFile(e, kRootLabel);
            current = e;
        }
    }
    const TPath path = probeFree(id);
    // The label keeps one byte of the parent: a larger number would hang
    // the new node under some other record.
    if (current.record > 0xFF) APDU_RAISE(0x6400);
    CFileInfoEx e(info);
    e.path = path;
    e.name = id;
    newFile(e, current.record);
    files.push_back(e);
}

void CFSDataStore::remove() {
    removeRecord();
    const auto e = std::find_if(files.begin(), files.end(),
                                [&](const CFileInfoEx& f) { return f.path == current.path; });
    if (e != files.end()) files.erase(e);
}

}  // namespace libapdu
