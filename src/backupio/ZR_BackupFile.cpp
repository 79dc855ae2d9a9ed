#include "backupio/ZR_BackupFile.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/ZR_Pattern.h"

namespace {

constexpr uint64_t ENTRY_OFFSET_MASK = (uint64_t(1) << 52) - 1;

bool IsPowerOfTwo(uint32_t i) { return i != 0 && (i & (i - 1)) == 0; }

wchar_t* DupOrNull(const wchar_t* pwsz) { return pwsz ? _wcsdup(pwsz) : nullptr; }

void TraceReadLine(ZR_IO_e eIO, HANDLE hFile, uint64_t iOfs, uint32_t iLen, uint64_t iMicroseconds) {
    TraceLine("    %s %p %I64d %d %d.%d\n", GetIOName(eIO), hFile, static_cast<int64_t>(iOfs), static_cast<int>(iLen),
              static_cast<int>(iMicroseconds / 1000000), static_cast<int>(iMicroseconds % 1000000));
}

void TraceNativeLine(uint64_t iSeekOfs, uint32_t iLen, uint32_t iRelativeOfs, uint32_t iPageOfs, void* pDest) {
    TraceLine("ZR_BackupFile::ReadNative - iSeekOfs: %I64d iLen: %d iRelativeOfs: %d iPageOfs: %d pParam: %p\n",
              static_cast<int64_t>(iSeekOfs), static_cast<int>(iLen), static_cast<int>(iRelativeOfs),
              static_cast<int>(iPageOfs), pDest);
}

// A drive root, or the first two components of a UNC path, with the
// trailing backslash.
const ZR_Pattern& RootPattern() {
    static const ZR_Pattern s_pattern = [] {
        ZR_Pattern pattern;
        pattern.Compile(LR"re(^{([A-Za-z]:\\)|(\\\\[^\\]+\\[^\\]+\\)})re", true);
        return pattern;
    }();
    return s_pattern;
}

}  // namespace

ZR_BackupFile::ZR_BackupFile(const wchar_t* pwszContext, int iDataSet, const wchar_t* pwszFileName,
                             const wchar_t* pwszPasswordKey, bool bPasswordKeyEncrypted)
    : m_HandleOpen(0),
      m_hFile(INVALID_HANDLE_VALUE),
      m_pwszFileName(DupOrNull(pwszFileName ? pwszFileName : L"")),
      m_pwszPasswordKey(DupOrNull(pwszPasswordKey)),
      m_pwszContext(DupOrNull(pwszContext)),
      m_bPasswordKeyEncrypted(bPasswordKeyEncrypted),
      m_iDataSet(iDataSet),
      m_iNextRawOffset(0),
      m_eBackend(static_cast<ZR_Backend_e>(0)),
      m_iFileSize(0),
      m_iSectorSize(0),
      m_iNumDecompressions(0),
      m_iMaxTransferSize(0),
      m_iBytesTotal(0),
      m_iBytesRead(0),
      m_csReader(),
      m_pKelpState(nullptr),
      m_csPool(),
      m_csQueue(),
      m_iMaxQueued(0),
      m_hReaderEvent(nullptr),
      m_bStopReader(false),
      m_bReaderStarted(false),
      m_iNumQueued(0),
      m_hDecompressorEvent(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      m_hReaderThread(INVALID_HANDLE_VALUE),
      m_iDecompressorsWaiting(0) {
    InitializeCriticalSection(&m_csReader);
}

ZR_BackupFile::~ZR_BackupFile() {
    // The sequential reader is never started on a native file, so there is
    // no reader thread to stop here.
    if (m_hDecompressorEvent) CloseHandle(m_hDecompressorEvent);
    if (g_iTraceMode) TraceLine("~ZR_BackupFile Fini\n");
    free(m_pwszFileName);
    free(m_pwszPasswordKey);
    m_pwszFileName = nullptr;
    m_pwszPasswordKey = nullptr;
    DeleteCriticalSection(&m_csReader);
    if (g_iTraceMode) TraceLine("~ZR_BackupFile done\n");
    Close();
    free(m_pwszContext);
}

wchar_t* ZR_BackupFile::GetPasswordKey() const { return DupOrNull(m_pwszPasswordKey); }

void ZR_BackupFile::FindRoot(const wchar_t* pwszPath, wchar_t* pwszRoot) {
    wmemset(pwszRoot, 0, ms_iRootChars);
    if (!pwszPath) return;
    ZR_PatternMatch match(256);
    if (!RootPattern().Match(pwszPath, &match, nullptr)) return;
    const wchar_t* pStart = nullptr;
    const wchar_t* pEnd = nullptr;
    match.GetGroup(0, &pStart, &pEnd);
    if (!pStart || !pEnd) return;
    const size_t iChars = static_cast<size_t>(pEnd - pStart);
    // A root that does not fit is no root: the caller then uses the default
    // sector size rather than asking about a truncated name.
    if (iChars >= ms_iRootChars) return;
    wmemcpy(pwszRoot, pStart, iChars);
}

bool ZR_BackupFile::Open() {
    if (IsOpen()) return true;
    m_hFile = CreateFileW(m_pwszFileName, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                          ms_iOpenFlags, nullptr);
    if (m_hFile == INVALID_HANDLE_VALUE) {
        FailOpen();
        return false;
    }
    m_HandleOpen = ZR_HandleTag(m_hFile);
    if (g_iTraceMode) TraceLine("ZR_BackupFile::Open() - m_HandleOpen: %08x\n", m_HandleOpen);

    DWORD iHigh = 0;
    SetLastError(NO_ERROR);
    const DWORD iLow = ::GetFileSize(m_hFile, &iHigh);
    if (iLow == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) {
        ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::Open", __LINE__, "GetFileSize returned error %d for file %S\n",
                 static_cast<int>(GetLastError()), m_pwszFileName);
        Close();
        return false;
    }
    m_iFileSize = (uint64_t(iHigh) << 32) | iLow;

    if (!LearnSectorSize()) {
        Close();
        return false;
    }
    return true;
}

