// The DataStore applet's record pool, shared by both of its file-system
// layouts: the record commands, the update protocol, and the tree in memory
// that select, list, read and write work on.
//
// A record has a number given by the card, a 16-bit label, a private flag and
// a size; a size of 0 marks a directory. Contents change only as a whole:
// begin announces the size, writes fill the card's buffer, and one finish
// hands the buffer to a new or an existing record.
#pragma once

#include <vector>

#include "token/appfs/fs_common.h"

namespace libapdu {

// One record as the list command delivers it: 7 bytes, big-endian.
struct tagRecordInfo {
    WORD id;
    WORD label;
    unsigned char flags;  // not 0: private, content shown only after login
    WORD size;
};

// The record commands. Each ends in checkSW unless its comment says otherwise.
class CDataStoreRecords {
public:
    static constexpr std::size_t kRecordSize = 7;
    static constexpr WORD kNoRecord = 0xFFFF;

    explicit CDataStoreRecords(CFSCommon& fs) : fs(fs) {}

    // Every record of the pool, from number 0 on.
    std::vector<tagRecordInfo> list();
    void begin(WORD size);
    // Begin, returning the card's status word instead of checking it.
    WORD beginStatus(WORD size);
    // One write to the update buffer; the status word is returned unchecked.
    WORD writeStatus(WORD offset, const TBytes& data);
    void write(WORD offset, const TBytes& data);
    // Hands the buffer to a new record; returns its number.
    WORD finishNew(bool isPrivate, WORD label);
    void finishOver(WORD record);
    // Exactly what the card returned, status word cut.
    TBytes read(WORD record, WORD offset, WORD length);
    void remove(WORD record);

private:
    CFSCommon& fs;
};

// A node of the tree in memory. The first layout's entry as it stands.
struct CDataStoreEntry : CFileInfo {
    TPath path;
    WORD name = 0;                               // the identifier, last of `path`
    WORD record = CDataStoreRecords::kNoRecord;  // not on the card while 0xFFFF
    WORD label = 0;                              // as stored on the card

    CDataStoreEntry() = default;
    explicit CDataStoreEntry(const CFileInfo& info) : CFileInfo(info) {}
};

// The second layout's entry also knows its parent's record number.
struct CDataStoreEntryV2 : CDataStoreEntry {
    WORD parent = 0;

    CDataStoreEntryV2() = default;
    explicit CDataStoreEntryV2(const CFileInfo& info) : CDataStoreEntry(info) {}
};

// The part of both layouts that works on the table of nodes alone. A layout
// fills `files` in init() and makes records in create().
template <class Entry>
class CFSDataStoreTree : public CFSCommon {
public:
    explicit CFSDataStoreTree(IApplet* owner) : CFSCommon(owner), records(*this) {}

    // Fills the table from the card on first use; later selects never list again.
    void select(TPath path) override;
    CFileInfo info() override { return current; }
    TPath list(unsigned char kind) override;
    void read_bit(TBytes& data, WORD offset) override;
    void write_bit(const TBytes& data, WORD offset) override;
    // Rewrites the whole content, reading it first unless `data` covers it.
    void write(const TBytes& data, WORD offset) override;
    WORD bit_size() override { return 240; }

    virtual void init() = 0;

    const std::vector<Entry>& entries() const { return files; }
    const Entry& selected() const { return current; }

protected:
    // Steps 1 to 3 of every create: name, kind of node, size and room. May
    // force `info.size` to 0 for a directory.
    void checkCreate(WORD id, CFileInfo& info);
    // The path of a new child of `current`; fails with 0x6A89 if it exists.
    TPath probeFree(WORD id);
    // Refuses the root and directories that are not empty, then deletes
    // the record of `current`.
    void removeRecord();

    bool initialized = false;
    std::vector<Entry> files;
    Entry current;
    CDataStoreRecords records;
};

extern template class CFSDataStoreTree<CDataStoreEntry>;
extern template class CFSDataStoreTree<CDataStoreEntryV2>;

}  // namespace libapdu
