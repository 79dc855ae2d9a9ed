// The exported process-wide settings: each stores a value that what starts
// after it reads.
#include <algorithm>

#include "engine/ZR_Database.h"
#include "mount/ZR.h"
#include "zirlane/zirlane.h"

ZR_API void SetNumCPUs(int iNumCPUs) { ZR::g_iNumCPUs = std::max(iNumCPUs, 1); }

ZR_API void SetNumLiveIOThreads(int iThreads) { ZR_Database::ms_iNumLiveIOThreadsRequested = iThreads; }

ZR_API void SetDecompressedCacheSize(unsigned int iSize) { ZR::g_iDecompressedCacheSize = iSize; }

ZR_API void SetMaxActiveHydrations(int iMaxActive) {
    if (ZR* pZR = ZR::GetZR())
        pZR->SetMaxActiveHydrations(iMaxActive);
    else
        ZR::ms_iMaxActiveHydrations = iMaxActive;
}
