// ZR_EMaps: the extent map of a full or differential backup. For each
// database file (row = file id, row 0 unused) and each extent of it (column
// = page number / 8), where the backup holds that extent: one ZR_EMap word.
// Live I/O and hydration look up every page here, so a lookup is two index
// steps and nothing else.
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

#include <cstring>
#include <string>

struct ZR_ConfigInfo;

#pragma pack(push, 1)
// One extent's location, the same word in memory and on disk. Packed so that
// the rows can be used in place in a mapped view, where a row starts at any
// byte. The offset leaves out the map's base offset; Fetch adds it.
struct ZR_EMap {
    static constexpr int kOffsetBits = 52;
    static constexpr int kRelativeBits = 6;
    static constexpr int kDeviceBits = 6;
    static constexpr uint64_t kOffsetMask = (uint64_t{1} << kOffsetBits) - 1;
    static constexpr uint64_t kFieldMask = (uint64_t{1} << kRelativeBits) - 1;
    static constexpr int kRelativeShift = kOffsetBits;
    static constexpr int kDeviceShift = kOffsetBits + kRelativeBits;
    // Neither value is a location: 0 because no extent lies at the start of
    // a backup file, all bits set because nothing real can have them.
    static constexpr uint64_t kNone = 0;
    static constexpr uint64_t kAllSet = ~uint64_t{0};

    uint64_t m_iEntry = kNone;

    // Values wider than a field are cut to the field.
    static ZR_EMap Make(int iDevice, uint64_t iOfs, uint32_t iRelative) {
        ZR_EMap e;
        e.SetOffset(iOfs);
        e.SetRelative(iRelative);
        e.SetDevice(iDevice);
        return e;
    }

    uint64_t GetOffset() const { return m_iEntry & kOffsetMask; }
    void SetOffset(uint64_t i) { m_iEntry = (m_iEntry & ~kOffsetMask) | (i & kOffsetMask); }
    // In units of 65,536 bytes.
    uint32_t GetRelative() const { return static_cast<uint32_t>((m_iEntry >> kRelativeShift) & kFieldMask); }
    void SetRelative(uint32_t i) { SetField(kRelativeShift, i); }
    int GetDevice() const { return static_cast<int>((m_iEntry >> kDeviceShift) & kFieldMask); }
    void SetDevice(int i) { SetField(kDeviceShift, static_cast<uint32_t>(i)); }

    bool IsNone() const { return m_iEntry == kNone; }
    bool IsAllSet() const { return m_iEntry == kAllSet; }
    // A real location: neither of the two values that mean no copy.
    bool HasCopy() const { return !IsNone() && !IsAllSet(); }

private:
    void SetField(int iShift, uint32_t i) {
        m_iEntry = (m_iEntry & ~(kFieldMask << iShift)) | ((uint64_t{i} & kFieldMask) << iShift);
    }
};
#pragma pack(pop)
static_assert(sizeof(ZR_EMap) == 8);

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
    // view.
    bool ReadContent(bool bUpdate) override;
    bool WriteContent() override;

    // The entry of the page's extent, with the base offset added to a real
    // offset; 0 for a file or extent that the table does not hold.
    ZR_EMap Fetch(PageId pageId);
    // Stores an entry, growing the table (new entries 0). iRelativeOfs is in
    // bytes and kept in units of 65,536.
    void Set(int iFile, int iExtent, int iDevice, uint64_t iOfs, uint64_t iRelativeOfs);
    // Enters the extent whose first page is pPage (the page id at offset 32
    // of its header). False for file id 0, which is no database page.
    bool Augment(const void* pPage, int iDevice, uint64_t iOfs, uint64_t iRelativeOfs);
    // Sizes an empty table to the data files of a configuration: one row per
    // file id up to the largest, each data file's row to its extents.
    void AllocFromFileList(ZR_ConfigInfo& config);
    // Behind trace flag 32, which is never on.
    void Dump(int iBackup);

    using AA<ZR_EMap>::Set;

private:
    zr_array::ScopedLock TableLock() { return zr_array::ScopedLock(&this->AA<ZR_EMap>::m_cs, m_bcsInitialized); }

    // The table was read in place from an update view: changes go to the
    // file instead of a private copy.
    bool m_bWritableView = false;
};

// "Data", "Full", "Diff" or "Log[n]": how the dumps name a backup slot.
std::string BackupSlotName(int iBackup);
