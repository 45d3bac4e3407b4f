// The file system of the GOST applet. The card keeps only numbered objects,
// each a bag of attributes; a file is an object that carries its own full
// path, a directory is the common prefix of such paths, and the tree is a
// table in memory read once from the card.
#pragma once

#include <vector>

#include "token/appfs/fs_common.h"

namespace libapdu {

class CFSGost : public CFSCommon {
public:
    // A node of the table.
    struct CFileInfoEx : CFileInfo {
        TPath path;           // absolute, 0x3F00 first
        WORD object = 0;      // the object carrying the path; 0 for a directory
        WORD dataObject = 0;  // the object with a private file's content, else 0
    };

    // One attribute as the card lists it.
    struct CAtribute {
        unsigned int id;
        TBytes value;
    };

    // One entry of the card's object list.
    struct CObject {
        WORD handle;
        unsigned char type;
    };

    explicit CFSGost(IApplet* owner) : CFSCommon(owner) {}

    void select(TPath path) override;
    void create(WORD id, CFileInfo info) override;
    // Keeps `current` as it was: info() still describes the removed node.
    void remove() override;
    CFileInfo info() override { return current; }
    TPath list(unsigned char kind) override;
    void read_bit(TBytes& data, WORD offset) override;
    void write_bit(const TBytes& data, WORD offset) override;
    // The card moves a value as a whole, so every transfer is one block.
    WORD bit_size() override { return 0xFFFF; }

    // Fills the table from the object list and each object's attributes.
    void init();

    // The card's object commands.
    WORD newFile();
    void removeFile(WORD handle);
    std::vector<CObject> listFile();
    std::vector<CAtribute> listAtr(WORD handle);
    TBytes getAtr(WORD handle, unsigned int id);
    void setAtr(WORD handle, unsigned int id, TBytes value);

    const std::vector<CFileInfoEx>& table() const { return files; }

private:
    // The object holding the content of the current file.
    WORD holder() const { return current.dataObject != 0 ? current.dataObject : current.object; }
    // The current file's whole content; a hidden private value reports 0x6900.
    TBytes content(WORD rangeFailure, std::size_t offset, std::size_t length);

    std::vector<CFileInfoEx> files;
    CFileInfoEx current;
};

}  // namespace libapdu
