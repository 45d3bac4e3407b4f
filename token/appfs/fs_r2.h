// The file system of the R2 cards: whole paths in every select, and every
// number on the wire little-endian, identifiers included.
#pragma once

#include "token/appfs/fs_common.h"

namespace libapdu {

class CFSR2 : public CFSCommon {
public:
    explicit CFSR2(IApplet* owner) : CFSCommon(owner) {}

    void select(TPath path) override;
    void create(WORD id, CFileInfo info) override;
    // Deletes what the card has selected; no parent is needed.
    void remove() override;
    CFileInfo info() override { return info_; }
    TPath list(unsigned char kind) override;
    void read_bit(TBytes& data, WORD offset) override;
    void write_bit(const TBytes& data, WORD offset) override;
    WORD bit_size() override { return 200; }

private:
    // The card's selection is the current node; no path is kept.
    CFileInfo info_;
};

}  // namespace libapdu
