// The virtual views of a backup: their handles and their reads.
#include "backup/ZR_Backup.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "backup/ZR_Read.h"
#include "diag/Trace.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

HANDLE ZR_Backup::GetNextHandle(int iFile) {
    if (!m_aVirtualFiles.Exists(iFile))
        return nullptr;
    return m_aVirtualFiles(iFile)->GetNextHandle();
}

int ZR_Backup::FindVirtualFile(HANDLE hFile) {
    int iFound = -1;
    m_aVirtualFiles.Lock();
    for (int i = 0; i < static_cast<int>(m_aVirtualFiles) && iFound < 0; ++i) {
        HANDLE hView = m_aVirtualFiles(i)->GetHandle();
        if (hFile && hView && ZR_VirtualBackupFile::HandleId(hView) == ZR_VirtualBackupFile::HandleId(hFile))
            iFound = i;
    }
    m_aVirtualFiles.Unlock();
    return iFound;
}

int64_t ZR_Backup::GetVirtualSize(int iDevice) {
    if (!m_aVirtualFiles.Exists(iDevice) || !m_pCMaps || iDevice >= m_pCMaps->GetNumFiles())
        return -1;
    int iBlocks = m_pCMaps->GetNumDBLKs(iDevice);
    if (iBlocks <= 0)
        return -1;
    return m_aVirtualFiles(iDevice)->ViewSize(m_pCMaps->GetLocation(iDevice, iBlocks - 1));
}

// ---------------------------------------------------------------------------
// Reads of a view
//
// A read is cut into pieces at the places where the path or the mapping
// changes (the start and end of the first extents, the start of the hole,
// the place of the first MSTL when the log is cut), so that any offset and
// length give the same bytes as the whole view read in order.
// ---------------------------------------------------------------------------

