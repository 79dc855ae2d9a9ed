// The exported entries of the library's life and of a mount.
#include <cstdlib>
#include <cwchar>

#include "diag/Trace.h"
#include "mount/ZR.h"
#include "mount/ZR_ControlPort.h"
#include "zirlane/zirlane.h"

ZR_API bool InitializeZR(int iUnused) {
    ZR::Initialize();
    return true;
}

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
    if (wszKey) {
        // Also after a failure: the caller asks for the errors by this key.
        // A buffer shorter than the key gets no terminator.
        wcsncpy(wszKeyOut, wszKey, cchKeyOut);
        free(wszKey);
    }
    // The data file names of the mount go to the driver here once the
    // naming of virtual data files is part of the library; until then no
    // mount gets this far, since no backup content can be prepared.
    return bMounted;
}
