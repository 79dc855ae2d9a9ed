#include "backup/ZR_VirtualBackupFile.h"
#include "foundation/Unaligned.h"

#include <algorithm>
#include <cstring>

#include "diag/Trace.h"
#include "foundation/Alloc.h"

namespace {

// The lock behind the handle ids: built on first use, which the library's
// load does, and never destroyed, so that a view destroyed during the exit
// of the process can still take it.
CRITICAL_SECTION* HandleLock() {
    static CRITICAL_SECTION* pcs = [] {
        auto* p = new CRITICAL_SECTION;
        InitializeCriticalSection(p);
        return p;
    }();
    return pcs;
}

// Takes the lock at load, before any thread can ask for an id.
[[maybe_unused]] const CRITICAL_SECTION* g_pcsVirtualHandles = HandleLock();

}  // namespace

ZR_VirtualBackupFile::ZR_VirtualBackupFile() { InitializeCriticalSection(&m_csNext); }

ZR_VirtualBackupFile::~ZR_VirtualBackupFile() {
    Free(&m_pChanges);
    if (m_hVirtual)
        CloseHandle(m_hVirtual);
    DeleteCriticalSection(&m_csNext);
}

HANDLE ZR_VirtualBackupFile::GetNextHandle() {
    EnterCriticalSection(HandleLock());
    // The new object is made while the old one still stands, so the new
    // number cannot be the old one: a read by the old name is not found.
    HANDLE hOld = m_hVirtual;
    m_hVirtual = CreateMutexW(nullptr, FALSE, nullptr);
    if (hOld)
        CloseHandle(hOld);
    m_HandleOpen = ZR_HandleTag(m_hVirtual);
    HANDLE h = m_hVirtual;
    LeaveCriticalSection(HandleLock());
    if (g_iTraceMode)
        TraceLine("ZR_VirtualBackupFile::GetNextHandle - m_HandleOpen: %08x\n", m_HandleOpen);
    return h;
}

void ZR_VirtualBackupFile::AddVirtualChange(const ZR_VirtualChange& change) {
    if (change.m_bAdditive) {
        for (int i = 0; i < m_iNumVirtualchanges; ++i) {
            const ZR_VirtualChange& old = m_pChanges[i];
            if (old.m_bAdditive && old.m_iOffset == change.m_iOffset && old.m_iLength == change.m_iLength)
                return;
        }
    }
    unsigned cb = static_cast<unsigned>((m_iNumVirtualchanges + 1) * sizeof(ZR_VirtualChange));
    m_pChanges = static_cast<ZR_VirtualChange*>(Realloc(m_pChanges, cb));
    m_pChanges[m_iNumVirtualchanges++] = change;
}

int64_t ZR_VirtualBackupFile::RealOffset(int64_t iViewOffset) const {
    int64_t r = iViewOffset < m_iHoleStart ? iViewOffset : iViewOffset + m_iHoleLength;
    if (m_iFirstMSTL > 0 && r >= m_iFirstMSTL)
        r += LogCut();
    return r;
}

int64_t ZR_VirtualBackupFile::LogCutViewOffset() const {
    if (LogCut() <= 0)
        return -1;
    // The first MSTL lies behind the data stream, so behind the hole.
    bool bBehindHole = m_bHoleSet && m_iFirstMSTL >= m_iHoleStart + m_iHoleLength;
    return bBehindHole ? m_iFirstMSTL - m_iHoleLength : m_iFirstMSTL;
}

int64_t ZR_VirtualBackupFile::ViewSize(const ZR_StripeLocation& lastBlock) const {
    int64_t iRounded = 0;
    if (m_iBlockSize > 0)
        iRounded = static_cast<int64_t>((lastBlock.iLength + m_iBlockSize - 1) / m_iBlockSize * m_iBlockSize);
    return static_cast<int64_t>(lastBlock.iStripeOfs) + iRounded - m_iHoleLength - LogCut();
}