void ZR_BackupFile::FailOpen() {
    const DWORD iError = GetLastError();
    const DWORD iAttributes = GetFileAttributesW(m_pwszFileName);
    if (iAttributes == INVALID_FILE_ATTRIBUTES || (iAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        SetLastError(iError);
        ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::Open", __LINE__, "Error %d occurred on file open of %S\n",
                 static_cast<int>(iError), m_pwszFileName);
        return;
    }
    // A folder cannot be opened as a file: the system says "access denied",
    // which would send the reader after permissions. The report says what
    // it is instead, without that text; the caller still sees the error.
    SetLastError(NO_ERROR);
    ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::Open", __LINE__, "%S is a folder, not a backup file.\n",
             m_pwszFileName);
    SetLastError(iError);
}

bool ZR_BackupFile::LearnSectorSize() {
    wchar_t wszRoot[ms_iRootChars];
    FindRoot(m_pwszFileName, wszRoot);
    if (wszRoot[0] == 0) {
        m_iSectorSize = ms_iDefaultSectorSize;
        return true;
    }
    DWORD iSectorsPerCluster = 0, iBytesPerSector = 0, iFreeClusters = 0, iClusters = 0;
    if (!GetDiskFreeSpaceW(wszRoot, &iSectorsPerCluster, &iBytesPerSector, &iFreeClusters, &iClusters)) {
        ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::Open", __LINE__,
                 "GetDiskFreeSpace returned error %d for file %S\n", static_cast<int>(GetLastError()), m_pwszFileName);
        return false;
    }
    // Every alignment test masks with the sector size, and a window must
    // hold whole sectors: anything else would make the reads unsound.
    if (!IsPowerOfTwo(iBytesPerSector) || iBytesPerSector > ms_iMaxSectorSize) {
        ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::Open", __LINE__,
                 "GetDiskFreeSpace returned sector size %d for file %S\n", static_cast<int>(iBytesPerSector),
                 m_pwszFileName);
        return false;
    }
    m_iSectorSize = iBytesPerSector;
    return true;
}

void ZR_BackupFile::Close() {
    if (m_hFile == INVALID_HANDLE_VALUE) return;
    CloseHandle(m_hFile);
    m_hFile = INVALID_HANDLE_VALUE;
}

void ZR_BackupFile::SetNextRawOffset(uint64_t iOffset) {
    EnterCriticalSection(&m_csReader);
    if (iOffset < m_iNextRawOffset || m_iNextRawOffset == 0) m_iNextRawOffset = iOffset;
    if (m_bReaderStarted && m_hReaderEvent) SetEvent(m_hReaderEvent);
    if (m_iNextRawOffset == 0 && m_hDecompressorEvent) SetEvent(m_hDecompressorEvent);
    LeaveCriticalSection(&m_csReader);
}

