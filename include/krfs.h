/*
 * krFS: a smart card or USB security token as a small file system, over PC/SC.
 *
 * Every function of the KR and QN families returns a result code (krfs_codes.h):
 * 0 for success, never an exception. Handles are opaque; an output handle is
 * written only on success. Callers compare results with zero: the end of the
 * reader enumeration, 0x00000103, is positive.
 *
 * One session is used by one thread at a time. Token calls (login, PIN, label,
 * identifier, model, applet selection) must be made between KRTokenLock and
 * KRTokenUnLock; the library aborts the process otherwise.
 */
#ifndef KRFS_H
#define KRFS_H

#include "krfs_codes.h"

#ifndef KRFS_WINDOWS_TYPES
#define KRFS_WINDOWS_TYPES
typedef unsigned long DWORD;
typedef unsigned short WORD;
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque handles. */
struct __tag_HToken;
struct __tag_HDir;
struct __tag_HFile;
struct __tag_HDirEnum;
struct __tag_HFilesEnum;
struct __tag_HReadersEnum;

/* One reader of an enumeration. `name` is zero-terminated when shorter than
 * 260 chars. `tokenPresent` is 1 when a usable token is in the reader. */
typedef struct __tag_ReaderInf {
    char name[260];
    WORD tokenPresent;
} __tag_ReaderInf;

/* A directory: its identifier and the size the driver reports for it. */
typedef struct __tag_DirInfo {
    WORD id;
    WORD size;
} __tag_DirInfo;

/* A file: identifier, 1 when reading needs a PIN, size in bytes. */
typedef struct __tag_FileInfo {
    WORD id;
    WORD isPrivate;
    WORD size;
} __tag_FileInfo;

/* The directory record of the QN family: id, a word that is always 0, size. */
typedef struct QNDirInfo {
    WORD id;
    WORD reserved;
    WORD size;
} QNDirInfo;

/* ---- Readers ------------------------------------------------------------ */

/* Takes a snapshot of the PC/SC readers. The pseudo-reader
 * "\\?PnP?\Notification" is always the last entry. PC/SC failures come back
 * as 0x86E0 with the low 16 bits of the PC/SC code (0x86E0002E: no readers,
 * 0x86E0001D: no PC/SC service). A null `out`: 0x80000003. */
long KRReadersEnumOpen(struct __tag_HReadersEnum** out);
/* Gives the next reader; past the last one 0x00000103. */
long KRReadersEnumNext(struct __tag_HReadersEnum* h, __tag_ReaderInf* info);
long KRReadersEnumClose(struct __tag_HReadersEnum* h);

/* ---- Token session ------------------------------------------------------ */

/* Connects to the token in `reader` and selects the first applet that accepts
 * it. 0x80100017: no such reader; 0x8010000C: no usable token. */
long KRTokenBind(struct __tag_HToken** out, const char* reader);
/* Reconnects; open directory and file handles follow the new connection. */
long KRTokenRebind(struct __tag_HToken* h);
/* Disconnects and frees the handle. Close other handles of the token first. */
long KRTokenUnbind(struct __tag_HToken* h);
/* Begins and ends a PC/SC transaction: the one way to share a token. */
long KRTokenLock(struct __tag_HToken* h);
long KRTokenUnLock(struct __tag_HToken* h);
/* Selects an applet by number (0x1001 R2, 0x1002 Pro, 0x2001 Java, ...). */
long KRSelectApplet(struct __tag_HToken* h, WORD applet);
/* Presents the user PIN. A wrong PIN: 0x86E06300. */
long KRTokenLogin(struct __tag_HToken* h, const char* pin);
long KRTokenLogout(struct __tag_HToken* h);
/* Changes the user PIN; needs a login first (else 0x86E06982). */
long KRTokenPinChange(struct __tag_HToken* h, const char* pin);
long KRTokenPinAttemptsGet(struct __tag_HToken* h, DWORD* attempts);
/* Text getters: `size` in, the buffer's size; out, the length used. */
long KRTokenLabelGet(struct __tag_HToken* h, char* buffer, DWORD* size);
long KRTokenIDGet(struct __tag_HToken* h, char* buffer, DWORD* size);
long KRTokenModelGet(struct __tag_HToken* h, char* buffer, DWORD* size);
long KRTokenMaxPinGet(struct __tag_HToken* h, DWORD* length);
long KRTokenMinPinGet(struct __tag_HToken* h, DWORD* length);

/* ---- Directories -------------------------------------------------------- */

