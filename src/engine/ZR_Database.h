// One mounted database: the chain of backups it is served from (slot 0 the
// full backup, slot 1 the differential or an empty slot, then the logs), the
// data files the driver announced, its state and its identity.
//
// Owned by g_DBs once a mount succeeded; before that by the mount that makes
// it. Nothing here takes it out of g_DBs. The chain and the file table have
// the locks of their arrays; m_cs is taken after the library lock, never
// before it.
#pragma once

#include <atomic>
#include <cstdint>

#include "backup/ZR_Backup.h"
#include "engine/ZR_File.h"
#include "foundation/AP.h"
#include "mount/ZR_StopInfo.h"
#include "platform/win32.h"

// The state only grows, but for the pair 9 and 10.
enum ZR_VDBState_e : int32_t {
    ZR_VDB_STATE_NEW = 0,
    ZR_VDB_STATE_PREPARING_CONTENT = 1,
    ZR_VDB_STATE_PREPARING_ACCESS = 3,
    ZR_VDB_STATE_PREPARED = 5,
    ZR_VDB_STATE_DATA_COPY = 7,
    ZR_VDB_STATE_RECOVERY = 8,
    ZR_VDB_STATE_ONLINE_HYDRATING = 9,
    ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED = 10,
};

enum ZR_HydrationMode_e : int32_t { ZR_HYDRATE_DATA_FILE = 1, ZR_HYDRATE_DIFF = 2, ZR_HYDRATE_FULL = 3 };

class ZR_Database {
public:
    // The folder is not kept. A non-null GUID is the mount's identity;
    // otherwise a new one is made.
    ZR_Database(const wchar_t* wszSparseFilesFolder, GUID guid);
    ~ZR_Database();
    ZR_Database(const ZR_Database&) = delete;
    ZR_Database& operator=(const ZR_Database&) = delete;

    // The two preparation steps of a mount; false with the reason recorded
    // under the mount key.
    bool PrepareContent();
    bool PrepareAccess(ZR_StopInfo stop);
    bool OpenBackups();
    void CloseBackups();

    // New backups carry the mount key as their error context, so set the key
    // first. NewFull and NewDiff give null when their slot is taken; NewLog
    // leaves an empty slot 1 when there is no differential.
    ZR_Backup* NewFull();
    ZR_Backup* NewDiff();
    ZR_Backup* NewLog();
    ZR_Backup* GetFull() { return GetBackup(0); }
    ZR_Backup* GetDiff() { return GetBackup(1); }
    // Null where the slot does not exist or is empty.
    ZR_Backup* GetBackup(int iIndex) { return m_Backups.Exists(iIndex) ? m_Backups(iIndex) : nullptr; }
    int GetNumBackups() { return static_cast<int>(m_Backups); }
    // "Data" for -1, "Full", "Diff", then "Log[n]"; a static text or a heap
    // copy is not needed: the caller's buffer receives it.
    static void GetBackupName(int iId, wchar_t* wszOut, size_t cchOut);

    // Makes the file of slot iFileId or updates its association.
    void AssociateDataFile(uint16_t iFileId, uint32_t iMountFileKey, const FileObjectUniquifier& uniquifier,
                           const wchar_t* wszPath);
    // Names compared without regard to case; the last match wins.
    ZR_File* FindDataFile(const wchar_t* wszPath);
    ZR_File* FindDataFile(uint32_t iMountFileKey, uint16_t iFileId);
    void RemoveDataFile(uint16_t iFileId);
    // Slots of the table, slot 0 included (it is never used).
    int GetNumDataFileSlots() { return static_cast<int>(m_DataFiles); }
    // SQL Server deleted the file of iFileId: it is marked closed, and when no
    // file with an association is left the database is going away
    // (CancelHydration(true)). Nothing for an empty slot.
    void DeleteFileW(uint16_t iFileId);
    // True once the driver has announced as many files as the content map of
    // the differential (or, without one, of the full backup) has data files.
    bool AllDataFilesOpened();
    // Which backup owns this virtual backup file handle; *piFile receives the
    // index of the file in it, -1 when none does. Notes the first search and
    // counts every one. Any service thread; takes the lock of the chain.
    ZR_Backup* FindBackupFile(HANDLE hFile, int* piFile);

