// The reads of a backup: the stripe form, which every walk of the streams
// takes, and the page form, which reads pages where the extent map places
// them. A page read is checked against what the map promised: the first
// page of an extent is what the build entered it by, and a page header that
// carries an id carries the id asked for. A map that disagrees is built
// again from the backup and the read repeated through the new map, so that
// no caller ever gets bytes the map named wrongly.
#include "backup/ZR_Backup.h"

#include <algorithm>
#include <string>

#include "backup/ZR_ExtentHeaderReader.h"
#include "diag/Format.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/BadAlloc.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

// Where a page read disagreed with what its entry promised.
struct ZR_PageFault {
    PageId asked{};       // the page whose header was checked, or the run's first
    ZR_EMap used;         // the entry of that page's extent that the read went by
    bool bPlaced = true;  // false: the entry names no place the backup has
    uint8_t iVersion = 0;
    uint8_t iType = 0;
    PageId found{};
};

namespace {

constexpr uint32_t kPageHeaderBytes = 96;

// A read-ahead for one call, for an unaligned request that came without
// one; freed with the object.
class PassingReadAhead {
public:
    ZR_ReadAhead* Get(ZR_ReadAhead* pGiven) {
        if (pGiven)
            return pGiven;
        if (!m_p)
            m_p = ZR_ReadAhead::Alloc();
        return m_p;
    }
    ~PassingReadAhead() {
        if (m_p)
            ZR_ReadAhead::Free(m_p);
    }

private:
    ZR_ReadAhead* m_p = nullptr;
};

bool IsSectorAligned(const ZR_BackupFile* pFile, uint64_t iValue) {
    const uint64_t iSector = pFile->GetSectorSize() ? pFile->GetSectorSize() : ZR_BackupFile::ms_iDefaultSectorSize;
    return (iValue & (iSector - 1)) == 0;
}

bool SamePage(PageId a, PageId b) { return a.m_iPage == b.m_iPage && a.m_iFileId == b.m_iFileId; }

PageId ExtentStart(PageId page) { return PageId{page.m_iPage & ~(ZR_PAGES_PER_EXTENT - 1), page.m_iFileId}; }

// The entry of the g-th extent of a run that starts at entry's extent.
ZR_EMap RunExtent(ZR_EMap entry, uint32_t g) {
    return ZR_EMap::Make(entry.GetDevice(), entry.GetOffset() + uint64_t{g} * ZR_EXTENT_SIZE, entry.GetRelative());
}

// Where in its backup file an entry places a page.
uint64_t PageOffset(ZR_EMap entry, PageId page) {
    return entry.GetOffset() + uint64_t{entry.GetRelative()} * ZR_EXTENT_SIZE +
           uint64_t{page.m_iPage & (ZR_PAGES_PER_EXTENT - 1)} * ZR_PAGE_SIZE;
}

ZR_EMap Lookup(ZR_EMaps* pMap, PageId pageId) {
    if (!pMap)
        return ZR_EMap{};
    ZR_EMap entry = pMap->Fetch(pageId);
    if (entry.IsAllSet())
        entry = pMap->Fetch(pageId);
    return entry;
}

void Disagree(ZR_PageFault* pFault, PageId asked, ZR_EMap used, const uint8_t* pHeader) {
    *pFault = ZR_PageFault{asked, used, true, pHeader[0], pHeader[1], ZR_ExtentHeaderReader::PageIdOf(pHeader)};
}

// What a page's header says against what was asked of it: the first page of
// an extent must be one the build enters the extent by.
bool PageAgrees(const uint8_t* pHeader, PageId want) {
    const bool bStart = (want.m_iPage & (ZR_PAGES_PER_EXTENT - 1)) == 0;
    if (bStart && !ZR_ExtentHeaderReader::IsEnteredPage(pHeader))
        return false;
    return pHeader[0] != 1 || SamePage(ZR_ExtentHeaderReader::PageIdOf(pHeader), want);
}

std::string Describe(const ZR_PageFault& f) {
    const uint64_t iOfs = PageOffset(f.used, f.asked);
    if (!f.bPlaced)
        return ZR_Format("page %d:%u, which it places at offset %I64d of backup file %d, beyond the backup",
                         static_cast<int>(f.asked.m_iFileId), f.asked.m_iPage, static_cast<int64_t>(iOfs),
                         f.used.GetDevice());
    return ZR_Format("page %d:%u, where backup file %d holds at offset %I64d a page header of version %d, type %d, "
                     "page %d:%u",
                     static_cast<int>(f.asked.m_iFileId), f.asked.m_iPage, f.used.GetDevice(),
                     static_cast<int64_t>(iOfs), static_cast<int>(f.iVersion), static_cast<int>(f.iType),
                     static_cast<int>(f.found.m_iFileId), f.found.m_iPage);
}

}  // namespace

