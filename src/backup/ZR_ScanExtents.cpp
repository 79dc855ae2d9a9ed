// The build of an extent map: one pass over the data streams of every file
// of the backup, reading the first page header of each 65,536-byte extent
// and entering the extent under the page id it names. It reads 1/128 of the
// data, evenly spread, once for each backup; later mounts read the map file.
#include "backup/ZR_Backup.h"

#include <vector>

#include "backup/ZR_ExtentHeaderReader.h"
#include "backup/ZR_Read.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

namespace {

constexpr uint8_t kDumpHeaderPage = 100;
constexpr uint8_t kDumpTrailerPage = 101;

using Extent = ZR_ExtentHeaderReader::Extent;

// Where the extent at relative offset iOfs of the reader's current stream
// lies. False when no segment holds a whole header there (a stream's tail).
bool LocateExtent(ZR_Read& read, uint64_t iOfs, Extent* pExtent) {
    if (!read.SeekStreamOffset(iOfs))
        return false;
    const ZR_StripeLocation seg = read.GetLocation();
    const uint64_t d = read.m_iStreamPrevious - read.m_iStreamMarker;  // place of the extent in the segment
    if (seg.iLength - d < ZR_ExtentHeaderReader::ms_iHeaderSize)
        return false;
    *pExtent = Extent{seg.iDevice, seg.iBkpFileOfs + seg.iRelativeOfs + d};
    return true;
}

// Enters the extents of one batch in order. False when a dump page ends
// the stream; *pbTrailer tells that the trailer page ended the file's data.
bool EnterExtents(ZR_EMaps* pEMaps, const std::vector<Extent>& aBatch, const ZR_ExtentHeaderReader& reader,
                  bool* pbTrailer) {
    for (size_t i = 0; i < aBatch.size(); ++i) {
        const uint8_t* pPage = reader.Header(i);
        if (pPage[0] != 1)
            continue;  // header version other than 1: leftover bytes, no page
        const uint8_t iType = pPage[1];
        if (iType >= kDumpHeaderPage) {
            if (g_iTraceMode)
                TraceLine("Page::DUMP_HEADER_PAGE - break to move to next stream\n");
            *pbTrailer = iType == kDumpTrailerPage;
            return false;
        }
        if (iType != 0)  // an unallocated first page leaves the extent out
            pEMaps->Augment(pPage, aBatch[i].iDevice, aBatch[i].iFileOfs, 0);
    }
    return true;
}

// Walks the extents of the current MQDA stream of read, a batch of headers
// at a time. False on a read error (recorded).
bool ConstructStreamExtents(ZR_Backup* pB, ZR_Read& read, ZR_ExtentHeaderReader& reader, bool* pbTrailer) {
    const uint64_t iLength = read.GetSTREAM()->m_length;
    std::vector<Extent> aBatch;
    aBatch.reserve(ZR_ExtentHeaderReader::ms_iBatch);
    uint64_t iOfs = 0;
    bool bMore = true;
    while (bMore && iOfs + MTF_SQL_DATA_PREFIX < iLength) {
        aBatch.clear();
        while (aBatch.size() < ZR_ExtentHeaderReader::ms_iBatch && iOfs + MTF_SQL_DATA_PREFIX < iLength) {
            Extent x;
            if (!LocateExtent(read, iOfs, &x)) {
                bMore = false;
                break;
            }
            aBatch.push_back(x);
            iOfs += ZR_EXTENT_SIZE;
        }
        if (!reader.Read(aBatch)) {
            ZR_Error(pB->m_wszKey, __FILE__, "ZR_Backup::ConstructEMaps", __LINE__, "MTF Error: MQDA.\n");
            if (g_iTraceMode)
                TraceLine("MTF Error: MQDA. return false.\n");
            return false;
        }
        bMore = bMore && EnterExtents(pB->m_pEMaps, aBatch, reader, pbTrailer);
    }
    return true;
}

}  // namespace

bool ZR_Backup::ConstructEMaps() {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::ConstructEMaps()\n");
    ZR_ExtentHeaderReader reader(this);
    ZR_ReadAhead* pAhead = ZR_ReadAhead::Alloc();
    if (!reader.IsReady() || !pAhead) {
        if (pAhead)
            ZR_ReadAhead::Free(pAhead);
        if (g_iTraceMode)
            TraceLine("Out of memory\n");
        throw "out of memory exception\n";
    }
    m_pEMaps->SetIsIncremental(false);
    bool bOk = true;
    for (int iThread = 0; bOk && iThread < m_pCMaps->GetNumFiles(); ++iThread) {
        if (g_iTraceMode)
            TraceLine("iThread: %d\n", iThread);
        ZR_Read read(this, iThread);
        pAhead->Reset();  // the window holds bytes of the previous file
        bool bTrailer = false;
        // Every data block of the row, each with its data streams in turn,
        // until the trailer page ends the file's data.
        while (bOk && !bTrailer && read.Read(pAhead, MTF_ID_MSDA, -1)) {
            while (bOk && !bTrailer && read.Read(pAhead, MTF_ID_MQDA))
                bOk = ConstructStreamExtents(this, read, reader, &bTrailer);
        }
    }
    ZR_ReadAhead::Free(pAhead);
    if (bOk && g_iTraceMode)
        TraceLine("ConstructEMaps returning\n");
    return bOk;
}
