#include "maps/ZR_HeldExtents.h"

#include <algorithm>

namespace {

uint64_t Key(int iFile, uint32_t iExtent) { return (static_cast<uint64_t>(iFile) << 32) | iExtent; }

bool ByKey(const ZR_HeldExtents::Held& a, const ZR_HeldExtents::Held& b) { return a.iKey < b.iKey; }

}  // namespace

void ZR_HeldExtents::Add(int iFile, uint32_t iExtent, ZR_EMap e) {
    const uint64_t iKey = Key(iFile, iExtent);
    // A backup walked in order enters its extents in ascending order, so the
    // records mostly stay sorted and Settle has little to do.
    if (!m_a.empty() && m_a.back().iKey >= iKey)
        m_bSorted = false;
    m_a.push_back(Held{iKey, e});
}

void ZR_HeldExtents::Clear() {
    std::vector<Held>().swap(m_a);
    m_bSorted = true;
    m_iRowFloor = 0;
}

void ZR_HeldExtents::Settle() {
    if (m_bSorted)
        return;
    std::stable_sort(m_a.begin(), m_a.end(), ByKey);
    // Of equal keys the last one entered stands.
    size_t w = 0;
    for (size_t i = 0; i < m_a.size(); ++i) {
        if (i + 1 < m_a.size() && m_a[i + 1].iKey == m_a[i].iKey)
            continue;
        m_a[w++] = m_a[i];
    }
    m_a.resize(w);
    m_bSorted = true;
}

bool ZR_HeldExtents::Find(int iFile, uint32_t iExtent, ZR_EMap* pe) {
    Settle();
    const Held probe{Key(iFile, iExtent), ZR_EMap{}};
    auto it = std::lower_bound(m_a.begin(), m_a.end(), probe, ByKey);
    if (it == m_a.end() || it->iKey != probe.iKey)
        return false;
    *pe = it->e;
    return true;
}

int ZR_HeldExtents::Rows() {
    Settle();
    const int iEntered = m_a.empty() ? 0 : static_cast<int>(m_a.back().iKey >> 32) + 1;
    return std::max(m_iRowFloor, iEntered);
}

std::span<const ZR_HeldExtents::Held> ZR_HeldExtents::Row(int iFile) {
    Settle();
    auto first = std::lower_bound(m_a.begin(), m_a.end(), Held{Key(iFile, 0), ZR_EMap{}}, ByKey);
    auto last = std::lower_bound(first, m_a.end(), Held{Key(iFile + 1, 0), ZR_EMap{}}, ByKey);
    return {first, last};
}
