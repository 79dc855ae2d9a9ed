// The build of an extent map: one pass over the data streams of every file
// of the backup, reading the first page header of each 65,536-byte extent
// and entering the extent under the page id it names. It reads 1/128 of the
// data, evenly spread, once for each backup; later mounts read the map file.
#include "backup/ZR_Backup.h"

#include "backup/ZR_Read.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

#include <cstring>

namespace {

constexpr uint32_t kHeaderRead = 512;
constexpr uint8_t kDumpHeaderPage = 100;
constexpr uint8_t kDumpTrailerPage = 101;

// What the walk needs of a page header: byte 0 the header version (1 in a
// page), byte 1 the page type.
struct ExtentHead {
    uint8_t iHeaderVersion;
    uint8_t iType;
};

ExtentHead HeadOf(const uint8_t* pPage) { return ExtentHead{pPage[0], pPage[1]}; }

// Owns the read-ahead of one build; its first 16,384 bytes, in front of the
// data window, hold the header being read.
class ExtentBuffer {
public:
    ExtentBuffer() : m_p(ZR_ReadAhead::Alloc()) {}
    ~ExtentBuffer() {
        if (m_p)
            ZR_ReadAhead::Free(m_p);
    }
    ExtentBuffer(const ExtentBuffer&) = delete;
    ExtentBuffer& operator=(const ExtentBuffer&) = delete;
    ZR_ReadAhead* Get() const { return m_p; }
    uint8_t* Page() const { return reinterpret_cast<uint8_t*>(m_p); }

private:
    ZR_ReadAhead* m_p;
};

}  // namespace

namespace {

enum class HeaderRead { kRead, kShort, kFailed };

// Reads the 512-byte header of the extent at relative offset iOfs of the
// reader's current stream with one small aligned read that covers it,
// rather than a whole read-ahead window: the build touches 512 bytes of
// every 65,536. The read lands in the free area in front of the window,
// pOut first, the aligned buffer behind it. A stream tail too short for a
// header is kShort. *piFileOfs receives the header's file offset.
HeaderRead ReadExtentHeader(ZR_Backup* pB, ZR_Read& read, uint64_t iOfs, uint8_t* pOut, int* piDevice,
                            uint64_t* piFileOfs) {
    if (!read.SeekStreamOffset(iOfs))
        return HeaderRead::kFailed;
    const ZR_StripeLocation seg = read.GetLocation();
    const uint64_t d = read.m_iStreamPrevious - read.m_iStreamMarker;
    if (seg.iLength - d < kHeaderRead)
        return HeaderRead::kShort;
    ZR_BackupFile* pFile = pB->GetFile(seg.iDevice);
    if (!pFile)
        return HeaderRead::kFailed;
    const uint64_t iSector = pFile->GetSectorSize() ? pFile->GetSectorSize() : ZR_BackupFile::ms_iDefaultSectorSize;
    const uint64_t iFileOfs = seg.iBkpFileOfs + seg.iRelativeOfs + d;
    const uint64_t iStart = iFileOfs & ~(iSector - 1);
    const uint64_t iEnd = (iFileOfs + kHeaderRead + iSector - 1) & ~(iSector - 1);
    uint8_t* pBuffer = reinterpret_cast<uint8_t*>(
        (reinterpret_cast<uintptr_t>(pOut) + kHeaderRead + iSector - 1) & ~static_cast<uintptr_t>(iSector - 1));
    if (pBuffer + (iEnd - iStart) > pOut + ZR_ReadAhead::ms_iDataOffset)
        return HeaderRead::kFailed;  // a sector size this area cannot serve
    uint32_t iRead = 0;
    if (!pFile->Read(nullptr, pBuffer, iStart, static_cast<uint32_t>(iEnd - iStart), IO_READ, &iRead) ||
        iRead < iFileOfs - iStart + kHeaderRead)
        return HeaderRead::kFailed;
    std::memcpy(pOut, pBuffer + (iFileOfs - iStart), kHeaderRead);
    *piDevice = seg.iDevice;
    *piFileOfs = iFileOfs;
    return HeaderRead::kRead;
}

}  // namespace

// Walks the extents of the current MQDA stream of read. False on a read
// error (recorded); *pbTrailer tells that the dump trailer page ended the
// data of the file.
bool ZR_Backup::ConstructStreamExtents(ZR_Read& read, uint8_t* pPage, bool* pbTrailer) {
    const uint64_t iLength = read.GetSTREAM()->m_length;
    for (uint64_t iOfs = 0; iOfs + MTF_SQL_DATA_PREFIX < iLength; iOfs += ZR_EXTENT_SIZE) {
        int iDevice = 0;
        uint64_t iFileOfs = 0;
        const HeaderRead eRead = ReadExtentHeader(this, read, iOfs, pPage, &iDevice, &iFileOfs);
        if (eRead == HeaderRead::kShort)
            break;
        if (eRead == HeaderRead::kFailed) {
            ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ConstructEMaps", __LINE__, "MTF Error: MQDA.\n");
            if (g_iTraceMode)
                TraceLine("MTF Error: MQDA. return false.\n");
            return false;
        }
        const ExtentHead head = HeadOf(pPage);
        if (head.iHeaderVersion != 1)
            continue;  // leftover bytes, no page
        if (head.iType >= kDumpHeaderPage) {
            if (g_iTraceMode)
                TraceLine("Page::DUMP_HEADER_PAGE - break to move to next stream\n");
            *pbTrailer = head.iType == kDumpTrailerPage;
            break;
        }
        if (head.iType != 0)  // an unallocated first page leaves the extent out
            m_pEMaps->Augment(pPage, iDevice, iFileOfs, 0);
    }
    return true;
}

bool ZR_Backup::ConstructEMaps() {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::ConstructEMaps()\n");
    ExtentBuffer buffer;
    if (!buffer.Get()) {
        if (g_iTraceMode)
            TraceLine("Out of memory\n");
        throw "out of memory exception\n";
    }
    m_pEMaps->SetIsIncremental(false);
    for (int iThread = 0; iThread < m_pCMaps->GetNumFiles(); ++iThread) {
        if (g_iTraceMode)
            TraceLine("iThread: %d\n", iThread);
        ZR_Read read(this, iThread);
        bool bTrailer = false;
        // Every data block of the row, each with its data streams in turn,
        // until the trailer page ends the file's data.
        while (!bTrailer && read.Read(buffer.Get(), MTF_ID_MSDA, -1)) {
            while (!bTrailer && read.Read(buffer.Get(), MTF_ID_MQDA)) {
                if (!ConstructStreamExtents(read, buffer.Page(), &bTrailer))
                    return false;
            }
        }
    }
    if (g_iTraceMode)
        TraceLine("ConstructEMaps returning\n");
    return true;
}
