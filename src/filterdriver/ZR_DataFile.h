// One data file of a mount as the driver keeps it: the sparse file that
// stands behind SQL Server's file, and the bitmap of the pages it holds,
// persisted beside it (ZR_BitmapFile).
//
// The rules that keep the two consistent:
// - A page is written before its bit is set, and the bits reach the disk
//   only after the sparse file was flushed (Flush): a process killed at any
//   moment never finds a page marked present that is not.
// - A present page is never overwritten by a page from the backups: pages
//   SQL Server wrote are newer. The test of the bit and the write happen
//   under one lock, so a fetch or a hydration that races a write of SQL
//   Server cannot undo it.
// - A page whose 96-byte header is all zero is a page that no backup holds:
//   the data file holds zeros there (the range is freed, not written).
// - A bitmap left without its sparse file, or of another size, is not used.
//   One that fails its check makes the file report a corrupted bitmap to
//   hydration (Status), and every page counts as absent.
//
// Threads: every method may be called from any thread. m_cs guards the
// bitmap, the size and the writes; m_csFlush keeps stores of the bitmap in
// order. Order: m_csFlush, then m_cs. The handles stay open until the
// object is destroyed, so a call that still holds the object after Close
// fails cleanly.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "driver/DriverMessages.h"
#include "filterdriver/ZR_BitmapFile.h"
#include "filterdriver/ZR_FileNameTable.h"
#include "filterdriver/ZR_HostStatus.h"
#include "filterdriver/ZR_PageBitmap.h"
#include "platform/win32.h"

// The bitmap of a live read: 1,024 pages from the first page of the extent
// that holds the read's offset.
inline constexpr uint32_t kLiveBitmapBytes = 128;
inline constexpr uint32_t kLiveBitmapPages = kLiveBitmapBytes * 8;

class ZR_DataFile {
public:
    ZR_DataFile(const ZR_FileNameEntry& names, std::wstring strSparsePath, const FileObjectUniquifier& uniquifier);
    ~ZR_DataFile();
    ZR_DataFile(const ZR_DataFile&) = delete;
    ZR_DataFile& operator=(const ZR_DataFile&) = delete;

    // Opens the sparse file, or creates it with the size that command 4
    // gave (then any bitmap left beside it is deleted), and loads the bitmap.
    // Called once, before the object is shared.
    ZR_HostStatus Open();
    // The end of the file's use: stores the bitmap first when bFlush; every
    // later change is refused.
    void Close(bool bFlush);
    // After Close: deletes the sparse file and its bitmap.
    void DeleteFiles();

    const ZR_FileNameEntry& Names() const { return m_Names; }
    const std::wstring& SparsePath() const { return m_strSparsePath; }
    const FileObjectUniquifier& Uniquifier() const { return m_Uniquifier; }
    uint64_t Size();
    bool IsPresent(uint64_t iPage);

    // --- SQL Server's reads ---
    // The next stretch of pages [iFirst, iEnd) that a live read must fetch:
    // from the first absent page to the last absent one, within 1,024 pages
    // from the start of the first one's extent. aBitmap receives the present
    // pages of those 1,024 (pages past the end count as present). False
    // when every page is present.
    bool NextMissing(uint64_t iFirst, uint64_t iEnd, uint64_t* piStart, uint32_t* piCount,
                     uint8_t aBitmap[kLiveBitmapBytes]);
    // Keeps the pages that a live read fetched (those clear in aBitmap):
    // each still absent is written and marked present; one that became
    // present meanwhile keeps the file's copy. A failure leaves the pages
    // from the failed one on absent.
    ZR_HostStatus StoreFetched(uint64_t iFirstPage, uint32_t iCount, const uint8_t aBitmap[kLiveBitmapBytes],
                               const uint8_t* pPages);
    // Bytes as the sparse file holds them.
    ZR_HostStatus ReadStored(uint64_t iOffset, void* p, uint32_t cb);

    // --- SQL Server's writes ---
    // Writes the bytes and marks every page they touch present: the caller
    // has made pages they cover only in part present first. The file grows
    // when they reach past its end.
    ZR_HostStatus Write(uint64_t iOffset, const void* p, uint32_t cb);
    // Pages that grow in hold zeros and are present; the bitmap is stored.
    // Never below the size command 4 gave: the restore's view cuts the file
    // records to the first extents, and the backup's pages lie behind them.
    ZR_HostStatus SetSize(uint64_t iSize);
    // Flushes the sparse file, then stores the bitmap, if anything changed.
    ZR_HostStatus Flush();

    // --- hydration ---
    // The answer to command 8 from iStartExtent on.
    ZR_HydrationRange Status(uint32_t iStartExtent);
    // Writes the pages of [iFirstPage, iFirstPage + iCount) that are absent
    // (and not set in pSkip, a bitmap of the run's first 128 pages, if
    // given) and marks them present. *pcbTaken: bytes written. Result: the
    // Win32 status of the first failed write.
    DWORD Hydrate(uint64_t iFirstPage, uint32_t iCount, const uint8_t* pPages, const uint8_t* pSkip,
                  uint32_t* pcbTaken);

private:
    template <class Wanted>
    DWORD WriteAbsent(uint64_t iFirstPage, uint32_t iCount, const uint8_t* pPages, uint32_t* pcbWritten,
                      Wanted bWanted);
    DWORD WritePages(uint64_t iFirstPage, uint32_t iCount, const uint8_t* pPages);
    void Changed() { ++m_iChanges; }

    const ZR_FileNameEntry m_Names;
    const std::wstring m_strSparsePath;
    const FileObjectUniquifier m_Uniquifier;
    HANDLE m_hSparse = INVALID_HANDLE_VALUE;  // set by Open, closed by the destructor
    ZR_BitmapFile m_BitmapFile;               // under m_csFlush

    std::mutex m_csFlush;
    uint64_t m_iStoredChanges = 0;  // under m_csFlush: m_iChanges at the last store

    std::mutex m_cs;
    ZR_PageBitmap m_Bitmap;
    uint64_t m_iSize = 0;
    uint64_t m_iChanges = 0;    // changes of the bitmap since Open
    bool m_bCorrupted = false;  // the persisted bitmap failed its check
    bool m_bClosed = false;
};
