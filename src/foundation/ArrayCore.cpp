#include "foundation/ArrayCore.h"

#include <cstdarg>

#include "diag/Format.h"
#include "diag/ZR_Error.h"

namespace zr_array {

void CopyOutOfView(void** pp, unsigned* pcbAlloc, unsigned cbUsed, unsigned cbNeeded) {
    unsigned cbCopy = cbNeeded > cbUsed ? cbNeeded : cbUsed;
    void* pCopy = Malloc(cbCopy ? cbCopy : 1);
    if (cbUsed) std::memcpy(pCopy, *pp, cbUsed);
    *pp = pCopy;
    *pcbAlloc = cbCopy;
}

void BoundFailure(const char* szThrown, const char* szFormat, ...) {
    TraceSetup(0xFFFFFFFF, 0x100000, 2);
    va_list args;
    va_start(args, szFormat);
    std::string strReason = ZR_FormatV(szFormat, args);
    va_end(args);
    TraceLine("%s", strReason.c_str());
    throw szThrown;
}

bool CheckReadCount(unsigned iCount, size_t cbElement, const char* szFunction) {
    unsigned long long cb = static_cast<unsigned long long>(iCount) * cbElement;
    if (iCount <= static_cast<unsigned>(INT_MAX) && cb <= UINT_MAX) return true;
    ZR_Error(nullptr, __FILE__, szFunction, __LINE__, "Bad element count %u of %u bytes in map file\n", iCount,
             static_cast<unsigned>(cbElement));
    return false;
}

}  // namespace zr_array
