#include "support/ServedChain.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "diag/ZR_Error.h"
#include "driver/ZR_DriverCommands.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "mount/ZR.h"
#include "support/ErrorText.h"
#include "support/FakeDriver.h"
#include "support/MountedChain.h"
#include "support/PageFormat.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;

namespace zrtest {

namespace {

constexpr std::uint32_t kLibraryTimeoutMs = 30000;

// The data file records of the last backup of the chain that has them.
std::vector<MtfSqlFile> DataFileRecords(const ChainFiles& files) {
    const fs::path& last = files.diff.empty() ? files.full.at(0) : files.diff.at(0);
    const MtfWalk walk = MtfWalker::WalkFile(last);
    std::vector<MtfSqlFile> records;
    if (const MtfDataSet* pSet = walk.DataSet(1))
        for (const MtfSqlFile& f : pSet->msci.files)
            if (f.fileType == 1) records.push_back(f);
    return records;
}

void AddFiles(ZR_MountInfo* pInfo, const wchar_t* wszType, const std::vector<fs::path>& files) {
    for (const fs::path& f : files) AddBackupSetFilename(pInfo, wszType, f.wstring().c_str());
}

// The key of the mount, empty when it failed.
std::wstring Mount(const ChainFiles& files, const wchar_t* wszGuid) {
    ZR_MountInfo* pInfo = AllocateMountInfo();
    BuildBackupInfoFromSet(pInfo, 1, 1, nullptr, nullptr);
    AddFiles(pInfo, L"Full", files.full);
    if (!files.diff.empty()) {
        BuildBackupInfoFromSet(pInfo, 2, 1, nullptr, nullptr);
        AddFiles(pInfo, L"Diff", files.diff);
    }
    for (const fs::path& log : files.logs) {
        BuildBackupInfoFromSet(pInfo, 3, 1, nullptr, nullptr);
        AddFiles(pInfo, L"Log", {log});
    }
    if (!files.stop.empty()) SetStop(pInfo, files.stop.c_str());
    SetGuid(pInfo, wszGuid);
    SetTargetDatabase(pInfo, L"Served");
    wchar_t wszKey[128] = {};
    const bool bMounted = WrapMount(pInfo, wszKey, 128);
    FreeMountInfo(pInfo);
    return bMounted ? wszKey : L"";
}

}  // namespace

ServedLibrary::ServedLibrary(const fs::path& folder, std::uint32_t iBitmapStoreMs) {
    if (folder.empty()) m_pTemp = std::make_unique<TempDir>();
    m_folder = folder.empty() ? m_pTemp->path() : folder;
    fs::create_directories(Sparse());
    fs::create_directories(m_folder / "maps");
    InitializeZR(0);
    ZR::UninitializeForExit();
    StopEmbeddedDriver();
    ZR_ClearErrors(nullptr);
    ZR::SetVDBFolders(Sparse().wstring().c_str(), (m_folder / "maps").wstring().c_str());
    ZR_FilterDriverOptions options;
    options.strSparseFolder = Sparse().wstring();
    options.iBitmapStoreMs = iBitmapStoreMs;
    options.iLibraryTimeoutMs = kLibraryTimeoutMs;
    ZR_FilterDriver::Start(options);
    OpenControlCommunicationPort();  // kept for good, as the library object keeps it
    InitializeIOOperations(m_folder.wstring().c_str());
}

ServedLibrary::~ServedLibrary() {
    ZR::UninitializeForExit();
    StopEmbeddedDriver();
    ZR::SetVDBFolders(L"", L"");
    ZR_ClearErrors(nullptr);
}

ChainFiles TestChain(const std::vector<std::string>& full, const std::vector<std::string>& diff,
                     const std::vector<std::string>& logs, const std::wstring& stop) {
    ChainFiles files;
    if (!TestDataDir()) return files;
    for (const auto& [pNames, pPaths] : {std::pair{&full, &files.full}, {&diff, &files.diff}, {&logs, &files.logs}})
        for (const std::string& name : *pNames) pPaths->push_back(*TestDataDir() / name);
    files.stop = stop;
    return files;
}

ServedChain::ServedChain(const ServedLibrary& library, const ChainFiles& files, const wchar_t* wszGuid,
                         bool bReference)
    : m_pHost(ZR_FilterDriver::Host()) {
    std::vector<fs::path> full = files.full;
    std::sort(full.begin(), full.end());  // the reference reads stripes in their own order
    if (bReference && !m_reference.Build(full, files.diff)) {
        m_error = m_reference.Error();
        return;
    }
    if (m_pHost) m_key = Mount(files, wszGuid);
    if (m_key.empty()) {
        m_error = "mount: " + ErrorTextNarrow();
        return;
    }
    for (const MtfSqlFile& record : DataFileRecords(files)) {
        DataFile file;
        file.fileId = static_cast<std::uint16_t>(record.fileId);
        const std::wstring strName(record.physicalName.begin(), record.physicalName.end());
        const ZR_HostStatus iOpen = m_pHost->Open(strName.c_str(), &file.hFile);
        if (iOpen != kHostSuccess || m_pHost->QuerySize(file.hFile, &file.iSize) != kHostSuccess) {
            m_error = "open " + record.physicalName + ": status " + std::to_string(iOpen);
            return;
        }
        std::wstring strSparse = m_key + L"!" + std::to_wstring(record.fileId) + (record.fileId == 1 ? L".mcf" : L".ncf");
        file.sparse = library.Sparse() / strSparse;
        m_files.push_back(file);
        // The attach reads the file headers: the first extent, which the
        // restore writes, and hydration never offers.
        std::vector<std::uint8_t> aExtent(kPageSize * kPagesPerExtent);
        std::uint32_t cbRead = 0;
        m_pHost->Read(file.hFile, 0, aExtent.data(), static_cast<std::uint32_t>(aExtent.size()), &cbRead);
    }
}

ServedChain::~ServedChain() {
    for (const DataFile& file : m_files) m_pHost->Close(file.hFile, false);
    if (!m_key.empty()) Remove(Key());
}

bool ServedChain::CheckPages(std::uint16_t fileId, std::uint32_t firstPage, const std::uint8_t* pPages,
                             std::uint32_t iPages, std::string* pstrWhy) const {
    static const std::vector<std::uint8_t> aZeros(kPageSize);
    for (std::uint32_t i = 0; i < iPages; ++i) {
        const std::uint8_t* pWant = m_reference.ExpectedPage(fileId, firstPage + i);
        if (std::memcmp(pPages + std::size_t{i} * kPageSize, pWant ? pWant : aZeros.data(), kPageSize) == 0) continue;
        if (pstrWhy)
            *pstrWhy = "page " + std::to_string(fileId) + ":" + std::to_string(firstPage + i) +
                       (pWant ? " differs from the backups'" : " is not zeros");
        return false;
    }
    return true;
}

bool ServedChain::CheckRandomRead(std::mt19937& rng, std::string* pstrWhy) {
    const PageRead r = RandomRead(m_reference, rng);
    auto it = std::find_if(m_files.begin(), m_files.end(), [&](const DataFile& f) { return f.fileId == r.fileId; });
    if (it == m_files.end() || r.Offset() >= it->iSize) return true;
    const std::uint32_t iPages =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(r.pages, (it->iSize - r.Offset()) / kPageSize));
    std::vector<std::uint8_t> aPages(std::size_t{iPages} * kPageSize);
    std::uint32_t cbRead = 0;
    const ZR_HostStatus iStatus =
        m_pHost->Read(it->hFile, r.Offset(), aPages.data(), static_cast<std::uint32_t>(aPages.size()), &cbRead);
    if (iStatus != kHostSuccess || cbRead != aPages.size()) {
        *pstrWhy = "read of " + std::to_string(iPages) + " pages at " + std::to_string(r.fileId) + ":" +
                   std::to_string(r.firstPage) + " gave status " + std::to_string(iStatus);
        return false;
    }
    return CheckPages(r.fileId, r.firstPage, aPages.data(), iPages, pstrWhy);
}

std::string ServedChain::CompareSparseFiles() const {
    std::ostringstream out;
    for (const DataFile& file : m_files) {
        std::ifstream in(file.sparse, std::ios::binary);
        if (fs::file_size(file.sparse) != file.iSize) out << file.sparse << " has " << fs::file_size(file.sparse)
                                                          << " bytes, not " << file.iSize << "\n";
        std::vector<std::uint8_t> aPage(kPageSize);
        int iBad = 0;
        for (std::uint32_t page = 0; std::uint64_t{page} * kPageSize < file.iSize; ++page) {
            in.read(reinterpret_cast<char*>(aPage.data()), kPageSize);
            std::string strWhy;
            if (!CheckPages(file.fileId, page, aPage.data(), 1, &strWhy) && iBad++ < 3) out << strWhy << "\n";
        }
        if (iBad > 3) out << "... " << iBad << " pages in all\n";
    }
    return out.str();
}

std::uint64_t ServedChain::PresentBytes() {
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
