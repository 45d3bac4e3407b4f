// Handle objects: the application holds the address of a tag base inside an
// object and passes it back; the tag tells the kind.
#pragma once

#include <string>

#include "libapdu/exception.h"
#include "libapdu/token.h"
#include "sh_ptr.h"

typedef sh_ptr<libapdu::IToken> TSharedTokenPtr;

enum EObjects : unsigned int {
    eToken = 1,
    eDir = 2,
    eFile = 3,
    eDirEnum = 4,
    eFilesEnum = 5,
    eReadersEnum = 6,
};

// One tag class per kind. The one field is the kind, written by CObject.
struct __tag_HToken {
    unsigned int kind;
};
struct __tag_HDir {
    unsigned int kind;
};
struct __tag_HFile {
    unsigned int kind;
};
struct __tag_HDirEnum {
    unsigned int kind;
};
struct __tag_HFilesEnum {
    unsigned int kind;
};
struct __tag_HReadersEnum {
    unsigned int kind;
};

// A null pointer argument to a method of a public object.
inline void RequirePointer(const void* p) {
    if (p == nullptr) KR_RAISE(0x80000005L);
}

// The low 16 bits of a failure, where a status word is looked for.
inline bool LowBitsAre(const CAException& e, unsigned short sw) {
    return (e.Code() & 0xFFFF) == sw;
}

template <class THandle, class TObject, EObjects Kind>
class CObject : public THandle {
public:
    CObject() : token(nullptr) { THandle::kind = Kind; }
    // The tag is left as it is, so a closed handle is not detectable.
    virtual ~CObject() = default;

    // The object behind a handle, or 0x80000003 for a null handle or one of
    // another kind.
    static TObject* CheckObjectType(THandle* handle) {
        if (handle == nullptr || handle->kind != Kind) KR_RAISE(0x80000003L);
        return static_cast<TObject*>(static_cast<CObject*>(handle));
    }
    static unsigned int GetType(THandle* handle) { return handle->kind; }

    THandle* Handle() { return this; }

protected:
    TSharedTokenPtr token;
    std::string name;
};