// ---------------------------------------------------------------------------
// Stripe form
// ---------------------------------------------------------------------------

bool ZR_Backup::Read(ZR_ReadAhead* pAhead, void* pDest, const ZR_StripeLocation& loc, uint64_t iExtraOfs,
                     uint32_t iLen, ZR_IO_e eIO, int /*iUnused*/, uint32_t* piRead, int /*iDevice*/,
                     ZR_StripeLocation* pNext, uint64_t iVirtualOfs) {
    if (pNext)
        *pNext = loc;
    ZR_BackupFile* pFile = GetFile(loc.iDevice);
    if (!pFile) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Read", __LINE__,
                 "No backup file %d for a read at offset %I64d (%d files).\n", static_cast<int>(loc.iDevice),
                 static_cast<int64_t>(iVirtualOfs), GetNumFiles());
        return false;
    }
    if (m_eBackend == ZR_BACKEND_KELP) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Read", __LINE__,
                 "Compressed backups are not supported in this build: %S\n", pFile->GetFileName());
        return false;
    }
    if (m_eBackend != ZR_BACKEND_MTF) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Read", __LINE__, "Unknown backup format %d of file %S\n",
                 static_cast<int>(m_eBackend), pFile->GetFileName());
        return false;
    }
    const uint64_t iOfs = loc.iBkpFileOfs + loc.iRelativeOfs + iExtraOfs;
    const bool bAligned = IsSectorAligned(pFile, iOfs) && IsSectorAligned(pFile, iLen) &&
                          (!ZR_IOMovesBytes(eIO) || IsSectorAligned(pFile, reinterpret_cast<uintptr_t>(pDest)));
    PassingReadAhead ahead;
    ZR_ReadAhead* pUse = bAligned ? pAhead : ahead.Get(pAhead);
    if (!bAligned && !pUse)
        throw BadAlloc(static_cast<unsigned>(ZR_ReadAhead::ms_iAllocSize));
    uint32_t iRead = 0;
    if (!pFile->Read(pUse, pDest, iOfs, iLen, eIO, &iRead))
        return false;
    if (piRead)
        *piRead = iRead;
    if (pNext) {
        pNext->iBkpFileOfs = iOfs + iRead;
        pNext->iRelativeOfs = 0;
        pNext->iStripeOfs = loc.iStripeOfs + iExtraOfs + iRead;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Page form
// ---------------------------------------------------------------------------

ZR_EMap ZR_Backup::LookupPage(PageId pageId) { return Lookup(ServingEMaps(), pageId); }

bool ZR_Backup::ReadPages(ZR_ReadAhead* pAhead, void* pDest, ZR_EMap entry, PageId pageId, uint32_t iLen,
                          ZR_IO_e eIO, uint32_t* piRead) {
    if (!entry.HasCopy()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__, "No backup file holds page %d:%u.\n",
                 static_cast<int>(pageId.m_iFileId), pageId.m_iPage);
        return false;
    }
    if (m_eBackend != ZR_BACKEND_MTF) {
        if (m_eBackend == ZR_BACKEND_KELP)
            ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
                     "Compressed backups are not supported in this build: %S\n", m_aFiles(0)->GetFileName());
        return false;
    }
    ZR_PageFault fault;
    switch (ReadThroughEntry(pAhead, pDest, entry, pageId, iLen, eIO, piRead, &fault)) {
    case ReadVerdict::Sound: return true;
    case ReadVerdict::Failed: return false;
    case ReadVerdict::Disagrees: break;
    }
    return ReadPagesAfterFault(pAhead, pDest, pageId, iLen, eIO, piRead, fault);
}

