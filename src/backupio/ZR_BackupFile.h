// One physical backup file: one stripe of a backup set, as the library reads
// it. A ZR_Backup owns one ZR_BackupFile per stripe and chooses the file of
// each read; every byte of a backup passes through here.
//
// Backup files are never read through the system cache: the handle is opened
// with FILE_FLAG_NO_BUFFERING (O_DIRECT on Linux, where the platform falls
// back to buffered I/O if the file system refuses it), so each disk read must
// be sector aligned in offset, length and buffer. There are two roads:
//   ReadA  aligned requests, straight into the caller's buffer, no copy;
//   ReadU  any request, through a caller-owned ZR_ReadAhead window.
// Read picks the road.
//
// Sector size: taken from GetDiskFreeSpaceW on the root of the path (a drive
// root "C:\" or a UNC root "\\host\share\"). A Linux path has no such root,
// and then the sector size is 512 bytes (ms_iDefaultSectorSize): the logical
// block size that O_DIRECT requires on common devices, and the unit that
// backup files are written in, so that the last window of a file is aligned
// too. A root longer than 63 characters is not taken as a root either.
//
// Threads: ReadA, Read without a read-ahead, and ReadNative in page form keep
// nothing in the object, so any number of threads may read one open file at
// once, each with its own OVERLAPPED and event. A ZR_ReadAhead has one user
// at a time. Open and Close are called by the owner while no read runs;
// m_iFileSize and m_iSectorSize are written by Open only.
//
// Failures return false after recording the reason with ZR_Error under
// m_pwszContext, with the file name and, for reads, the offset and length.
// A failed disk read also leaves the system error in g_iLastIOError.
#pragma once

#include <cstdint>

#include "backupio/ZR_IOStats.h"
#include "backupio/ZR_ReadAhead.h"
#include "foundation/ZR_Types.h"
#include "platform/win32.h"

class ZR_BackupFile {
public:
    static constexpr uint32_t ms_iDefaultSectorSize = 512;
    // The largest sector size Open accepts: a read-ahead window must hold
    // whole sectors, and buffers for aligned reads are sized from it.
    static constexpr uint32_t ms_iMaxSectorSize = 16384;
    static constexpr size_t ms_iRootChars = 64;
    // Flags of the open: FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING
    // | FILE_ATTRIBUTE_NORMAL.
    static constexpr DWORD ms_iOpenFlags = 0x60000080;

    // Copies the strings; the file stays closed. pwszPasswordKey may be null.
    ZR_BackupFile(const wchar_t* pwszContext, int iDataSet, const wchar_t* pwszFileName,
                  const wchar_t* pwszPasswordKey, bool bPasswordKeyEncrypted);
    ~ZR_BackupFile();
    ZR_BackupFile(const ZR_BackupFile&) = delete;
    ZR_BackupFile& operator=(const ZR_BackupFile&) = delete;

    // Opens the file and learns its size and sector size. On failure the
    // file is closed. Opening an open file does nothing. Open and Close may
    // alternate any number of times; neither touches the format, the caches
    // or the counters.
    bool Open();
    // Closes the handle if it is open; closing a closed file does nothing.
    void Close();

    // The one road in: ReadA when offset, length and (for kinds that move
    // bytes) the buffer are sector aligned, else ReadU, which needs pAhead.
    // piRead, if not null, receives the bytes delivered.
    bool Read(ZR_ReadAhead* pAhead, void* pDest, uint64_t iOfs, uint32_t iLen, ZR_IO_e eIO, uint32_t* piRead);
    // An aligned read. A read that reaches the end of the file delivers what
    // the file holds (*piRead tells); a read that stops short of both the
    // request and the end of the file is an error.
    bool ReadA(void* pDest, uint64_t iOfs, uint32_t iLen, ZR_IO_e eIO, uint32_t* piRead);
    // Any read, through the window of pAhead. A read that runs past the end
    // of the file copies what lies before the end and then fails. The disk
    // is always read with IO_READ, whatever eIO says; bytes are copied to
    // pDest only for kinds that move bytes.
    bool ReadU(ZR_ReadAhead* pAhead, void* pDest, uint64_t iOfs, uint32_t iLen, ZR_IO_e eIO, uint32_t* piRead);
    // Page form: iEntry is an extent map entry (bits 0-51 file offset, 52-57
    // relative offset in 64 KB units, 58-63 file index, chosen by the
    // caller); the low three bits of the page number pick the page within
    // the extent. Callers pass aligned lengths and buffers.
    bool ReadNative(ZR_ReadAhead* pAhead, void* pDest, uint64_t iEntry, PageId pageId, uint32_t iLen, ZR_IO_e eIO,
                    uint32_t* piRead);