uint64_t ZR_BackupFile::GetNextRawOffset() {
    EnterCriticalSection(&m_csReader);
    const uint64_t iOffset = m_iNextRawOffset;
    LeaveCriticalSection(&m_csReader);
    return iOffset;
}

bool ZR_BackupFile::Read(ZR_ReadAhead* pAhead, void* pDest, uint64_t iOfs, uint32_t iLen, ZR_IO_e eIO,
                         uint32_t* piRead) {
    const bool bBufferAligned = !ZR_IOMovesBytes(eIO) || IsAligned(reinterpret_cast<uintptr_t>(pDest));
    if (IsAligned(iOfs) && IsAligned(iLen) && bBufferAligned) return ReadA(pDest, iOfs, iLen, eIO, piRead);
    return ReadU(pAhead, pDest, iOfs, iLen, eIO, piRead);
}

bool ZR_BackupFile::IssueRead(void* pDest, uint32_t iLen, OVERLAPPED* pOverlapped, DWORD* piRead) {
    *piRead = 0;
    if (ReadFile(m_hFile, pDest, iLen, piRead, pOverlapped)) return true;
    if (GetLastError() != ERROR_IO_PENDING) return false;
    // The handle has no file position, so the wait for this OVERLAPPED is all
    // that ties the bytes to this call: other threads may read meanwhile.
    return GetOverlappedResult(m_hFile, pOverlapped, piRead, TRUE) != FALSE;
}

bool ZR_BackupFile::CheckFullRead(uint64_t iOfs, uint32_t iLen, DWORD iRead) {
    // Only the end of the file may cut a read short; anything less is a
    // failed read, or the caller would take stale bytes for the file's.
    const uint64_t iExpected = iOfs < m_iFileSize ? std::min<uint64_t>(iLen, m_iFileSize - iOfs) : iLen;
    if (iRead >= iExpected) return true;
    SetLastError(ERROR_HANDLE_EOF);
    return false;
}

void ZR_BackupFile::FailRead(const char* szFunction, int iLine, uint64_t iOfs, uint32_t iLen) {
    ZR_Error(m_pwszContext, __FILE__, szFunction, iLine, "Error occurred on read of file %S at offset %I64d for length %d\n",
             m_pwszFileName, static_cast<int64_t>(iOfs), static_cast<int>(iLen));
}

bool ZR_BackupFile::ReadA(void* pDest, uint64_t iOfs, uint32_t iLen, ZR_IO_e eIO, uint32_t* piRead) {
    const bool bMoves = ZR_IOMovesBytes(eIO);
    if (!IsAligned(iOfs) || !IsAligned(iLen) || (bMoves && !IsAligned(reinterpret_cast<uintptr_t>(pDest)))) {
        ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::ReadA", __LINE__,
                 "Error unaligned access on read of file %S at offset %I64d for length %d\n", m_pwszFileName,
                 static_cast<int64_t>(iOfs), static_cast<int>(iLen));
        return false;
    }
    OVERLAPPED overlapped{};
    overlapped.Offset = static_cast<DWORD>(iOfs);
    overlapped.OffsetHigh = static_cast<DWORD>(iOfs >> 32);
    overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (g_iTraceMode) TraceLine("ZR_BackupFile::ReadA - HandleOpen: %08x\n", ZR_HandleTag(overlapped.hEvent));

    const uint64_t iStart = ZR_IOStats::QueryTicks();
    DWORD iRead = 0;
    bool bOk = overlapped.hEvent != nullptr;
    if (bOk && bMoves) bOk = IssueRead(pDest, iLen, &overlapped, &iRead) && CheckFullRead(iOfs, iLen, iRead);
    if (!bOk) {
        g_iLastIOError = GetLastError();
        FailRead("ZR_BackupFile::ReadA", __LINE__, iOfs, iLen);
    } else if (piRead) {
        *piRead = iRead;
    }
    const uint64_t iTicks = ZR_IOStats::QueryTicks() - iStart;
    g_IOStats.AddIO(ZR_FILE_KIND_BAK, eIO, iLen, iTicks);
    if (g_iTraceMode) TraceReadLine(eIO, m_hFile, iOfs, iLen, g_IOStats.TicksToMicroseconds(iTicks));
    if (overlapped.hEvent) CloseHandle(overlapped.hEvent);
    return bOk;
}

