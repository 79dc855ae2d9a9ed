#include "filterdriver/ZR_DriverTrace.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "diag/Format.h"
#include "platform/win32.h"

namespace {

// A ring larger than this is refused down to it: the capture reply of the
// library holds 1 MiB, and a driver has no use for more.
constexpr uint32_t kMaxRing = 16u << 20;

}  // namespace

void ZR_DriverTrace::Enable(uint32_t cbRing, uint32_t iLimit) {
    std::lock_guard guard(m_lock);
    size_t iLines = std::max<size_t>(1, std::min(cbRing, kMaxRing) / kLineSize);
    m_aRing.assign(iLines * kLineSize, 0);
    m_iNext = 0;
    m_bWrapped = false;
    m_iCount = 0;
    m_iLimit = iLimit == 0xFFFFFFFF ? UINT64_MAX : iLimit;
    m_bOn = true;
}

void ZR_DriverTrace::Disable() { m_bOn = false; }

void ZR_DriverTrace::Line(const char* szFormat, ...) {
    if (!IsOn()) return;
    std::lock_guard guard(m_lock);
    if (m_aRing.empty() || m_iCount >= m_iLimit) return;
    char* pLine = &m_aRing[m_iNext * kLineSize];
    int iPrefix = ZR_snprintf(pLine, kLineSize, "%06u-%04u ", static_cast<unsigned>(++m_iCount % 1000000),
                              static_cast<unsigned>(GetCurrentThreadId() % 10000));
    va_list args;
    va_start(args, szFormat);
    ZR_vsnprintf(pLine + iPrefix, kLineSize - iPrefix, szFormat, args);
    va_end(args);
    pLine[kLineSize - 1] = 0;
    if (++m_iNext * kLineSize == m_aRing.size()) {
        m_iNext = 0;
        m_bWrapped = true;
    }
}

uint32_t ZR_DriverTrace::Capture(void* pOut, uint32_t cbOut) {
    std::lock_guard guard(m_lock);
    size_t iLines = m_aRing.size() / kLineSize;
    size_t iFirst = m_bWrapped ? m_iNext : 0;
    size_t iCount = std::min<size_t>(m_bWrapped ? iLines : m_iNext, cbOut / kLineSize);
    char* pDest = static_cast<char*>(pOut);
    for (size_t i = 0; i < iCount; ++i)
        std::memcpy(pDest + i * kLineSize, &m_aRing[((iFirst + i) % iLines) * kLineSize], kLineSize);
    return static_cast<uint32_t>(iCount * kLineSize);
}
