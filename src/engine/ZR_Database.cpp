#include "engine/ZR_Database.h"

#include <cstdlib>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "engine/ZR_ChainCheck.h"
#include "engine/OwnedString.h"
#include "engine/ZR_Writers.h"
#include "maps/ZR_CMaps.h"

uint32_t ZR_Database::NowSeconds() { return static_cast<uint32_t>(_time64(nullptr)); }

namespace {

// Paths compare without regard to case, and with '\' and '/' as one
// separator: the driver and the library may write the same sparse file's
// path with either.
bool SamePath(const wchar_t* a, const wchar_t* b) {
    auto fold = [](wchar_t c) { return c == L'/' ? L'\\' : static_cast<wchar_t>(towlower(static_cast<wint_t>(c))); };
    for (; *a && *b; ++a, ++b)
        if (fold(*a) != fold(*b)) return false;
    return *a == *b;
}

// A file that still counts for the mount: announced with a key and an
// identity, and not deleted by SQL Server.
bool IsLiveDataFile(const ZR_File* pFile) {
    return pFile && !pFile->m_bClosed && pFile->m_iMountFileKey != 0 && IsUniquifierSet(pFile->m_Uniquifier);
}

}  // namespace

ZR_Database::ZR_Database(const wchar_t* wszSparseFilesFolder, GUID guid) {
    InitializeCriticalSection(&m_cs);
    // Lives as long as the object: a read may be on its way into the queue
    // while live I/O stops.
    InitializeCriticalSection(&m_csLiveIO);
    CreateEvents();
    m_iMountPrepareStartTime = NowSeconds();
    if (!(guid == GUID_NULL))
        m_Guid = guid;
    else
        UuidCreateSequential(&m_Guid);
}

// Hydration ends first, then live I/O, before the strings, the events and
// m_cs go: their threads use them to the end.
ZR_Database::~ZR_Database() {
    if (g_iTraceMode) TraceLine("ZR_Database::~ZR_Database\n");
    CancelHydration(false);
    StopLiveIORead();
    free(m_pwszMountKey);
    free(m_pwszFilterVolume);
    free(m_pwszSourceMachine);
    free(m_pwszSourceInstance);
    free(m_pwszSourceDatabase);
    free(m_pwszHydrationMarker);
    if (g_iTraceMode) TraceLine("ZR_Database::~ZR_Database - strings freed\n");
    CloseEvents();
    DeleteCriticalSection(&m_csLiveIO);
    DeleteCriticalSection(&m_cs);
    if (g_iTraceMode) TraceLine("ZR_Database::~ZR_Database return - member variables will destruct now\n");
    // The backups go first, the data files last.
    m_Backups.Clean();
    m_DataFiles.Clean();
}

void ZR_Database::WaitUnpinned() {
    // A pin lasts one call of an operation thread: a lookup, then a read of a
    // view or the queueing of a live read.
    while (m_iPins > 0) Sleep(1);
}

void ZR_Database::CreateEvents() {
    m_hHydrationDone = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_hHydrationThreadExit = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    m_hWriterThreadExit = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    m_hPercentChange = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    m_hPercentWaiterDone = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_hHydrationDone) {
        m_HandleOpen = ZR_HandleTag(m_hHydrationDone);
        if (g_iTraceMode) TraceLine("ZR_Database::ZR_Database - m_HandleOpen: %08x\n", m_HandleOpen);
    }
}

