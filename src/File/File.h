// A handle on one file of fixed size, held as a path: each operation selects anew.
#pragma once

#include "krfs.h"
#include "src/Object/Object.h"

class CDir;

class CFile : public CObject<__tag_HFile, CFile, eFile> {
public:
    // Opens an existing file; a missing one or a directory is 0x86E06A82.
    static void Open(CDir* dir, WORD id, CFile** out);
    // Creates a file; write access always needs the user PIN, read access
    // only when private.
    static void Create(CDir* dir, WORD id, WORD size, short isPrivate, CFile** out);
    void Read(WORD offset, WORD length, unsigned char* buffer, DWORD bufferSize);
    void Write(WORD offset, const unsigned char* data, WORD length);
    void Delete();
    // Describes whatever the token has selected at the time.
    void GetInfo(__tag_FileInfo* info);

    const TPath& Path() const { return path; }

private:
    TPath path;
};
