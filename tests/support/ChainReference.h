// The pages that a mount of a full backup, and optionally its differential,
// must serve, from the test walker's naive restore of each backup: a page
// counts from the latest backup whose copy of its extent starts with an
// allocated page (an extent whose first page is of type 0 is no copy, as in
// the extent maps). Pages that no backup holds are null.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/MtfWalker.h"

namespace zrtest {

class ChainReference {
public:
    ChainReference(const std::vector<std::filesystem::path>& full, const std::vector<std::filesystem::path>& diff,
                   int dataSet = 1);

    // Empty when both backups walked clean.
    const std::string& Error() const { return m_error; }
    // 0 the full backup, 1 the differential, -1 no backup holds the page.
    int HoldingBackup(std::uint16_t fileId, std::uint32_t page) const;
    // The page that the mount serves; null when no backup holds it.
    const std::uint8_t* ExpectedPage(std::uint16_t fileId, std::uint32_t page) const;
    // (file id, first page) of every extent that a backup holds.
    std::vector<std::pair<std::uint16_t, std::uint32_t>> HeldExtents() const;

private:
    std::vector<NaiveRestore> m_layers;  // full, then differential
    std::string m_error;
};

}  // namespace zrtest
