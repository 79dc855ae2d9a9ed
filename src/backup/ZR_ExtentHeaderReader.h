// Reads the first 512 bytes of many extents of a backup at once. Building
// an extent map reads one page header per 64 KiB extent: 1/128 of the data,
// but as many small reads as there are extents, each waiting out the
// device's latency when made one after the other. This reader makes a
// batch of them from a few threads at a time, each read a small aligned
// read that covers just the header, so that the build costs about the
// bandwidth of 1/128 of the backup rather than its latency per extent.
//
// Ownership and threads: one object per build, used by the building thread;
// the worker threads live for one Read call and write only their own
// headers. The backup's files are open; they serve concurrent reads.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/win32.h"

class ZR_Backup;

class ZR_ExtentHeaderReader {
public:
    static constexpr uint32_t ms_iHeaderSize = 512;
    static constexpr int ms_iBatch = 8192;     // headers of one Read call at most
    static constexpr int ms_iThreads = 32;     // reads in flight
    static constexpr int ms_iPerThread = 64;   // fewer headers than this a thread are read inline

    // Where one extent lies: the backup file and the offset in it.
    struct Extent {
        int iDevice;
        uint64_t iFileOfs;
    };

    explicit ZR_ExtentHeaderReader(ZR_Backup* pB);
    ~ZR_ExtentHeaderReader();
    ZR_ExtentHeaderReader(const ZR_ExtentHeaderReader&) = delete;
    ZR_ExtentHeaderReader& operator=(const ZR_ExtentHeaderReader&) = delete;

    // False when memory for the headers could not be had.
    bool IsReady() const { return m_pHeaders != nullptr; }
    // Reads the headers of aExtents (at most ms_iBatch). False when any
    // read failed; the file reader has recorded why.
    bool Read(const std::vector<Extent>& aExtents);
    // The header of aExtents[i] of the last Read.
    const uint8_t* Header(size_t i) const { return m_pHeaders + i * ms_iHeaderSize; }

private:
    static DWORD Worker(LPVOID pParam);
    void Work();
    bool ReadOne(size_t i, uint8_t* pScratch);

    ZR_Backup* m_pB;
    uint8_t* m_pHeaders = nullptr;   // ms_iBatch headers
    const std::vector<Extent>* m_paExtents = nullptr;
    volatile long m_iNext = 0;       // next extent to take
    volatile long m_iFailed = 0;     // a read failed
};
