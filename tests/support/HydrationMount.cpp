#include "support/HydrationMount.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "driver/ZR_DriverCommands.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "mount/ZR.h"
#include "support/ErrorText.h"
#include "support/MountedChain.h"
#include "support/PageFormat.h"

namespace fs = std::filesystem;

namespace zrtest {

RunningService::RunningService(const fs::path& folder) {
    if (folder.empty()) m_pTemp = std::make_unique<TempDir>();
    m_folder = folder.empty() ? m_pTemp->path() : folder;
    StartService(m_folder, &m_error);
}

RunningService::~RunningService() {
    StopService();
    ZR_ClearErrors(nullptr);
}

HydrationMount::HydrationMount(const RunningService& service, const MountRequest& request, bool bReference)
    : m_io(ZR_FilterDriver::Host()) {
    if (bReference) {
        m_pReference = std::make_unique<ChainReference>(request.full, request.diff, request.iDataSet);
        m_error = m_pReference->Error();
    }
    if (!m_error.empty() || !m_mount.Mount(request) || !m_mount.Restore(m_sql)) {
        if (m_error.empty()) m_error = m_mount.Error();
        return;
    }
    for (const auto& [fileId, file] : m_sql.DataFiles()) {
        DataFile data{fileId, 0, service.Folder() / "sparse" /
                                      (Narrow(m_mount.Key()) + "!" + std::to_string(fileId) + (fileId == 1 ? ".mcf" : ".ncf"))};
        m_sql.DataFileSize(fileId, &data.iSize);
        m_files.push_back(data);
    }
}

HydrationMount::~HydrationMount() {
    m_sql.CloseDataFiles();
    if (!m_mount.Key().empty()) Remove(Key());
    ZR_ClearErrors(Key());
}

bool HydrationMount::CheckPages(std::uint16_t fileId, std::uint32_t firstPage, const std::uint8_t* pPages,
                                std::uint32_t iPages, std::string* pstrWhy) const {
    static const std::vector<std::uint8_t> aZeros(kPageSize);
    for (std::uint32_t i = 0; i < iPages; ++i) {
        const std::uint8_t* pWant = m_pReference->ExpectedPage(fileId, firstPage + i);
        if (std::memcmp(pPages + std::size_t{i} * kPageSize, pWant ? pWant : aZeros.data(), kPageSize) == 0) continue;
        *pstrWhy = "page " + std::to_string(fileId) + ":" + std::to_string(firstPage + i) +
                   (pWant ? " differs from the backups'" : " is not zeros");
        return false;
    }
    return true;
}

bool HydrationMount::CheckRandomRead(std::mt19937& rng, std::string* pstrWhy) {
    const PageRead r = RandomRead(*m_pReference, rng);
    auto it = std::find_if(m_files.begin(), m_files.end(), [&](const DataFile& f) { return f.fileId == r.fileId; });
    if (it == m_files.end() || r.Offset() >= it->iSize) return true;
    const auto iPages = static_cast<std::uint32_t>(std::min<std::uint64_t>(r.pages, (it->iSize - r.Offset()) / kPageSize));
    std::vector<std::uint8_t> aPages(std::size_t{iPages} * kPageSize);
    std::uint32_t cbRead = 0;
    const std::int32_t iStatus =
        m_sql.ReadData(r.fileId, r.Offset(), aPages.data(), static_cast<std::uint32_t>(aPages.size()), &cbRead);
    if (iStatus != 0 || cbRead != aPages.size()) {
        *pstrWhy = "read of " + std::to_string(iPages) + " pages at " + std::to_string(r.fileId) + ":" +
                   std::to_string(r.firstPage) + " gave status " + std::to_string(iStatus);
        return false;
    }
    return CheckPages(r.fileId, r.firstPage, aPages.data(), iPages, pstrWhy);
}

std::string HydrationMount::CompareSparseFiles() const {
    std::ostringstream out;
    for (const DataFile& file : m_files) {
        std::ifstream in(file.sparse, std::ios::binary);
        std::error_code ec;
        if (fs::file_size(file.sparse, ec) != file.iSize) out << file.sparse << " is not of " << file.iSize << " bytes\n";
        std::vector<std::uint8_t> aPage(kPageSize);
        int iBad = 0;
        for (std::uint32_t page = 0; std::uint64_t{page} * kPageSize < file.iSize; ++page) {
            in.read(reinterpret_cast<char*>(aPage.data()), static_cast<std::streamsize>(kPageSize));
            std::string strWhy;
            if (!CheckPages(file.fileId, page, aPage.data(), 1, &strWhy) && iBad++ < 3) out << strWhy << "\n";
        }
        if (iBad > 3) out << "... " << iBad << " pages in all\n";
    }
    return out.str();
}

std::uint64_t HydrationMount::PresentBytes() {
    ZR_Database* pDB = ZR::FindDatabase(Key());
    std::uint64_t iPresent = 0;
    for (const DataFile& file : m_files) {
        ZR_HydrationRange range;
        DWORD cb = 0;
        if (pDB && SendHydrationStatus(pDB->DataFileState(file.fileId).uniquifier, 0, &range, &cb) == S_OK && cb)
            iPresent += range.iHydratedBytes;
    }
    return iPresent;
}

}  // namespace zrtest