    // The root of a path ("C:\", "\\host\share\") into a buffer of
    // ms_iRootChars characters; the empty string when there is none.
    static void FindRoot(const wchar_t* pwszPath, wchar_t* pwszRoot);

    HANDLE GetHandle() const { return m_hFile; }
    bool IsOpen() const { return m_hFile != INVALID_HANDLE_VALUE; }
    const wchar_t* GetFileName() const { return m_pwszFileName; }
    // A heap copy for the caller to free with free(); null if there is none.
    wchar_t* GetPasswordKey() const;
    bool IsPasswordKeyEncrypted() const { return m_bPasswordKeyEncrypted; }
    int GetDataSet() const { return m_iDataSet; }
    ZR_Backend_e GetBackend() const { return m_eBackend; }
    void SetBackend(ZR_Backend_e eBackend) { m_eBackend = eBackend; }
    uint64_t GetFileSize() const { return m_iFileSize; }
    uint32_t GetSectorSize() const { return m_iSectorSize; }
    uint32_t GetHandleTag() const { return m_HandleOpen; }
    void SetMaxTransferSize(int iMaxTransferSize) { m_iMaxTransferSize = iMaxTransferSize; }
    int GetMaxTransferSize() const { return m_iMaxTransferSize; }
    // Where the sequential reader is to go on: a value is taken when it is
    // below the present one or the present one is 0, so 0 (nothing left to
    // read) is always taken. Under m_csReader; wakes a running reader, and
    // its consumers when nothing is left.
    void SetNextRawOffset(uint64_t iOffset);
    uint64_t GetNextRawOffset();
    int GetNumDecompressions() const { return m_iNumDecompressions; }
    void ResetNumDecompressions() { m_iNumDecompressions = 0; }

private:
    bool IsAligned(uint64_t iValue) const { return (iValue & (uint64_t(m_iSectorSize) - 1)) == 0; }
    // Records why CreateFileW failed, naming a folder as one.
    void FailOpen();
    bool LearnSectorSize();
    bool IssueRead(void* pDest, uint32_t iLen, OVERLAPPED* pOverlapped, DWORD* piRead);
    bool CheckFullRead(uint64_t iOfs, uint32_t iLen, DWORD iRead);
    bool Refill(ZR_ReadAhead* pAhead, uint64_t iOfs, uint32_t iLen);
    void FailRead(const char* szFunction, int iLine, uint64_t iOfs, uint32_t iLen);
    void FailPastEnd(uint64_t iOfs, uint32_t iLen);

    uint32_t m_HandleOpen;           // low 32 bits of m_hFile + 0x87654321, for the trace only
    HANDLE m_hFile;                  // INVALID_HANDLE_VALUE while closed
    wchar_t* m_pwszFileName;         // owned
    wchar_t* m_pwszPasswordKey;      // owned, may be null (compressed backups)
    wchar_t* m_pwszContext;          // owned, may be null: the key of every error made here
    bool m_bPasswordKeyEncrypted;
    int m_iDataSet;
    uint64_t m_iNextRawOffset;       // where the sequential reader goes on; 0: nothing left
    ZR_Backend_e m_eBackend;         // 0 until a scan has looked at the file
    uint64_t m_iFileSize;
    uint32_t m_iSectorSize;
    int m_iNumDecompressions;        // guarded by m_csReader
    int m_iMaxTransferSize;
    // m_Cache and m_SequentialCache (decompressed blocks) come with the
    // compressed reader.
    uint64_t m_iBytesTotal;          // decompressed bytes produced
    uint64_t m_iBytesRead;           // decompressed bytes handed to callers
    // m_KelpCtxs (decompression contexts) comes with the compressed reader.
    CRITICAL_SECTION m_csReader;     // the sequential reader's offset, flags and device reads
    void* m_pKelpState;              // this file's device-read context; null until needed
    CRITICAL_SECTION m_csPool;       // made by the sequential reader when it starts
    CRITICAL_SECTION m_csQueue;      // made by the sequential reader when it starts
    int m_iMaxQueued;
    HANDLE m_hReaderEvent;           // auto-reset, made when the reader starts
    bool m_bStopReader;
    bool m_bReaderStarted;
    int m_iNumQueued;
    // m_pQueue and m_pPool (raw blocks in flight) come with the sequential
    // reader.
    HANDLE m_hDecompressorEvent;     // auto-reset, wakes consumers of the raw queue
    HANDLE m_hReaderThread;          // INVALID_HANDLE_VALUE while there is none
    int m_iDecompressorsWaiting;
};
