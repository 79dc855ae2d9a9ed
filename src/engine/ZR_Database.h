// One mounted database: the chain of backups it is served from (slot 0 the
// full backup, slot 1 the differential or an empty slot, then the logs), the
// data files the driver announced, its state and its identity.
//
// Owned by g_DBs once a mount succeeded; before that by the mount that makes
// it. Nothing here takes it out of g_DBs. The chain and the file table have
// the locks of their arrays; m_cs is taken after the library lock, never
// before it. m_csLiveIO stands apart from m_cs: neither is taken while the
// other is held.
//
// The implementation is split by concern: ZR_Database.cpp (life, chain,
// files, state), ZR_PageReads.cpp (pages of a data file read from the
// backups), ZR_LiveIO.cpp (the queue of live reads and its threads),
// ZR_Hydration.cpp (a hydration's control: its start, sizes, threads,
// progress, pause and cancel) and ZR_DataFileHydration.cpp (the hydration
// threads in data-file mode); the writer threads are ZR_Writers.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "backup/ZR_Backup.h"
#include "engine/ZR_File.h"
#include "engine/ZR_HydrationSizing.h"
#include "engine/ZR_LiveIOEntry.h"
#include "foundation/AP.h"
#include "maps/ZR_EMaps.h"
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

// What a page read is for: hydration reads pages for the driver to write,
// live reads fill a buffer that SQL Server waits on, and the prepare walk
// only tells each sequential reader where to begin (no buffer).
enum ZR_ReadMode_e : int32_t { ZR_READ_HYDRATE = 0, ZR_READ_LIVE = 1, ZR_READ_PREPARE = 2 };

// Where the copy of a page that counts lies: the differential when its
// extent map has a real entry for the page, else the full backup (whose
// entry may be no location). pBackup is null only without a full backup.
struct ZR_PageLocation {
    ZR_Backup* pBackup = nullptr;
    ZR_EMap entry;
};

// A data file of the mount as hydration sees it at one moment.
struct ZR_DataFileState {
    bool bExists = false;  // the slot holds a file
    bool bClosed = false;  // SQL Server deleted it
    bool bOpen = false;    // exists, not closed, and the driver knows it by its uniquifier
    FileObjectUniquifier uniquifier{};
};

