// The exported process-wide settings: each stores a value that what starts
// after it reads.
#include <algorithm>

#include "engine/ZR_Database.h"
#include "mount/ZR.h"
#include "zirlane/zirlane.h"

ZR_API void SetNumCPUs(int iNumCPUs) { ZR::g_iNumCPUs = std::max(iNumCPUs, 1); }

ZR_API void SetNumLiveIOThreads(int iThreads) { ZR_Database::ms_iNumLiveIOThreadsRequested = iThreads; }
