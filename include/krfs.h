/*
 * krFS: a smart card or USB security token as a small file system, over PC/SC.
 *
 * Every function of the KR and QN families returns a result code (krfs_codes.h):
 * 0 for success, never an exception. Handles are opaque; an output handle is
 * written only on success. Every function refuses a null handle, or one of
 * another kind, with 0x80000003; a null pointer argument is 0x80000005.
 * Failures the token reports come as 0x86E0 with its folded status word. Callers compare results with zero: the end of the
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

/* Takes a snapshot of the PC/SC readers and writes its handle to `out`.
 * The pseudo-reader "\\?PnP?\Notification" is always the last entry.
 * PC/SC failures come back as 0x86E0 with the low 16 bits of the PC/SC code
 * (0x86E0002E: no readers, 0x86E0001D: no PC/SC service). A null `out`:
 * 0x80000003. */
long KRReadersEnumOpen(struct __tag_HReadersEnum** out);
/* Writes the next reader to `info`: its name and whether it holds a usable
 * token (present, powered, not mute, not held exclusively by another
 * process). Past the last one 0x00000103, a positive code. */
long KRReadersEnumNext(struct __tag_HReadersEnum* h, __tag_ReaderInf* info);
/* Frees the snapshot. */
long KRReadersEnumClose(struct __tag_HReadersEnum* h);

/* ---- Token session ------------------------------------------------------ */

/* Connects to the token in the reader named exactly `reader` and selects the
 * first applet that accepts it. 0x80100017: no such reader; 0x8010000C: no
 * usable token; 0x8010xxxx: the connection failed in PC/SC. A token of
 * unknown type still binds. A null `out`: 0x80000003. */
long KRTokenBind(struct __tag_HToken** out, const char* reader);
/* Connects again to the same reader; open directory and file handles follow
 * the new connection. Not while locked. */
long KRTokenRebind(struct __tag_HToken* h);
/* Disconnects and frees the handle. Close the token's other handles first. */
long KRTokenUnbind(struct __tag_HToken* h);
/* Begins (Lock) and ends (UnLock) a PC/SC transaction: the token is this
 * process's until UnLock. Token calls below need it; directory and file calls
 * work either way. */
long KRTokenLock(struct __tag_HToken* h);
long KRTokenUnLock(struct __tag_HToken* h);
/* Selects an applet by number: 0x1001 R2, 0x1002 Pro, 0x2001 Java, 0x2002
 * Java manager, 0x2101 IDProtect, 0x2202 GOST, 0x2203 CryptoPro, 0x2204
 * Joker, 0x2205 DataStore. 0x86E0FACE: unknown number or not on this token. */
long KRSelectApplet(struct __tag_HToken* h, WORD applet);
/* Presents the user PIN (text in the locale's encoding). 0x86E06300: wrong
 * PIN; 0x86E06983: PIN blocked. */
long KRTokenLogin(struct __tag_HToken* h, const char* pin);
/* Ends the login on the token. */
long KRTokenLogout(struct __tag_HToken* h);
/* Sets a new user PIN. Needs a login in this session first, else 0x86E06982
 * with nothing sent to the token. */
long KRTokenPinChange(struct __tag_HToken* h, const char* pin);
/* Wrong PINs the token still takes before it blocks the PIN. */
long KRTokenPinAttemptsGet(struct __tag_HToken* h, DWORD* attempts);
/* The text getters: with a null `buffer` they write the size to give to
 * `*size` (the label and identifier count their terminator, the model does
 * not); with a buffer they copy at most `*size` chars. Give the full size:
 * the identifier and model getters write their terminator at the length.
 * The label is in the locale's encoding (0x80004005 for a character the
 * locale can't show), the identifier in lower-case hex, the model is
 * "Qntoken" on tokens without an applet manager. A null `size`: 0x80000005. */
long KRTokenLabelGet(struct __tag_HToken* h, char* buffer, DWORD* size);
long KRTokenIDGet(struct __tag_HToken* h, char* buffer, DWORD* size);
long KRTokenModelGet(struct __tag_HToken* h, char* buffer, DWORD* size);
/* The longest and shortest PIN the token takes, in bytes. */
long KRTokenMaxPinGet(struct __tag_HToken* h, DWORD* length);
long KRTokenMinPinGet(struct __tag_HToken* h, DWORD* length);

/* ---- Directories -------------------------------------------------------- */

/* Opens the directory of a vendor number, creating any missing level with
 * open access: 0 is the applet's root, 0x0001 is E00E, 0xF001 to 0xF00B are
 * E001 to E00B, the others sub-directories of E015. */
long KRRootDirOpen(struct __tag_HDir** out, struct __tag_HToken* h, WORD vendor);
/* Creates a sub-directory of `parent` with open access, or opens it if it
 * exists. Only the low 16 bits of `id` count. */
long KRDirCreate(struct __tag_HDir** out, DWORD id, struct __tag_HDir* parent);
/* Opens a sub-directory; 0x86E06A82 if missing or a file. */
long KRDirOpen(struct __tag_HDir** out, DWORD id, struct __tag_HDir* parent);
/* The directory's identifier, and the size of the node the token has
 * selected at the time (the last one any handle of this token worked on). */
long KRDirGetInfo(struct __tag_HDir* h, __tag_DirInfo* info);
/* Deletes the directory on the token; the handle stays open. */
long KRDirDelete(struct __tag_HDir* h);
long KRDirClose(struct __tag_HDir* h);
/* Enumerates sub-directories; past the last one 0x80070103. The size in each
 * record is that of the node selected at the time, as in KRDirGetInfo. */
long KRDirEnumOpen(struct __tag_HDirEnum** out, struct __tag_HDir* dir);
long KRDirEnumNext(struct __tag_HDirEnum* h, __tag_DirInfo* info);
long KRDirEnumClose(struct __tag_HDirEnum* h);
/* Enumerates files with their sizes and private flags; past the last one
 * 0x80070103. */
long KRFilesEnumOpen(struct __tag_HFilesEnum** out, struct __tag_HDir* dir);
long KRFilesEnumNext(struct __tag_HFilesEnum* h, __tag_FileInfo* info);
long KRFilesEnumClose(struct __tag_HFilesEnum* h);

/* ---- Files -------------------------------------------------------------- */

/* Opens a file of `dir`; 0x86E06A82 if missing or a directory. */
long KRFileOpen(struct __tag_HFile** out, struct __tag_HDir* dir, WORD id);
/* Creates a file of `size` bytes (files never grow). Writing always needs
 * the user PIN; reading too when `isPrivate` is non-zero. 0x86E06A89: it
 * exists; 0x86E06900: no login. */
long KRFileCreate(struct __tag_HFile** out, struct __tag_HDir* dir, WORD id, WORD size,
                  short isPrivate);
/* Reads `length` bytes at `offset` into `buffer` of `bufferSize` bytes.
 * `length` 0xFFFF reads the whole file. A null buffer only checks the
 * request. 0x80000003: `offset` past the end or the buffer too small;
 * 0x86E06900: a private file without login. */
long KRFileRead(struct __tag_HFile* h, WORD offset, WORD length, unsigned char* buffer,
                DWORD bufferSize);
/* Writes `length` bytes at `offset`. 0x80000003: past the end of the file;
 * 0x80000005: null `data`; 0x86E06900: no login. */
long KRFileWrite(struct __tag_HFile* h, WORD offset, const unsigned char* data, WORD length);
/* Deletes the file on the token; the handle stays open. */
long KRFileDelete(struct __tag_HFile* h);
/* The file's identifier, and the size and private flag of the node the
 * token has selected at the time (after a read of this file: this file). */
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