class ZR_Writers;

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

    // Data files announced (filled slots from 1 on), and expected (the data
    // file records of the differential's content map, or the full backup's).
    int CountDataFiles();
    int ExpectedDataFiles();
    // A consistent look at slot iSlot, under m_cs and the table's lock.
    ZR_DataFileState DataFileState(int iSlot);
    bool GetDatabaseWasDeleted() { return m_bDatabaseWasDeleted; }

    // Stores every backup file's largest transfer, in the full backup and
    // the differential.
    void SetMaxTransferSize(int iSize);

    // A request for state 9 while hydration is paused gives 10.
    // Operation threads that use the database without the library lock hold
    // a pin from their lookup in g_DBs to the end of their call (see
    // ZR_PinnedDatabase); whoever takes the database out of g_DBs waits for
    // the pins to go before it destroys anything.
    void Pin() { ++m_iPins; }
    void Unpin() { --m_iPins; }
    void WaitUnpinned();

    void SetState(int32_t iState);
    int32_t GetState() { return m_eState; }
    // Moves the state to iState if it stands below it, in one atomic step
    // (service threads do this while others read the state).
    void RaiseState(int32_t iState);
    GUID GetGuid() { return m_Guid; }

    // --- Page reads from the backups (ZR_PageReads.cpp) ---
    // Reads the pages of file iFileId in [iCurOffset, iCurOffset + iBytes)
    // whose bits in pBitmap are clear, each from the differential if it
    // holds the page, else from the full backup, in as few backup reads as
    // the backups allow. Bit 0 is the first page of the extent that holds
    // iCurOffset; the caller's bitmap must cover the range (1,024 pages for
    // a live read, less the first page's place in its extent). Pages that
    // no backup holds get a zeroed header and keep the rest of their bytes.
    // pBuffer gets the page at iCurOffset at its first byte; it is null in
    // ZR_READ_PREPARE, which reads nothing and lowers where each sequential
    // reader begins instead. False when a backup read failed (recorded);
    // the other runs are still read. No lock is held across the call.
    bool ReadFileByBitMap(uint16_t iFileId, void* pBuffer, uint32_t iBytes, const uint8_t* pBitmap,
                          uint64_t iCurOffset, ZR_ReadMode_e eMode);
    // Where the copy of the page that counts lies (see ZR_PageLocation).
    ZR_PageLocation LocatePage(PageId pageId);
    // Whether page b, right behind page a in a data file, is read in the
    // same backup read as a: same backup, same backup file, and the same
    // extent or (native backups) the next extent right behind it in the
    // file, or (compressed backups) the next extent of the same compressed
    // block. Two pages that no backup holds join when their entries are
    // equal; such a page never joins a page that is held.
    static bool JoinsRun(const ZR_PageLocation& a, const ZR_PageLocation& b, ZR_Backend_e eBackend);
    // --- end of page reads ---

    // --- Live I/O (ZR_LiveIO.cpp) ---
    // Starts the queue and its threads: the process-wide count if it is
    // between 1 and 1,000 (SetNumLiveIOThreads), else by CPUs and stripes.
    // Called at the end of PrepareContent; a second call does nothing.
    void StartLiveIORead();
    // Starts the queue with iThreads threads. With 0, nobody serves the
    // queue but the callers of GetLiveIOEntry.
    void StartLiveIORead(int iThreads);
    // Ends the threads once they have served every queued read; what no
    // thread served is completed as aborted. Called by the destructor.
    void StopLiveIORead();
    // Queues a read that the driver holds; called on an operation thread,
    // does no I/O. False when the read is not queued: live I/O is not
    // running or stopping, no memory, or a read longer than its bitmap.
    bool AddLiveIOEntry(void* pOpId, void* pBuffer, uint32_t iFileId, uint64_t iOffset, uint32_t iBytes,
                        const uint8_t* pBitmap, void* iBufferKey);
    // Picks the next read for live I/O thread iThread and copies it to
    // *pOut: the reads of one backup block go to the thread that works on
    // it. Waits while there is nothing for the thread; false only when
    // stopping and nothing is left for it.
    bool GetLiveIOEntry(uint32_t iThread, ZR_LiveIOEntry* pOut);
    // Takes the read that thread iThread got from GetLiveIOEntry off the
    // queue.
    void RemoveLiveIOEntry(uint32_t iThread, const ZR_LiveIOEntry* pEntry);
    // The process-wide thread count of StartLiveIORead; 0 or anything above
    // 1,000 leaves the count to the rule.
    static std::atomic<int> ms_iNumLiveIOThreadsRequested;
    // --- end of live I/O ---

    // --- Hydration (ZR_Hydration.cpp, ZR_DataFileHydration.cpp) ---
    // Hydration fills the data files with every page they still lack, from
    // the backups, through the driver (which alone writes them and keeps
    // the bitmaps of what they hold), while live reads go on. It runs on the
    // caller's thread and blocks until it has ended: complete (the driver
    // reports nothing missing), or cancelled.
    //
    // One hydration at a time: BeginHydration claims the mount under m_cs
    // (false when a hydration runs already), RunHydration runs it and ends
    // the claim as its very last touch of the object. While the claim
    // stands, CancelHydration (and so the destructor) waits for it to end.
    // StartDataHydration is the two in a row.
    void StartDataHydration();
    bool BeginHydration();
    void RunHydration();
    // The whole of one hydration: waits for the data files, sizes and starts
    // the threads, waits for them, tells the driver. True if it ran to its
    // end without a cancel; the marker file is then renamed.
    bool DataHydrate();
    // Ends hydration for good (m_bCancel is never cleared) and waits until
    // the hydration and a caller of WaitOnPercentChange have left. Holds no
    // lock while it waits. bDatabaseWasDeleted adds to m_bDatabaseWasDeleted.
    void CancelHydration(bool bDatabaseWasDeleted);
    // Both always true. A paused hydration's threads finish the chunk in
    // hand and wait; live reads go on.
    bool PauseHydration();
    bool ResumeHydration();
    // Waits up to 10 s for a change of progress (none after a cancel), then
    // gives progress in hundredths of a percent, 0 to 10,000; never less
    // than it gave before. The caller marked itself with NotePercentWaiter.
    int WaitOnPercentChange();
    static constexpr int kFullPercent = 10000;
    void NotePercentWaiter() { m_bPercentWaiter = true; }
    // Bytes: what the driver's bitmaps or this run's pushes tell, whichever
    // is further, and the total of the data files.
    void GetPercentComplete(int64_t* piDone, int64_t* piTotal);
    // Complete, or the database is gone.
    bool IsHydrationDone();
    // The file that gets ".completed" appended to its name at completion.
    void SetHydrationMarker(const wchar_t* wszPath);
    // Counted at the next hydration; 0 leaves the number to the sizing.
    void SetNumHydrationThreads(int i) { m_iNumHydrationThreadsRequested = i; }
    void SetNumWriterThreads(int i) { m_iNumWriterThreadsRequested = i; }
    // Set by the library at every start and end of a hydration, at pause
    // and resume: hydration threads of a mount whose order key is at or
    // above it (when it is not 0) wait.
    static std::atomic<int64_t> ms_iHydrationCutoff;
    // --- end of hydration ---

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
    // Read by every thread without a lock; grows but for the pair 9 and 10.
    std::atomic<int32_t> m_eState{ZR_VDB_STATE_NEW};
    std::atomic<bool> m_bCancel{false};               // hydration is to end now; never cleared
    std::atomic<bool> m_bDatabaseWasDeleted{false};   // the last data file was deleted, or a bitmap is corrupted
    std::atomic<int32_t> m_eHydrationMode{ZR_HYDRATE_DATA_FILE};  // only advances within a hydration
    std::atomic<bool> m_bHydrationPaused{false};
    HANDLE m_hHydrationDone = nullptr;        // manual-reset: DataHydrate has ended after a cancel
    HANDLE m_hHydrationThreadExit = nullptr;  // auto-reset: a hydration thread has ended
    HANDLE m_hPercentChange = nullptr;        // auto-reset: wakes WaitOnPercentChange
    HANDLE m_hPercentWaiterDone = nullptr;    // auto-reset: the waiter has left after a cancel
    HANDLE m_hWriterThreadExit = nullptr;     // auto-reset: a writer has ended
    uint32_t m_HandleOpen = 0;                // tag of m_hHydrationDone, for the trace only
    wchar_t* m_pwszMountKey = nullptr;        // owned; the context of every error of this mount
    wchar_t* m_pwszFilterVolume = nullptr;    // owned
    wchar_t* m_pwszSourceMachine = nullptr;   // owned
    wchar_t* m_pwszSourceInstance = nullptr;  // owned; empty for a default instance
    wchar_t* m_pwszSourceDatabase = nullptr;  // owned
    AP<ZR_File> m_DataFiles;                  // indexed by file id; slot 0 unused
    AP<ZR_Backup> m_Backups;                  // 0 full, 1 differential or empty, 2.. logs
    GUID m_Guid = GUID_NULL;
    CRITICAL_SECTION m_cs;
    std::atomic<int32_t> m_iPins{0};
    uint32_t m_iMountPrepareStartTime = 0;
    uint32_t m_iMountPrepareDoneTime = 0;
    uint32_t m_iFirstBackupReadTime = 0;        // first search for a virtual backup file; under the chain's lock
    int32_t m_iVirtualizedBackupAccesses = 0;   // searches for one; under the chain's lock

    // Counters of page reads that hydration reports; plain statistics that
    // several threads add to.
    std::atomic<int32_t> m_iNumAllUnallocatedHydrations{0};  // hydration reads that found no page held
    std::atomic<int32_t> m_iNumLowAllocatedHydrations{0};    // ... that made fewer than 16 backup reads
    std::atomic<int32_t> m_iReadFileByBitmap{0};             // backup reads of hydration and live reads

    // --- Hydration state. Flags and counters are read by the threads and
    // the status calls without a lock; m_cs guards the claim, the thread
    // counts and ids, m_pWriters and the per-thread arrays. ---
    bool m_bHydrating = false;                      // under m_cs: the claim
    std::atomic<bool> m_bPercentWaiter{false};      // a caller is in WaitOnPercentChange
    std::atomic<bool> m_bHydrationThreadExited{false};
    std::atomic<bool> m_bDataFilesCompletelyHydrated{false};
    // This hydration cannot go on (a chunk that cannot be read, a driver
    // that does not answer): it ends incomplete; a later one may try again.
    std::atomic<bool> m_bHydrationFailed{false};
    std::atomic<int64_t> m_iHydrationOrderKey{0};   // smaller keys hydrate first
    wchar_t* m_pwszHydrationMarker = nullptr;       // owned; set before the claim
    int32_t m_iNumHydrationThreads = 0;             // T of the last hydration
    int32_t m_iNumWriterThreads = 0;                // W of the last hydration
    std::atomic<int32_t> m_iNumHydrationThreadsRequested{0};
    std::atomic<int32_t> m_iNumWriterThreadsRequested{0};
    std::atomic<int32_t> m_iRunningHydrationThreads{0};
    int32_t m_iNextHydrationThreadId = 0;           // under m_cs
    std::unique_ptr<ZR_Writers> m_pWriters;         // under m_cs; during a hydration's threads
    std::atomic<uint64_t> m_TotalHydratedByBackupPasses{0};  // bytes writers handed the driver
    std::atomic<uint64_t> m_TotalHydratedByDataPasses{0};    // bytes the driver took in data-file mode
    std::atomic<uint64_t> m_iTotalBytesToHydrate{0};         // the data files' sizes, added by each thread
    // One slot per hydration thread, kept to the end of the object (under
    // m_cs when made): what the driver's bitmaps hold of the thread's files,
    // and how often the thread waited.
    int32_t m_iNumHydrationSlots = 0;
    std::unique_ptr<std::atomic<uint64_t>[]> m_piHydratedBytes;
    std::unique_ptr<std::atomic<int32_t>[]> m_piNumHydrationSleeps_1;
    std::unique_ptr<std::atomic<int32_t>[]> m_piNumHydrationSleeps_2;
    std::atomic<int32_t> m_iLastPercent{0};         // progress never goes back
    uint32_t m_iHydrationStartTime = 0;
    uint32_t m_iHydrationEndTime = 0;
    // Counters of the hydration report.
    std::atomic<int32_t> m_HydrationModeSwitchCount{0}, m_HydrationPassCount{0}, m_DataDrivenHydrationPasses{0},
        m_BackupDrivenHydrationPasses{0}, m_PartialExtentLeftForDataMode{0}, m_UnallocatedPageHydrations{0},
        m_iNumMultipleDataFilesInSameSB{0}, m_iNumPreSyncForFullWriterQueue{0}, m_iNumQFullWaitingOnDriver{0},
        m_iNumPoolOverflows{0}, m_DecompressorWaitingOnWriter{0}, m_WriterWaiting{0},
        m_WriterBlockedBySQLServerIO{0}, m_iSecondsToLocateStart{0}, m_iSecondsSpentInDataFileMode{0},
        m_iSecondsSpentInBackupFileMode{0};
    // --- end of hydration state ---

    // --- Live I/O state. The lists, the blocks and m_iNumLiveBlocks are
    // guarded by m_csLiveIO; the counters are atomics so that reports may
    // read them without it. ---
    ZR_LiveIOEntry* m_pLiveFree = nullptr;     // free entries
    ZR_LiveIOEntry* m_pLiveHead = nullptr;     // queued entries, in order of arrival
    ZR_LiveIOEntry* m_pLiveTail = nullptr;
    CRITICAL_SECTION m_csLiveIO;               // lives as long as the object
    ZR_LiveIOEntry** m_ppLiveBlocks = nullptr; // blocks of ZR_LiveIOEntry::ms_iBlockEntries entries
    int32_t m_iNumLiveBlocks = 0;              // slots of m_ppLiveBlocks
    int32_t m_iNumLiveIOThreads = 0;           // slots of m_phLiveIOThreads
    std::atomic<bool> m_bLiveIOStarted{false};
    std::atomic<bool> m_bLiveIOStopping{false};
    HANDLE* m_phLiveIOThreads = nullptr;       // null where a thread has ended or never started
    HANDLE m_hLiveIOEvent = nullptr;           // auto-reset: wakes one thread that waits for work
    // Manual-reset, set by StopLiveIORead: ends the pause of the threads
    // other than 0 at once, so that a stop never waits out a pause.
    HANDLE m_hLiveIOStopEvent = nullptr;
    std::atomic<int32_t> m_iLiveIOWaiters{0};      // threads in the waiting part of GetLiveIOEntry
    int32_t m_iNextLiveIOThreadId = 0;             // under m_cs
    std::atomic<int32_t> m_iLiveIOsCount{0};       // reads ever queued
    std::atomic<int32_t> m_iLiveIOsQueued{0};      // reads queued and not yet removed
    std::atomic<int32_t> m_iLiveIOsHighWaterMark{0};
    std::atomic<int32_t> m_iNumPreOwnedReleased{0};  // a taken tied read had more tied reads behind it
    std::atomic<int32_t> m_iNumOwnedIOSequences{0};  // reads tied to a thread because of their block
    std::atomic<int32_t> m_iLiveIOPagesRead{0};      // pages of the reads queued; hydration restarts it
    std::atomic<int32_t> m_iAverPagesPerSBDuringRecovery{0};
    // --- end of live I/O state ---

