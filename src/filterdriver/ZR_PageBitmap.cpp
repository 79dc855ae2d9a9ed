#include "filterdriver/ZR_PageBitmap.h"

#include <bit>

namespace {

uint8_t Mask(uint64_t iPage) { return static_cast<uint8_t>(0x80u >> (iPage & 7)); }

}  // namespace

ZR_PageBitmap::ZR_PageBitmap(uint64_t iPages) : m_aBytes((iPages + 7) / 8, 0), m_iPages(iPages) {}

void ZR_PageBitmap::Assign(std::vector<uint8_t> aBytes, uint64_t iPages) {
    m_aBytes = std::move(aBytes);
    m_aBytes.resize((iPages + 7) / 8, 0);
    m_iPages = iPages;
    ClearTail();
    Recount();
}

void ZR_PageBitmap::Set(uint64_t iPage) {
    if (iPage >= m_iPages || Test(iPage)) return;
    m_aBytes[iPage >> 3] |= Mask(iPage);
    ++m_iPresent;
}

void ZR_PageBitmap::SetRange(uint64_t iFirst, uint64_t iCount) {
    for (uint64_t i = iFirst; i < iFirst + iCount; ++i) Set(i);
}

uint64_t ZR_PageBitmap::FirstAbsent(uint64_t iFirst, uint64_t iEnd) const {
    uint64_t i = iFirst;
    while (i < iEnd) {
        if ((i & 7) == 0 && i + 8 <= iEnd && m_aBytes[i >> 3] == 0xFF) {
            i += 8;  // a whole extent present: one compare
            continue;
        }
        if (!Test(i)) return i;
        ++i;
    }
    return iEnd;
}

uint8_t ZR_PageBitmap::ExtentByte(uint64_t iExtent) const {
    if (iExtent >= m_aBytes.size()) return 0xFF;
    uint64_t iPagesIn = m_iPages - iExtent * kPagesPerExtent;
    uint8_t iPast = iPagesIn >= 8 ? 0 : static_cast<uint8_t>(0xFFu >> iPagesIn);
    return m_aBytes[iExtent] | iPast;
}

void ZR_PageBitmap::Resize(uint64_t iPages, bool bNewPresent) {
    uint64_t iOld = m_iPages;
    m_aBytes.resize((iPages + 7) / 8, 0);
    m_iPages = iPages;
    if (iPages < iOld) {
        ClearTail();
        Recount();
    } else if (bNewPresent) {
        SetRange(iOld, iPages - iOld);
    }
}

void ZR_PageBitmap::ClearTail() {
    if (m_iPages % 8) m_aBytes.back() &= static_cast<uint8_t>(0xFF00u >> (m_iPages % 8));
}

void ZR_PageBitmap::Recount() {
    m_iPresent = 0;
    for (uint8_t b : m_aBytes) m_iPresent += static_cast<uint64_t>(std::popcount(b));
}
