// Counted allocation. Every wrapper throws BadAlloc where the C library would
// return null, so callers never test for null. Blocks come from the C heap:
// anything allocated here may be released with free() and vice versa, which
// is what lets arrays own _wcsdup copies.
//
// The counters are process-wide and changed by interlocked increments; they
// are statistics only, nothing depends on their values.
#pragma once

#include "foundation/BadAlloc.h"

extern volatile long g_iTotalAllocs;          // successful Malloc and Calloc calls
extern volatile long g_iTotalFrees;           // Free calls that freed something
extern volatile long g_iTotalReallocs;        // kept for the exports; stays 0
extern volatile long g_iTotalMovedReallocs;   // kept for the exports; stays 0
extern volatile long g_iTotalStayedReallocs;  // kept for the exports; stays 0

void* Malloc(unsigned cb);

// A zeroed block of iCount * cbEach bytes; its size goes to *pcbAlloc when
// pcbAlloc is given. A negative count or a product that does not fit 32 bits
// fails like an exhausted heap.
void* Calloc(int iCount, unsigned cbEach, unsigned* pcbAlloc = nullptr);

// Makes p hold at least cb bytes. With a capacity pointer nothing shrinks: a
// block that is big enough comes back as it is, and a block that must grow
// grows to cb + cb / 4 so that arrays growing one element at a time move
// only logarithmically often. Without one the block becomes exactly cb bytes
// and cb == 0 frees it, returning null.
void* Realloc(void* p, unsigned cb, unsigned* pcbAlloc = nullptr);

// Frees *pp when it is not null, then clears *pp and *pcbAlloc.
void Free(void** pp, unsigned* pcbAlloc = nullptr);

template <class T>
inline void Free(T** pp, unsigned* pcbAlloc = nullptr) {
    void* p = const_cast<void*>(static_cast<const void*>(*pp));
    Free(&p, pcbAlloc);
    *pp = nullptr;
}
