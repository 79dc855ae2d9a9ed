#include "support/ChainReference.h"

#include <set>

#include "support/PageFormat.h"

namespace fs = std::filesystem;

namespace zrtest {

namespace {

bool HoldsPages(const NaiveRestore& layer, std::uint16_t fileId, std::uint32_t page) {
    const std::uint8_t* pFirst = layer.Page(fileId, page & ~std::uint32_t(kPagesPerExtent - 1));
    return pFirst && ReadPageHeader(pFirst).type != 0;
}

}  // namespace

ChainReference::ChainReference(const std::vector<fs::path>& full, const std::vector<fs::path>& diff, int dataSet) {
    for (const auto* pFiles : {&full, &diff}) {
        if (pFiles->empty()) continue;
        m_layers.emplace_back();
        if (!m_layers.back().Apply(*pFiles, dataSet)) m_error += "naive restore: " + m_layers.back().Error();
    }
}

int ChainReference::HoldingBackup(std::uint16_t fileId, std::uint32_t page) const {
    for (int i = static_cast<int>(m_layers.size()) - 1; i >= 0; --i)
        if (HoldsPages(m_layers[i], fileId, page)) return i;
    return -1;
}

const std::uint8_t* ChainReference::ExpectedPage(std::uint16_t fileId, std::uint32_t page) const {
    const int i = HoldingBackup(fileId, page);
    return i < 0 ? nullptr : m_layers[i].Page(fileId, page);
}

std::vector<std::pair<std::uint16_t, std::uint32_t>> ChainReference::HeldExtents() const {
    std::set<std::pair<std::uint16_t, std::uint32_t>> held;
    for (const NaiveRestore& layer : m_layers)
        for (auto [fileId, firstPage] : layer.Extents())
            if (HoldsPages(layer, fileId, firstPage)) held.insert({fileId, firstPage});
    return {held.begin(), held.end()};
}

}  // namespace zrtest
