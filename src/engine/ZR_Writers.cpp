#include "engine/ZR_Writers.h"

#include <algorithm>
#include <cstring>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "driver/ZR_DriverCommands.h"
#include "engine/ZR_Database.h"
#include "foundation/Unaligned.h"

namespace {

constexpr int32_t kNoWriter = -1;
constexpr int32_t kAllWriters = 100000;  // a producer that waits for every queue to empty
constexpr uint32_t kLongestRun = 0x100000;
constexpr int kSendTries = 5;
constexpr DWORD kSendRetryMs = 100;
constexpr DWORD kDriverWaitMs = 100;
// Every other wait looks again at least this often.
constexpr DWORD kWaitLimitMs = 1000;
// The completion header counts messages by doubling a 32-bit value: a block
// waits for the driver to finish what it has before it hands over more.
constexpr int kMessagesPerHeader = 31;

uint16_t FileIdAt(const uint8_t* pBlock, uint32_t iPos) { return ZR_Load<uint16_t>(pBlock + iPos + 36); }
uint32_t PageAt(const uint8_t* pBlock, uint32_t iPos) { return ZR_Load<uint32_t>(pBlock + iPos + 32); }
bool IsTag(const uint8_t* p, const char* szTag) { return std::memcmp(p, szTag, 4) == 0; }

// The bytes a pad stream takes, from its header at p; at least one sector,
// so that a damaged length cannot hold the walk in place.
uint32_t PadBytes(const uint8_t* p) { return std::max<uint32_t>((ZR_Load<uint32_t>(p + 8) + 511) & ~511u, 512); }

}  // namespace

ZR_Writers::ZR_Writers(ZR_Database& db, const ZR_HydrationSizing& sizing)
    : m_DB(db),
      m_Sizing(sizing),
      m_aQueues(size_t(sizing.iWriterThreads)),
      m_aProducers(size_t(sizing.iHydrationThreads)) {
    for (Queue& queue : m_aQueues) {
        InitializeCriticalSection(&queue.cs);
        queue.aEntries.reserve(size_t(sizing.iWriterQueueCapacity));
        queue.hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    }
    for (Producer& producer : m_aProducers) {
        producer.pPool = std::make_unique<ZR_BufferPool>(sizing.iPoolTopIndex + 1, &db.m_iNumPoolOverflows);
        producer.hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    }
    m_hWriterThreadExit = CreateEventW(nullptr, FALSE, FALSE, nullptr);
}

ZR_Writers::~ZR_Writers() {
    ReleaseQueues();
    for (Queue& queue : m_aQueues) {
        DeleteCriticalSection(&queue.cs);
        if (queue.hEvent) CloseHandle(queue.hEvent);
        if (queue.hThread) CloseHandle(queue.hThread);
    }
    for (Producer& producer : m_aProducers)
        if (producer.hEvent) CloseHandle(producer.hEvent);
    if (m_hWriterThreadExit) CloseHandle(m_hWriterThreadExit);
}

// ---------------------------------------------------------------------------
// Life
// ---------------------------------------------------------------------------

int ZR_Writers::Start() {
    int iStarted = 0;
    for (Queue& queue : m_aQueues) {
        ++m_iRunningWriterThreads;  // before the thread may end
        queue.hThread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, WriterProc, this, 0, nullptr));
        if (!queue.hThread) {
            --m_iRunningWriterThreads;
            continue;
        }
        SetThreadPriority(queue.hThread, THREAD_PRIORITY_ABOVE_NORMAL);
        ++iStarted;
    }
    return iStarted;
}

void ZR_Writers::StopAndWait() {
    m_bStopWriters = true;
    for (Queue& queue : m_aQueues) SetEvent(queue.hEvent);
    while (m_iRunningWriterThreads > 0) WaitForSingleObject(m_hWriterThreadExit, kWaitLimitMs);
}

