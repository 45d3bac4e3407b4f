/* A small application of the library: lists the readers, binds to the first
 * one holding a token and prints its identifier and its vendor directory. */
#include <stdio.h>
#include <string.h>

#include <krfs.h>

static int fail(const char* what, long rc) {
    fprintf(stderr, "%s: 0x%08lX\n", what, (unsigned long)rc);
    return 1;
}

int main(void) {
    struct __tag_HReadersEnum* readers = NULL;
    __tag_ReaderInf info;
    char reader[261] = "";
    long rc = KRReadersEnumOpen(&readers);
    if (rc != 0) return fail("KRReadersEnumOpen", rc);
    while (KRReadersEnumNext(readers, &info) == 0) {
        printf("reader: %.260s%s\n", info.name, info.tokenPresent ? " (token)" : "");
        if (info.tokenPresent && reader[0] == '\0') {
            memcpy(reader, info.name, sizeof(info.name));
            reader[260] = '\0';
        }
    }
    KRReadersEnumClose(readers);
    if (reader[0] == '\0') return fail("no token", KR_NO_SMARTCARD);

    struct __tag_HToken* token = NULL;
    rc = KRTokenBind(&token, reader);
    if (rc != 0) return fail("KRTokenBind", rc);
    KRTokenLock(token);

    char id[128];
    DWORD size = sizeof(id) - 1;
    rc = KRTokenIDGet(token, id, &size);
    if (rc == 0) printf("identifier: %s\n", id);
    else fprintf(stderr, "identifier: 0x%08lX\n", (unsigned long)rc);

    struct __tag_HDir* home = NULL;
    rc = KRRootDirOpen(&home, token, 0);
    if (rc == 0) {
        struct __tag_HFilesEnum* files = NULL;
        if (KRFilesEnumOpen(&files, home) == 0) {
            __tag_FileInfo f;
            while (KRFilesEnumNext(files, &f) == 0)
                printf("file %04X: %u bytes%s\n", f.id, f.size, f.isPrivate ? ", private" : "");
            KRFilesEnumClose(files);
        }
        KRDirClose(home);
    }
    KRTokenUnLock(token);
    KRTokenUnbind(token);
    return rc == 0 ? 0 : fail("KRRootDirOpen", rc);
}