void ZR_BackupFile::FailPastEnd(uint64_t iOfs, uint32_t iLen) {
    ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::ReadU", __LINE__,
             "Error reading past end of file %S at offset %I64d for length %d\n", m_pwszFileName,
             static_cast<int64_t>(iOfs), static_cast<int>(iLen));
}

bool ZR_BackupFile::Refill(ZR_ReadAhead* pAhead, uint64_t iOfs, uint32_t iLen) {
    const uint64_t iSectorMask = uint64_t(m_iSectorSize) - 1;
    pAhead->iBufferOfs = pAhead->iCursor & ~iSectorMask;
    // The last window of a file whose size is no whole number of sectors
    // asks for the rounded-up length: an unbuffered read returns what lies
    // before the end, so the file's last bytes stay readable.
    const uint64_t iLeft = (m_iFileSize - pAhead->iBufferOfs + iSectorMask) & ~iSectorMask;
    const uint32_t iWant = static_cast<uint32_t>(std::min<uint64_t>(iLeft, ZR_ReadAhead::ms_iDataSize));
    uint32_t iRead = 0;
    if (!ReadA(pAhead->aData, pAhead->iBufferOfs, iWant, IO_READ, &iRead)) {
        // An empty window keeps the read-ahead usable for a later read.
        pAhead->iBufferLen = 0;
        FailRead("ZR_BackupFile::ReadU", __LINE__, iOfs, iLen);
        return false;
    }
    pAhead->iBufferLen = static_cast<uint32_t>(std::min<uint64_t>({iRead, iWant, m_iFileSize - pAhead->iBufferOfs}));
    return true;
}

bool ZR_BackupFile::ReadU(ZR_ReadAhead* pAhead, void* pDest, uint64_t iOfs, uint32_t iLen, ZR_IO_e eIO,
                          uint32_t* piRead) {
    if (!pAhead) {
        ZR_Error(m_pwszContext, __FILE__, "ZR_BackupFile::ReadU", __LINE__,
                 "Error unaligned access without read-ahead buffer on read of file %S at offset %I64d for length %d\n",
                 m_pwszFileName, static_cast<int64_t>(iOfs), static_cast<int>(iLen));
        return false;
    }
    const bool bMoves = ZR_IOMovesBytes(eIO);
    uint8_t* pOut = static_cast<uint8_t*>(pDest);
    uint32_t iDone = 0;
    pAhead->iCursor = iOfs;
    while (iDone < iLen) {
        if (pAhead->iCursor >= m_iFileSize) {
            FailPastEnd(iOfs, iLen);
            return false;
        }
        const bool bInWindow =
            pAhead->iCursor >= pAhead->iBufferOfs && pAhead->iCursor - pAhead->iBufferOfs < pAhead->iBufferLen;
        if (!bInWindow && !Refill(pAhead, iOfs, iLen)) return false;
        const uint64_t iAt = pAhead->iCursor - pAhead->iBufferOfs;
        if (iAt >= pAhead->iBufferLen) {
            // The disk gave less than the window needs: never copy beyond
            // what it delivered, and never spin on an empty window.
            FailRead("ZR_BackupFile::ReadU", __LINE__, iOfs, iLen);
            return false;
        }
        const uint32_t iChunk = static_cast<uint32_t>(std::min<uint64_t>(pAhead->iBufferLen - iAt, iLen - iDone));
        if (bMoves) memcpy(pOut + iDone, pAhead->aData + iAt, iChunk);
        iDone += iChunk;
        pAhead->iCursor += iChunk;
    }
    if (piRead) *piRead = iLen;
    return true;
}

bool ZR_BackupFile::ReadNative(ZR_ReadAhead* pAhead, void* pDest, uint64_t iEntry, PageId pageId, uint32_t iLen,
                               ZR_IO_e eIO, uint32_t* piRead) {
    const uint32_t iRelativeOfs = static_cast<uint32_t>((iEntry >> 52) & 0x3F) * ZR_EXTENT_SIZE;
    const uint32_t iPageOfs = (pageId.m_iPage & (ZR_PAGES_PER_EXTENT - 1)) * ZR_PAGE_SIZE;
    const uint64_t iSeekOfs = (iEntry & ENTRY_OFFSET_MASK) + iRelativeOfs + iPageOfs;
    if (g_iTraceMode) TraceNativeLine(iSeekOfs, iLen, iRelativeOfs, iPageOfs, pDest);
    return Read(pAhead, pDest, iSeekOfs, iLen, eIO, piRead);
}