private:
    bool HasKindOfSlot(ZR_Backup* pBackup, int iSlot);
    ZR_Backup* NewInSlot(int iSlot);
    void CreateEvents();
    void CloseEvents();

    // Page reads
    struct PageRun;
    struct PageReadTally;
    void CloseRun(const PageRun& run, ZR_ReadMode_e eMode, PageReadTally* pTally);
    void EnterRecoveryState();

    // Hydration
    struct HydrationScan;
    void EndHydration();
    bool HydrateWithDriver();
    void SendPrepareHydrations();
    bool WaitForDataFiles();
    ZR_HydrationSizing SizeHydration();
    void AllocHydrationSlots(int iThreads);
    void NoteLiveIOFigures();
    void RunHydrationThreads(const ZR_HydrationSizing& sizing);
    void ChooseHydrationMode();
    std::vector<HANDLE> StartHydrationThreads(int iThreads);
    void WaitForHydrationThreads(std::vector<HANDLE>& aThreads);
    void RenameHydrationMarker();
    bool SendHydrationCleanups(bool bComplete);
    void FlushMountCaches();
    int PercentNow();
    uint64_t HydratedBytesNow();
    static unsigned HydrationProc(void* pThis);
    // The wall clock in seconds, as the report's times are kept.
    static uint32_t NowSeconds();
    void DataHydrateThreadProc(int iThread);
    bool HydrationEnding();
    void* AllocReadBuffer(int iThread, uint32_t iBytes);
    void PauseThread(int iThread, DWORD iMs);
    bool MustWait();
    HydrationScan ScanDataFiles(int iFirst, int iLimit);
    void ReportProgress(uint64_t* piNextPercent);
    bool HydrateChunk(int iThread, const ZR_HydrationRange& next, void* pBuffer);

    // Live I/O
    int LiveIOThreadsToStart();
    bool AllocLiveIOTables(int iThreads);
    void StartLiveIOThreads(int iThreads);
    void FreeLiveIOTables();
    void WaitForLiveIOThreads();
    void AbortLiveIOEntries();
    ZR_LiveIOEntry* NewLiveIOEntry();
    bool AddLiveIOBlock();
    ZR_PageLocation LocateLiveIOEntry(const ZR_LiveIOEntry& entry);
    ZR_LiveIOEntry* FindLiveIOEntry(uint32_t iThread, bool* pbTied, ZR_PageLocation* pLocation);
    void TakeLiveIOEntry(uint32_t iThread, ZR_LiveIOEntry* pEntry, const ZR_PageLocation& location,
                         ZR_LiveIOEntry* pOut);
    void ClaimLiveIOBlock(uint32_t iThread, ZR_LiveIOEntry* pTaken, const ZR_PageLocation& location);
    void CountPreOwned(uint32_t iThread, const ZR_LiveIOEntry* pTaken);
    DWORD LiveIOPause();
    void ServeLiveIO();
    void ServeLiveIOEntry(uint32_t iThread, const ZR_LiveIOEntry& entry);
    static unsigned LiveIOProc(void* pThis);
    // The decompression contexts of the backup file that holds a claimed
    // read: NoteLiveIOWork keeps the thread's context from being stolen
    // until EndLiveIOWork. Native backups have no contexts.
    void NoteLiveIOWork(const ZR_PageLocation& location);
    void EndLiveIOWork(const ZR_LiveIOEntry& entry);
};
