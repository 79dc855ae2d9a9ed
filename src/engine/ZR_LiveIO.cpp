// Live I/O: the reads that the driver holds for SQL Server, queued by the
// operation threads and served by a small pool of threads for each mounted
// database, from StartLiveIORead (end of PrepareContent) to StopLiveIORead
// (the destructor).
//
// The queue is no plain first-come-first-served queue. On a compressed
// backup many reads fall into one compressed block, and two threads that
// decompress the same block at once waste the most expensive step of all;
// so a walk of the queue gives the reads of one backup block to the thread
// that works on it. A read's block is where the extent of its first page
// lies (LocatePage).
//
// Waking: thread 0 waits for the event at once; every other thread first
// pauses for 1 to 5 seconds, shorter the more reads are queued. A quiet
// database is served by thread 0 alone, and the others join when reads pile
// up. Every wait has a limit, and a stop ends the pauses at once.
//
// Locks: m_csLiveIO guards the lists and the blocks. It is held during a
// walk, which looks pages up in the extent maps (their own locks inside);
// nothing takes m_csLiveIO while holding those. The page reads run without
// it.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "driver/ZR_ReadCompletion.h"
#include "engine/ZR_Database.h"
#include "mount/ZR.h"

std::atomic<int32_t> g_i1MBSQLServerReads{0};
std::atomic<int32_t> g_iNon1MBSQLServerReads{0};
std::atomic<int32_t> g_i64KSQLServerReads{0};
std::atomic<int32_t> g_iNumGetLiveIOWaits{0};
std::atomic<int32_t> g_iNumNon0ThreadActivity{0};

std::atomic<int> ZR_Database::ms_iNumLiveIOThreadsRequested{0};

namespace {

constexpr uint32_t kOneMiB = 0x100000;
constexpr uint32_t kSixtyFourKiB = 0x10000;
constexpr int kMostRequestedThreads = 1000;
constexpr DWORD kLongestPauseMs = 5000;
constexpr DWORD kShortestPauseMs = 1000;
// A thread that waits for work looks at the queue again at least this
// often, whatever wakes it or not.
constexpr DWORD kWorkWaitLimitMs = 1000;
// How long a stop waits on one thread before it wakes the next.
constexpr DWORD kStopWaitMs = 100;

// Holds a critical section for a scope, and lets go of it for a wait.
class HeldLock {
public:
    explicit HeldLock(CRITICAL_SECTION* pcs) : m_pcs(pcs) { EnterCriticalSection(m_pcs); }
    ~HeldLock() {
        if (m_bHeld) LeaveCriticalSection(m_pcs);
    }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;
    void Release() {
        LeaveCriticalSection(m_pcs);
        m_bHeld = false;
    }
    void Retake() {
        EnterCriticalSection(m_pcs);
        m_bHeld = true;
    }

private:
    CRITICAL_SECTION* m_pcs;
    bool m_bHeld = true;
};

void CountReadSize(uint32_t iBytes) {
    if (iBytes == kOneMiB) {
        ++g_i1MBSQLServerReads;
        return;
    }
    ++g_iNon1MBSQLServerReads;
    if (iBytes == kSixtyFourKiB) ++g_i64KSQLServerReads;
}

// Whether the read's pages lie inside the bitmap that comes with it; bit 0
// is the first page of the extent that holds the offset.
bool FitsLiveIOBitmap(uint64_t iOffset, uint32_t iBytes) {
    const uint64_t iFirstBit = (iOffset / ZR_PAGE_SIZE) % ZR_PAGES_PER_EXTENT;
    return iFirstBit + iBytes / ZR_PAGE_SIZE <= uint64_t{ZR_LiveIOEntry::ms_iBitmapBytes} * 8;
}

}  // namespace

// ---------------------------------------------------------------------------
// Life
// ---------------------------------------------------------------------------

void ZR_Database::StartLiveIORead() { StartLiveIORead(LiveIOThreadsToStart()); }

// One file on one CPU gives 3 threads; four stripes on 16 CPUs give 20.
int ZR_Database::LiveIOThreadsToStart() {
    const int iRequested = ms_iNumLiveIOThreadsRequested;
    if (iRequested >= 1 && iRequested <= kMostRequestedThreads) return iRequested;
    ZR_Backup* pFull = GetFull();
    const int iFiles = pFull ? pFull->GetNumFiles() : 0;
    return std::min(std::max(1, ZR::g_iNumCPUs), 3 * iFiles) + 2 * iFiles;
}

