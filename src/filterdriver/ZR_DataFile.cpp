#include "filterdriver/ZR_DataFile.h"

#include <algorithm>
#include <cstring>

#include "diag/ZR_Error.h"
#include "filterdriver/ZR_FileIo.h"

namespace {

constexpr uint32_t kPage = ZR_PageBitmap::kPageSize;
constexpr uint32_t kPageHeader = 96;
constexpr uint32_t kChunkExtents = 16;  // the extents one answer to command 8 offers

bool HasBlankHeader(const uint8_t* pPage) {
    return std::all_of(pPage, pPage + kPageHeader, [](uint8_t b) { return b == 0; });
}

uint64_t PagesOf(uint64_t iBytes) { return (iBytes + kPage - 1) / kPage; }

// Frees the pages' range: they read as zeros.
DWORD ZeroPages(HANDLE h, uint64_t iFirstPage, uint64_t iCount) {
    FILE_ZERO_DATA_INFORMATION zero{};
    zero.FileOffset.QuadPart = static_cast<int64_t>(iFirstPage * kPage);
    zero.BeyondFinalZero.QuadPart = static_cast<int64_t>((iFirstPage + iCount) * kPage);
    DWORD cb = 0;
    return DeviceIoControl(h, FSCTL_SET_ZERO_DATA, &zero, sizeof zero, nullptr, 0, &cb, nullptr) ? ERROR_SUCCESS
                                                                                                 : GetLastError();
}

}  // namespace

ZR_DataFile::ZR_DataFile(const ZR_FileNameEntry& names, std::wstring strSparsePath,
                         const FileObjectUniquifier& uniquifier)
    : m_Names(names),
      m_strSparsePath(std::move(strSparsePath)),
      m_Uniquifier(uniquifier),
      m_BitmapFile(m_strSparsePath + L".bitmap") {}

ZR_DataFile::~ZR_DataFile() {
    if (m_hSparse != INVALID_HANDLE_VALUE) CloseHandle(m_hSparse);
}

ZR_HostStatus ZR_DataFile::Open() {
    bool bCreated = false;
    m_hSparse = ZR_OpenDriverFile(m_strSparsePath.c_str(), OPEN_ALWAYS, &bCreated);
    DWORD iError = m_hSparse == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
    LARGE_INTEGER size{};
    if (iError == ERROR_SUCCESS && bCreated) {
        // A bitmap without its sparse file speaks of pages that are gone.
        m_BitmapFile.Delete();
        DWORD cb = 0;
        DeviceIoControl(m_hSparse, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &cb, nullptr);
        iError = ZR_SetFileSize(m_hSparse, m_Names.iFileSize);
    }
    if (iError == ERROR_SUCCESS && !GetFileSizeEx(m_hSparse, &size)) iError = GetLastError();
    if (iError != ERROR_SUCCESS) {
        ZR_Error(m_Names.strKey.c_str(), __FILE__, "ZR_DataFile::Open", __LINE__,
                 "Driver: cannot open the sparse file %S, error %u\n", m_strSparsePath.c_str(), iError);
        return ZR_HostStatusFromWin32(iError);
    }
    m_iSize = static_cast<uint64_t>(size.QuadPart);
    m_Bitmap = ZR_PageBitmap(PagesOf(m_iSize));
    std::vector<uint8_t> aBytes;
    switch (m_BitmapFile.Load(m_Bitmap.Pages(), &aBytes)) {
        case ZR_BITMAP_LOADED: m_Bitmap.Assign(std::move(aBytes), m_Bitmap.Pages()); break;
        case ZR_BITMAP_DISCARDED:
            ZR_Warning(m_Names.strKey.c_str(), __FILE__, "ZR_DataFile::Open", __LINE__,
                       "Driver: the bitmap %S is of another size than its sparse file: every page counts as absent\n",
                       m_BitmapFile.Path().c_str());
            break;
        case ZR_BITMAP_CORRUPTED:
            m_bCorrupted = true;
            Changed();  // the first flush writes a sound bitmap
            ZR_Error(m_Names.strKey.c_str(), __FILE__, "ZR_DataFile::Open", __LINE__,
                     "Driver: the bitmap %S fails its check: every page counts as absent\n",
                     m_BitmapFile.Path().c_str());
            break;
        case ZR_BITMAP_NONE: break;
    }
    return kHostSuccess;
}

void ZR_DataFile::Close(bool bFlush) {
    if (bFlush) Flush();
    std::lock_guard guard(m_cs);
    m_bClosed = true;
}

void ZR_DataFile::DeleteFiles() {
    std::lock_guard flush(m_csFlush);
    m_BitmapFile.Delete();
    if (!DeleteFileW(m_strSparsePath.c_str()))
        ZR_Error(m_Names.strKey.c_str(), __FILE__, "ZR_DataFile::DeleteFiles", __LINE__,
                 "Driver: cannot delete %S, error %u\n", m_strSparsePath.c_str(), GetLastError());
}

