// The exported entries of the library's life and of a mount.
#include <cstdlib>
#include <cwchar>

#include "diag/Trace.h"
#include "driver/ZR_DriverCommands.h"
#include "mount/ZR.h"
#include "zirlane/zirlane.h"

ZR_API bool InitializeZR(int iUnused) {
    ZR::Initialize();
    return true;
}

ZR_API void UninitializeForExit(void) { ZR::UninitializeForExit(); }

ZR_API bool WrapMount(ZR_MountInfo* pInfo, wchar_t* wszKeyOut, unsigned int cchKeyOut) {
    if (!wszKeyOut || cchKeyOut == 0) {
        if (g_iTraceMode) TraceLine("ZR::WrapMount key buffer is null\n");
        return false;
    }
    if (!pInfo) {
        if (g_iTraceMode) TraceLine("ZR::WrapMount mount info is null\n");
        return false;
    }
    wszKeyOut[0] = 0;
    if (!OpenControlCommunicationPort()) {
        if (g_iTraceMode) TraceLine("ZR::WrapMount OpenControlCommunicationPort failed\n");
        return false;
    }
    ZR* pZR = ZR::GetZR();
    if (!pZR) {
        if (g_iTraceMode) TraceLine("ZR::WrapMount library is not initialized\n");
        return false;
    }
    wchar_t* wszKey = nullptr;
    const bool bMounted = pZR->Mount(pInfo, &wszKey);
    // Also after a failure: the caller asks for the errors by this key. A
    // buffer shorter than the key gets no terminator.
    if (wszKey) wcsncpy(wszKeyOut, wszKey, cchKeyOut);
    if (bMounted) {
        // The driver learns which paths SQL Server will open and what to show
        // there, before any statement of the mount runs.
        pZR->SendFilterFileNamesForFull(pInfo->GetTargetDatabase(), wszKey, pInfo->GetWith(0),
                                        pInfo->GetRestart());
        pZR->SendFilterFileNamesForDiff(pInfo->GetTargetDatabase(), wszKey, pInfo->GetWith(1));
    }
    free(wszKey);
    return bMounted;
}