void ZR_Database::StartLiveIORead(int iThreads) {
    if (g_iTraceMode) TraceLine("ZR_Database::StartLiveIORead\n");
    if (m_bLiveIOStarted || m_bLiveIOStopping) return;  // live I/O starts once
    if (!AllocLiveIOTables(iThreads)) return;
    for (auto* pCounter : {&m_iLiveIOWaiters, &m_iLiveIOsCount, &m_iLiveIOsQueued, &m_iLiveIOsHighWaterMark,
                           &m_iNumPreOwnedReleased, &m_iNumOwnedIOSequences, &m_iLiveIOPagesRead})
        *pCounter = 0;
    m_bLiveIOStarted = true;
    StartLiveIOThreads(iThreads);
}

// False with everything freed again; the mount goes on, and every read is
// refused.
bool ZR_Database::AllocLiveIOTables(int iThreads) {
    m_pLiveFree = m_pLiveHead = m_pLiveTail = nullptr;
    m_iNumLiveBlocks = ZR_LiveIOEntry::ms_iFirstBlockSlots;
    m_ppLiveBlocks = static_cast<ZR_LiveIOEntry**>(calloc(m_iNumLiveBlocks, sizeof *m_ppLiveBlocks));
    if (!m_ppLiveBlocks) {
        if (g_iTraceMode) TraceLine("Out of memory in InitLiveIORead\n");
        m_iNumLiveBlocks = 0;
        return false;
    }
    m_iNumLiveIOThreads = iThreads;
    m_phLiveIOThreads = static_cast<HANDLE*>(calloc(std::max(iThreads, 1), sizeof(HANDLE)));
    m_hLiveIOEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    m_hLiveIOStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (m_phLiveIOThreads && m_hLiveIOEvent && m_hLiveIOStopEvent) return true;
    ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::StartLiveIORead", __LINE__, "Out of memory in InitLiveIORead\n");
    FreeLiveIOTables();
    return false;
}

void ZR_Database::StartLiveIOThreads(int iThreads) {
    m_iNextLiveIOThreadId = 0;
    int iStarted = 0;
    for (int i = 0; i < iThreads; ++i) {
        m_phLiveIOThreads[i] = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, LiveIOProc, this, 0, nullptr));
        if (m_phLiveIOThreads[i])
            ++iStarted;
        else
            ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::StartLiveIORead", __LINE__,
                     "Failed to start live I/O thread %d of %d.\n", i, iThreads);
    }
    if (iThreads == 0 || iStarted > 0) return;
    // Nobody would serve a queued read: refuse them all, so that the
    // operation service answers the driver itself.
    m_bLiveIOStarted = false;
    FreeLiveIOTables();
}

void ZR_Database::StopLiveIORead() {
    if (g_iTraceMode) TraceLine("ZR_Database::StopLiveIORead\n");
    {
        // Under the lock, so that a read being added either is in the queue
        // before the stop, and is served, or sees the stop and is refused.
        HeldLock lock(&m_csLiveIO);
        if (!m_bLiveIOStarted) return;
        m_bLiveIOStarted = false;
        m_bLiveIOStopping = true;
    }
    SetEvent(m_hLiveIOStopEvent);
    WaitForLiveIOThreads();
    HeldLock lock(&m_csLiveIO);
    AbortLiveIOEntries();
    FreeLiveIOTables();
}

// The threads serve what is queued and end when nothing is left for them.
// Each woken thread wakes the next waiter, so one event per turn suffices.
void ZR_Database::WaitForLiveIOThreads() {
    for (bool bLeft = true; bLeft;) {
        bLeft = false;
        for (int i = 0; i < m_iNumLiveIOThreads; ++i) {
            HANDLE& hThread = m_phLiveIOThreads[i];
            if (!hThread) continue;
            SetEvent(m_hLiveIOEvent);
            if (WaitForSingleObject(hThread, kStopWaitMs) == WAIT_TIMEOUT) {
                bLeft = true;
                continue;
            }
            CloseHandle(hThread);
            hThread = nullptr;
        }
    }
}

// What no thread served (with no thread at all, or a thread that failed to
// start) still ends for the driver: none of its reads is left waiting.
void ZR_Database::AbortLiveIOEntries() {
    for (ZR_LiveIOEntry* p = m_pLiveHead; p; p = p->pNext) {
        if (g_iTraceMode) TraceLine("ZR_Database::StopLiveIORead - read %p aborted\n", p->pOpId);
        sendReadCompletion(p->pOpId, p->iBufferKey, p->pBuffer, static_cast<HRESULT>(ERROR_OPERATION_ABORTED));
    }
    m_pLiveHead = m_pLiveTail = nullptr;
    m_iLiveIOsQueued = 0;
}