void ZR_Writers::WakeAll() {
    for (Queue& queue : m_aQueues) SetEvent(queue.hEvent);
    for (Producer& producer : m_aProducers) SetEvent(producer.hEvent);
}

unsigned ZR_Writers::WriterProc(void* pThis) {
    auto* pWriters = static_cast<ZR_Writers*>(pThis);
    const int iThread = pWriters->m_iNextWriterThreadId++;
    try {
        pWriters->WriteDataProc(iThread);
    } catch (...) {
        ZR_Error(pWriters->m_DB.GetMountKey(), __FILE__, "ZR_Writers::WriteDataProc", __LINE__,
                 "Writer thread %d ended on an exception.\n", iThread);
    }
    // The last touch of the object: StopAndWait may destroy it once the
    // count is 0.
    HANDLE hExit = pWriters->m_hWriterThreadExit;
    --pWriters->m_iRunningWriterThreads;
    SetEvent(hExit);
    return 0;
}

// ---------------------------------------------------------------------------
// Producers
// ---------------------------------------------------------------------------

void* ZR_Writers::GetPoolBuffer(int iThread, uint32_t iSize) { return Pool(iThread).Get(iSize); }

void ZR_Writers::FreePoolBuffer(int iThread, void* pBuffer) { Pool(iThread).Free(pBuffer); }

PageId ZR_Writers::FirstPageOf(const void* pBuffer, uint32_t iBytes) {
    const auto* p = static_cast<const uint8_t*>(pBuffer);
    uint32_t iSkip = 0;
    if (iBytes >= 12 && IsTag(p, "APAD")) iSkip = (ZR_Load<uint32_t>(p + 8) + 511) & ~511u;
    if (uint64_t{iSkip} + 38 > iBytes || IsTag(p + iSkip, "MQDA")) return PageId{0, 0};
    return PageId{PageAt(p, iSkip), FileIdAt(p, iSkip)};
}

void ZR_Writers::GiveBack(Entry& entry) {
    if (!entry.pBuffer) return;
    if (g_iTraceMode) TraceLine("[thread%d] Free mem %p to pool\n", entry.iProducer, entry.pBuffer);
    FreePoolBuffer(entry.iProducer, entry.pBuffer);
    entry.pBuffer = nullptr;
}

size_t ZR_Writers::CleanBefore(Queue& queue, PageId firstPage, bool bAll) {
    std::vector<Entry>& a = queue.aEntries;
    size_t iPlace = SIZE_MAX;
    for (size_t i = 0; i < a.size();) {
        if (a[i].eState == ENTRY_FINISHED) {
            GiveBack(a[i]);
            a.erase(a.begin() + std::ptrdiff_t(i));
            continue;
        }
        if (iPlace == SIZE_MAX && a[i].FirstPage.m_iFileId == firstPage.m_iFileId &&
            a[i].FirstPage.m_iPage > firstPage.m_iPage) {
            iPlace = i;
            if (!bAll) break;
        }
        ++i;
    }
    return iPlace == SIZE_MAX ? a.size() : iPlace;
}

void ZR_Writers::PostToWriter(int iThread, void* pBuffer, uint32_t iBytes, ZR_BlockKind_e eKind, uint64_t iToken) {
    const PageId firstPage = FirstPageOf(pBuffer, iBytes);
    const int iWriter = firstPage.m_iFileId % NumWriters();
    Queue& queue = m_aQueues[size_t(iWriter)];
    Producer& producer = m_aProducers[size_t(iThread)];
    const size_t iLimit = size_t(m_Sizing.iWriterQueueLimit);
    for (;;) {
        if (m_DB.m_bCancel) {
            FreePoolBuffer(iThread, pBuffer);
            return;
        }
        EnterCriticalSection(&queue.cs);
        size_t iPlace = CleanBefore(queue, firstPage, false);
        if (queue.aEntries.size() >= iLimit) iPlace = CleanBefore(queue, firstPage, true);
        const bool bIn = queue.aEntries.size() < iLimit;
        bool bWake = false;
        if (bIn) {
            queue.aEntries.insert(queue.aEntries.begin() + std::ptrdiff_t(iPlace),
                                  Entry{pBuffer, iToken, iBytes, firstPage, iThread, ENTRY_READY, eKind});
            bWake = queue.bIdle;
            queue.bIdle = false;
        } else {
            ++m_DB.m_DecompressorWaitingOnWriter;
            producer.iWaitingOnWriter = iWriter;
        }
        LeaveCriticalSection(&queue.cs);
        if (bWake) SetEvent(queue.hEvent);
        if (bIn) return;
        WaitForSingleObject(producer.hEvent, kWaitLimitMs);
    }
}

