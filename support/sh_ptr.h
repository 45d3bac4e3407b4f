// A shared pointer whose target can be swapped for all of its copies at once.
// All handles of one token share one Rep, so a rebind reaches every handle.
#pragma once

#include "alloc.h"

template <class T>
class sh_ptr {
public:
    struct Rep {
        T* ptr;
        long count;

        explicit Rep(T* p) : ptr(p), count(1) {}
        ~Rep() { delete ptr; }
        static void* operator new(std::size_t) { return fixed_alloc<Rep>::alloc(); }
        static void operator delete(void* p) { fixed_alloc<Rep>::free(p); }
    };

    explicit sh_ptr(T* p = nullptr) {
        try {
            rep = new Rep(p);
        } catch (...) {
            delete p;
            throw;
        }
    }
    sh_ptr(const sh_ptr& other) : rep(other.rep) { ++rep->count; }
    sh_ptr& operator=(const sh_ptr& other) {
        if (rep != other.rep) {
            ++other.rep->count;
            release();
            rep = other.rep;
        }
        return *this;
    }
    ~sh_ptr() { release(); }

    T* operator->() const { return rep->ptr; }
    T* get() const { return rep->ptr; }

    // Points every copy at `p`. The old target is not deleted: its owner does that.
    void set(T* p) { rep->ptr = p; }

    long use_count() const { return rep->count; }

private:
    void release() {
        if (--rep->count == 0) delete rep;
    }

    Rep* rep;
};
