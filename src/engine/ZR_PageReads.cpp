// Pages of a data file read from the backups: every page that leaves the
// backups for a data file, live or for hydration, passes through
// ReadFileByBitMap. Only the differential and the full backup supply pages;
// SQL Server applies the logs itself.
//
// The walk goes through the wanted pages in stretches (pages whose bits are
// clear), finds for each page the copy that counts, and joins neighbours
// into runs that one backup read serves: a request costs one read for each
// contiguous stretch of a backup file, and a compressed block is
// decompressed once for a request that lies in it.
#include "engine/ZR_Database.h"

#include <cstring>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"

namespace {

// A read above the first MiB of a data file is no longer the attach's look
// at the file headers: SQL Server is recovering the database.
constexpr uint64_t kRecoveryOffset = 0x100000;
// Hydration reads that needed fewer backup reads than this count as low.
constexpr int kLowAllocatedRuns = 16;

bool IsPageWanted(const uint8_t* pBitmap, uint32_t iBit) {
    return (pBitmap[iBit >> 3] & (0x80 >> (iBit & 7))) == 0;
}

}  // namespace

// Pages that one backup read serves, or that no backup holds.
struct ZR_Database::PageRun {
    ZR_PageLocation first;   // where the first page lies
    ZR_PageLocation last;    // where the last page so far lies
    PageId firstId;
    uint8_t* pDest;          // the first page's place in the buffer; null without a buffer
    uint32_t iPages;
};

struct ZR_Database::PageReadTally {
    int iRuns = 0;           // runs read from a backup, counted in hydration reads
    bool bFailed = false;
};

ZR_PageLocation ZR_Database::LocatePage(PageId pageId) {
    if (ZR_Backup* pDiff = GetDiff()) {
        ZR_EMap entry = pDiff->LookupPage(pageId);
        if (entry.HasCopy()) return ZR_PageLocation{pDiff, entry};
    }
    ZR_Backup* pFull = GetFull();
    return ZR_PageLocation{pFull, pFull ? pFull->LookupPage(pageId) : ZR_EMap{}};
}

bool ZR_Database::JoinsRun(const ZR_PageLocation& a, const ZR_PageLocation& b, ZR_Backend_e eBackend) {
    if (a.pBackup != b.pBackup || a.entry.GetDevice() != b.entry.GetDevice()) return false;
    if (a.entry.m_iEntry == b.entry.m_iEntry) return true;
    // Offset 0 (nothing held) would otherwise join a real extent at 64 KiB.
    if (!a.entry.HasCopy() || !b.entry.HasCopy()) return false;
    if (eBackend == ZR_BACKEND_MTF) return a.entry.GetOffset() + ZR_EXTENT_SIZE == b.entry.GetOffset();
    return a.entry.GetOffset() == b.entry.GetOffset() && b.entry.GetRelative() == a.entry.GetRelative() + 1;
}