void ZR_Writers::WaitForEmptyWriterQueues(int iThread) {
    if (g_iTraceMode) TraceLine("WaitForEmptyWriterQueues\n");
    Producer& producer = m_aProducers[size_t(iThread)];
    for (Queue& queue : m_aQueues) {
        for (;;) {
            EnterCriticalSection(&queue.cs);
            const bool bBusy = std::any_of(queue.aEntries.begin(), queue.aEntries.end(),
                                           [](const Entry& e) { return e.eState != ENTRY_FINISHED; });
            if (bBusy) producer.iWaitingOnWriter = kAllWriters;
            LeaveCriticalSection(&queue.cs);
            if (!bBusy || m_DB.m_bCancel) break;
            SetEvent(queue.hEvent);
            WaitForSingleObject(producer.hEvent, kWaitLimitMs);
        }
    }
    if (g_iTraceMode) TraceLine("writer queues all empty now\n");
}

int ZR_Writers::UnfinishedBlocks() {
    int iCount = 0;
    for (Queue& queue : m_aQueues) {
        EnterCriticalSection(&queue.cs);
        for (const Entry& entry : queue.aEntries) iCount += entry.eState != ENTRY_FINISHED;
        LeaveCriticalSection(&queue.cs);
    }
    return iCount;
}

void ZR_Writers::ReleaseQueues() {
    for (Queue& queue : m_aQueues) {
        EnterCriticalSection(&queue.cs);
        for (Entry& entry : queue.aEntries) GiveBack(entry);
        queue.aEntries.clear();
        LeaveCriticalSection(&queue.cs);
    }
}

// ---------------------------------------------------------------------------
// Writers
// ---------------------------------------------------------------------------

void ZR_Writers::WakeProducers(int iWriter) {
    const bool bDataFileMode = m_DB.m_eHydrationMode == ZR_HYDRATE_DATA_FILE;
    bool bWokeOne = false;
    for (Producer& producer : m_aProducers) {
        int32_t iWaiting = producer.iWaitingOnWriter;
        const bool bForThis = !bWokeOne && iWaiting == iWriter;
        if (!bForThis && !(bDataFileMode && iWaiting == kAllWriters)) continue;
        producer.iWaitingOnWriter = kNoWriter;
        SetEvent(producer.hEvent);
        bWokeOne = bWokeOne || bForThis;
        if (bForThis && !bDataFileMode) return;
    }
}

void ZR_Writers::CleanWriterQueue(int iWriter) {
    Queue& queue = m_aQueues[size_t(iWriter)];
    const int iLimit = m_Sizing.iWriterQueueLimit;
    for (;;) {
        int iBusy = 0;
        for (Entry& entry : queue.aEntries) {
            if (entry.eState != ENTRY_WITH_DRIVER) continue;
            if (!ZR_BufferPool::IsFinished(entry.pBuffer)) {
                ++iBusy;
                continue;
            }
            entry.eState = ENTRY_FINISHED;
            if (queue.aEntries.size() <= size_t(iLimit)) WakeProducers(iWriter);
        }
        // At a cancel and at the end nothing may stay with the driver.
        if (iBusy < iLimit && (iBusy == 0 || (!m_DB.m_bCancel && !m_bStopWriters))) return;
        ++m_DB.m_iNumQFullWaitingOnDriver;
        WaitForSingleObject(queue.hEvent, kDriverWaitMs);  // the lock stays held: producers wait too
    }
}

