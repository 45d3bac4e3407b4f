// The shared base of the file-system drivers and the helpers that compose
// IAppFS calls into whole operations.
#pragma once

#include "libapdu/apdu.h"
#include "libapdu/applet.h"
#include "libapdu/interfaces.h"

namespace libapdu {

class CFSCommon : public IAppFS, public IAPDUDefinitions {
public:
    explicit CFSCommon(IApplet* owner) : applet(owner) {}

    // Chunk loops over read_bit/write_bit, blocks of at most bit_size() bytes.
    void read(TBytes& data, WORD offset) override;
    void write(const TBytes& data, WORD offset) override;

    virtual void read_bit(TBytes& data, WORD offset) = 0;
    virtual void write_bit(const TBytes& data, WORD offset) = 0;
    virtual WORD bit_size() = 0;

    void send(const TBytes& command, TBytes& response);
    WORD extractSW(const TBytes& response);
    void raiseSW(WORD sw);
    void checkSW(const TBytes& response);

    // Refuses the identifiers no card takes as a child name, with 0x6900.
    static void valid_name(WORD id);
    // The identifier of the user PIN, the access condition of private nodes.
    WORD pinUser();
    bool isFips();

protected:
    // ISO READ BINARY and UPDATE BINARY of the selected file of `size` bytes,
    // one command each: read_bit and write_bit of the ISO file systems.
    void readBinary(TBytes& data, WORD offset, WORD size);
    void updateBinary(const TBytes& data, WORD offset, WORD size);

    IApplet* applet;  // the owner, not owned
};

// The common range test of read_bit and write_bit: fails with `code` when the
// range [offset, offset + length) does not lie within a file of `size` bytes.
void FileCheckRange(WORD offset, std::size_t length, WORD size, WORD code);

CFileInfo FileMakeDirInfo(CAdapter adapter);
CFileInfo FileMakeFileInfo(CAdapter adapter, WORD size, bool isPrivate);
// `path` with `id` appended: a node's child.
TPath PathChild(TPath path, WORD id);
// The whole content of the selected file.
TBytes FileRead(CAdapter adapter);
void FileCreateAndWrite(CAdapter adapter, TPath path, CFileInfo info, TBytes data);
// Creates the missing levels of `path`, each with `info`.
void FileCreatePath(CAdapter adapter, const TPath& path, CFileInfo info);
// Deletes `path` and everything below it, depth first.
void FileDeletePath(CAdapter adapter, TPath path);

}  // namespace libapdu
