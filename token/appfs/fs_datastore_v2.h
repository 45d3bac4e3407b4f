// The second file system of the DataStore applet: the same record pool, with
// the tree kept in one table file of 512 slots, (parent, name) per record
// number. Every node has the label 0x4444, so any identifier may be used.
#pragma once

#include "token/appfs/datastore_records.h"

namespace libapdu {

class CFSDataStore_v2 : public CFSDataStoreTree<CDataStoreEntryV2> {
public:
    using CFileInfoEx = CDataStoreEntryV2;

    static constexpr WORD kTableLabel = 0x3333;
    static constexpr WORD kNodeLabel = 0x4444;
    static constexpr std::size_t kSlots = 512;
    static constexpr std::size_t kSlotSize = 4;
    static constexpr WORD kTableSize = kSlots * kSlotSize;

    // Predicates of the searches in init and remove.
    struct CUserLabelPredicate {
        WORD label;
        bool operator()(const tagRecordInfo& r) const { return r.label == label; }
    };
    struct CFileNamePredicate {
        WORD id;
        bool operator()(const tagRecordInfo& r) const { return r.id == id; }
    };
    struct CFindRootPredicate {
        bool operator()(const CFileInfoEx& e) const { return e.name == 0x3F00; }
    };
    struct CFindFldrPredicate {
        WORD record;
        bool operator()(const CFileInfoEx& e) const { return e.record == record && e.size == 0; }
    };
    struct CFindPathPredicate {
        TPath path;
        bool operator()(const CFileInfoEx& e) const { return e.path == path; }
    };

    explicit CFSDataStore_v2(IApplet* owner)
        : CFSDataStoreTree(owner),
          tableRecord(CDataStoreRecords::kNoRecord),
          table(kTableSize, 0) {}

    void create(WORD id, CFileInfo info) override;
    void remove() override;
    void init() override;

    // The record for `entry`, then its slot and the whole table. The parent
    // comes from `entry.parent`; the argument is not used.
    void newFile(CFileInfoEx& entry, WORD parent);
    // Writes the whole table image through one update.
    void update_fs();

    WORD tableNumber() const { return tableRecord; }
    const TBytes& tableImage() const { return table; }

private:
    // Fails with 0x6400 for a number past the last slot, before any write.
    void setSlot(WORD record, WORD parent, WORD name);

    WORD tableRecord;  // 0xFFFF while the card has no table
    TBytes table;
};

}  // namespace libapdu
