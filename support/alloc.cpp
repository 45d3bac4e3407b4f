#include "alloc.h"

#include <new>

namespace fixed_alloc_private {

void get_mem(void*& head, unsigned long size) {
    // A size of 0 divides by zero here, as the callers' contract allows; the
    // sized allocator never asks for it because unit 0 has no use.
    const unsigned long count = size < 4096 ? 4096 / size : 1;
    char* chunk = static_cast<char*>(::operator new(count* size));
    for (unsigned long i = 0; i + 1 < count; ++i)
        *reinterpret_cast<void**>(chunk + i * size) = chunk + (i + 1) * size;
    *reinterpret_cast<void**>(chunk + (count - 1) * size) = head;
    head = chunk;
}

}  // namespace fixed_alloc_private

void* sized_alloc::heads[sized_alloc::lists] = {};

void* sized_alloc::alloc(unsigned long size) {
    const unsigned long u = units(size);
    if (u >= lists) return ::operator new(size);
    void*& head = heads[u];
    if (head == nullptr) fixed_alloc_private::get_mem(head, u * 8);
    void* block = head;
    head = *static_cast<void**>(block);
    return block;
}

void sized_alloc::free(void* p, unsigned long size) {
    const unsigned long u = units(size);
    if (u >= lists) {
        ::operator delete(p);
        return;
    }
    *static_cast<void**>(p) = heads[u];
    heads[u] = p;
}