void ZR_Database::FreeLiveIOTables() {
    free(m_phLiveIOThreads);
    m_phLiveIOThreads = nullptr;
    m_iNumLiveIOThreads = 0;
    for (int i = 0; m_ppLiveBlocks && i < m_iNumLiveBlocks; ++i) free(m_ppLiveBlocks[i]);
    free(m_ppLiveBlocks);
    m_ppLiveBlocks = nullptr;
    m_iNumLiveBlocks = 0;
    m_pLiveFree = m_pLiveHead = m_pLiveTail = nullptr;
    for (HANDLE* ph : {&m_hLiveIOEvent, &m_hLiveIOStopEvent}) {
        if (*ph) CloseHandle(*ph);
        *ph = nullptr;
    }
}

// ---------------------------------------------------------------------------
// The queue
// ---------------------------------------------------------------------------

bool ZR_Database::AddLiveIOEntry(void* pOpId, void* pBuffer, uint32_t iFileId, uint64_t iOffset, uint32_t iBytes,
                                 const uint8_t* pBitmap, void* iBufferKey) {
    if (g_iTraceMode) TraceLine("ZR_Database::AddLiveIOEntry\n");
    if (!m_bLiveIOStarted || m_bLiveIOStopping) return false;
    if (!FitsLiveIOBitmap(iOffset, iBytes)) {
        ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::AddLiveIOEntry", __LINE__,
                 "A read of %u bytes at offset %I64d of file %u is longer than its page bitmap.\n", iBytes,
                 static_cast<int64_t>(iOffset), iFileId);
        return false;
    }
    HeldLock lock(&m_csLiveIO);
    ZR_LiveIOEntry* pEntry = m_bLiveIOStopping || !m_bLiveIOStarted ? nullptr : NewLiveIOEntry();
    if (!pEntry) return false;
    CountReadSize(iBytes);
    *pEntry = ZR_LiveIOEntry{iOffset, pOpId, pBuffer, iBytes, iFileId, ZR_LiveIOEntry::ms_iNoOwner, 0,
                             iBufferKey, nullptr, {}};
    if (pBitmap) std::memcpy(pEntry->Bitmap, pBitmap, sizeof pEntry->Bitmap);
    (m_pLiveTail ? m_pLiveTail->pNext : m_pLiveHead) = pEntry;
    m_pLiveTail = pEntry;
    const int32_t iQueued = ++m_iLiveIOsQueued;
    ++m_iLiveIOsCount;
    if (iQueued > m_iLiveIOsHighWaterMark) m_iLiveIOsHighWaterMark = iQueued;
    m_iLiveIOPagesRead += static_cast<int32_t>(iBytes / ZR_PAGE_SIZE);
    const bool bWake = m_iLiveIOWaiters > 0;
    lock.Release();
    if (bWake) SetEvent(m_hLiveIOEvent);
    return true;
}

// m_csLiveIO is held.
ZR_LiveIOEntry* ZR_Database::NewLiveIOEntry() {
    if (g_iTraceMode) TraceLine("NewLiveIOEntry\n");
    if (!m_pLiveFree && !AddLiveIOBlock()) return nullptr;
    ZR_LiveIOEntry* pEntry = m_pLiveFree;
    m_pLiveFree = pEntry->pNext;
    return pEntry;
}

// A block of entries onto the free list, in the first empty slot of the
// table; a full table doubles. Blocks are freed only when live I/O stops.
bool ZR_Database::AddLiveIOBlock() {
    if (g_iTraceMode) TraceLine("Allocate another block of linked list entries\n");
    int iSlot = 0;
    while (iSlot < m_iNumLiveBlocks && m_ppLiveBlocks[iSlot]) ++iSlot;
    if (iSlot == m_iNumLiveBlocks) {
        auto** ppBlocks =
            static_cast<ZR_LiveIOEntry**>(realloc(m_ppLiveBlocks, 2 * size_t(m_iNumLiveBlocks) * sizeof *m_ppLiveBlocks));
        if (!ppBlocks) return false;
        std::fill(ppBlocks + m_iNumLiveBlocks, ppBlocks + 2 * m_iNumLiveBlocks, nullptr);
        m_ppLiveBlocks = ppBlocks;
        m_iNumLiveBlocks *= 2;
    }
    auto* pBlock = static_cast<ZR_LiveIOEntry*>(malloc(ZR_LiveIOEntry::ms_iBlockEntries * sizeof(ZR_LiveIOEntry)));
    if (!pBlock) return false;
    for (int i = 0; i < ZR_LiveIOEntry::ms_iBlockEntries - 1; ++i) pBlock[i].pNext = &pBlock[i + 1];
    pBlock[ZR_LiveIOEntry::ms_iBlockEntries - 1].pNext = m_pLiveFree;
    m_pLiveFree = pBlock;
    m_ppLiveBlocks[iSlot] = pBlock;
    return true;
}

