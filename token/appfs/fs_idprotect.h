// The file system of the IDProtect applet. All application data lives under
// one home directory; below it the tree is kept flat: every logical
// directory is a real directory of the home, found by a 16-byte name that
// spells out its logical path, while files stay inside their real directory.
#pragma once

#include "token/appfs/fs_common.h"

namespace libapdu {

// 80 A4 08 0C Lc path 00: select by path, two bytes per identifier, high
// byte first. A path too long for one length byte raises 0x6B00.
TBytes IdprotectSelectByPath(const TPath& path);

// The login object 3F00 3000 3002, whose access tag names the login type.
const TPath& IdprotectLoginObject();

class CFSIdprotect : public CFSCommon {
public:
    explicit CFSIdprotect(IApplet* owner);

    void select(TPath path) override;
    void create(WORD id, CFileInfo info) override;
    void remove() override;
    CFileInfo info() override { return info_; }
    TPath list(unsigned char kind) override;
    void read_bit(TBytes& data, WORD offset) override;
    void write_bit(const TBytes& data, WORD offset) override;
    WORD bit_size() override { return 255; }

    // Deletes the selected node on the card, nothing more.
    virtual void removeSimple();

    // Selects the real directory of the home named by `relative` (the path
    // below the home) and returns its real identifier.
    WORD selectName(TPath relative);
    // Selects a real path; fields the answer leaves out keep their values.
    void selectSimple(TPath realPath);
    void createSimple(WORD id, CFileInfo info);
    // Identifiers of the children of the selected directory: 1 files, 2
    // directories.
    TPath listSimple(unsigned char kind);

private:
    // Whether the current node belongs to a logical directory under the home.
    bool namedSide() const { return path_ != real_ || real_ == base_; }

    TPath path_;  // the logical path asked for, absolute
    TPath real_;  // the real path the card has selected
    TPath base_;  // the home directory
    CFileInfo info_;
    TPath name_;  // logical path of the last real directory that told its name
};

}  // namespace libapdu
