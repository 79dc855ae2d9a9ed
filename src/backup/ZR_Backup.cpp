#include "backup/ZR_Backup.h"

#include <cstdlib>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "platform/win32.h"

ZR_Backup::ZR_Backup(const wchar_t* wszKey) : m_wszKey(wszKey ? _wcsdup(wszKey) : nullptr) {}

ZR_Backup::~ZR_Backup() {
    if (g_iTraceMode) TraceLine("ZR_Backup::~ZR_Backup\n");
    m_aFiles.Clean();
    free(m_wszKey);
}

void ZR_Backup::AddFile(const wchar_t* wszFileName, const wchar_t* wszPasswordKey, bool bPasswordKeyEncrypted) {
    m_aFiles.Append(new ZR_BackupFile(m_wszKey, m_iDataSet, wszFileName, wszPasswordKey, bPasswordKeyEncrypted));
}

bool ZR_Backup::PrepareContent(int32_t* piVersion) {
    if (g_iTraceMode) TraceLine("ZR_Backup::PrepareContent()\n");
    if (m_iDataSet == 0) m_iDataSet = 1;
    // Probing the files and building or reading the content map are not part
    // of this build yet; refuse plainly rather than let a mount go on
    // without content.
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
             "Reading backup content is not available in this build: no content map for data set %d\n",
             m_iDataSet);
    return false;
}

bool ZR_Backup::PrepareAccess(int32_t iIndex) {
    if (g_iTraceMode) TraceLine("ZR_Backup::PrepareAccess()\n");
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareAccess", __LINE__,
             "Reading extent maps is not available in this build (backup id %d)\n", iIndex);
    return false;
}

bool ZR_Backup::Open() {
    for (int i = 0; i < GetNumFiles(); ++i) {
        ZR_BackupFile* pFile = m_aFiles(i);
        if (!pFile->Open()) {
            ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Open", __LINE__, "Unable to open backup file '%S'.\n",
                     pFile->GetFileName());
            Close();
            return false;
        }
    }
    return true;
}

void ZR_Backup::Close() {
    for (int i = 0; i < GetNumFiles(); ++i) m_aFiles(i)->Close();
}