    // Puts a read of a data file on the live I/O queue: iBytes at iOffset of
    // the file of iFileId into pBuffer, for the pages that pBitmap does not
    // mark present. The read completes on a live I/O thread through
    // sendReadCompletion(pOpId, iBufferKey, pBuffer, hr). False: not queued.
    bool AddLiveIOEntry(void* pOpId, void* pBuffer, uint32_t iFileId, uint64_t iOffset, uint32_t iBytes,
                        const uint8_t* pBitmap, void* iBufferKey);

    // Ends hydration for good: m_bCancel is never cleared. bDatabaseWasDeleted
    // adds to m_bDatabaseWasDeleted. For now it only sets the two flags;
    // ending and waiting for the hydration threads comes with hydration.
    void CancelHydration(bool bDatabaseWasDeleted);
    bool GetDatabaseWasDeleted() { return m_bDatabaseWasDeleted; }

    void SetState(int32_t iState);
    int32_t GetState() { return m_eState; }
    // Moves the state to iState if it stands below it, in one atomic step
    // (service threads do this while others read the state).
    void RaiseState(int32_t iState);
    GUID GetGuid() { return m_Guid; }

    // Each frees the old string and keeps a copy of the new one.
    void SetMountKey(const wchar_t* wsz);
    void SetFilterVolume(const wchar_t* wsz);
    void SetSourceMachine(const wchar_t* wsz);
    void SetSourceInstance(const wchar_t* wsz);
    void SetSourceDatabase(const wchar_t* wsz);
    const wchar_t* GetMountKey() { return m_pwszMountKey; }
    const wchar_t* GetFilterVolume() { return m_pwszFilterVolume; }
    const wchar_t* GetSourceMachine() { return m_pwszSourceMachine; }
    const wchar_t* GetSourceInstance() { return m_pwszSourceInstance; }
    const wchar_t* GetSourceDatabase() { return m_pwszSourceDatabase; }
    // The end of the mount's preparation, in seconds since 1970.
    void StampMountTime();

    int32_t m_iSQLVersion = 0;       // shared by the backups, set as they are prepared
    std::atomic<int32_t> m_eState{ZR_VDB_STATE_NEW};
    std::atomic<bool> m_bCancel{false};               // hydration is to end now; never cleared
    std::atomic<bool> m_bDatabaseWasDeleted{false};   // the last data file was deleted
    int32_t m_eHydrationMode = ZR_HYDRATE_DATA_FILE;
    uint8_t m_bHydrationPaused = 0;
    wchar_t* m_pwszMountKey = nullptr;        // owned; the context of every error of this mount
    wchar_t* m_pwszFilterVolume = nullptr;    // owned
    wchar_t* m_pwszSourceMachine = nullptr;   // owned
    wchar_t* m_pwszSourceInstance = nullptr;  // owned; empty for a default instance
    wchar_t* m_pwszSourceDatabase = nullptr;  // owned
    AP<ZR_File> m_DataFiles;                  // indexed by file id; slot 0 unused
    AP<ZR_Backup> m_Backups;                  // 0 full, 1 differential or empty, 2.. logs
    GUID m_Guid = GUID_NULL;
    CRITICAL_SECTION m_cs;
    uint32_t m_iMountPrepareStartTime = 0;
    uint32_t m_iMountPrepareDoneTime = 0;
    uint32_t m_iFirstBackupReadTime = 0;        // first search for a virtual backup file; under the chain's lock
    int32_t m_iVirtualizedBackupAccesses = 0;   // searches for one; under the chain's lock

private:
    bool HasKindOfSlot(ZR_Backup* pBackup, int iSlot);
    ZR_Backup* NewInSlot(int iSlot);
};
