// The virtual view (.bxk) of one real backup file, as SQL Server reads it
// during a RESTORE: the real file with most of the first data stream cut out
// (the data cut, or hole), optionally the log part cut out too (the log cut),
// a region that carries extent 0 of each data file where the data stream
// begins, and a short list of byte changes that keep the tape format and the
// configuration records consistent with the cuts.
//
// ZR_ScanVirtualizeBackup fills the cut fields and the changes once, on the
// mount's thread; after that they are only read, by any number of service
// threads at once. m_NextLocation is the one field that reads write, under
// m_csNext. The handle id comes from a process-wide lock (a leaf lock).
//
// Offsets: a view offset v maps to the real stripe offset r by
//     r = v < m_iHoleStart ? v : v + m_iHoleLength;  r += LogCut() if r >= m_iFirstMSTL
// Changes are stated in real offsets; they never lie inside a cut.
#pragma once

#include <cstdint>

#include "maps/ZR_CMaps.h"
#include "platform/win32.h"

#pragma pack(push, 1)
// One byte change of a view, stated at a real stripe offset.
struct ZR_VirtualChange {
    uint64_t m_iOffset;     // real stripe offset of the first byte changed
    uint16_t m_iLength;     // 2 to 10 bytes
    uint8_t m_aValue[10];   // the new bytes; for an additive change a u64 to subtract
    bool m_bAdditive;       // subtract m_aValue from the u64 at m_iOffset instead of replacing
};
#pragma pack(pop)
static_assert(sizeof(ZR_VirtualChange) == 21);

class ZR_VirtualBackupFile {
public:
    ZR_VirtualBackupFile();
    ~ZR_VirtualBackupFile();
    ZR_VirtualBackupFile(const ZR_VirtualBackupFile&) = delete;
    ZR_VirtualBackupFile& operator=(const ZR_VirtualBackupFile&) = delete;

    // Gives the view a new identity: closes the old handle, makes a fresh
    // unnamed mutex and keeps it as m_hVirtual. The handle's value is only a
    // number unique in the process; the statements print it with
    // ZR_VirtualBackupFile::HandleId into the .bxk name, and a read by an old
    // number is no longer found. Serialised by a process-wide lock.
    HANDLE GetNextHandle();
    HANDLE GetHandle() const { return m_hVirtual; }
    // The number that a .bxk name carries for a handle (its low 32 bits).
    static uint32_t HandleId(HANDLE h) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(h)); }

    // Appends a change. An additive change equal in offset and length to
    // one already listed is dropped, so a filemark block seen twice is
    // moved once.
    void AddVirtualChange(const ZR_VirtualChange& change);
    // Applies the changes to iLength bytes of the view read at iViewOffset,
    // which must not cross a cut. Throws a const char* text when an
    // additive change has fewer than 8 bytes of the buffer behind it.
    void ApplyVirtualChanges(uint8_t* pBuffer, int64_t iViewOffset, uint32_t iLength) const;
    // The same for a buffer that holds the real bytes from iRealOffset on.
    void ApplyChangesAtReal(uint8_t* pBuffer, uint64_t iRealOffset, uint32_t iLength) const;

    // The mapping above; a log backup (all fields 0) maps v to v.
    int64_t RealOffset(int64_t iViewOffset) const;
    // m_iMSLS - m_iFirstMSTL when the log part is cut, else 0. The cut
    // begins at the first MSTL: a file without one, or with no MSLS behind
    // it, has no log part to cut.
    int64_t LogCut() const {
        return m_bDropLog && m_iFirstMSTL > 0 && m_iMSLS > m_iFirstMSTL ? m_iMSLS - m_iFirstMSTL : 0;
    }
    // Bytes of the view, given the location of the last block of its row:
    // the block's end rounded up to a soft filemark block, less the cuts. A
    // log backup (m_iBlockSize 0) ends at the start of that block.
    int64_t ViewSize(const ZR_StripeLocation& lastBlock) const;
    // View offset of the first MSTL (the place where the log cut applies);
    // -1 when there is no log cut.
    int64_t LogCutViewOffset() const;

    // Where the last read of the view ended, for ZR_Read's sequential short
    // cut. Each access takes m_csNext; the pair is not atomic, which at
    // worst costs a seek.
    ZR_StripeLocation GetNextLocation();
    void SetNextLocation(const ZR_StripeLocation& loc);

    int32_t m_iNumVirtualchanges = 0;
    ZR_VirtualChange* m_pChanges = nullptr;  // owned, m_iNumVirtualchanges entries
    int64_t m_iHoleStart = 0;      // view offset at which the data cut begins
    int64_t m_iHoleLength = 0;     // real bytes that the data cut hides
    bool m_bHoleSet = false;
    int64_t m_iFirstMSTL = 0;      // real offset of the first MSTL, 0 for none
    int64_t m_iExtentsStart = 0;   // view offset of the first extents; 0 but in the first stripe
    int64_t m_iMSLS = 0;           // real offset of the last MSLS
    uint32_t m_iBlockSize = 0;     // soft filemark block size in bytes
    ZR_StripeLocation m_NextLocation{};
    bool m_bNormalBackup = false;  // the SSET says normal (full) backup
    bool m_bDropLog = false;       // the log part is cut too
    int32_t m_iKeptBytes = 0;      // 65,536 for each data file
    uint32_t m_HandleOpen = 0;     // low 32 bits of m_hVirtual plus 0x87654321, for the trace
    HANDLE m_hVirtual = nullptr;
    CRITICAL_SECTION m_csNext;

private:
    void ApplyChange(const ZR_VirtualChange& change, uint8_t* pBuffer, uint64_t iReal, uint32_t iLength) const;
};