ZR_PageLocation ZR_Database::LocateLiveIOEntry(const ZR_LiveIOEntry& entry) {
    return LocatePage(PageId{static_cast<uint32_t>(entry.iOffset / ZR_PAGE_SIZE), static_cast<uint16_t>(entry.iFileId)});
}

bool ZR_Database::GetLiveIOEntry(uint32_t iThread, ZR_LiveIOEntry* pOut) {
    HeldLock lock(&m_csLiveIO);
    bool bWaiter = false;
    bool bTied = false;
    ZR_PageLocation location;
    ZR_LiveIOEntry* pTaken = nullptr;
    while (!(pTaken = FindLiveIOEntry(iThread, &bTied, &location)) && !m_bLiveIOStopping) {
        if (!bWaiter) ++m_iLiveIOWaiters;
        bWaiter = true;
        ++g_iNumGetLiveIOWaits;
        const DWORD iPause = LiveIOPause();
        lock.Release();
        if (iThread != 0) WaitForSingleObject(m_hLiveIOStopEvent, iPause);  // a pause that a stop cuts short
        if (!m_bLiveIOStopping) WaitForSingleObject(m_hLiveIOEvent, kWorkWaitLimitMs);
        lock.Retake();
    }
    if (bWaiter) --m_iLiveIOWaiters;
    if (pTaken) {
        TakeLiveIOEntry(iThread, pTaken, location, pOut);
        if (bTied)
            CountPreOwned(iThread, pTaken);
        else
            ClaimLiveIOBlock(iThread, pTaken, location);
    }
    if (m_iLiveIOWaiters > 0) SetEvent(m_hLiveIOEvent);  // who found work wakes the next
    if (g_iTraceMode) TraceLine("GetLiveIOEntry exit\n");
    return pTaken != nullptr;
}

// One walk from the head: the first read tied to this thread, or the first
// free read that isn't in the block of the last owner seen before it (such
// a read is tied to that owner on the way). Null when there is none.
ZR_LiveIOEntry* ZR_Database::FindLiveIOEntry(uint32_t iThread, bool* pbTied, ZR_PageLocation* pLocation) {
    ZR_EMap lastLocation;
    uint32_t iLastOwner = ZR_LiveIOEntry::ms_iNoOwner;
    for (ZR_LiveIOEntry* p = m_pLiveHead; p; p = p->pNext) {
        const ZR_PageLocation location = LocateLiveIOEntry(*p);
        if (p->iOwner == iThread || p->iOwner == ZR_LiveIOEntry::ms_iNoOwner) {
            const bool bTied = p->iOwner == iThread;
            if (!bTied && location.entry.HasCopy() && location.entry.GetOffset() == lastLocation.GetOffset()) {
                p->iOwner = iLastOwner;  // its block is being worked on by that owner
                ++m_iNumOwnedIOSequences;
                continue;
            }
            *pbTied = bTied;
            *pLocation = location;
            return p;
        }
        if (p->iOwner != iLastOwner) {
            iLastOwner = p->iOwner;
            lastLocation = location.entry;
        }
    }
    return nullptr;
}

void ZR_Database::TakeLiveIOEntry(uint32_t iThread, ZR_LiveIOEntry* pEntry, const ZR_PageLocation& location,
                                  ZR_LiveIOEntry* pOut) {
    pEntry->iOwner = iThread;
    pEntry->bTaken = 1;
    *pOut = *pEntry;
    if (iThread != 0) ++g_iNumNon0ThreadActivity;
    NoteLiveIOWork(location);
}

// The free reads right behind a taken one that lie in its block are tied
// to this thread, which serves them in a row from what it has just read.
void ZR_Database::ClaimLiveIOBlock(uint32_t iThread, ZR_LiveIOEntry* pTaken, const ZR_PageLocation& location) {
    if (!location.entry.HasCopy()) return;
    ZR_EMap lastLooked;
    for (ZR_LiveIOEntry* p = pTaken->pNext; p && p->iOwner == ZR_LiveIOEntry::ms_iNoOwner; p = p->pNext) {
        lastLooked = LocateLiveIOEntry(*p).entry;
        if (lastLooked.GetOffset() != location.entry.GetOffset()) break;
        p->iOwner = iThread;
    }
    if (lastLooked.HasCopy()) ++m_iNumOwnedIOSequences;
}

