// The barrier of every exported entry: nothing but a result code leaves it.
#pragma once

#include <memory>
#include <new>

#include "libapdu/exception.h"

namespace krfs {

constexpr long kUnspecified = 0x80004005L;
constexpr long kOutOfMemory = 0x8007000EL;
constexpr long kInvalidArgument = 0x80000003L;

template <class F>
long Guard(F&& body) noexcept {
    try {
        body();
        return 0;
    } catch (const CAException& e) {
        return e.Code();
    } catch (...) {
        return kUnspecified;
    }
}

// Makes an object for an entry that hands out a new handle: the object stays
// in a local owner until `start` has succeeded, then its tag base goes out.
template <class TObject, class THandle, class Start>
long GuardNew(THandle** out, Start&& start) noexcept {
    return Guard([&] {
        if (out == nullptr) KR_RAISE(kInvalidArgument);
        std::unique_ptr<TObject> owner(new (std::nothrow) TObject());
        if (!owner) KR_RAISE(kOutOfMemory);
        start(*owner);
        *out = owner.release();
    });
}

}  // namespace krfs
