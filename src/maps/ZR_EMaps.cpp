#include "maps/ZR_EMaps.h"

#include "diag/Format.h"
#include "diag/Trace.h"
#include "maps/ZR_CMaps.h"

namespace {

// Magic, size, version, backend, flag and row count.
constexpr uint64_t kHeaderSize = 24;
constexpr int kVersionWithBackend = 2;
constexpr uint32_t kPageIdOffset = 32;  // in a page header
constexpr uint64_t kTraceFlagExtentMap = 32;

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
    if (IsBuilt()) {
        for (int iX = 0; iX < m_held.Rows(); ++iX)
            cb += sizeof(uint32_t) + uint64_t{sizeof(ZR_EMap)} * ZR_HeldExtents::RowCount(m_held.Row(iX));
    } else {
        for (int iX = 0; iX < m_i; ++iX)
            cb += sizeof(uint32_t) + uint64_t{sizeof(ZR_EMap)} * static_cast<unsigned>(m_ai[iX]);
    }
    // A map of 4 GiB or more cannot be told by a 32-bit size: it is written
    // with a size that its reader refuses, and then built again.
    return static_cast<uint32_t>(cb);
}

void ZR_EMaps::Clean() {
    auto lock = TableLock();
    AA<ZR_EMap>::Clean();
    m_held.Clear();
    m_bWritableView = false;
}

bool ZR_EMaps::ReadContent(bool bUpdate) {
    Clean();
    bool bIncremental = false;
    if (m_iFileVersion >= kVersionWithBackend) {
        int32_t iBackend = 0;
        uint32_t iFlag = 0;
        if (!Read(&iBackend, 4, 1) || X_MapBackend(iBackend) != X_MapBackend(m_eBackend) || !Read(&iFlag, 4, 1))
            return false;
        bIncremental = iFlag != 0;
    } else if (m_iFileVersion != 1) {
        return false;
    }
    m_bIsIncremental = bIncremental;
    if (bIncremental && !bUpdate)
        return true;
    ZR_MapCountGuard<X_MapFile> guard(this, sizeof(uint32_t));
    // Every byte is accounted for: a count damaged into a smaller one would
    // otherwise pass, and leave extents out that the backup holds.
    bool bOk = AA<ZR_EMap>::SerializeRead(&guard) && m_i > 0 &&
               (m_eMapLocale == X_MAPLOCALE_EMBEDDED || BytesLeft() == 0);
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
    if (!Write(&iBackend, 4, 1) || !Write(&iFlag, 4, 1))
        return false;
    auto lock = TableLock();
    return IsBuilt() ? WriteHeld() : AA<ZR_EMap>::SerializeWrite(static_cast<X_MapFile*>(this));
}

// Each row runs to its last extent held; the empty entries between are
// zeros, and long runs of them holes of the file.
bool ZR_EMaps::WriteHeld() {
    uint32_t iRows = static_cast<uint32_t>(m_held.Rows());
    if (!Write(&iRows, sizeof iRows, 1))
        return false;
    for (uint32_t iX = 0; iX < iRows; ++iX) {
        std::span<const ZR_HeldExtents::Held> row = m_held.Row(static_cast<int>(iX));
        uint32_t iCount = ZR_HeldExtents::RowCount(row);
        if (!Write(&iCount, sizeof iCount, 1))
            return false;
        uint32_t iNext = 0;
        for (const ZR_HeldExtents::Held& h : row) {
            if (!WriteZeros(uint64_t{h.Extent() - iNext} * sizeof(ZR_EMap)) || !Write(&h.e, sizeof h.e, 1))
                return false;
            iNext = h.Extent() + 1;
        }
    }
    return true;
}

ZR_EMap ZR_EMaps::Fetch(PageId pageId) {
    int iFile = pageId.m_iFileId;
    int iExtent = static_cast<int>(pageId.m_iPage >> 3);
    ZR_EMap e;
    bool bFound = false;
    {
        auto lock = TableLock();
        if (!IsBuilt()) {
            bFound = Exists(iFile, iExtent);
            if (bFound)
                e = m_aa[iFile][iExtent];
        } else if (!m_held.Empty()) {
            bFound = m_held.Find(iFile, static_cast<uint32_t>(iExtent), &e);
        }
    }
    int iPage = static_cast<int>(pageId.m_iPage);
    if (!bFound) {
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
    if (!IsBuilt())
        MoveTableToHeld();
    m_held.Add(iFile, static_cast<uint32_t>(iExtent), e);
}

// A read table that is to change becomes a build again: its entries join
// the extents held, and it is written whole when the map is written.
void ZR_EMaps::MoveTableToHeld() {
    m_held.SetRowFloor(m_i);
    for (int iX = 0; iX < m_i; ++iX)
        for (int iY = 0; iY < m_ai[iX]; ++iY)
            if (!m_aa[iX][iY].IsNone())
                m_held.Add(iX, static_cast<uint32_t>(iY), m_aa[iX][iY]);
    AA<ZR_EMap>::Clean();
    m_bWritableView = false;
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
    if (!IsBuilt() || !m_held.Empty())
        return;
    int iLargest = 0;
    for (int i = 0; i < static_cast<int>(config.m_Files); ++i) {
        const SQL_FILE_INFO_V7* pFile = config.m_Files(i);
        if (pFile && pFile->m_file_type == SQL_FILE_DATABASE)
            iLargest = std::max(iLargest, static_cast<int>(pFile->m_file_number & 0xFFFF));
    }
    m_held.SetRowFloor(iLargest + 1);
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
