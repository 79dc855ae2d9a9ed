#include "engine/ZR_Database.h"

#include <cstdlib>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "engine/ZR_ChainCheck.h"
#include "engine/OwnedString.h"

namespace {

uint32_t NowSeconds() { return static_cast<uint32_t>(_time64(nullptr)); }

}  // namespace

ZR_Database::ZR_Database(const wchar_t* wszSparseFilesFolder, GUID guid) {
    InitializeCriticalSection(&m_cs);
    m_iMountPrepareStartTime = NowSeconds();
    if (!(guid == GUID_NULL))
        m_Guid = guid;
    else
        UuidCreateSequential(&m_Guid);
}

ZR_Database::~ZR_Database() {
    if (g_iTraceMode) TraceLine("ZR_Database::~ZR_Database\n");
    free(m_pwszMountKey);
    free(m_pwszFilterVolume);
    free(m_pwszSourceMachine);
    free(m_pwszSourceInstance);
    free(m_pwszSourceDatabase);
    if (g_iTraceMode) TraceLine("ZR_Database::~ZR_Database - strings freed\n");
    DeleteCriticalSection(&m_cs);
    if (g_iTraceMode) TraceLine("ZR_Database::~ZR_Database return - member variables will destruct now\n");
    // The backups go first, the data files last.
    m_Backups.Clean();
    m_DataFiles.Clean();
}

bool ZR_Database::PrepareContent() {
    if (g_iTraceMode) TraceLine("ZR_Database::PrepareContent()\n");
    SetState(ZR_VDB_STATE_PREPARING_CONTENT);
    for (int i = 0; i < GetNumBackups(); ++i) {
        ZR_Backup* pBackup = GetBackup(i);
        if (!pBackup) continue;  // no differential between the full backup and the logs
        if (!pBackup->PrepareContent(&m_iSQLVersion)) {
            ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::PrepareContent", __LINE__,
                     "Failed to prepare backup content for backup id: %d SQL version: %d\n", i, m_iSQLVersion);
            return false;
        }
        if (!HasKindOfSlot(pBackup, i))
            return false;
        if (i + 1 == GetNumBackups() && !ZR_CheckChain(*this)) return false;  // once every backup is prepared
    }
    return true;
}

// Slot 0 holds the full backup, slot 1 the differential, the rest logs: a
// chain given in another order is refused before anything is read of it.
bool ZR_Database::HasKindOfSlot(ZR_Backup* pBackup, int iSlot) {
    const char* szMissing = nullptr;
    if (iSlot == 0 && !pBackup->IsFullBackup())
        szMissing = "Missing Full backup based on backup id.\n";
    else if (iSlot == 1 && !pBackup->IsDiffBackup())
        szMissing = "Missing Differential backup based on backup id.\n";
    else if (iSlot >= 2 && !pBackup->IsLogBackup())
        szMissing = "Missing Log backup based on backup id.\n";
    if (!szMissing)
        return true;
    ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::PrepareContent", __LINE__, "%s", szMissing);
    return false;
}

bool ZR_Database::PrepareAccess(ZR_StopInfo stop) {
    if (g_iTraceMode) TraceLine("ZR_Database::PrepareAccess()\n");
    SetState(ZR_VDB_STATE_PREPARING_ACCESS);
    if (!OpenBackups()) {
        ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::PrepareAccess", __LINE__, "Failed to open backup files\n");
        return false;
    }
    for (int i = 0; i < GetNumBackups(); ++i) {
        ZR_Backup* pBackup = GetBackup(i);
        if (pBackup && !pBackup->PrepareAccess(i)) {
            CloseBackups();
            ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::PrepareAccess", __LINE__,
                     "Failed to prepare access for backup id: %d\n", i);
            return false;
        }
    }
    if (g_iTraceMode) TraceLine("ZR_Database::PrepareAccess - CloseBackups and return\n");
    CloseBackups();
    if (g_iTraceMode) TraceLine("ZR_Database::PrepareAccess returning\n");
    return true;
}

bool ZR_Database::OpenBackups() {
    if (g_iTraceMode) TraceLine("ZR_Database::OpenBackups()\n");
    for (int i = 0; i < GetNumBackups(); ++i) {
        ZR_Backup* pBackup = GetBackup(i);
        if (pBackup && !pBackup->Open()) {
            CloseBackups();
            return false;
        }
    }
    return true;
}

void ZR_Database::CloseBackups() {
    if (g_iTraceMode) TraceLine("ZR_Database::CloseBackups()\n");
    for (int i = 0; i < GetNumBackups(); ++i)
        if (ZR_Backup* pBackup = GetBackup(i)) pBackup->Close();
}

