// The virtual views of a backup: their handles and their reads.
#include "backup/ZR_Backup.h"

#include "maps/ZR_CMaps.h"

HANDLE ZR_Backup::GetNextHandle(int iFile) {
    if (!m_aVirtualFiles.Exists(iFile))
        return nullptr;
    return m_aVirtualFiles(iFile)->GetNextHandle();
}

int ZR_Backup::FindVirtualFile(HANDLE hFile) {
    int iFound = -1;
    m_aVirtualFiles.Lock();
    for (int i = 0; i < static_cast<int>(m_aVirtualFiles) && iFound < 0; ++i) {
        if (hFile && m_aVirtualFiles(i)->GetHandle() == hFile)
            iFound = i;
    }
    m_aVirtualFiles.Unlock();
    return iFound;
}

int64_t ZR_Backup::GetVirtualSize(int iDevice) {
    if (!m_aVirtualFiles.Exists(iDevice) || !m_pCMaps || iDevice >= m_pCMaps->GetNumFiles())
        return -1;
    int iBlocks = m_pCMaps->GetNumDBLKs(iDevice);
    if (iBlocks <= 0)
        return -1;
    return m_aVirtualFiles(iDevice)->ViewSize(m_pCMaps->GetLocation(iDevice, iBlocks - 1));
}