uint64_t ZR_DataFile::Size() {
    std::lock_guard guard(m_cs);
    return m_iSize;
}

bool ZR_DataFile::IsPresent(uint64_t iPage) {
    std::lock_guard guard(m_cs);
    return m_Bitmap.Test(iPage);
}

bool ZR_DataFile::NextMissing(uint64_t iFirst, uint64_t iEnd, uint64_t* piStart, uint32_t* piCount,
                              uint8_t aBitmap[kLiveBitmapBytes]) {
    std::lock_guard guard(m_cs);
    iEnd = std::min(iEnd, m_Bitmap.Pages());
    uint64_t iStart = m_Bitmap.FirstAbsent(iFirst, iEnd);
    if (iStart >= iEnd) return false;
    uint64_t iBase = iStart & ~uint64_t(7);
    uint64_t iStop = std::min(iEnd, iBase + kLiveBitmapPages);
    while (m_Bitmap.Test(iStop - 1)) --iStop;  // iStart itself is absent
    *piStart = iStart;
    *piCount = static_cast<uint32_t>(iStop - iStart);
    for (uint32_t i = 0; i < kLiveBitmapBytes; ++i) aBitmap[i] = m_Bitmap.ExtentByte(iBase / 8 + i);
    return true;
}

// Writes the runs of pages that are absent and wanted, and marks them
// present once written. m_cs is held.
template <class Wanted>
DWORD ZR_DataFile::WriteAbsent(uint64_t iFirstPage, uint32_t iCount, const uint8_t* pPages, uint32_t* pcbWritten,
                               Wanted bWanted) {
    uint64_t iEnd = std::min<uint64_t>(iFirstPage + iCount, m_Bitmap.Pages());
    auto bWrite = [&](uint64_t iPage) { return !m_Bitmap.Test(iPage) && bWanted(iPage); };
    for (uint64_t iPage = iFirstPage; iPage < iEnd;) {
        if (!bWrite(iPage)) {
            ++iPage;
            continue;
        }
        uint64_t iRun = 1;
        while (iPage + iRun < iEnd && bWrite(iPage + iRun)) ++iRun;
        if (DWORD iError = WritePages(iPage, static_cast<uint32_t>(iRun), pPages + (iPage - iFirstPage) * kPage);
            iError != ERROR_SUCCESS) {
            ZR_Error(m_Names.strKey.c_str(), __FILE__, "ZR_DataFile::WriteAbsent", __LINE__,
                     "Driver: cannot write pages %I64u to %I64u of %S, error %u\n", iPage, iPage + iRun - 1,
                     m_strSparsePath.c_str(), iError);
            return iError;
        }
        m_Bitmap.SetRange(iPage, iRun);
        Changed();
        *pcbWritten += static_cast<uint32_t>(iRun * kPage);
        iPage += iRun;
    }
    return ERROR_SUCCESS;
}

ZR_HostStatus ZR_DataFile::StoreFetched(uint64_t iFirstPage, uint32_t iCount, const uint8_t aBitmap[kLiveBitmapBytes],
                                        const uint8_t* pPages) {
    uint64_t iBase = iFirstPage & ~uint64_t(7);
    std::lock_guard guard(m_cs);
    if (m_bClosed) return kHostInvalidHandle;
    // A page present when the read began, or written since, keeps the file's copy.
    uint32_t cbWritten = 0;
    DWORD iError = WriteAbsent(iFirstPage, iCount, pPages, &cbWritten,
                               [&](uint64_t iPage) { return !ZR_TestBit(aBitmap, iPage - iBase); });
    return iError == ERROR_SUCCESS ? kHostSuccess : ZR_HostStatusFromWin32(iError);
}

ZR_HostStatus ZR_DataFile::ReadStored(uint64_t iOffset, void* p, uint32_t cb) {
    DWORD iError = ZR_ReadAt(m_hSparse, p, cb, iOffset);
    return iError == ERROR_SUCCESS ? kHostSuccess : ZR_HostStatusFromWin32(iError);
}

ZR_HostStatus ZR_DataFile::Write(uint64_t iOffset, const void* p, uint32_t cb) {
    std::lock_guard guard(m_cs);
    if (m_bClosed) return kHostInvalidHandle;
    if (DWORD iError = ZR_WriteAt(m_hSparse, p, cb, iOffset); iError != ERROR_SUCCESS)
        return ZR_HostStatusFromWin32(iError);
    uint64_t iEnd = iOffset + cb;
    if (iEnd > m_iSize) {
        m_iSize = iEnd;
        m_Bitmap.Resize(PagesOf(iEnd), true);
    }
    m_Bitmap.SetRange(iOffset / kPage, PagesOf(iEnd) - iOffset / kPage);
    Changed();
    return kHostSuccess;
}

