// The file system of the Pro cards: a real ISO 7816 tree, with a home
// directory for relative paths and a marker file that changes with the tree.
#pragma once

#include "token/appfs/fs_common.h"

namespace libapdu {

class CFSPro : public CFSCommon {
public:
    explicit CFSPro(IApplet* owner) : CFSCommon(owner) {}

    void select(TPath path) override;
    void create(WORD id, CFileInfo info) override;
    void remove() override;
    CFileInfo info() override { return info_; }
    TPath list(unsigned char kind) override;
    void read_bit(TBytes& data, WORD offset) override;
    void write_bit(const TBytes& data, WORD offset) override;
    WORD bit_size() override { return 255; }
    // The tag of the file size in the card's file control data.
    virtual unsigned char tag_file_size() const { return 0x81; }

protected:
    // Sends a CREATE FILE command and marks the tree as changed.
    void sendCreate(const TBytes& command);
    // Rewrites the marker file 3F00 6666 0001; failures are swallowed.
    void volatile_update();

    TPath path_;  // the current node, absolute
    CFileInfo info_;
};

class CFSPro4 : public CFSPro {
public:
    explicit CFSPro4(IApplet* owner) : CFSPro(owner) {}

    void create(WORD id, CFileInfo info) override;
    unsigned char tag_file_size() const override { return 0x80; }
};

}  // namespace libapdu
