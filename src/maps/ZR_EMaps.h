// ZR_EMaps: the extent map of a full or differential backup. For each
// database file (row = file id, row 0 unused) and each extent of it (column
// = page number / 8), where the backup holds that extent: one ZR_EMap word.
// Live I/O and hydration look up every page here, so a lookup is two index
// steps and nothing else.
//
// Two forms. Built, the map holds only the extents entered (ZR_HeldExtents),
// so that building costs memory by the extents the backup holds and not by
// the sizes of its data files. Written, each row runs to the last extent
// held (a Fetch past a row's end gives 0: not in this backup), with long
// runs of empty entries left as holes of the file. Read back, the table lies
// in the file's mapped view and is paged in as entries are touched. The
// table (AA) is the read form: Count and the row count are those of the
// table read from a file.
//
// Ownership: made and shared by g_MapPool. Built by one ZR_Backup, written,
// cleared and read back, so that a mount serves the map from the file's
// view. Once the pool marks it created it is only read, except through an
// update view (OpenForUpdate), where Set changes the file itself.
//
// Threads: Set, Fetch and the table's growth take the AA's own lock.
#pragma once

#include "foundation/AA.h"
#include "foundation/ZR_Types.h"
#include "maps/X_MapFile.h"
#include "maps/ZR_EMap.h"
#include "maps/ZR_HeldExtents.h"

#include <cstring>
#include <string>

struct ZR_ConfigInfo;

// Reads through a map file and refuses the first 32-bit word it reads, a
// count, when that many entries of at least cbEach bytes each cannot fit in
// what is left of the file. The array readers allocate by a count before
// they read what it counts; this keeps a damaged count from becoming a huge
// allocation. Used for one array read and dropped.
template <class File>
class ZR_MapCountGuard {
public:
    ZR_MapCountGuard(File* pFile, unsigned cbEach) : m_pFile(pFile), m_cbEach(cbEach) {}

    bool Read(void* p, unsigned cb, unsigned n) {
        if (!m_pFile->Read(p, cb, n))
            return false;
        if (!m_bFirst)
            return true;
        m_bFirst = false;
        uint32_t iCount = 0;
        if (static_cast<uint64_t>(cb) * n != sizeof iCount)
            return true;
        std::memcpy(&iCount, p, sizeof iCount);
        return static_cast<uint64_t>(iCount) * m_cbEach <= m_pFile->BytesLeft();
    }
    bool MapOrAlloc(void** pp, unsigned cb, unsigned n, unsigned* pcbAlloc) {
        return m_pFile->MapOrAlloc(pp, cb, n, pcbAlloc);
    }
    uint64_t BytesLeft() const { return m_pFile->BytesLeft(); }

private:
    File* m_pFile;
    unsigned m_cbEach;
    bool m_bFirst = true;
};

class ZR_EMaps : public X_MapFile, public AA<ZR_EMap> {
public:
    // The largest data file SQL Server makes, 16 TB, and its extents: no
    // row of a sound backup's map is longer.
    static constexpr uint64_t ms_iMaxDataFileBytes = uint64_t{1} << 44;
    static constexpr uint64_t ms_iMaxExtents = ms_iMaxDataFileBytes / ZR_EXTENT_SIZE;

    ZR_EMaps() = default;

    int GetMapType() const override { return 2; }
    const char* GetFileExtension() const override { return "xdm"; }
    const char* GetMagic() const override { return "IDMF"; }
    const char* GetMapName() const override { return "DataExtentMap"; }
    int GetVersion() const override { return 2; }
    // The whole file: 24 bytes of preamble and header, then each row's
    // count and entries.
    uint32_t GetContentSize() override;
    // A map whose incremental flag is set is not loaded unless bUpdate: such
    // a map is to be opened for update, so that its table lies in a writable
    // view. A table must fill the file to its end: a damaged count that
    // leaves bytes over is no map.
    bool ReadContent(bool bUpdate) override;
    bool WriteContent() override;

    // The entry of the page's extent, with the base offset added to a real
    // offset; 0 for a file or extent that the map does not hold.
    ZR_EMap Fetch(PageId pageId);
    // Stores an entry (iRelativeOfs in bytes, kept in units of 65,536). In
    // an update view an entry that exists changes the file; otherwise the
    // entry joins the built form, which a read table turns into first.
    void Set(int iFile, int iExtent, int iDevice, uint64_t iOfs, uint64_t iRelativeOfs);
    // Enters the extent whose first page is pPage (the page id at offset 32
    // of its header). False for file id 0, which is no database page.
    bool Augment(const void* pPage, int iDevice, uint64_t iOfs, uint64_t iRelativeOfs);
    // Gives an empty map a row for each file id up to the largest data file
    // of a configuration; the rows hold no entries until extents are entered.
    void AllocFromFileList(ZR_ConfigInfo& config);
    // Forgets the table and the extents entered.
    void Clean();
    // Behind trace flag 32, which is never on.
    void Dump(int iBackup);

    using AA<ZR_EMap>::Set;

private:
    zr_array::ScopedLock TableLock() { return zr_array::ScopedLock(&this->AA<ZR_EMap>::m_cs, m_bcsInitialized); }
    bool IsBuilt() const { return m_i == 0; }
    void MoveTableToHeld();
    bool WriteHeld();

    // The table was read in place from an update view: changes go to the
    // file instead of a private copy.
    bool m_bWritableView = false;
    ZR_HeldExtents m_held;  // the built form
};

// "Data", "Full", "Diff" or "Log[n]": how the dumps name a backup slot.
std::string BackupSlotName(int iBackup);
