// The writer threads of one hydration and what stands between them and the
// hydration threads: one queue for each writer, one buffer pool and one
// event for each hydration thread (a producer).
//
// In backup-driven hydration a producer reads a block of a backup's data
// stream into a buffer of its pool and posts it; the block goes to the
// writer of the data file its first page belongs to, in page order within
// that file. The writer cuts the block into runs of contiguous pages of one
// data file, drops the runs whose copy does not count (the extent map names
// another place for them, or the differential holds them), and hands each
// run to the driver (command 9, modes 1 and 2). The driver reports on the
// completion header in front of the buffer; a finished block goes back to
// its pool when a producer passes it, or when the queue is cleaned.
//
// Back-pressure: a producer whose writer's queue is full waits until an
// entry finishes; a writer with a queue limit's worth of blocks at the
// driver waits for the driver before it takes more; an idle writer wakes
// all producers.
//
// Life: made by DataHydrate for one hydration (sizes from
// ZR_HydrationSizing), Start, then StopAndWait once every hydration thread
// has ended, then destroyed: what is left in the queues goes back to the
// pools, and the pools free their buffers. Every wait has a time limit and
// looks again after it; a cancel (m_bCancel of the database, then WakeAll)
// makes every writer end once the driver has finished what it holds.
//
// Locks: one for each writer's queue, one for each pool; writer lock, then
// pool lock. No other lock is taken under them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "engine/ZR_BufferPool.h"
#include "engine/ZR_HydrationSizing.h"
#include "foundation/ZR_Types.h"
#include "platform/win32.h"

class ZR_Database;

// Which backup a block comes from.
enum ZR_BlockKind_e : int32_t { ZR_BLOCK_FULL = 1, ZR_BLOCK_DIFF = 2 };

class ZR_Writers {
public:
    ZR_Writers(ZR_Database& db, const ZR_HydrationSizing& sizing);
    ~ZR_Writers();
    ZR_Writers(const ZR_Writers&) = delete;
    ZR_Writers& operator=(const ZR_Writers&) = delete;

    // Starts the writer threads above normal priority; the number started.
    int Start();
    // Every producer has ended: the writers hand the driver what is queued,
    // wait for it to finish, and end. Returns when all have ended.
    void StopAndWait();
    // Wakes every writer and every producer, for them to look at the
    // database's cancel flag.
    void WakeAll();

    // --- for producer iThread (0 to T - 1) ---
    // Signalled when a writer has room, has finished entries, or is idle;
    // and by WakeAll. Producers also wait on it for their own pauses.
    HANDLE ProducerEvent(int iThread) { return m_aProducers[size_t(iThread)].hEvent; }
    void* GetPoolBuffer(int iThread, uint32_t iSize);
    void FreePoolBuffer(int iThread, void* pBuffer);
    // Queues a block read into a buffer of the thread's pool; iToken is the
    // block's offset in its backup file (bits 0 to 51 of an extent map
    // entry). Waits while the writer's queue is full; a cancel gives the
    // buffer back instead.
    void PostToWriter(int iThread, void* pBuffer, uint32_t iBytes, ZR_BlockKind_e eKind, uint64_t iToken);
    // Returns when every queue is empty of blocks not finished, or at a
    // cancel.
    void WaitForEmptyWriterQueues(int iThread);

    // The first page of a block: behind an "APAD" pad, page 0 of file 0 when
    // the block holds none (or starts with an "MQDA" header).
    static PageId FirstPageOf(const void* pBuffer, uint32_t iBytes);

    const ZR_HydrationSizing& Sizing() const { return m_Sizing; }
    int NumWriters() const { return static_cast<int>(m_aQueues.size()); }
    // Blocks in the queues that the driver has not finished.
    int UnfinishedBlocks();
    // Once the writers have ended: every buffer left in the queues goes back
    // to its pool. The destructor does it too.
    void ReleaseQueues();
    ZR_BufferPool& Pool(int iThread) { return *m_aProducers[size_t(iThread)].pPool; }

private:
    enum EntryState_e : int32_t { ENTRY_FINISHED = 1, ENTRY_READY = 4, ENTRY_WITH_DRIVER = 8 };
    struct Entry {
        void* pBuffer = nullptr;
        uint64_t iToken = 0;
        uint32_t iBytes = 0;
        PageId FirstPage{};
        int32_t iProducer = 0;
        int32_t eState = ENTRY_READY;
        int32_t eKind = ZR_BLOCK_FULL;
    };
    struct Queue {
        CRITICAL_SECTION cs;
        std::vector<Entry> aEntries;  // at most m_iWriterQueueLimit in use
        HANDLE hEvent = nullptr;      // auto-reset
        bool bIdle = false;
        HANDLE hThread = nullptr;
    };
    struct Producer {
        std::unique_ptr<ZR_BufferPool> pPool;
        HANDLE hEvent = nullptr;                   // auto-reset
        std::atomic<int32_t> iWaitingOnWriter{0};  // a writer, -1 none, kAllWriters
    };
    // What a run of pages is: a stretch of a block, of one data file.
    struct Run {
        uint32_t iPos = 0, iEnd = 0;
        uint16_t iFileId = 0;
        uint32_t iFirstPage = 0;
    };

    static unsigned WriterProc(void* pThis);
    void WriteDataProc(int iThread);
    bool GetNextWriteBlock(int iWriter, Entry* pOut, bool* pbQueueFull);
    // The caller holds the writer's lock.
    void CleanWriterQueue(int iWriter);
    void WakeProducers(int iWriter);
    // Takes finished entries out of the queue up to (or, with bAll, beyond)
    // the place of a new entry for firstPage; the place.
    size_t CleanBefore(Queue& queue, PageId firstPage, bool bAll);
    void GiveBack(Entry& entry);
    void WriteBlock(int iThread, const Entry& entry, bool bQueueFull);
    Run NextRun(uint8_t* pBlock, uint32_t iPos, uint32_t iBytes);
    bool RunCounts(int iThread, const Run& run, uint8_t* pBlock, const Entry& entry);
    void SendRun(int iThread, const Run& run, uint8_t* pBlock, const Entry& entry, bool bQueueFull);

    ZR_Database& m_DB;
    const ZR_HydrationSizing m_Sizing;
    std::vector<Queue> m_aQueues;
    std::vector<Producer> m_aProducers;
    std::atomic<bool> m_bStopWriters{false};
    std::atomic<int32_t> m_iNextWriterThreadId{0};
    std::atomic<int32_t> m_iRunningWriterThreads{0};
    HANDLE m_hWriterThreadExit = nullptr;  // auto-reset: a writer has ended
};
