#include "foundation/Alloc.h"

#include <climits>
#include <cstdlib>

#include "platform/win32.h"

volatile long g_iTotalAllocs = 0;
volatile long g_iTotalFrees = 0;
volatile long g_iTotalReallocs = 0;
volatile long g_iTotalMovedReallocs = 0;
volatile long g_iTotalStayedReallocs = 0;

void* Malloc(unsigned cb) {
    void* p = std::malloc(cb);
    if (!p) throw BadAlloc(cb);
    InterlockedIncrement(&g_iTotalAllocs);
    return p;
}

void* Calloc(int iCount, unsigned cbEach, unsigned* pcbAlloc) {
    unsigned long long cbTotal = static_cast<unsigned long long>(iCount < 0 ? 0 : iCount) * cbEach;
    // The size reported in the exception is the 32-bit product, as callers
    // asked for it; a product beyond 32 bits is refused outright.
    unsigned cbAsked = static_cast<unsigned>(iCount) * cbEach;
    if (iCount < 0 || cbTotal > UINT_MAX) throw BadAlloc(cbAsked);
    void* p = std::calloc(static_cast<size_t>(iCount), cbEach);
    if (!p) throw BadAlloc(cbAsked);
    InterlockedIncrement(&g_iTotalAllocs);
    if (pcbAlloc) *pcbAlloc = static_cast<unsigned>(cbTotal);
    return p;
}

void* Realloc(void* p, unsigned cb, unsigned* pcbAlloc) {
    if (pcbAlloc && cb <= *pcbAlloc) return p;
    if (!pcbAlloc && cb == 0) {
        // realloc(p, 0) frees; say so explicitly rather than rely on the C
        // library's choice for a zero size.
        std::free(p);
        return nullptr;
    }
    unsigned long long cbNew = cb;
    if (pcbAlloc) cbNew += cb / 4;
    if (cbNew > UINT_MAX) cbNew = cb;
    void* pNew = std::realloc(p, static_cast<size_t>(cbNew));
    if (!pNew) {
        if (cb != 0) throw BadAlloc(cb);
        return nullptr;
    }
    if (pcbAlloc) *pcbAlloc = static_cast<unsigned>(cbNew);
    return pNew;
}

void Free(void** pp, unsigned* pcbAlloc) {
    if (!pp || !*pp) return;
    std::free(*pp);
    *pp = nullptr;
    if (pcbAlloc) *pcbAlloc = 0;
    InterlockedIncrement(&g_iTotalFrees);
}