bool ZR_Writers::GetNextWriteBlock(int iWriter, Entry* pOut, bool* pbQueueFull) {
    Queue& queue = m_aQueues[size_t(iWriter)];
    bool bFound = false;
    while (!bFound && !m_DB.m_bCancel) {
        EnterCriticalSection(&queue.cs);
        CleanWriterQueue(iWriter);
        if (m_DB.m_bCancel) {
            LeaveCriticalSection(&queue.cs);
            break;
        }
        auto it = std::find_if(queue.aEntries.begin(), queue.aEntries.end(),
                               [](const Entry& e) { return e.eState == ENTRY_READY; });
        if (it != queue.aEntries.end()) {
            it->eState = ENTRY_WITH_DRIVER;
            *pOut = *it;
            *pbQueueFull = m_Sizing.bQueueMemoryCapped && it - queue.aEntries.begin() >= m_Sizing.iWriterQueueLimit - 1;
            bFound = true;
        } else {
            queue.bIdle = true;
            ++m_DB.m_WriterWaiting;
            for (Producer& producer : m_aProducers) SetEvent(producer.hEvent);
        }
        LeaveCriticalSection(&queue.cs);
        if (bFound || m_bStopWriters) break;
        WaitForSingleObject(queue.hEvent, kWaitLimitMs);
    }
    if (m_DB.m_bCancel) WakeAll();
    return bFound;
}

void ZR_Writers::WriteDataProc(int iThread) {
    if (g_iTraceMode) TraceLine("WriteDataProc iThread: %d\n", iThread);
    for (bool bDidWork = true; !m_DB.m_bCancel && !(m_bStopWriters && !bDidWork);) {
        Entry entry;
        bool bQueueFull = false;
        bDidWork = GetNextWriteBlock(iThread, &entry, &bQueueFull);
        if (!bDidWork) {
            if (g_iTraceMode) TraceLine("WriteDataProc thread %d - GetNextWriteBlock returned false\n", iThread);
            continue;
        }
        WriteBlock(iThread, entry, bQueueFull);
    }
}

// A run ends at a gap between extents, at 1 MiB, or at the end of the
// block's whole pages. A page inside an extent that is not the one expected
// stays in the run with a zeroed header: the driver makes it a page of zeros.
ZR_Writers::Run ZR_Writers::NextRun(uint8_t* pBlock, uint32_t iPos, uint32_t iBytes) {
    Run run{iPos, iPos + ZR_PAGE_SIZE, FileIdAt(pBlock, iPos), PageAt(pBlock, iPos)};
    for (uint32_t iExpected = run.iFirstPage + 1; run.iEnd + ZR_PAGE_SIZE <= iBytes; ++iExpected) {
        const bool bMatch = FileIdAt(pBlock, run.iEnd) == run.iFileId && PageAt(pBlock, run.iEnd) == iExpected;
        if (!bMatch && iExpected % ZR_PAGES_PER_EXTENT == 0) break;
        if (run.iEnd - run.iPos >= kLongestRun) break;
        if (!bMatch) std::memset(pBlock + run.iEnd, 0, ZR_PAGE_HEADER_SIZE);
        run.iEnd += ZR_PAGE_SIZE;
    }
    return run;
}