ZR_Backup* ZR_Database::NewInSlot(int iSlot) {
    m_Backups.Lock();
    ZR_Backup* pBackup = nullptr;
    if (!GetBackup(iSlot)) pBackup = m_Backups.Set(iSlot, new ZR_Backup(m_pwszMountKey));
    m_Backups.Unlock();
    return pBackup;
}

ZR_Backup* ZR_Database::NewFull() { return NewInSlot(0); }

ZR_Backup* ZR_Database::NewDiff() { return NewInSlot(1); }

ZR_Backup* ZR_Database::NewLog() {
    m_Backups.Lock();
    m_Backups.Set(1);  // slots 0 and 1 exist before the first log
    ZR_Backup* pBackup = m_Backups.Append(new ZR_Backup(m_pwszMountKey));
    m_Backups.Unlock();
    return pBackup;
}

void ZR_Database::GetBackupName(int iId, wchar_t* wszOut, size_t cchOut) {
    if (!wszOut || cchOut == 0) return;
    if (iId == -1)
        swprintf(wszOut, cchOut, L"Data");
    else if (iId == 0)
        swprintf(wszOut, cchOut, L"Full");
    else if (iId == 1)
        swprintf(wszOut, cchOut, L"Diff");
    else
        swprintf(wszOut, cchOut, L"Log[%d]", iId - 2);
}

void ZR_Database::AssociateDataFile(uint16_t iFileId, uint32_t iMountFileKey,
                                    const FileObjectUniquifier& uniquifier, const wchar_t* wszPath) {
    EnterCriticalSection(&m_cs);
    if (g_iTraceMode) TraceLine("ZR_Database::AssociateDataFile(%d, %d)\n", iMountFileKey, iFileId);
    if (ZR_File* pFile = m_DataFiles.Exists(iFileId) ? m_DataFiles(iFileId) : nullptr)
        pFile->SetFileHandle(iMountFileKey, uniquifier);
    else
        m_DataFiles.Set(iFileId, new ZR_File(1, iFileId, m_iSQLVersion, wszPath, iMountFileKey, uniquifier));
    LeaveCriticalSection(&m_cs);
}

ZR_File* ZR_Database::FindDataFile(const wchar_t* wszPath) {
    if (!wszPath) return nullptr;
    ZR_File* pFound = nullptr;
    m_DataFiles.Lock();
    for (int i = 1; i < static_cast<int>(m_DataFiles); ++i) {
        ZR_File* pFile = m_DataFiles(i);
        if (pFile && pFile->m_pwszPath && _wcsicmp(pFile->m_pwszPath, wszPath) == 0) pFound = pFile;
    }
    m_DataFiles.Unlock();
    return pFound;
}

ZR_File* ZR_Database::FindDataFile(uint32_t iMountFileKey, uint16_t iFileId) {
    m_DataFiles.Lock();
    ZR_File* pFile = m_DataFiles.Exists(iFileId) ? m_DataFiles(iFileId) : nullptr;
    m_DataFiles.Unlock();
    return pFile && pFile->m_iMountFileKey == iMountFileKey ? pFile : nullptr;
}

void ZR_Database::RemoveDataFile(uint16_t iFileId) {
    if (g_iTraceMode) TraceLine("ZR_Database::RemoveDataFile(%u)\n", iFileId);
    m_DataFiles.Lock();
    if (m_DataFiles.Exists(iFileId) && m_DataFiles(iFileId)) m_DataFiles.Clear(iFileId);
    m_DataFiles.Unlock();
}

void ZR_Database::SetState(int32_t iState) {
    if (iState == ZR_VDB_STATE_ONLINE_HYDRATING && m_bHydrationPaused)
        m_eState = ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED;
    else
        m_eState = iState;
}

void ZR_Database::SetMountKey(const wchar_t* wsz) { ReplaceOwnedString(&m_pwszMountKey, wsz); }
void ZR_Database::SetFilterVolume(const wchar_t* wsz) { ReplaceOwnedString(&m_pwszFilterVolume, wsz); }
void ZR_Database::SetSourceMachine(const wchar_t* wsz) { ReplaceOwnedString(&m_pwszSourceMachine, wsz); }
void ZR_Database::SetSourceInstance(const wchar_t* wsz) { ReplaceOwnedString(&m_pwszSourceInstance, wsz); }
void ZR_Database::SetSourceDatabase(const wchar_t* wsz) { ReplaceOwnedString(&m_pwszSourceDatabase, wsz); }

void ZR_Database::StampMountTime() { m_iMountPrepareDoneTime = NowSeconds(); }