ZR_Backup::ReadVerdict ZR_Backup::ReadThroughEntry(ZR_ReadAhead* pAhead, void* pDest, ZR_EMap entry, PageId pageId,
                                                   uint32_t iLen, ZR_IO_e eIO, uint32_t* piRead,
                                                   ZR_PageFault* pFault) {
    ZR_BackupFile* pFile = GetFile(entry.GetDevice());
    if (!pFile || PageOffset(entry, pageId) + iLen > pFile->GetFileSize()) {
        *pFault = ZR_PageFault{pageId, entry, false};
        return ReadVerdict::Disagrees;
    }
    uint32_t iRead = 0;
    if (!pFile->ReadNative(pAhead, pDest, entry.m_iEntry, pageId, iLen, eIO, &iRead))
        return ReadVerdict::Failed;
    if (piRead)
        *piRead = iRead;
    if (!ZR_IOMovesBytes(eIO))
        return ReadVerdict::Sound;
    return CheckPagesRead(entry, pageId, static_cast<const uint8_t*>(pDest), iRead, pFault);
}

// Extent by extent through the run: every page whose header lies in the
// read agrees; an extent of which no page carries an id (leftover bytes,
// which allocated extents of real backups hold) is held to its first page,
// read apart.
ZR_Backup::ReadVerdict ZR_Backup::CheckPagesRead(ZR_EMap entry, PageId first, const uint8_t* p, uint32_t iRead,
                                                 ZR_PageFault* pFault) {
    const uint32_t nPages = iRead < kPageHeaderBytes ? 0 : (iRead - kPageHeaderBytes) / ZR_PAGE_SIZE + 1;
    uint32_t j = 0;
    for (uint32_t g = 0; j < nPages; ++g) {
        const uint32_t jEnd = std::min(nPages, j + ZR_PAGES_PER_EXTENT - ((first.m_iPage + j) & 7));
        bool bNamed = false;
        for (; j < jEnd; ++j) {
            const uint8_t* pHeader = p + size_t{j} * ZR_PAGE_SIZE;
            const PageId want{first.m_iPage + j, first.m_iFileId};
            if (!PageAgrees(pHeader, want)) {
                Disagree(pFault, want, RunExtent(entry, g), pHeader);
                return ReadVerdict::Disagrees;
            }
            bNamed = bNamed || pHeader[0] == 1;
        }
        const PageId start = ExtentStart(PageId{first.m_iPage + j - 1, first.m_iFileId});
        if (!bNamed) {
            const ReadVerdict v = CheckExtentStart(RunExtent(entry, g), start, pFault);
            if (v != ReadVerdict::Sound)
                return v;
        }
    }
    return ReadVerdict::Sound;
}