bool ZR_Database::ReadFileByBitMap(uint16_t iFileId, void* pBuffer, uint32_t iBytes, const uint8_t* pBitmap,
                                   uint64_t iCurOffset, ZR_ReadMode_e eMode) {
    if (g_iTraceMode)
        TraceLine("ReadFileByBitMap(iFileId:%d, iBytes: %d iCurOffset:%I64d pBuffer: %p\n", iFileId, iBytes,
                  static_cast<int64_t>(iCurOffset), pBuffer);
    if (!pBitmap || (!pBuffer && eMode != ZR_READ_PREPARE)) {
        ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::ReadFileByBitMap", __LINE__,
                 "A read of file %d at offset %I64d came without its %s.\n", iFileId, static_cast<int64_t>(iCurOffset),
                 pBitmap ? "buffer" : "page bitmap");
        return false;
    }
    const uint32_t iFirstPage = static_cast<uint32_t>(iCurOffset / ZR_PAGE_SIZE);
    const uint32_t iFirstBit = iFirstPage & (ZR_PAGES_PER_EXTENT - 1);
    const uint32_t iEnd = iFirstBit + iBytes / ZR_PAGE_SIZE;
    const uint32_t iBase = iFirstPage - iFirstBit;
    // The contiguity rule of the whole call: a differential decides it when
    // the full backup is native.
    ZR_Backup* pFull = GetFull();
    ZR_Backup* pDiff = GetDiff();
    ZR_Backend_e eBackend = pFull ? pFull->m_eBackend : ZR_BACKEND_MTF;
    if (eBackend == ZR_BACKEND_MTF && pDiff) eBackend = pDiff->m_eBackend;

    PageReadTally tally;
    uint32_t iBit = iFirstBit;
    while (iBit < iEnd) {
        while (iBit < iEnd && !IsPageWanted(pBitmap, iBit)) ++iBit;
        if (iBit == iEnd) break;
        PageRun run{};
        for (; iBit < iEnd && IsPageWanted(pBitmap, iBit); ++iBit) {
            const PageId pageId{iBase + iBit, iFileId};
            const ZR_PageLocation location = LocatePage(pageId);
            if (run.iPages > 0 && JoinsRun(run.last, location, eBackend)) {
                run.last = location;
                ++run.iPages;
                continue;
            }
            if (run.iPages > 0) CloseRun(run, eMode, &tally);
            uint8_t* pDest = pBuffer ? static_cast<uint8_t*>(pBuffer) + size_t{iBit - iFirstBit} * ZR_PAGE_SIZE : nullptr;
            run = PageRun{location, location, pageId, pDest, 1};
        }
        CloseRun(run, eMode, &tally);
    }
    if (eMode == ZR_READ_HYDRATE) {
        if (tally.iRuns == 0)
            ++m_iNumAllUnallocatedHydrations;
        else if (tally.iRuns < kLowAllocatedRuns)
            ++m_iNumLowAllocatedHydrations;
    }
    if (iCurOffset > kRecoveryOffset) EnterRecoveryState();
    return !tally.bFailed;
}

void ZR_Database::CloseRun(const PageRun& run, ZR_ReadMode_e eMode, PageReadTally* pTally) {
    const uint32_t iLength = run.iPages * ZR_PAGE_SIZE;
    if (!run.first.entry.HasCopy()) {
        // No backup holds these pages: a zeroed header marks a page that was
        // never used; the rest of the page keeps what the buffer held.
        for (uint32_t i = 0; run.pDest && i < run.iPages; ++i)
            std::memset(run.pDest + size_t{i} * ZR_PAGE_SIZE, 0, ZR_PAGE_HEADER_SIZE);
        return;
    }
    if (eMode == ZR_READ_HYDRATE) ++pTally->iRuns;
    if (g_iTraceMode) TraceLine("ReadPages - ContigIdPage: %d length: %d\n", run.firstId.m_iPage, iLength);
    if (eMode == ZR_READ_PREPARE) {
        run.first.pBackup->SetHydrationStart(run.first.entry.GetDevice(), run.first.entry.GetOffset());
        return;
    }
    uint32_t iRead = 0;
    ++m_iReadFileByBitmap;
    if (!run.first.pBackup->ReadPages(nullptr, run.pDest, run.first.entry, run.firstId, iLength, IO_READ, &iRead)) {
        pTally->bFailed = true;
    } else if (iRead < iLength) {
        // The map names an extent that the file no longer holds whole.
        g_iLastIOError = ERROR_HANDLE_EOF;
        ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::ReadFileByBitMap", __LINE__,
                 "The backup ends inside the %u bytes of pages from page %d:%u; %u bytes were read.\n", iLength,
                 static_cast<int>(run.firstId.m_iFileId), run.firstId.m_iPage, iRead);
        pTally->bFailed = true;
    }
}

// State 8 from any state below 9, and never downwards: a hydration that
// starts meanwhile keeps its state.
void ZR_Database::EnterRecoveryState() {
    int32_t iState = m_eState.load();
    while (iState < ZR_VDB_STATE_RECOVERY && !m_eState.compare_exchange_weak(iState, ZR_VDB_STATE_RECOVERY)) {
    }
}