namespace {

constexpr int64_t kExtentBytes = 0x10000;
constexpr uint32_t kPageBytes = 0x2000;
constexpr int kMaxMissingFileIds = 100;

bool InFirstExtents(const ZR_VirtualBackupFile& view, int iDevice, int64_t v) {
    return iDevice == 0 && view.m_iExtentsStart > 0 && v >= view.m_iExtentsStart && v < view.m_iHoleStart;
}

// Bytes from v up to the next place where a read must be cut; at most iMax.
uint32_t PieceLength(const ZR_VirtualBackupFile& view, int iDevice, int64_t v, uint32_t iMax) {
    int64_t aCuts[3] = {iDevice == 0 ? view.m_iExtentsStart : 0, view.m_bHoleSet ? view.m_iHoleStart : 0,
                        view.LogCutViewOffset()};
    int64_t iLimit = v + iMax;
    for (int64_t iCut : aCuts) {
        if (iCut > v && iCut < iLimit)
            iLimit = iCut;
    }
    return static_cast<uint32_t>(iLimit - v);
}

// The extent at place iPlace of the first extents region: extent 0 of the
// iPlace-th file id, counted upward, that has an entry for it. Up to 100 ids
// in a row may be missing.
bool FindFirstExtent(ZR_Backup* pB, int iPlace, uint32_t iPage, PageId* pId, ZR_EMap* pEntry) {
    int iFileId = 0;
    for (int iDone = 0; iDone <= iPlace; ++iDone) {
        ZR_EMap entry{};
        for (int iTries = 0; !entry.HasCopy() && iTries < kMaxMissingFileIds && iFileId < 0xFFFF; ++iTries) {
            ++iFileId;
            entry = pB->LookupPage(PageId{iPage, static_cast<uint16_t>(iFileId)});
        }
        if (!entry.HasCopy())
            return false;
        *pEntry = entry;
    }
    *pId = PageId{iPage, static_cast<uint16_t>(iFileId)};
    return true;
}

// Page reads go straight to the disk: they start on a page, run whole
// pages and need an aligned buffer. A read that starts inside a page, ends
// inside one, or lands in a buffer of the caller's that is not aligned goes
// through a buffer of its own.
constexpr size_t kAlign = 4096;

struct AlignedPages {
    explicit AlignedPages(size_t n) : m_p(static_cast<uint8_t*>(::operator new[](n, std::align_val_t(kAlign)))) {}
    ~AlignedPages() { ::operator delete[](m_p, std::align_val_t(kAlign)); }
    AlignedPages(const AlignedPages&) = delete;
    AlignedPages& operator=(const AlignedPages&) = delete;
    uint8_t* m_p;
};

// iCount bytes from iInPage bytes into the page pageId, which the extent
// map entry locates, on to the end of the extent at most.
bool ReadPagesAt(ZR_Backup* pB, ZR_EMap entry, PageId pageId, uint32_t iInPage, uint8_t* pDest, uint32_t iCount) {
    uint32_t iRead = 0;
    const bool bDirect = iInPage == 0 && iCount % kPageBytes == 0 && reinterpret_cast<uintptr_t>(pDest) % kAlign == 0;
    if (bDirect)
        return pB->ReadPages(nullptr, pDest, entry, pageId, iCount, IO_READ, &iRead) && iRead == iCount;
    const uint32_t iWhole = (iInPage + iCount + kPageBytes - 1) / kPageBytes * kPageBytes;
    AlignedPages pages(iWhole);
    if (!pB->ReadPages(nullptr, pages.m_p, entry, pageId, iWhole, IO_READ, &iRead) || iRead != iWhole)
        return false;
    std::memcpy(pDest, pages.m_p + iInPage, iCount);
    return true;
}

bool ReadFirstExtents(ZR_Backup* pB, const ZR_VirtualBackupFile& view, uint8_t* pDest, int64_t v, uint32_t n) {
    if (g_iTraceMode)
        TraceLine("Swatp out first extents - pParam: %p\n", static_cast<void*>(pDest));
    while (n > 0) {
        const int64_t iPos = v - view.m_iExtentsStart;
        const uint32_t iInExtent = static_cast<uint32_t>(iPos & (kExtentBytes - 1));
        const uint32_t iCount = std::min<uint32_t>(n, static_cast<uint32_t>(kExtentBytes) - iInExtent);
        PageId pageId{};
        ZR_EMap entry{};
        if (!FindFirstExtent(pB, static_cast<int>(iPos >> 16), iInExtent / kPageBytes, &pageId, &entry))
            return false;
        if (g_iTraceMode)
            TraceLine("Swap out %d from pageID: %d,%d to %p\n", iCount, static_cast<int>(pageId.m_iFileId),
                      static_cast<int>(pageId.m_iPage), static_cast<void*>(pDest));
        if (!ReadPagesAt(pB, entry, pageId, iInExtent % kPageBytes, pDest, iCount))
            return false;
        pDest += iCount;
        v += iCount;
        n -= iCount;
    }
    return true;
}

// The real range to read for n bytes at r: widened so that no additive
// change (an 8-byte field patched by subtraction) is split by its ends.
void WidenForAdditive(const ZR_VirtualBackupFile& view, uint64_t r, uint32_t n, uint64_t* piLo, uint64_t* piHi) {
    *piLo = r;
    *piHi = r + n;
    for (int i = 0; i < view.m_iNumVirtualchanges; ++i) {
        const ZR_VirtualChange& c = view.m_pChanges[i];
        if (!c.m_bAdditive)
            continue;
        // A copy: the change is packed, and min/max would bind a reference
        // to the misaligned field.
        const uint64_t iOffset = c.m_iOffset;
        const uint64_t iEnd = iOffset + 8;
        if (iOffset < r && iEnd > r)
            *piLo = std::min(*piLo, iOffset);
        if (iOffset < r + n && iEnd > r + n)
            *piHi = std::max(*piHi, iEnd);
    }
}

bool ReadMapped(ZR_Backup* pB, int iDevice, ZR_VirtualBackupFile* pView, uint8_t* pDest, int64_t v, uint32_t n) {
    const uint64_t r = static_cast<uint64_t>(pView->RealOffset(v));
    uint64_t iLo = 0;
    uint64_t iHi = 0;
    WidenForAdditive(*pView, r, n, &iLo, &iHi);
    const uint32_t iWide = static_cast<uint32_t>(iHi - iLo);
    // A widened read, or a buffer of the caller's that the disk cannot
    // read into directly, goes through an aligned buffer of its own.
    std::unique_ptr<AlignedPages> pBounce;
    uint8_t* pRead = pDest;
    if (iLo != r || iWide != n || reinterpret_cast<uintptr_t>(pDest) % kAlign != 0) {
        pBounce = std::make_unique<AlignedPages>(iWide);
        pRead = pBounce->m_p;
    }
    ZR_Read read(pB, iDevice);
    ZR_StripeLocation next = pView->GetNextLocation();
    read.SetNextLocation(&next);
    uint32_t iRead = 0;
    if (!read.Read(pRead, iLo, iWide, &iRead) || iRead != iWide)
        return false;
    pView->SetNextLocation(next);
    pView->ApplyChangesAtReal(pRead, iLo, iWide);
    if (pRead != pDest)
        std::memcpy(pDest, pRead + (r - iLo), n);
    return true;
}

void TraceSuccess(int iDevice, int64_t iOffset, const uint8_t* p, uint32_t iLength) {
    if (iLength < 4)
        return;
    TraceLine("ReadVirtual success  - Dev: %d Off :%I64d, 1st 4 bytes: %02x %02x %02x %02x\n", iDevice, iOffset,
              p[0], p[1], p[2], p[3]);
    if (iLength >= 38)
        TraceLine("ReadVirtual success  - page ID: %02x %02x %02x %02x %02x %02x\n", p[32], p[33], p[34], p[35],
                  p[36], p[37]);
}

}  // namespace

bool ZR_Backup::ReadVirtual(int iDevice, void* pBuffer, DWORD iLength, int iMode, LPOVERLAPPED pOverlapped) {
    if (!pOverlapped || !m_aVirtualFiles.Exists(iDevice))
        return false;
    ZR_VirtualBackupFile* pView = m_aVirtualFiles(iDevice);
    const int64_t iOffset =
        static_cast<int64_t>((static_cast<uint64_t>(pOverlapped->OffsetHigh) << 32) | pOverlapped->Offset);
    if (g_iTraceMode)
        TraceLine("ReadVirtual - iDevice: %d iLen: %d offset: %I64d RealOffset: %I64d\n", iDevice,
                  static_cast<int>(iLength), iOffset, pView->RealOffset(iOffset));
    auto* p = static_cast<uint8_t*>(pBuffer);
    int64_t v = iOffset;
    uint32_t iLeft = iLength;
    bool bOk = true;
    while (iLeft > 0 && bOk) {
        const uint32_t n = PieceLength(*pView, iDevice, v, iLeft);
        bOk = InFirstExtents(*pView, iDevice, v) ? ReadFirstExtents(this, *pView, p, v, n)
                                                 : ReadMapped(this, iDevice, pView, p, v, n);
        p += n;
        v += n;
        iLeft -= n;
    }
    if (bOk && g_iTraceMode)
        TraceSuccess(iDevice, iOffset, static_cast<const uint8_t*>(pBuffer), iLength);
    return bOk;
}
