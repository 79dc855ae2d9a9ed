#include "backupio/ZR_ReadAhead.h"

#include "platform/win32.h"

static_assert(offsetof(ZR_ReadAhead, aData) == ZR_ReadAhead::ms_iDataOffset,
              "the data area must start a page into the allocation");
static_assert(sizeof(ZR_ReadAhead) <= ZR_ReadAhead::ms_iAllocSize);

ZR_ReadAhead* ZR_ReadAhead::Alloc() {
    // VirtualAlloc gives zeroed, page-aligned memory: the window is empty and
    // the data area fit for unbuffered reads without further set-up.
    return static_cast<ZR_ReadAhead*>(VirtualAlloc(nullptr, ms_iAllocSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
}

void ZR_ReadAhead::Free(ZR_ReadAhead* pAhead) {
    if (pAhead) VirtualFree(pAhead, 0, MEM_RELEASE);
}
