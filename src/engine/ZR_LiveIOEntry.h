// One read that the driver holds, queued on its database until a live I/O
// thread has filled its buffer from the backups (ZR_Database, ZR_LiveIO.cpp).
//
// Entries live in blocks of ms_iBlockEntries, each one allocation, and are
// recycled through the database's free list: after the first blocks a read
// costs no allocation. A taken entry stays in the queue with its owner until
// it is removed, so that later walks see which backup block it occupies.
#pragma once

#include <atomic>
#include <cstdint>

struct ZR_LiveIOEntry {
    static constexpr int ms_iBlockEntries = 100;
    static constexpr int ms_iFirstBlockSlots = 10;
    static constexpr uint32_t ms_iNoOwner = 0xFFFFFFFF;
    static constexpr uint32_t ms_iBitmapBytes = 128;  // 1,024 pages, 8 MiB

    uint64_t iOffset;        // byte offset in the data file
    void* pOpId;             // the driver's id of the operation, returned at completion
    void* pBuffer;           // where the pages go, valid in this process
    uint32_t iBytes;         // length of the read
    uint32_t iFileId;        // SQL Server's file id (the low 16 bits count)
    uint32_t iOwner;         // the live I/O thread that owns it; ms_iNoOwner for none
    uint8_t bTaken;          // a thread is working on it
    void* iBufferKey;        // the driver's key of the mapped buffer, returned at completion
    ZR_LiveIOEntry* pNext;   // next in its list; in a copy, only followed under the lock
    uint8_t Bitmap[ms_iBitmapBytes];  // pages the driver has already: not to be read
};

// Process-wide statistics of live I/O, for the hydration report.
extern std::atomic<int32_t> g_i1MBSQLServerReads;      // reads of exactly 1 MiB
extern std::atomic<int32_t> g_iNon1MBSQLServerReads;   // reads of any other size
extern std::atomic<int32_t> g_i64KSQLServerReads;      // reads of exactly 64 KiB
extern std::atomic<int32_t> g_iNumGetLiveIOWaits;      // walks that came to the end of the queue
extern std::atomic<int32_t> g_iNumNon0ThreadActivity;  // reads taken by a thread other than 0
