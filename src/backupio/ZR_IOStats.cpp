#include "backupio/ZR_IOStats.h"

#include <algorithm>

ZR_IOStats g_IOStats;

namespace {

const char* const s_aIONames[ZR_IO_COUNT] = {
    "?",     "Open",   "Read",   "ReadSequential", "Write", "ReadFulfill", "ReadDeviceSequential",
    "SetFP", "SetEOF", "SetFVD", "Scrub",          "Close",
};

const char* const s_aFileKindNames[ZR_FILE_KIND_COUNT + 1] = {
    "", "MDF", "MXF", "MCF", "NDF", "NXF", "NCF", "LDF", "LXF", "LCF", "bak", "bxk", "kelp", "kxlp",
};

// Holds a file kind's lock for one scope; the rows are short, so nothing
// slow ever runs under it.
class KindLock {
public:
    explicit KindLock(CRITICAL_SECTION* pcs) : m_pcs(pcs) { EnterCriticalSection(m_pcs); }
    ~KindLock() { LeaveCriticalSection(m_pcs); }
    KindLock(const KindLock&) = delete;
    KindLock& operator=(const KindLock&) = delete;

private:
    CRITICAL_SECTION* m_pcs;
};

}  // namespace

const char* GetIOName(ZR_IO_e eIO) {
    if (eIO < 0 || eIO >= ZR_IO_COUNT) return "";
    return s_aIONames[eIO];
}

const char* GetFileKindName(int iFileKind) {
    if (iFileKind < 1 || iFileKind > ZR_FILE_KIND_COUNT) return "";
    return s_aFileKindNames[iFileKind];
}

ZR_IOStats::ZR_IOStats() {
    LARGE_INTEGER freq{};
    QueryPerformanceFrequency(&freq);
    // A frequency of 0 would divide by zero in every conversion.
    m_iFrequency = freq.QuadPart > 0 ? static_cast<uint64_t>(freq.QuadPart) : 1;
    for (Kind& kind : m_aKinds) InitializeCriticalSection(&kind.m_cs);
}

ZR_IOStats::~ZR_IOStats() {
    for (Kind& kind : m_aKinds) DeleteCriticalSection(&kind.m_cs);
}

uint64_t ZR_IOStats::QueryTicks() {
    LARGE_INTEGER now{};
    QueryPerformanceCounter(&now);
    return static_cast<uint64_t>(now.QuadPart);
}

uint64_t ZR_IOStats::TicksToMicroseconds(uint64_t iTicks) const {
    // Split so that ticks x 1,000,000 cannot overflow for long runs.
    return iTicks / m_iFrequency * 1000000 + iTicks % m_iFrequency * 1000000 / m_iFrequency;
}

ZR_IOStats::Kind* ZR_IOStats::KindOf(int iFileKind, ZR_IO_e eIO) const {
    if (iFileKind < 1 || iFileKind > ZR_STAT_KINDS) return nullptr;
    if (eIO < 0 || eIO >= ZR_IO_COUNT) return nullptr;
    return &m_aKinds[iFileKind - 1];
}

void ZR_IOStats::AddIO(int iFileKind, ZR_IO_e eIO, unsigned iLength, uint64_t iTicks) {
    Kind* pKind = KindOf(iFileKind, eIO);
    if (!pKind) return;
    KindLock lock(&pKind->m_cs);
    std::vector<ZR_IOEntry>& row = pKind->m_aRows[eIO];
    // Few distinct transfer sizes occur, so a linear search is the cheapest.
    auto it = std::find_if(row.begin(), row.end(), [&](const ZR_IOEntry& e) { return e.iLength == iLength; });
    if (it == row.end()) {
        row.push_back(ZR_IOEntry{iLength, 1, iTicks, iTicks, iTicks});
        return;
    }
    it->iCount++;
    it->iMinTicks = std::min(it->iMinTicks, iTicks);
    it->iMaxTicks = std::max(it->iMaxTicks, iTicks);
    it->iTotalTicks += iTicks;
}

std::vector<ZR_IOEntry> ZR_IOStats::GetEntries(int iFileKind, ZR_IO_e eIO) const {
    Kind* pKind = KindOf(iFileKind, eIO);
    if (!pKind) return {};
    KindLock lock(&pKind->m_cs);
    return pKind->m_aRows[eIO];
}

void ZR_IOStats::GetTotals(int iFileKind, ZR_IO_e eIO, uint64_t* piCalls, uint64_t* piBytes) const {
    uint64_t iCalls = 0, iBytes = 0;
    for (const ZR_IOEntry& e : GetEntries(iFileKind, eIO)) {
        iCalls += e.iCount;
        iBytes += uint64_t(e.iCount) * e.iLength;
    }
    if (piCalls) *piCalls = iCalls;
    if (piBytes) *piBytes = iBytes;
}

void ZR_IOStats::Clear() {
    for (Kind& kind : m_aKinds) {
        KindLock lock(&kind.m_cs);
        for (auto& row : kind.m_aRows) row.clear();
    }
}
