// The first file system of the DataStore applet: the tree packed into each
// record's label, the parent's record number in the high byte and a one-byte
// code of the identifier in the low byte. Only the identifiers of the code
// table can exist, and a parent's record number must fit in a byte.
#pragma once

#include <map>

#include "token/appfs/datastore_records.h"

namespace libapdu {

class CFSDataStore : public CFSDataStoreTree<CDataStoreEntry> {
public:
    using CFileInfoEx = CDataStoreEntry;

    explicit CFSDataStore(IApplet* owner);

    void create(WORD id, CFileInfo info) override;
    void remove() override;
    void init() override;

    // The record for `entry` under the parent record `parent`, with no
    // content written; the new number goes into `entry.record`.
    void newFile(CFileInfoEx& entry, WORD parent);

private:
    std::map<WORD, WORD> names;  // code -> identifier
};

}  // namespace libapdu