/* Opens the home directory of a vendor, creating it on first use. */
long KRRootDirOpen(struct __tag_HDir** out, struct __tag_HToken* h, WORD vendor);
/* Creates or opens a sub-directory; only the low 16 bits of `id` count. */
long KRDirCreate(struct __tag_HDir** out, DWORD id, struct __tag_HDir* parent);
long KRDirOpen(struct __tag_HDir** out, DWORD id, struct __tag_HDir* parent);
long KRDirGetInfo(struct __tag_HDir* h, __tag_DirInfo* info);
/* Deletes the directory on the token; the handle stays open. */
long KRDirDelete(struct __tag_HDir* h);
long KRDirClose(struct __tag_HDir* h);
/* Enumerates sub-directories; past the last one 0x80070103. */
long KRDirEnumOpen(struct __tag_HDirEnum** out, struct __tag_HDir* dir);
long KRDirEnumNext(struct __tag_HDirEnum* h, __tag_DirInfo* info);
long KRDirEnumClose(struct __tag_HDirEnum* h);
/* Enumerates files; past the last one 0x80070103. */
long KRFilesEnumOpen(struct __tag_HFilesEnum** out, struct __tag_HDir* dir);
long KRFilesEnumNext(struct __tag_HFilesEnum* h, __tag_FileInfo* info);
long KRFilesEnumClose(struct __tag_HFilesEnum* h);

/* ---- Files -------------------------------------------------------------- */

long KRFileOpen(struct __tag_HFile** out, struct __tag_HDir* dir, WORD id);
/* Creates a file of `size` bytes; `isPrivate` non-zero guards it by the PIN. */
long KRFileCreate(struct __tag_HFile** out, struct __tag_HDir* dir, WORD id, WORD size,
                  short isPrivate);
/* Reads `length` bytes at `offset`; a range outside the file or a small
 * buffer: 0x80000003. */
long KRFileRead(struct __tag_HFile* h, WORD offset, WORD length, unsigned char* buffer,
                DWORD bufferSize);
long KRFileWrite(struct __tag_HFile* h, WORD offset, const unsigned char* data, WORD length);
/* Deletes the file on the token; the handle stays open. */
long KRFileDelete(struct __tag_HFile* h);
long KRFileGetInfo(struct __tag_HFile* h, __tag_FileInfo* info);
long KRFileClose(struct __tag_HFile* h);

/* ---- APDU log ----------------------------------------------------------- */

/* Appends every APDU to the file at `path` ("C-APDU: 00 A4 ..."). PINs are
 * logged as sent: the log is for development. */
void KREnableLogging(const char* path);
void KRDisableLogging(void);

/* ---- The older family: the same codes and behaviour ---------------------- */

long QNReadersEnumOpen(struct __tag_HReadersEnum** out);
long QNReadersEnumNext(struct __tag_HReadersEnum* h, __tag_ReaderInf* info);
long QNReadersEnumClose(struct __tag_HReadersEnum* h);
long QNTokenBind(struct __tag_HToken** out, const char* reader);
long QNTokenRebind(struct __tag_HToken* h);
long QNTokenUnbind(struct __tag_HToken* h);
long QNTokenLock(struct __tag_HToken* h);
long QNTokenUnLock(struct __tag_HToken* h);
long QNSelectApplet(struct __tag_HToken* h, WORD applet);
long QNTokenLogin(struct __tag_HToken* h, const char* pin);
long QNTokenLogout(struct __tag_HToken* h);
long QNTokenPinChange(struct __tag_HToken* h, const char* pin);
long QNTokenLabelGet(struct __tag_HToken* h, char* buffer, DWORD* size);
long QNTokenIDGet(struct __tag_HToken* h, char* buffer, DWORD* size);
long QNTokenMaxPinGet(struct __tag_HToken* h, DWORD* length);
long QNTokenMinPinGet(struct __tag_HToken* h, DWORD* length);

long QNRootDirOpen(struct __tag_HDir** out, struct __tag_HToken* h, WORD vendor);
/* The fourth argument is read and discarded. */
long QNDirCreate(struct __tag_HDir** out, DWORD id, struct __tag_HDir* parent, WORD unused);
long QNDirOpen(struct __tag_HDir** out, DWORD id, struct __tag_HDir* parent);
/* Writes the record whatever the result: zeros on failure and at the end. */
long QNDirGetInfo(struct __tag_HDir* h, QNDirInfo* info);
long QNDirDelete(struct __tag_HDir* h);
long QNDirClose(struct __tag_HDir* h);
long QNDirEnumOpen(struct __tag_HDirEnum** out, struct __tag_HDir* dir);
long QNDirEnumNext(struct __tag_HDirEnum* h, QNDirInfo* info);
long QNDirEnumClose(struct __tag_HDirEnum* h);
long QNFilesEnumOpen(struct __tag_HFilesEnum** out, struct __tag_HDir* dir);
long QNFilesEnumNext(struct __tag_HFilesEnum* h, __tag_FileInfo* info);
long QNFilesEnumClose(struct __tag_HFilesEnum* h);
long QNFileOpen(struct __tag_HFile** out, struct __tag_HDir* dir, WORD id);
long QNFileCreate(struct __tag_HFile** out, struct __tag_HDir* dir, WORD id, WORD size,
                  short isPrivate);
long QNFileRead(struct __tag_HFile* h, WORD offset, WORD length, unsigned char* buffer,
                DWORD bufferSize);
long QNFileWrite(struct __tag_HFile* h, WORD offset, const unsigned char* data, WORD length);
long QNFileDelete(struct __tag_HFile* h);
long QNFileGetInfo(struct __tag_HFile* h, __tag_FileInfo* info);
long QNFileClose(struct __tag_HFile* h);

#ifdef __cplusplus
}
#endif

#endif /* KRFS_H */