// Whether the run is the copy that counts: its extent map names this block
// for every page, and (for the full backup) the differential holds none.
bool ZR_Writers::RunCounts(int iThread, const Run& run, uint8_t* pBlock, const Entry& entry) {
    ZR_Backup* pBackup = entry.eKind == ZR_BLOCK_DIFF ? m_DB.GetDiff() : m_DB.GetFull();
    ZR_Backup* pDiff = entry.eKind == ZR_BLOCK_FULL ? m_DB.GetDiff() : nullptr;
    if (!pBackup) return false;
    for (uint32_t iPos = run.iPos; iPos < run.iEnd; iPos += ZR_PAGE_SIZE) {
        const PageId page{PageAt(pBlock, iPos), run.iFileId};
        if (page.m_iPage == 0) continue;  // a cleared header, or the file's first page
        if (pBackup->LookupPage(page).GetOffset() != (entry.iToken & ZR_EMap::kOffsetMask)) return false;
        if (pDiff && pDiff->LookupPage(page).HasCopy()) {
            if (g_iTraceMode)
                TraceLine("iThread: %d Detected corresponding pages in diff. Skip these. file ID: %d page id: %d\n",
                          iThread, run.iFileId, page.m_iPage);
            return false;
        }
    }
    return true;
}

void ZR_Writers::SendRun(int iThread, const Run& run, uint8_t* pBlock, const Entry& entry, bool bQueueFull) {
    const ZR_DataFileState file = m_DB.DataFileState(run.iFileId);
    ZR_HydrationRange range{};
    range.iFirstExtent = run.iFirstPage;
    range.iNumExtents = (run.iEnd - run.iPos) / ZR_PAGE_SIZE;
    if (run.iFileId % NumWriters() != iThread) ++m_DB.m_iNumMultipleDataFilesInSameSB;
    for (int iTry = 0; iTry < kSendTries && !m_DB.m_bCancel; ++iTry) {
        const HRESULT hr = SendHydratePages(file.uniquifier, pBlock + run.iPos, range,
                                            bQueueFull ? ZR_HYDRATE_MODE_WRITER_FULL : ZR_HYDRATE_MODE_WRITER,
                                            ZR_BufferPool::HeaderOf(entry.pBuffer), nullptr);
        if (hr == S_OK) {
            ZR_BufferPool::NotePosted(entry.pBuffer);
            m_DB.m_TotalHydratedByBackupPasses += run.iEnd - run.iPos;
            return;
        }
        ++m_DB.m_WriterBlockedBySQLServerIO;
        Sleep(kSendRetryMs);
    }
    if (g_iTraceMode)
        TraceLine("Maxed out 5 write attempts. Moving on. Catch it in final hydration by data file mode.\n");
}

void ZR_Writers::WriteBlock(int iThread, const Entry& entry, bool bQueueFull) {
    auto* pBlock = static_cast<uint8_t*>(entry.pBuffer);
    ZR_BufferPool::ResetHeader(entry.pBuffer);
    int iMessages = 0;
    for (uint32_t iPos = 0; iPos + ZR_PAGE_SIZE <= entry.iBytes;) {
        if (IsTag(pBlock + iPos, "APAD")) {
            iPos += PadBytes(pBlock + iPos);
            continue;
        }
        const Run run = NextRun(pBlock, iPos, entry.iBytes);
        iPos = run.iEnd;
        const ZR_DataFileState file = m_DB.DataFileState(run.iFileId);
        if (!file.bOpen || !RunCounts(iThread, run, pBlock, entry)) continue;
        if (g_iTraceMode)
            TraceLine("WriteDataProc iThread: %d - hydrate %d bytes worth of pages to driver. data file ID %d "
                      "bQueueFull: %d\n",
                      iThread, run.iEnd - run.iPos, run.iFileId, bQueueFull);
        if (bQueueFull) ++m_DB.m_iNumPreSyncForFullWriterQueue;
        if (++iMessages > kMessagesPerHeader) {
            while (!ZR_BufferPool::IsFinished(entry.pBuffer)) {
                if (m_DB.m_bCancel) return;  // what the driver holds is waited for by the queue's clean-up
                Sleep(1);
            }
            ZR_BufferPool::ResetHeader(entry.pBuffer);
            iMessages = 1;
        }
        SendRun(iThread, run, pBlock, entry, bQueueFull);
    }
}