// The thread finds the tied reads behind this one in its next walks.
void ZR_Database::CountPreOwned(uint32_t iThread, const ZR_LiveIOEntry* pTaken) {
    if (pTaken->pNext && pTaken->pNext->iOwner == iThread) ++m_iNumPreOwnedReleased;
}

// From the count of queued reads at the moment the walk ran out.
DWORD ZR_Database::LiveIOPause() {
    const int32_t iQueued = m_iLiveIOsQueued;
    if (iQueued <= 0) return kLongestPauseMs;
    return std::max<DWORD>(kLongestPauseMs / static_cast<DWORD>(iQueued), kShortestPauseMs);
}

void ZR_Database::RemoveLiveIOEntry(uint32_t iThread, const ZR_LiveIOEntry* pEntry) {
    EndLiveIOWork(*pEntry);
    HeldLock lock(&m_csLiveIO);
    ZR_LiveIOEntry* pPrev = nullptr;
    ZR_LiveIOEntry* p = m_pLiveHead;
    while (p && !(p->iOwner == iThread && p->pOpId == pEntry->pOpId)) {
        pPrev = p;
        p = p->pNext;
    }
    if (!p) return;
    --m_iLiveIOsQueued;
    (pPrev ? pPrev->pNext : m_pLiveHead) = p->pNext;
    if (m_pLiveTail == p) m_pLiveTail = pPrev;
    p->pNext = m_pLiveFree;
    m_pLiveFree = p;
}

// ---------------------------------------------------------------------------
// The threads
// ---------------------------------------------------------------------------

unsigned ZR_Database::LiveIOProc(void* pThis) {
    static_cast<ZR_Database*>(pThis)->ServeLiveIO();
    return 0;
}

// Ends when GetLiveIOEntry finds nothing left for this thread at a stop.
// A thread that still owns reads finds them, so none is left behind.
void ZR_Database::ServeLiveIO() {
    EnterCriticalSection(&m_cs);
    const uint32_t iThread = static_cast<uint32_t>(m_iNextLiveIOThreadId++);
    LeaveCriticalSection(&m_cs);
    if (g_iTraceMode) TraceLine("ZR_Database::LiveIOProc thread %d starting\n", iThread);
    ZR_LiveIOEntry entry;
    for (bool bGot = true; bGot || !m_bLiveIOStopping;) {
        try {
            bGot = GetLiveIOEntry(iThread, &entry);
            if (bGot) ServeLiveIOEntry(iThread, entry);
        } catch (...) {
            if (g_iTraceMode) TraceLine("ZR_Database::LiveIOProc thread %d exception\n", iThread);
        }
    }
    if (g_iTraceMode) TraceLine("ZR_Database::LiveIOProc thread %d exiting\n", iThread);
}

// The entry leaves the queue before the driver hears of it. A failed read
// completes with the last read error of the process (a generic read fault
// when the failure left none); the driver has the last word on it.
void ZR_Database::ServeLiveIOEntry(uint32_t iThread, const ZR_LiveIOEntry& entry) {
    HRESULT hr = 0;
    try {
        if (!ReadFileByBitMap(static_cast<uint16_t>(entry.iFileId), entry.pBuffer, entry.iBytes, entry.Bitmap,
                              entry.iOffset, ZR_READ_LIVE)) {
            const uint32_t iError = g_iLastIOError;
            hr = static_cast<HRESULT>(iError ? iError : ERROR_READ_FAULT);
        }
    } catch (...) {
        hr = static_cast<HRESULT>(ERROR_NOT_ENOUGH_MEMORY);  // what the library throws: exhausted memory
    }
    RemoveLiveIOEntry(iThread, &entry);
    sendReadCompletion(entry.pOpId, entry.iBufferKey, entry.pBuffer, hr);
}

// ---------------------------------------------------------------------------
// Compressed backups: each backup file keeps its decompression contexts, and
// the thread that has claimed a read in a block keeps its context from
// being stolen until the read is done. Native backups have no contexts, and
// the compressed reads that own them are not part of this build yet: these
// are the two places where they will be told.
// ---------------------------------------------------------------------------

void ZR_Database::NoteLiveIOWork(const ZR_PageLocation& location) {
    // NoteWork(offset of the block) on the contexts of file
    // location.entry.GetDevice() of location.pBackup, for a compressed backup.
}

void ZR_Database::EndLiveIOWork(const ZR_LiveIOEntry& entry) {
    // EndWork() on the contexts of the backup file that holds the entry's
    // first page (LocateLiveIOEntry), for a compressed backup.
}
