// An in-memory stand-in for the map file, with the three calls the array
// serialisers use. In mapped mode MapOrAlloc points into the buffer, as a
// map file does into its view; otherwise it hands out a zeroed Calloc block.
// A write or read can be made to fail after a number of successful calls.
#pragma once

#include <cstring>
#include <vector>

#include "foundation/Alloc.h"

class MemFile {
public:
    std::vector<unsigned char> m_data;
    size_t m_iOfs = 0;
    bool m_bMappedMode = false;
    int m_iCallsBeforeFailure = -1;  // -1: never fail

    bool Write(const void* p, unsigned cbElement, unsigned iCount) {
        if (Failing()) return false;
        const unsigned char* pb = static_cast<const unsigned char*>(p);
        m_data.insert(m_data.end(), pb, pb + size_t(cbElement) * iCount);
        return true;
    }
    bool Read(void* p, unsigned cbElement, unsigned iCount) {
        size_t cb = size_t(cbElement) * iCount;
        if (Failing() || m_iOfs + cb > m_data.size()) return false;
        if (p != m_data.data() + m_iOfs) std::memcpy(p, m_data.data() + m_iOfs, cb);
        m_iOfs += cb;
        return true;
    }
    bool MapOrAlloc(void** pp, unsigned cbElement, unsigned iCount, unsigned* pcbAlloc) {
        if (!m_bMappedMode) {
            *pp = Calloc(int(iCount), cbElement, pcbAlloc);
            return false;
        }
        size_t cb = size_t(cbElement) * iCount;
        *pp = m_iOfs + cb <= m_data.size() ? m_data.data() + m_iOfs : nullptr;
        return *pp != nullptr;
    }
    void Rewind(bool bMapped) {
        m_iOfs = 0;
        m_bMappedMode = bMapped;
    }
    bool Contains(const void* p) const {
        auto pb = static_cast<const unsigned char*>(p);
        return pb >= m_data.data() && pb < m_data.data() + m_data.size();
    }

private:
    bool Failing() {
        if (m_iCallsBeforeFailure < 0) return false;
        if (m_iCallsBeforeFailure == 0) return true;
        m_iCallsBeforeFailure--;
        return false;
    }
};
