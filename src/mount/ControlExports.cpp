// The exported status and control functions of a mount, by its key. Each
// tests its key, finds the library object and forwards; a null key is
// traced and answers false, 0 or nothing, as an unknown key does silently.
#include "diag/Trace.h"
#include "mount/ZR.h"
#include "zirlane/zirlane.h"

namespace {

// The library object when the key is there; null, with the trace, when not.
ZR* Forward(const wchar_t* wszKey, const char* szNullKeyTrace) {
    if (!wszKey) {
        if (g_iTraceMode) TraceLine("%s", szNullKeyTrace);
        return nullptr;
    }
    return ZR::GetZR();
}

}  // namespace

ZR_API bool IsHydrating(const wchar_t* wszKey) {
    ZR* pZR = Forward(wszKey, "IsHydrating called with null mount key\n");
    return pZR && pZR->IsHydrating(wszKey);
}

ZR_API bool IsHydrationPaused(const wchar_t* wszKey) {
    ZR* pZR = Forward(wszKey, "IsHydrationPaused called with null mount key\n");
    return pZR && pZR->IsHydrationPaused(wszKey);
}

ZR_API bool IsRecoveryStage(const wchar_t* wszKey) {
    ZR* pZR = Forward(wszKey, "IsRecoveryStage called with null mount key\n");
    return pZR && pZR->IsRecoveryStage(wszKey);
}

ZR_API bool IsDataCopyStage(const wchar_t* wszKey) {
    if (g_iTraceMode) TraceLine("IsDataCopyStage\n");
    ZR* pZR = Forward(wszKey, "IsDataCopyStage called with null mount key\n");
    const bool bStage = pZR && pZR->IsDataCopyStage(wszKey);
    if (g_iTraceMode) TraceLine("IsDataCopyStage return\n");
    return bStage;
}

ZR_API bool AllDataFilesOpened(const wchar_t* wszKey) {
    ZR* pZR = Forward(wszKey, "AllDataFilesOpened called with a NULL mount key\n");
    return pZR && pZR->AllDataFilesOpened(wszKey);
}

ZR_API bool DatabaseHydrationDone(const wchar_t* wszKey, bool* pbDeleted) {
    if (pbDeleted) *pbDeleted = false;
    ZR* pZR = Forward(wszKey, "DatabaseHydrationDone called with a NULL mount key\n");
    return pZR && pZR->DatabaseHydrationDone(wszKey, pbDeleted);
}

ZR_API void GetPercentComplete(const wchar_t* wszKey, long long* piDone, long long* piTotal) {
    int64_t iDone = 0, iTotal = 0;
    if (ZR* pZR = Forward(wszKey, "GetPercentComplete called with null mount key\n"))
        pZR->GetPercentComplete(wszKey, &iDone, &iTotal);
    if (piDone) *piDone = iDone;
    if (piTotal) *piTotal = iTotal;
}

ZR_API int WaitOnPercentChange(const wchar_t* wszKey) {
    ZR* pZR = Forward(wszKey, "WaitOnPercentChange called with NULL mount key\n");
    return pZR ? pZR->WaitOnPercentChange(wszKey) : 0;
}

ZR_API int GetNumberOfActiveMounts(void) { return ZR::GetNumberOfActiveMounts(); }

ZR_API void StartDataHydration(const wchar_t* wszKey, const wchar_t* wszMarkerPath, long long iOrderKey) {
    if (ZR* pZR = Forward(wszKey, "StartDataHydration called with a NULL mount key\n"))
        pZR->StartDataHydration(wszKey, wszMarkerPath, iOrderKey);
}

ZR_API bool PauseHydration(const wchar_t* wszKey) {
    ZR* pZR = Forward(wszKey, "PauseHydration called with NULL mount key\n");
    return pZR && pZR->PauseHydration(wszKey);
}

ZR_API bool ResumeHydration(const wchar_t* wszKey) {
    ZR* pZR = Forward(wszKey, "ResumeHydration called with NULL mount key\n");
    return pZR && pZR->ResumeHydration(wszKey);
}

ZR_API bool SetNumHydrationThreads(const wchar_t* wszKey, int iThreads) {
    ZR* pZR = wszKey ? ZR::GetZR() : nullptr;
    return pZR && pZR->SetNumHydrationThreads(wszKey, iThreads);
}

ZR_API bool SetNumWriterThreads(const wchar_t* wszKey, int iThreads) {
    ZR* pZR = Forward(wszKey, "SetNumWriterThreads called with NULL mount key\n");
    return pZR && pZR->SetNumWriterThreads(wszKey, iThreads);
}

ZR_API void SetMaxTransferSize(const wchar_t* wszKey, int iSize) {
    if (ZR* pZR = Forward(wszKey, "SetMaxTransferSize called with a NULL mount key\n"))
        pZR->SetMaxTransferSize(wszKey, iSize);
}

ZR_API void Remove(const wchar_t* wszKey) {
    if (ZR* pZR = Forward(wszKey, "Remove called with a NULL mount key\n")) pZR->Remove(wszKey);
}
