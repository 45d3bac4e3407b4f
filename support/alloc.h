// Free-list allocators for small objects. Memory is never given back to the
// system: freed blocks stay on their list until the process ends.
#pragma once

#include <cstddef>

namespace fixed_alloc_private {

// Gets a chunk of blocks of `size` bytes (4096 bytes' worth, or one block when
// larger) and chains them in address order in front of `head`.
void get_mem(void*& head, unsigned long size);

template <unsigned long N>
struct void_alloc {
    static void* head;

    static void* alloc() {
        if (head == nullptr) get_mem(head, N);
        void* block = head;
        head = *static_cast<void**>(block);
        return block;
    }
    static void free(void* p) {
        *static_cast<void**>(p) = head;
        head = p;
    }
};

template <unsigned long N>
void* void_alloc<N>::head = nullptr;

}  // namespace fixed_alloc_private

// One free list per object size; blocks must hold at least a link pointer.
template <class T>
struct fixed_alloc {
    static constexpr unsigned long block_size =
        sizeof(T) < sizeof(void*) ? sizeof(void*) : sizeof(T);
    static void* alloc() { return fixed_alloc_private::void_alloc<block_size>::alloc(); }
    static void free(void* p) { fixed_alloc_private::void_alloc<block_size>::free(p); }
};

// Sixteen free lists of 8-byte units; sizes of 121 bytes and more go to the heap.
// The caller gives the same size to free() as to alloc().
struct sized_alloc {
    static constexpr unsigned long lists = 16;
    static void* heads[lists];

    static unsigned long units(unsigned long size) { return (size + 7) / 8; }
    static void* alloc(unsigned long size);
    static void free(void* p, unsigned long size);
};