void ZR_Database::CloseEvents() {
    for (HANDLE h : {m_hHydrationDone, m_hHydrationThreadExit, m_hWriterThreadExit, m_hPercentChange,
                     m_hPercentWaiterDone})
        if (h) CloseHandle(h);
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
    StartLiveIORead();  // reads may come from here on, before any data file is open
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
        if (pFile && pFile->m_pwszPath && SamePath(pFile->m_pwszPath, wszPath)) pFound = pFile;
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

void ZR_Database::DeleteFileW(uint16_t iFileId) {
    if (g_iTraceMode) TraceLine("ZR_Database::DeleteFileW(%u)\n", iFileId);
    m_DataFiles.Lock();
    ZR_File* pDeleted = m_DataFiles.Exists(iFileId) ? m_DataFiles(iFileId) : nullptr;
    bool bAnyLeft = false;
    if (pDeleted) {
        pDeleted->m_bClosed = 1;
        for (int i = 1; i < static_cast<int>(m_DataFiles) && !bAnyLeft; ++i) bAnyLeft = IsLiveDataFile(m_DataFiles(i));
    }
    m_DataFiles.Unlock();
    if (pDeleted && !bAnyLeft) CancelHydration(true);
}

bool ZR_Database::AllDataFilesOpened() { return CountDataFiles() >= ExpectedDataFiles(); }

int ZR_Database::ExpectedDataFiles() {
    ZR_Backup* pBackup = GetDiff() ? GetDiff() : GetFull();
    int iExpected = 0;
    if (pBackup && pBackup->m_pCMaps) {
        AP<SQL_FILE_INFO_V7>& aFiles = pBackup->m_pCMaps->m_ConfigMSCI.m_Files;
        for (int i = 0; i < static_cast<int>(aFiles); ++i)
            if (const SQL_FILE_INFO_V7* pRecord = aFiles(i); pRecord && pRecord->m_file_type == SQL_FILE_DATABASE)
                ++iExpected;
    }
    return iExpected;
}

int ZR_Database::CountDataFiles() {
    int iPresent = 0;
    m_DataFiles.Lock();
    for (int i = 1; i < static_cast<int>(m_DataFiles); ++i)
        if (m_DataFiles(i)) ++iPresent;
    m_DataFiles.Unlock();
    return iPresent;
}

// m_cs first, as AssociateDataFile takes it around the table's lock.
ZR_DataFileState ZR_Database::DataFileState(int iSlot) {
    ZR_DataFileState state;
    EnterCriticalSection(&m_cs);
    m_DataFiles.Lock();
    if (const ZR_File* pFile = iSlot >= 0 && m_DataFiles.Exists(iSlot) ? m_DataFiles(iSlot) : nullptr) {
        state.bExists = true;
        state.bClosed = pFile->m_bClosed != 0;
        state.uniquifier = pFile->m_Uniquifier;
        state.bOpen = !state.bClosed && IsUniquifierSet(state.uniquifier);
    }
    m_DataFiles.Unlock();
    LeaveCriticalSection(&m_cs);
    return state;
}

ZR_Backup* ZR_Database::FindBackupFile(HANDLE hFile, int* piFile) {
    *piFile = -1;
    ZR_Backup* pFound = nullptr;
    m_Backups.Lock();
    if (m_iFirstBackupReadTime == 0) m_iFirstBackupReadTime = NowSeconds();
    ++m_iVirtualizedBackupAccesses;
    for (int i = 0; i < GetNumBackups() && !pFound; ++i) {
        ZR_Backup* pBackup = GetBackup(i);
        const int iFile = pBackup ? pBackup->FindVirtualFile(hFile) : -1;
        if (iFile >= 0) {
            pFound = pBackup;
            *piFile = iFile;
        }
    }
    m_Backups.Unlock();
    return pFound;
}

void ZR_Database::RaiseState(int32_t iState) {
    int32_t iOld = m_eState;
    while (iOld < iState && !m_eState.compare_exchange_weak(iOld, iState)) {
    }
}

void ZR_Database::SetMaxTransferSize(int iSize) {
    for (ZR_Backup* pBackup : {GetFull(), GetDiff()})
        for (int i = 0; pBackup && i < pBackup->GetNumFiles(); ++i)
            if (ZR_BackupFile* pFile = pBackup->GetFile(i)) pFile->SetMaxTransferSize(iSize);
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
