#include "maps/ZR_EMaps.h"

#include "diag/Format.h"
#include "diag/Trace.h"
#include "maps/ZR_CMaps.h"

namespace {

// Magic, size, version, backend, flag and row count.
constexpr uint64_t kHeaderSize = 24;
constexpr int kVersionWithBackend = 2;
constexpr uint32_t kPageIdOffset = 32;  // in a page header
// Page numbers are 32 bits, so no file has more extents than this; a file
// size beyond it in a configuration is not taken at its word.
constexpr uint64_t kMaxExtents = uint64_t{1} << 29;
constexpr uint64_t kTraceFlagExtentMap = 32;

// Backend 3 is read and written like a native backup.
int NormalBackend(int iBackend) { return iBackend == 3 ? ZR_BACKEND_MTF : iBackend; }

// One of the three texts of an entry, chosen the same way for lookups and
// stores: by a zero offset, by -1, or the location itself.
struct EntryTexts {
    const char* szZero;
    const char* szAllSet;
    const char* szReal;
};

constexpr EntryTexts kFetchTexts = {"EMaps.Fetch(%d %d) = 0\n", "EMaps.Fetch(%d %d) = -1\n",
                                    "EMaps.Fetch(%d %d) = {%d, %I64d, %d}\n"};
constexpr EntryTexts kSetTexts = {"EMaps.Set(%d, %d, 0)\n", "EMaps.Set(%d, %d, -1)\n",
                                  "EMaps.Set(%d, %d, {%d, %I64d, %d})\n"};

void TraceEntry(const EntryTexts& texts, int a, int b, ZR_EMap e) {
    if (!g_iTraceMode)
        return;
    if (e.IsAllSet())
        TraceLine(texts.szAllSet, a, b);
    else if (e.GetOffset() == 0)
        TraceLine(texts.szZero, a, b);
    else
        TraceLine(texts.szReal, a, b, e.GetDevice(), static_cast<long long>(e.GetOffset()),
                  static_cast<int>(e.GetRelative()));
}

}  // namespace

std::string BackupSlotName(int iBackup) {
    switch (iBackup) {
    case -1: return "Data";
    case 0: return "Full";
    case 1: return "Diff";
    default: return ZR_Format("Log[%d]", iBackup - 2);
    }
}

uint32_t ZR_EMaps::GetContentSize() {
    auto lock = TableLock();
    uint64_t cb = kHeaderSize;
    for (int iX = 0; iX < m_i; ++iX)
        cb += sizeof(uint32_t) + uint64_t{sizeof(ZR_EMap)} * static_cast<unsigned>(m_ai[iX]);
    // A map of 4 GiB or more cannot be told by a 32-bit size: it is written
    // with a size that its reader refuses, and then built again.
    return static_cast<uint32_t>(cb);
}

bool ZR_EMaps::ReadContent(bool bUpdate) {
    Clean();
    m_bWritableView = false;
    bool bIncremental = false;
    if (m_iFileVersion >= kVersionWithBackend) {
        int32_t iBackend = 0;
        uint32_t iFlag = 0;
        if (!Read(&iBackend, 4, 1) || NormalBackend(iBackend) != NormalBackend(m_eBackend) || !Read(&iFlag, 4, 1))
            return false;
        bIncremental = iFlag != 0;
    } else if (m_iFileVersion != 1) {
        return false;
    }
    m_bIsIncremental = bIncremental;
    if (bIncremental && !bUpdate)
        return true;
    ZR_MapCountGuard<X_MapFile> guard(this, sizeof(uint32_t));
    bool bOk = AA<ZR_EMap>::SerializeRead(&guard) && m_i > 0;
    if (!bOk)
        Clean();
    // Only an update view is writable; a read-only view is copied out of
    // on the first change.
    m_bWritableView = bOk && bUpdate && m_bMapped;
    return bOk;
}

bool ZR_EMaps::WriteContent() {
    int32_t iBackend = m_eBackend;
    uint32_t iFlag = m_bIsIncremental ? 1 : 0;
    return Write(&iBackend, 4, 1) && Write(&iFlag, 4, 1) &&
           AA<ZR_EMap>::SerializeWrite(static_cast<X_MapFile*>(this));
}

