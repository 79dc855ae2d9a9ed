#include "support/MountedChain.h"

#include <cwchar>
#include <set>

#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"
#include "support/ErrorText.h"
#include "support/PageFormat.h"

namespace fs = std::filesystem;

namespace zrtest {

namespace {

constexpr wchar_t kKey[] = L"mounted-chain";

void AddBackup(ZR_Backup* pBackup, const std::vector<fs::path>& files) {
    pBackup->SetDataSetNumber(1);
    for (const fs::path& f : files) pBackup->AddFile(f.wstring().c_str(), nullptr, false);
}

bool HoldsPages(const NaiveRestore& layer, std::uint16_t fileId, std::uint32_t page) {
    const std::uint8_t* pFirst = layer.Page(fileId, page & ~std::uint32_t(kPagesPerExtent - 1));
    return pFirst && ReadPageHeader(pFirst).type != 0;
}

}  // namespace

MountedChain::MountedChain(const std::vector<fs::path>& full, const std::vector<fs::path>& diff, LiveIO eLiveIO) {
    for (const auto* pFiles : {&full, &diff}) {
        if (pFiles->empty()) continue;
        m_layers.emplace_back();
        if (!m_layers.back().Apply(*pFiles)) {
            m_error = "naive restore: " + m_layers.back().Error();
            return;
        }
    }
    std::wcsncpy(g_wszMapFilesFolder, m_maps.path().wstring().c_str(), MAX_PATH - 1);
    m_pDB = std::make_unique<ZR_Database>(L"/tmp", GUID_NULL);
    m_pDB->SetMountKey(kKey);
    AddBackup(m_pDB->NewFull(), full);
    if (!diff.empty()) AddBackup(m_pDB->NewDiff(), diff);
    if (!Prepare(eLiveIO)) m_error = "prepare: " + ErrorTextNarrow(kKey);
}

MountedChain::~MountedChain() {
    m_pDB.reset();
    g_wszMapFilesFolder[0] = 0;
    ZR_ClearErrors(kKey);
}

bool MountedChain::Prepare(LiveIO eLiveIO) {
    ZR_Database& db = *m_pDB;
    bool bOk = true;
    if (eLiveIO == LiveIO::kThreads) {
        bOk = db.PrepareContent();
    } else {
        for (int i = 0; bOk && i < db.GetNumBackups(); ++i)
            if (ZR_Backup* pBackup = db.GetBackup(i)) bOk = pBackup->PrepareContent(&db.m_iSQLVersion);
    }
    bOk = bOk && db.PrepareAccess(ZR_StopInfo{}) && db.OpenBackups();
    if (bOk && eLiveIO == LiveIO::kQueueOnly) db.StartLiveIORead(0);
    return bOk;
}

int MountedChain::HoldingBackup(std::uint16_t fileId, std::uint32_t page) const {
    for (int i = static_cast<int>(m_layers.size()) - 1; i >= 0; --i)
        if (HoldsPages(m_layers[i], fileId, page)) return i;
    return -1;
}

const std::uint8_t* MountedChain::ExpectedPage(std::uint16_t fileId, std::uint32_t page) const {
    const int i = HoldingBackup(fileId, page);
    return i < 0 ? nullptr : m_layers[i].Page(fileId, page);
}

std::vector<std::pair<std::uint16_t, std::uint32_t>> MountedChain::HeldExtents() const {
    std::set<std::pair<std::uint16_t, std::uint32_t>> held;
    for (const NaiveRestore& layer : m_layers)
        for (auto [fileId, firstPage] : layer.Extents())
            if (HoldsPages(layer, fileId, firstPage)) held.insert({fileId, firstPage});
    return {held.begin(), held.end()};
}

}  // namespace zrtest