ZR_StripeLocation ZR_VirtualBackupFile::GetNextLocation() {
    EnterCriticalSection(&m_csNext);
    ZR_StripeLocation loc = m_NextLocation;
    LeaveCriticalSection(&m_csNext);
    return loc;
}

void ZR_VirtualBackupFile::SetNextLocation(const ZR_StripeLocation& loc) {
    EnterCriticalSection(&m_csNext);
    m_NextLocation = loc;
    LeaveCriticalSection(&m_csNext);
}

void ZR_VirtualBackupFile::ApplyVirtualChanges(uint8_t* pBuffer, int64_t iViewOffset, uint32_t iLength) const {
    if (g_iTraceMode)
        TraceLine("m_iNumVirtualchanges: %d\n", m_iNumVirtualchanges);
    ApplyChangesAtReal(pBuffer, static_cast<uint64_t>(RealOffset(iViewOffset)), iLength);
}

void ZR_VirtualBackupFile::ApplyChangesAtReal(uint8_t* pBuffer, uint64_t iRealOffset, uint32_t iLength) const {
    for (int i = 0; i < m_iNumVirtualchanges; ++i)
        ApplyChange(m_pChanges[i], pBuffer, iRealOffset, iLength);
}

// One change against the buffer that holds the real bytes iReal to
// iReal + iLength. A change can begin inside the buffer, or begin in front
// of it and reach into it (even past its end); a replacing change is cut to
// what the buffer holds either way, so reads split inside a field together
// give the whole new value.
void ZR_VirtualBackupFile::ApplyChange(const ZR_VirtualChange& change, uint8_t* pBuffer, uint64_t iReal,
                                       uint32_t iLength) const {
    uint64_t iEnd = iReal + iLength;
    if (change.m_iOffset >= iReal && change.m_iOffset < iEnd) {
        uint32_t iAt = static_cast<uint32_t>(change.m_iOffset - iReal);
        uint32_t iRemain = iLength - iAt;
        if (change.m_bAdditive) {
            uint64_t iSubtract = ZR_Load<uint64_t>(change.m_aValue);
            if (g_iTraceMode)
                TraceLine("Additive virtualization - subtract out %I64d\n", static_cast<long long>(iSubtract));
            if (iRemain < 8)
                throw "less than 8 bytes remaining in the buffer for an additive virtualization\n";
            uint64_t v = ZR_Load<uint64_t>(pBuffer + iAt) - iSubtract;
            std::memcpy(pBuffer + iAt, &v, sizeof v);
            return;
        }
        uint32_t n = std::min<uint32_t>(change.m_iLength, iRemain);
        std::memcpy(pBuffer + iAt, change.m_aValue, n);
        if (g_iTraceMode)
            TraceLine("virtualization - memcpy to buffer offset %d length %d 1st 4 bytes: %02x %02x %02x %02x\n",
                      iAt, n, pBuffer[iAt], n > 1 ? pBuffer[iAt + 1] : 0, n > 2 ? pBuffer[iAt + 2] : 0,
                      n > 3 ? pBuffer[iAt + 3] : 0);
        return;
    }
    // An additive field split by the caller's read cannot be patched from
    // one side; ZR_Backup::ReadVirtual widens its reads so that never
    // happens.
    uint64_t iChangeEnd = change.m_iOffset + change.m_iLength;
    if (!change.m_bAdditive && change.m_iOffset < iReal && iChangeEnd > iReal) {
        uint32_t iSkip = static_cast<uint32_t>(iReal - change.m_iOffset);
        uint32_t n = std::min<uint32_t>(change.m_iLength - iSkip, iLength);
        std::memcpy(pBuffer, change.m_aValue + iSkip, n);
        if (!g_iTraceMode)
            return;
        if (n >= 4)
            TraceLine("virtualization - straddles beginning of buffer - memcpy to buffer length %d 1st 4 bytes: "
                      "%02x %02x %02x %02x\n",
                      n, pBuffer[0], pBuffer[1], pBuffer[2], pBuffer[3]);
        else
            TraceLine("virtualization - straddles beginning of buffer.\n");
    }
}
