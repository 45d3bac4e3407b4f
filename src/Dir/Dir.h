// A handle on one directory, held as a path: each operation selects anew.
#pragma once

#include <vector>

#include "krfs.h"
#include "libapdu/interfaces.h"
#include "src/Object/Object.h"

class CToken;

class CDir : public CObject<__tag_HDir, CDir, eDir> {
public:
    // Opens a vendor's home directory, creating what is missing of it.
    static void Open(CToken* token, CDir** out, WORD vendor);
    // Opens a sub-directory; a missing one or a file is 0x86E06A82.
    void Open(WORD id, CDir** out);
    // Creates a sub-directory with open access, or opens it if it exists.
    void Create(WORD id, CDir** out);
    void Delete();
    // Describes whatever the token has selected at the time.
    void GetInfo(__tag_DirInfo* info);

    // The path of a vendor number, after making sure that it exists.
    static TPath OpenVendorDir(CToken* token, WORD vendor);
    // The path of a vendor number, from the table alone.
    static TPath VendorPath(WORD vendor);
    static void OpenDirAlways(TSharedTokenPtr token, TPath path);
    static void CreateDirRec(TSharedTokenPtr token, TPath path, libapdu::CFileInfo& info);

    // The full paths of the children of one kind (1 files, 2 directories),
    // in the driver's order.
    std::vector<TPath> ChildPaths(unsigned char kind);

    const TPath& Path() const { return path; }
    const TSharedTokenPtr& SharedToken() const { return token; }

private:
    TPath path;
};
