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
// headers. The backup's files are open; they serve concurrent reads. What a
// worker throws (exhausted memory) is thrown again on the building thread
// once every worker has ended.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>
#include <vector>

#include "backupio/ZR_BackupFile.h"
#include "foundation/ZR_Types.h"
#include "platform/win32.h"

class ZR_Backup;

class ZR_ExtentHeaderReader {
public:
    static constexpr uint32_t ms_iHeaderSize = 512;
    static constexpr int ms_iBatch = 8192;     // headers of one Read call at most
    static constexpr int ms_iThreads = 32;     // reads in flight
    static constexpr int ms_iPerThread = 64;   // fewer headers than this a thread are read inline
    // Room for the aligned read around one header at any offset, whatever
    // sector size the file reader accepts: at most two sectors.
    static constexpr SIZE_T ms_iScratchSize = SIZE_T{2} * ZR_BackupFile::ms_iMaxSectorSize;

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

    // The page id at offset 32 of a page header.
    static PageId PageIdOf(const uint8_t* pHeader);
    // What a build enters an extent by: a first page of header version 1,
    // the type of a database page (1 to 99) and a file id.
    static bool IsEnteredPage(const uint8_t* pHeader);

    // The ms_iHeaderSize bytes at iOfs of an open file, through one small
    // aligned read into pScratch (ms_iScratchSize bytes, page aligned).
    static bool ReadHeaderAt(ZR_BackupFile* pFile, uint64_t iOfs, uint8_t* pScratch, uint8_t* pHeader);

private:
    static DWORD Worker(LPVOID pParam);
    void Work();
    void Fail(std::exception_ptr pThrown);

    ZR_Backup* m_pB;
    uint8_t* m_pHeaders = nullptr;   // ms_iBatch headers
    const std::vector<Extent>* m_paExtents = nullptr;
    std::atomic<long> m_iNext{0};       // next extent to take
    std::atomic<bool> m_bFailed{false}; // a read failed or threw
    std::mutex m_mxThrown;              // guards m_pThrown
    std::exception_ptr m_pThrown;       // the first exception of a reading thread
};