ZR_Backup::ReadVerdict ZR_Backup::CheckExtentStart(ZR_EMap extent, PageId start, ZR_PageFault* pFault) {
    ZR_BackupFile* pFile = GetFile(extent.GetDevice());
    uint8_t* pScratch = static_cast<uint8_t*>(
        VirtualAlloc(nullptr, ZR_ExtentHeaderReader::ms_iScratchSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (!pScratch)
        throw BadAlloc(static_cast<unsigned>(ZR_ExtentHeaderReader::ms_iScratchSize));
    uint8_t header[ZR_ExtentHeaderReader::ms_iHeaderSize];
    const bool bRead = ZR_ExtentHeaderReader::ReadHeaderAt(pFile, PageOffset(extent, start), pScratch, header);
    VirtualFree(pScratch, 0, MEM_RELEASE);
    if (!bRead) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
                 "Unable to read the first page of the extent of page %d:%u from backup file %S.\n",
                 static_cast<int>(start.m_iFileId), start.m_iPage, pFile->GetFileName());
        return ReadVerdict::Failed;
    }
    if (PageAgrees(header, start))
        return ReadVerdict::Sound;
    Disagree(pFault, start, extent, header);
    return ReadVerdict::Disagrees;
}

// A map that promised what the backup does not hold is built again, once
// for this read; the read is then repeated extent by extent through the map
// now serving. The entry may have come from a map that another read has
// since replaced: then the map now serving is only asked again.
bool ZR_Backup::ReadPagesAfterFault(ZR_ReadAhead* pAhead, void* pDest, PageId pageId, uint32_t iLen, ZR_IO_e eIO,
                                    uint32_t* piRead, ZR_PageFault fault) {
    constexpr int kTries = 3;
    bool bRebuilt = false;
    for (int iTry = 0; iTry < kTries; ++iTry) {
        ZR_EMaps* pMap = ServingEMaps();
        if (pMap && Lookup(pMap, ExtentStart(fault.asked)).m_iEntry == fault.used.m_iEntry) {
            if (bRebuilt)
                break;
            if (!RebuildExtentMap(pMap, Describe(fault).c_str())) {
                ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
                         "The extent map of backup %S could not be built again; page %d:%u is not read.\n",
                         m_aFiles(0)->GetFileName(), static_cast<int>(pageId.m_iFileId), pageId.m_iPage);
                return false;
            }
            bRebuilt = true;
        }
        const ReadVerdict v = RereadByExtent(pAhead, pDest, pageId, iLen, eIO, piRead, &fault);
        if (v != ReadVerdict::Disagrees)
            return v == ReadVerdict::Sound;
    }
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
             "Backup file %S disagrees with its extent map at %s.\n",
             m_aFiles(0)->GetFileName(), Describe(fault).c_str());
    return false;
}

ZR_Backup::ReadVerdict ZR_Backup::RereadByExtent(ZR_ReadAhead* pAhead, void* pDest, PageId pageId, uint32_t iLen,
                                                 ZR_IO_e eIO, uint32_t* piRead, ZR_PageFault* pFault) {
    auto* p = static_cast<uint8_t*>(pDest);
    uint32_t iDone = 0;
    uint32_t iTotal = 0;
    while (iDone < iLen) {
        const PageId page{pageId.m_iPage + iDone / ZR_PAGE_SIZE, pageId.m_iFileId};
        const uint32_t n =
            std::min(iLen - iDone, (ZR_PAGES_PER_EXTENT - (page.m_iPage & 7)) * ZR_PAGE_SIZE);
        const ZR_EMap entry = LookupPage(page);
        if (!entry.HasCopy()) {
            ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
                     "Page %d:%u is not in backup file %S: its extent map, built again, holds no copy of it.\n",
                     static_cast<int>(page.m_iFileId), page.m_iPage, m_aFiles(0)->GetFileName());
            return ReadVerdict::Failed;
        }
        if (pAhead)
            pAhead->Reset();  // the window may hold bytes of another backup file
        uint32_t iRead = 0;
        const ReadVerdict v = ReadThroughEntry(pAhead, p + iDone, entry, page, n, eIO, &iRead, pFault);
        if (v != ReadVerdict::Sound)
            return v;
        iTotal += iRead;
        iDone += n;
        if (iRead < n)
            break;  // the end of the backup file
    }
    if (piRead)
        *piRead = iTotal;
    return ReadVerdict::Sound;
}
