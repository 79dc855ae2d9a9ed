// The I/O log: the vocabulary of I/O kinds and file kinds that readers and
// formatters share, and the process-wide statistic of aligned backup reads
// kept by file kind, I/O kind and transfer size.
//
// Every aligned read of a backup file (ZR_BackupFile::ReadA) adds itself
// here, so the statistic doubles as the counter of calls and bytes that tests
// and benchmarks query: GetTotals sums one file kind and I/O kind, Clear
// starts a fresh count.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/win32.h"

// The kind of an I/O operation. Only IO_READ, IO_READ_SEQUENTIAL and
// IO_READ_DEVICE_SEQUENTIAL move bytes; with any other kind a read moves
// nothing.
enum ZR_IO_e : int32_t {
    IO_UNKNOWN = 0,
    IO_OPEN = 1,
    IO_READ = 2,
    IO_READ_SEQUENTIAL = 3,
    IO_WRITE = 4,
    IO_READ_FULFILL = 5,
    IO_READ_DEVICE_SEQUENTIAL = 6,
    IO_SET_FP = 7,
    IO_SET_EOF = 8,
    IO_SET_FVD = 9,
    IO_SCRUB = 10,
    IO_CLOSE = 11,
};
constexpr int ZR_IO_COUNT = 12;

enum ZR_IO_STATUS_e : int32_t {
    IO_INITIAL = 0,
    IO_WAITING = 1,
    IO_READY = 2,
    IO_WORKING = 3,
    IO_FAILURE = 4,
    IO_SUCCESS = 5,
    IO_REAPED = 6,
};

// File kinds, 1 to 13; the statistic keeps the kinds 1 to 10.
constexpr int ZR_FILE_KIND_BAK = 10;
constexpr int ZR_FILE_KIND_COUNT = 13;
constexpr int ZR_STAT_KINDS = 10;

// Whether a read of this kind transfers bytes.
inline bool ZR_IOMovesBytes(ZR_IO_e eIO) {
    return eIO == IO_READ || eIO == IO_READ_SEQUENTIAL || eIO == IO_READ_DEVICE_SEQUENTIAL;
}

// Short names for reports: "Read", "ReadSequential", ...; "" for values
// outside the table. The texts are static.
const char* GetIOName(ZR_IO_e eIO);
// "MDF" ... "kxlp" for 1 to 13; "" for any other number.
const char* GetFileKindName(int iFileKind);

// The statistic of one transfer size within a file kind and I/O kind.
struct ZR_IOEntry {
    uint32_t iLength;
    uint32_t iCount;
    uint64_t iMinTicks;
    uint64_t iMaxTicks;
    uint64_t iTotalTicks;
};

// One object for the process (g_IOStats). Any thread may call AddIO; each
// file kind has its own lock, held only while its rows change or are read.
class ZR_IOStats {
public:
    ZR_IOStats();
    ~ZR_IOStats();
    ZR_IOStats(const ZR_IOStats&) = delete;
    ZR_IOStats& operator=(const ZR_IOStats&) = delete;

    static uint64_t QueryTicks();
    uint64_t TicksToMicroseconds(uint64_t iTicks) const;

    // Counts one operation of iLength bytes that took iTicks. Kinds outside
    // 1..10 and I/O kinds outside the table are ignored.
    void AddIO(int iFileKind, ZR_IO_e eIO, unsigned iLength, uint64_t iTicks);

    // A copy of the entries of one row, in the order of first appearance.
    std::vector<ZR_IOEntry> GetEntries(int iFileKind, ZR_IO_e eIO) const;
    // Operations and bytes (count x length) of one row. Either pointer may
    // be null.
    void GetTotals(int iFileKind, ZR_IO_e eIO, uint64_t* piCalls, uint64_t* piBytes) const;
    // Forgets every entry: a fresh start for a test or a benchmark.
    void Clear();

private:
    struct Kind {
        mutable CRITICAL_SECTION m_cs;
        std::vector<ZR_IOEntry> m_aRows[ZR_IO_COUNT];
    };
    Kind* KindOf(int iFileKind, ZR_IO_e eIO) const;

    uint64_t m_iFrequency;
    mutable Kind m_aKinds[ZR_STAT_KINDS];  // index 0 is file kind 1
};

extern ZR_IOStats g_IOStats;
