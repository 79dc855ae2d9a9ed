// zirlane extract [--data-set N] [--map-folder DIR] --full FILE... [--diff FILE...] -o DIR:
// writes each data file of the database (not the log) from the backups
// alone, into DIR (made with its parents when missing). Each file is
// written under a temporary name and renamed when complete. Every extent is looked up in the extent maps, the differential's
// first and the full backup's behind it, and read from the backup that
// holds it; extents that no backup holds stay holes of a sparse file. The
// file is sized as the backup says, so what SQL Server never wrote reads
// as zeros.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "OutputFile.h"
#include "Progress.h"
#include "backup/MTF_Records.h"
#include "backup/SQL_Records.h"
#include "backup/ZR_Backup.h"
#include "backup/ZR_ScanFull.h"
#include "diag/ZR_Error.h"
#include "engine/ZR_ChainCheck.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

namespace {

constexpr const wchar_t* kKey = nullptr;   // errors go to the chain without a mount key
constexpr uint32_t kMaxRun = 16 * ZR_EXTENT_SIZE;  // extents joined into one read

struct ExtractOptions {
    int iDataSet = 1;
    int iDiffDataSet = 1;
    std::string mapFolder;
    std::vector<std::string> aFull;
    std::vector<std::string> aDiff;
    std::string outFolder;
};

// One data file of the database as the configuration describes it.
struct DataFile {
    uint16_t iFileId = 0;
    uint64_t iSize = 0;
    std::wstring wsName;  // the last component of the physical name
};

// The last component of a physical name, which names a file on the
// server's machine: a Windows path, or a Linux one.
std::wstring LastComponent(const std::wstring& ws) {
    size_t i = ws.find_last_of(L"\\/");
    return i == std::wstring::npos ? ws : ws.substr(i + 1);
}

// Tells whether the maps of a backup were built now or read from files.
void PrintMaps(const char* szLabel, bool bScanned, bool bBuilt) {
    std::printf("%s backup: content map %s, extent map %s\n", szLabel, bScanned ? "built" : "read",
                bBuilt ? "built" : "read");
}

std::unique_ptr<ZR_Backup> PrepareBackup(const std::vector<std::string>& aFiles, int iDataSet, int iIndex,
                                         int32_t* piVersion) {
    std::unique_ptr<ZR_Backup> b = ZirlaneNewBackup(aFiles, iDataSet);
    const int iScans = ZR_ScanFull::ms_iScansRun;
    const int iBuilds = ZR_Backup::ms_iExtentMapBuilds;
    if (!b->PrepareContent(piVersion)) return nullptr;
    bool bType = iIndex == 0 ? b->IsFullBackup() : b->IsDiffBackup();
    if (!bType || !b->Open() || !b->PrepareAccess(iIndex)) return nullptr;
    PrintMaps(iIndex == 0 ? "full" : "differential", ZR_ScanFull::ms_iScansRun != iScans,
              ZR_Backup::ms_iExtentMapBuilds != iBuilds);
    ZirlaneStepSucceeded();
    return b;
}

// The data files of a configuration; the sizes of a later one (the
// differential's) win, since a file may have grown in between.
bool CollectDataFiles(ZR_ConfigInfo& config, std::vector<DataFile>* paFiles) {
    for (int i = 0; i < static_cast<int>(config.m_Files); ++i) {
        const SQL_FILE_INFO_V7* rec = config.m_Files(i);
        if (rec->m_file_type != SQL_FILE_DATABASE) continue;
        std::wstring wsPhysical;
        if (!MTF_ReadString(rec, rec->m_hdr.m_size, rec->m_physical_name, MTF_UNICODE_STR, &wsPhysical, kKey))
            return false;
        DataFile file{static_cast<uint16_t>(rec->m_file_number), rec->m_file_size, LastComponent(wsPhysical)};
        auto it = std::find_if(paFiles->begin(), paFiles->end(),
                               [&](const DataFile& f) { return f.iFileId == file.iFileId; });
        if (it != paFiles->end())
            it->iSize = file.iSize;
        else
            paFiles->push_back(file);
    }
    return true;
}

// Where an extent comes from: the differential when it holds a copy, else
// the full backup (which may hold none).
struct ExtentSource {
    ZR_Backup* pBackup = nullptr;
    ZR_EMap entry;
};

ExtentSource FindExtent(ZR_Backup& full, ZR_Backup* pDiff, PageId page) {
    if (pDiff) {
        ZR_EMap e = pDiff->LookupPage(page);
        if (e.HasCopy()) return {pDiff, e};
    }
    ZR_EMap e = full.LookupPage(page);
    return {e.HasCopy() ? &full : nullptr, e};
}

// Counts of one file, for the summary line.
struct ExtractCounts {
    uint64_t iFromFull = 0;
    uint64_t iFromDiff = 0;
    uint64_t iHoles = 0;
};

// Reads one data file extent by extent, joining extents that lie one
// behind the other in the same backup file into one read.
class DataFileExtractor {
public:
    DataFileExtractor(ZR_Backup& full, ZR_Backup* pDiff) : m_full(full), m_pDiff(pDiff) {
        m_pAhead = ZR_ReadAhead::Alloc();
        m_pBuffer = static_cast<uint8_t*>(VirtualAlloc(nullptr, kMaxRun, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    }
    ~DataFileExtractor() {
        if (m_pAhead) ZR_ReadAhead::Free(m_pAhead);
        if (m_pBuffer) VirtualFree(m_pBuffer, 0, MEM_RELEASE);
    }
    DataFileExtractor(const DataFileExtractor&) = delete;
    DataFileExtractor& operator=(const DataFileExtractor&) = delete;

    bool Extract(const DataFile& file, ZirlaneOutputFile& out, ExtractCounts* pCounts) {
        if (!m_pAhead || !m_pBuffer) return false;
        const uint64_t nExtents = (file.iSize + ZR_EXTENT_SIZE - 1) / ZR_EXTENT_SIZE;
        ZirlaneProgress progress(ZirlaneUtf8(file.wsName), file.iSize);
        uint64_t e = 0;
        while (e < nExtents) {
            if (ZirlaneStopRequested()) return false;
            progress.Update(e * ZR_EXTENT_SIZE);
            ExtentSource first = FindExtent(m_full, m_pDiff, Page(file, e));
            if (!first.pBackup) {
                ++pCounts->iHoles;
                ++e;
                continue;
            }
            uint64_t n = RunLength(file, e, nExtents, first);
            (first.pBackup == &m_full ? pCounts->iFromFull : pCounts->iFromDiff) += n;
            if (!CopyRun(file, e, n, first, out)) return false;
            e += n;
        }
        return true;
    }

private:
    static PageId Page(const DataFile& file, uint64_t iExtent) {
        return PageId{static_cast<uint32_t>(iExtent * ZR_PAGES_PER_EXTENT), file.iFileId};
    }

    // Extents behind the first that come from the same backup file right
    // behind each other.
    uint64_t RunLength(const DataFile& file, uint64_t e, uint64_t nExtents, const ExtentSource& first) {
        uint64_t n = 1;
        while (e + n < nExtents && n < kMaxRun / ZR_EXTENT_SIZE) {
            ExtentSource next = FindExtent(m_full, m_pDiff, Page(file, e + n));
            if (next.pBackup != first.pBackup || next.entry.GetDevice() != first.entry.GetDevice() ||
                next.entry.GetOffset() != first.entry.GetOffset() + n * ZR_EXTENT_SIZE)
                break;
            ++n;
        }
        return n;
    }

    bool CopyRun(const DataFile& file, uint64_t e, uint64_t n, const ExtentSource& first, ZirlaneOutputFile& out) {
        const uint64_t iOfs = e * ZR_EXTENT_SIZE;
        const uint32_t iLen = static_cast<uint32_t>(std::min<uint64_t>(n * ZR_EXTENT_SIZE, file.iSize - iOfs));
        uint32_t iRead = 0;
        m_pAhead->Reset();  // the window may hold bytes of another backup file
        if (!first.pBackup->ReadPages(m_pAhead, m_pBuffer, first.entry, Page(file, e), iLen, IO_READ, &iRead))
            return false;
        return out.WriteAt(iOfs, m_pBuffer, iLen);
    }

    ZR_Backup& m_full;
    ZR_Backup* m_pDiff;
    ZR_ReadAhead* m_pAhead = nullptr;
    uint8_t* m_pBuffer = nullptr;
};

std::wstring OutputPath(const ExtractOptions& options, const DataFile& file) {
    std::wstring ws = ZirlaneWide(options.outFolder);
    if (!ws.empty() && ws.back() != L'/') ws += L'/';
    return ws + file.wsName;
}

// Files in different folders of the server can share a name; written into
// one folder, one would overwrite the other.
bool NamesAreDistinct(const std::vector<DataFile>& aFiles) {
    for (size_t i = 0; i < aFiles.size(); ++i) {
        for (size_t j = i + 1; j < aFiles.size(); ++j) {
            if (aFiles[i].wsName != aFiles[j].wsName) continue;
            return ZirlaneFail(__FILE__, __LINE__, "Data files %u and %u are both named %S.\n",
                               static_cast<unsigned>(aFiles[i].iFileId), static_cast<unsigned>(aFiles[j].iFileId),
                               aFiles[i].wsName.c_str());
        }
    }
    return true;
}

bool ExtractFiles(const ExtractOptions& options, ZR_Backup& full, ZR_Backup* pDiff) {
    std::vector<DataFile> aFiles;
    if (!CollectDataFiles(full.m_pCMaps->m_ConfigMSCI, &aFiles)) return false;
    if (pDiff && !CollectDataFiles(pDiff->m_pCMaps->m_ConfigMSCI, &aFiles)) return false;
    if (!NamesAreDistinct(aFiles)) return false;
    ZirlaneOutputFolder folder;
    if (!folder.Create(options.outFolder)) return false;
    ZirlaneCatchInterrupts();
    DataFileExtractor extractor(full, pDiff);
    for (const DataFile& file : aFiles) {
        ZirlaneOutputFile out;
        ExtractCounts counts;
        std::wstring wsPath = OutputPath(options, file);
        if (!out.Create(ZirlaneUtf8(wsPath), file.iSize)) return false;
        if (!extractor.Extract(file, out, &counts) || !out.Commit())
            return ZirlaneFail(__FILE__, __LINE__, "Data file %S was not written whole and was removed.\n",
                               wsPath.c_str());
        std::printf("%s: file %u, %llu bytes, %llu extents from the full backup, %llu from the differential, "
                    "%llu not in any backup\n",
                    ZirlaneUtf8(wsPath).c_str(), static_cast<unsigned>(file.iFileId),
                    static_cast<unsigned long long>(file.iSize), static_cast<unsigned long long>(counts.iFromFull),
                    static_cast<unsigned long long>(counts.iFromDiff), static_cast<unsigned long long>(counts.iHoles));
    }
    return true;
}

bool RunExtract(const ExtractOptions& options) {
    if (!ZirlaneUseMapFolder(options.mapFolder)) return false;
    int32_t iVersion = 0;
    std::unique_ptr<ZR_Backup> full = PrepareBackup(options.aFull, options.iDataSet, 0, &iVersion);
    if (!full) return false;
    std::unique_ptr<ZR_Backup> diff;
    if (!options.aDiff.empty()) {
        diff = PrepareBackup(options.aDiff, options.iDiffDataSet, 1, &iVersion);
        ZR_Backup* aChain[] = {full.get(), diff.get()};
        if (!diff || !ZR_CheckChain(aChain, 2, kKey)) return false;
    }
    return ExtractFiles(options, *full, diff.get());
}

}  // namespace

void AddExtractCommand(CLI::App& app, int* piExit) {
    auto options = std::make_shared<ExtractOptions>();
    CLI::App* cmd = app.add_subcommand(
        "extract",
        "Write the data files of the database (not the log) from a full backup and its differential, "
        "as sparse files named after the database's own files");
    ZirlaneAddDataSetOption(*cmd, &options->iDataSet, "Data set of the full backup in its files");
    cmd->add_option("--diff-data-set", options->iDiffDataSet, "Data set of the differential in its files")
        ->default_val(1)
        ->check(ZirlaneWholeNumber(65535));
    ZirlaneAddMapFolderOption(*cmd, &options->mapFolder);
    cmd->add_option("--full", options->aFull, "The files of the full backup (all stripes)")->required();
    cmd->add_option("--diff", options->aDiff, "The files of a differential backup over it (all stripes)");
    cmd->add_option("-o,--output", options->outFolder, "Folder for the data files (made with its parents if missing)")
        ->required();
    cmd->callback([options, piExit] { *piExit = ZirlaneFinish(RunExtract(*options)); });
}