ZR_HostStatus ZR_DataFile::SetSize(uint64_t iSize) {
    // The restore sizes the file as the view's file records say, which cut
    // it to its first extents: the file keeps the size of the backup, whose
    // pages live reads and hydration bring.
    iSize = std::max(iSize, m_Names.iFileSize);
    {
        std::lock_guard guard(m_cs);
        if (m_bClosed) return kHostInvalidHandle;
        if (iSize == m_iSize) return kHostSuccess;
        if (DWORD iError = ZR_SetFileSize(m_hSparse, iSize); iError != ERROR_SUCCESS)
            return ZR_HostStatusFromWin32(iError);
        m_iSize = iSize;
        m_Bitmap.Resize(PagesOf(iSize), true);
        Changed();
    }
    // The bitmap of the old size would be discarded after a crash.
    return Flush();
}

ZR_HostStatus ZR_DataFile::Flush() {
    std::lock_guard flush(m_csFlush);
    std::vector<uint8_t> aBytes;
    uint64_t iPages = 0, iChanges = 0;
    {
        std::lock_guard guard(m_cs);
        if (m_bClosed) return kHostSuccess;
        aBytes = m_Bitmap.Bytes();
        iPages = m_Bitmap.Pages();
        iChanges = m_iChanges;
    }
    if (iChanges == m_iStoredChanges) return kHostSuccess;
    // Every page marked in the copy was written before the copy was taken,
    // so this flush puts it on the disk before its bit.
    if (!FlushFileBuffers(m_hSparse)) return ZR_HostStatusFromWin32(GetLastError());
    if (!m_BitmapFile.Store(iPages, aBytes)) return kHostIoError;
    m_iStoredChanges = iChanges;
    return kHostSuccess;
}

ZR_HydrationRange ZR_DataFile::Status(uint32_t iStartExtent) {
    ZR_HydrationRange range{};
    std::lock_guard guard(m_cs);
    range.iTotalExtents = static_cast<uint32_t>(m_Bitmap.Extents());
    range.iHydratedBytes = m_Bitmap.CountPresent() * kPage;
    if (m_bCorrupted) return range;  // iFirstExtent 0: the bitmap cannot be trusted
    // Extent 0 is never offered: the protocol reserves it for a corrupted
    // bitmap, and the restore writes it; a page missing there is left to
    // live reads.
    uint64_t iFrom = std::max<uint64_t>(iStartExtent, 1) * ZR_PageBitmap::kPagesPerExtent;
    uint64_t iPage = m_Bitmap.FirstAbsent(std::min(iFrom, m_Bitmap.Pages()), m_Bitmap.Pages());
    if (iPage >= m_Bitmap.Pages()) {
        range.iFirstExtent = kNoExtentToHydrate;
        return range;
    }
    uint64_t iExtent = iPage / ZR_PageBitmap::kPagesPerExtent;
    range.iFirstExtent = static_cast<uint32_t>(iExtent);
    range.iNumExtents = static_cast<uint32_t>(std::min<uint64_t>(kChunkExtents, m_Bitmap.Extents() - iExtent));
    for (uint32_t i = 0; i < kChunkExtents; ++i) range.Bitmap[i] = m_Bitmap.ExtentByte(iExtent + i);
    return range;
}

DWORD ZR_DataFile::Hydrate(uint64_t iFirstPage, uint32_t iCount, const uint8_t* pPages, const uint8_t* pSkip,
                           uint32_t* pcbTaken) {
    *pcbTaken = 0;
    std::lock_guard guard(m_cs);
    if (m_bClosed) return ERROR_INVALID_HANDLE;
    return WriteAbsent(iFirstPage, iCount, pPages, pcbTaken, [&](uint64_t iPage) {
        uint64_t i = iPage - iFirstPage;
        return !pSkip || i >= 128 || !ZR_TestBit(pSkip, i);
    });
}

// Pages with a blank header become zeros in the file; the others are
// written as they are. m_cs is held.
DWORD ZR_DataFile::WritePages(uint64_t iFirstPage, uint32_t iCount, const uint8_t* pPages) {
    for (uint32_t i = 0; i < iCount;) {
        bool bBlank = HasBlankHeader(pPages + uint64_t(i) * kPage);
        uint32_t iRun = 1;
        while (i + iRun < iCount && HasBlankHeader(pPages + uint64_t(i + iRun) * kPage) == bBlank) ++iRun;
        DWORD iError =
            bBlank ? ZeroPages(m_hSparse, iFirstPage + i, iRun)
                   : ZR_WriteAt(m_hSparse, pPages + uint64_t(i) * kPage, iRun * kPage, (iFirstPage + i) * kPage);
        if (iError != ERROR_SUCCESS) return iError;
        i += iRun;
    }
    return ERROR_SUCCESS;
}
