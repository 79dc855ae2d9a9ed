// Extent maps and page reads of a backup.
#include "backup/ZR_Backup.h"

#include "diag/Trace.h"
#include "diag/ZR_Error.h"

bool ZR_Backup::PrepareAccess(int32_t iIndex) {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::PrepareAccess()\n");
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareAccess", __LINE__,
             "Reading extent maps is not available in this build (backup id %d)\n", iIndex);
    return false;
}

void ZR_Backup::ReleaseAccessMaps() {
    // Extent and backup maps are not taken from the pool yet.
}
