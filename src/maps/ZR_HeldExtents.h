// The extents of an extent map while it is built: one record for each
// extent the backup holds, (file id, extent, entry), in the order they were
// entered. Memory follows the extents that the backup really holds, never
// the size its configuration gives a data file: a 16 TB file with a few
// extents in the backup costs a few records. The table layout of the map
// file is made from these records only when the map is written.
//
// Threads: none of its own; ZR_EMaps calls it under the table's lock.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "maps/ZR_EMap.h"

class ZR_HeldExtents {
public:
    struct Held {
        uint64_t iKey;  // file id << 32 | extent
        ZR_EMap e;
        uint32_t Extent() const { return static_cast<uint32_t>(iKey); }
    };

    // Enters an extent; a later entry of the same extent replaces an
    // earlier one.
    void Add(int iFile, uint32_t iExtent, ZR_EMap e);
    // The entry of an extent that was entered.
    bool Find(int iFile, uint32_t iExtent, ZR_EMap* pe);
    bool Empty() const { return m_a.empty(); }
    void Clear();

    // At least this many rows, whatever was entered (the data files of a
    // configuration).
    void SetRowFloor(int iRows) { m_iRowFloor = iRows; }
    int Rows();
    // The extents of a row in ascending order; the row's entry count in the
    // table is the last extent's number plus one.
    std::span<const Held> Row(int iFile);
    static uint32_t RowCount(std::span<const Held> row) { return row.empty() ? 0 : row.back().Extent() + 1; }

private:
    // Sorts by file and extent and keeps the last entry of each extent.
    void Settle();

    std::vector<Held> m_a;
    bool m_bSorted = true;
    int m_iRowFloor = 0;
};
