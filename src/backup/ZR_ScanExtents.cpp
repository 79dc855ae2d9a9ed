// The build of an extent map: one pass over the data streams of every file
// of the backup, reading the first page header of each 65,536-byte extent
// and entering the extent under the page id it names. It reads 1/128 of the
// data, evenly spread, once for each backup; later mounts read the map file.
#include "backup/ZR_Backup.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "backup/ZR_ExtentHeaderReader.h"
#include "backup/SQL_Records.h"
#include "backup/ZR_Read.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

namespace {

constexpr uint8_t kDumpHeaderPage = 100;
constexpr uint8_t kDumpTrailerPage = 101;

using Extent = ZR_ExtentHeaderReader::Extent;

// How many extents each data file can have: its size as the configuration
// records it, 16 TB for a file id it does not name. An extent beyond is no
// extent of the database, whatever its header says, and entering it would
// size a row of the map by a damaged page number.
class ExtentLimits {
public:
    explicit ExtentLimits(ZR_ConfigInfo& config) {
        for (int i = 0; i < static_cast<int>(config.m_Files); ++i) {
            const SQL_FILE_INFO_V7* pFile = config.m_Files(i);
            if (!pFile || pFile->m_file_type != SQL_FILE_DATABASE)
                continue;
            const size_t iId = pFile->m_file_number & 0xFFFF;
            if (iId >= m_aExtents.size())
                m_aExtents.resize(iId + 1, ZR_EMaps::ms_iMaxExtents);
            m_aExtents[iId] = std::min(ZR_EMaps::ms_iMaxExtents, (pFile->m_file_size + ZR_EXTENT_SIZE - 1) / ZR_EXTENT_SIZE);
        }
    }
    uint64_t For(uint16_t iFileId) const {
        return iFileId < m_aExtents.size() ? m_aExtents[iFileId] : ZR_EMaps::ms_iMaxExtents;
    }

private:
    std::vector<uint64_t> m_aExtents;
};

// What one build needs beside the map: the limits, and whether an extent
// beyond them has been reported (once for a build is enough to tell).
struct BuildState {
    ZR_Backup* pB;
    ZR_EMaps* pEMaps;
    ExtentLimits limits;
    bool bReportedBeyond = false;
};

// False (with a warning, the first time) for an extent whose first page
// lies beyond its data file.
bool WithinFile(BuildState& state, const uint8_t* pPage, const Extent& x) {
    const PageId id = ZR_ExtentHeaderReader::PageIdOf(pPage);
    const uint64_t iLimit = state.limits.For(id.m_iFileId);
    if (id.m_iPage / ZR_PAGES_PER_EXTENT < iLimit)
        return true;
    if (!state.bReportedBeyond) {
        state.bReportedBeyond = true;
        ZR_BackupFile* pFile = state.pB->GetFile(x.iDevice);
        ZR_Warning(state.pB->m_wszKey, __FILE__, "ZR_Backup::ConstructEMaps", __LINE__,
                   "The extent at offset %I64d of backup file %S names page %d:%u, beyond the %I64d bytes of its data "
                   "file; it is left out.\n",
                   static_cast<int64_t>(x.iFileOfs), pFile ? pFile->GetFileName() : L"", static_cast<int>(id.m_iFileId),
                   id.m_iPage, static_cast<int64_t>(iLimit * ZR_EXTENT_SIZE));
    }
    return false;
}

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
bool EnterExtents(BuildState& state, const std::vector<Extent>& aBatch, const ZR_ExtentHeaderReader& reader,
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
        // An unallocated first page leaves the extent out.
        if (ZR_ExtentHeaderReader::IsEnteredPage(pPage) && WithinFile(state, pPage, aBatch[i]))
            state.pEMaps->Augment(pPage, aBatch[i].iDevice, aBatch[i].iFileOfs, 0);
    }
    return true;
}

// Walks the extents of the current MQDA stream of read, a batch of headers
// at a time. False on a read error (recorded).
bool ConstructStreamExtents(BuildState& state, ZR_Read& read, ZR_ExtentHeaderReader& reader, bool* pbTrailer) {
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
            ZR_Error(state.pB->m_wszKey, __FILE__, "ZR_Backup::ConstructEMaps", __LINE__, "MTF Error: MQDA.\n");
            if (g_iTraceMode)
                TraceLine("MTF Error: MQDA. return false.\n");
            return false;
        }
        bMore = bMore && EnterExtents(state, aBatch, reader, pbTrailer);
    }
    return true;
}

}  // namespace

bool ZR_Backup::ConstructEMaps(ZR_EMaps* pEMaps) {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::ConstructEMaps()\n");
    ZR_ExtentHeaderReader reader(this);
    // Freed however the walk ends: a throw (exhausted memory) goes on.
    std::unique_ptr<ZR_ReadAhead, void (*)(ZR_ReadAhead*)> pAhead(ZR_ReadAhead::Alloc(), ZR_ReadAhead::Free);
    if (!reader.IsReady() || !pAhead) {
        if (g_iTraceMode)
            TraceLine("Out of memory\n");
        throw "out of memory exception\n";
    }
    pEMaps->SetIsIncremental(false);
    BuildState state{this, pEMaps, ExtentLimits(m_pCMaps->m_ConfigMSLS)};
    bool bOk = true;
    for (int iThread = 0; bOk && iThread < m_pCMaps->GetNumFiles(); ++iThread) {
        if (g_iTraceMode)
            TraceLine("iThread: %d\n", iThread);
        ZR_Read read(this, iThread);
        pAhead->Reset();  // the window holds bytes of the previous file
        bool bTrailer = false;
        // Every data block of the row, each with its data streams in turn,
        // until the trailer page ends the file's data.
        while (bOk && !bTrailer && read.Read(pAhead.get(), MTF_ID_MSDA, -1)) {
            while (bOk && !bTrailer && read.Read(pAhead.get(), MTF_ID_MQDA))
                bOk = ConstructStreamExtents(state, read, reader, &bTrailer);
        }
    }
    if (bOk && g_iTraceMode)
        TraceLine("ConstructEMaps returning\n");
    return bOk;
}