ZR_EMap ZR_EMaps::Fetch(PageId pageId) {
    int iFile = pageId.m_iFileId;
    int iExtent = static_cast<int>(pageId.m_iPage >> 3);
    ZR_EMap e;
    bool bHeld = false;
    {
        auto lock = TableLock();
        if (Exists(iFile, iExtent)) {
            e = m_aa[iFile][iExtent];
            bHeld = true;
        }
    }
    int iPage = static_cast<int>(pageId.m_iPage);
    if (!bHeld) {
        if (g_iTraceMode)
            TraceLine("EMaps.Fetch(%d %d) = .\n", iFile, iPage);
        return e;
    }
    // -1 stays -1: with the base added it would pass for a location.
    if (!e.IsAllSet() && e.GetOffset() != 0)
        e.SetOffset(e.GetOffset() + m_iBaseOffset);
    TraceEntry(kFetchTexts, iFile, iPage, e);
    return e;
}

void ZR_EMaps::Set(int iFile, int iExtent, int iDevice, uint64_t iOfs, uint64_t iRelativeOfs) {
    ZR_EMap e = ZR_EMap::Make(iDevice, iOfs, static_cast<uint32_t>(iRelativeOfs >> 16));
    TraceEntry(kSetTexts, iFile, iExtent, e);
    if (iFile < 0 || iExtent < 0)
        return;
    auto lock = TableLock();
    if (m_bWritableView && Exists(iFile, iExtent)) {
        m_aa[iFile][iExtent] = e;  // a change to the file itself
        return;
    }
    AA<ZR_EMap>::Set(iFile, iExtent, e);
    m_bWritableView = m_bWritableView && m_bMapped;
}

bool ZR_EMaps::Augment(const void* pPage, int iDevice, uint64_t iOfs, uint64_t iRelativeOfs) {
    if (g_iTraceMode)
        TraceLine("ZR_EMaps::Augment\n");
    PageId pageId;
    std::memcpy(&pageId, static_cast<const uint8_t*>(pPage) + kPageIdOffset, sizeof pageId);
    if (pageId.m_iFileId == 0) {
        if (g_iTraceMode)
            TraceLine("ZR_EMaps::Augment return\n");
        return false;
    }
    Set(pageId.m_iFileId, static_cast<int>(pageId.m_iPage / ZR_PAGES_PER_EXTENT), iDevice, iOfs, iRelativeOfs);
    return true;
}

void ZR_EMaps::AllocFromFileList(ZR_ConfigInfo& config) {
    auto lock = TableLock();
    if (m_i != 0)
        return;
    int iFiles = config.m_Files;
    int iLargest = 0;
    for (int i = 0; i < iFiles; ++i) {
        const SQL_FILE_INFO_V7* pFile = config.m_Files(i);
        if (pFile && pFile->m_file_type == SQL_FILE_DATABASE)
            iLargest = std::max(iLargest, static_cast<int>(pFile->m_file_number & 0xFFFF));
    }
    AA<ZR_EMap>::Set(iLargest);
    for (int i = 0; i < iFiles; ++i) {
        const SQL_FILE_INFO_V7* pFile = config.m_Files(i);
        if (!pFile || pFile->m_file_type != SQL_FILE_DATABASE)
            continue;
        uint64_t iExtents = std::min(pFile->m_file_size >> 16, kMaxExtents);
        if (iExtents > 0)
            AA<ZR_EMap>::Set(static_cast<int>(pFile->m_file_number & 0xFFFF), static_cast<int>(iExtents - 1));
    }
    m_bIsIncremental = false;
}

void ZR_EMaps::Dump(int iBackup) {
    if (!TraceFlagOn(kTraceFlagExtentMap))
        return;
    std::string name = BackupSlotName(iBackup);
    auto lock = TableLock();
    for (int iFile = 1; iFile < m_i; ++iFile) {
        TPrintf("%-7s %3d\n", name.c_str(), iFile);
        for (int iExtent = 0; iExtent < m_ai[iFile]; ++iExtent) {
            ZR_EMap e = m_aa[iFile][iExtent];
            if (e.GetOffset() != 0 && !e.IsAllSet())
                TPrintf("%7{d32} %2d %{x64} %2d\n", iExtent, e.GetDevice(), e.GetOffset(),
                        static_cast<int>(e.GetRelative()));
        }
    }
}
