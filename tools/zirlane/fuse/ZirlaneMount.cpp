#include "fuse/ZirlaneMount.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include "Progress.h"
#include "backup/ZR_Backup.h"
#include "backup/ZR_ScanFull.h"
#include "backupio/ZR_IOStats.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "fuse/MountHydration.h"
#include "fusefront/ZR_FuseFront.h"
#include "fusefront/ZR_ServerProcess.h"
#include "maps/X_MapFile.h"
#include "maps/ZR_CMaps.h"
#include "mount/ZR.h"
#include "mount/ZR_MountInfo.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kMaxHostName = 259;  // characters of a name the driver takes, without its terminator
constexpr int kLockWaitMs = 10000;    // an earlier mount of the chain may still be storing its bitmaps
constexpr uint32_t kExtent = 0x10000;

// What SQL Server on Linux opens as the Linux path: C: and backslashes.
std::wstring WindowsPath(const std::string& path) {
    std::wstring ws = L"C:" + ZirlaneWide(path);
    std::replace(ws.begin(), ws.end(), L'/', L'\\');
    return ws;
}

std::wstring Quoted(const std::wstring& ws) {
    std::wstring out = L"'";
    for (wchar_t c : ws) out += c == L'\'' ? std::wstring(L"''") : std::wstring(1, c);
    return out + L"'";
}

std::string LastComponent(const std::wstring& ws) {
    const size_t i = ws.find_last_of(L"\\/");
    return ZirlaneUtf8(i == std::wstring::npos ? ws : ws.substr(i + 1));
}

// A name not yet taken: the file number goes before the extension.
std::string Distinct(std::string name, uint32_t iFileId, const std::set<std::string>& taken) {
    if (!taken.count(name)) return name;
    const size_t iDot = name.rfind('.');
    return name.insert(iDot == std::string::npos ? name.size() : iDot, "_" + std::to_string(iFileId));
}

uint64_t Fnv(const std::string& text, uint64_t h) {
    for (unsigned char c : text) h = (h ^ c) * 0x100000001B3ull;
    return h;
}

// The same chain mounted again gets the same key, and so finds the sparse
// files of the mount before; a backup file that changed gives another.
std::wstring ChainKey(const ZirlaneChain& chain, const std::string& database, const std::string& stop) {
    std::string identity = database + '\n' + stop + '\n';
    auto add = [&identity](const char* szKind, std::vector<std::string> aFiles) {
        std::sort(aFiles.begin(), aFiles.end());  // stripes in any order
        identity += szKind;
        for (const std::string& file : aFiles) {
            std::error_code ec;
            identity += '|' + file + '|' + std::to_string(fs::file_size(file, ec)) + '|' +
                        std::to_string(fs::last_write_time(file, ec).time_since_epoch().count());
        }
        identity += '\n';
    };
    add("full", chain.aFull);
    for (const auto& aDiff : chain.aDiffs) add("diff", aDiff);
    for (const auto& aLog : chain.aLogs) add("log", aLog);
    const uint64_t a = Fnv(identity, 0xCBF29CE484222325ull), b = Fnv(identity, 0x84222325CBF29CE4ull);
    char sz[40];
    std::snprintf(sz, sizeof sz, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(a >> 32),
                  static_cast<unsigned>(a >> 16) & 0xFFFF, static_cast<unsigned>(a) & 0xFFFF,
                  static_cast<unsigned>(b >> 48), static_cast<unsigned long long>(b & 0xFFFFFFFFFFFFull));
    return ZirlaneWide(sz);
}

uint64_t ChainBytes(const ZirlaneChain& chain) {
    uint64_t iBytes = 0;
    std::error_code ec;
    auto add = [&](const std::vector<std::string>& aFiles) {
        for (const std::string& file : aFiles) iBytes += fs::file_size(file, ec);
    };
    add(chain.aFull);
    for (const auto& aDiff : chain.aDiffs) add(aDiff);
    for (const auto& aLog : chain.aLogs) add(aLog);
    return iBytes;
}

uint64_t BackupBytesRead() {
    uint64_t iTotal = 0;
    for (ZR_IO_e eIO : {IO_READ, IO_READ_SEQUENTIAL, IO_READ_DEVICE_SEQUENTIAL}) {
        uint64_t iBytes = 0;
        g_IOStats.GetTotals(ZR_FILE_KIND_BAK, eIO, nullptr, &iBytes);
        iTotal += iBytes;
    }
    return iTotal;
}

bool HasData(const SQL_FileEntry& record) {
    return (record.m_iType == SQL_FILE_DATABASE || record.m_iType == SQL_FILE_PHYSICAL_LOG) &&
           !(record.m_iFlags & SQL_FILE_DROPPED);
}

const char* BackupRole(int iSlot) { return iSlot == 0 ? "full backup" : iSlot == 1 ? "differential" : "log backup"; }

std::string Bytes(uint64_t i) { return std::to_string(i) + " bytes"; }

// The driver's host side, on which the restore acts as SQL Server would.
class HostFile {
public:
    explicit HostFile(const std::wstring& wsName) : m_pHost(ZR_FilterDriver::Host()) {
        m_iStatus = m_pHost ? m_pHost->Open(wsName.c_str(), &m_hFile) : kHostDriverStopped;
    }
    ~HostFile() {
        if (m_hFile) m_pHost->Close(m_hFile, false);
    }
    HostFile(const HostFile&) = delete;
    HostFile& operator=(const HostFile&) = delete;
    ZR_HostStatus Status() const { return m_iStatus; }
    ZR_DriverHost& Host() { return *m_pHost; }
    ZR_HostHandle Handle() const { return m_hFile; }

private:
    std::shared_ptr<ZR_DriverHost> m_pHost;
    ZR_HostHandle m_hFile = 0;
    ZR_HostStatus m_iStatus = kHostSuccess;
};

}  // namespace

ZirlaneMount::ZirlaneMount(const ZirlaneMountOptions& options, std::string stopClause)
    : m_Options(options), m_stopClause(std::move(stopClause)) {}

ZirlaneMount::~ZirlaneMount() { Remove(); }

// ---------------------------------------------------------------------------
// Prepare: the library's mount
// ---------------------------------------------------------------------------

bool ZirlaneMount::Prepare() {
    std::error_code ec;
    fs::create_directories(m_Options.sparseFolder, ec);
    if (ec)
        return ZirlaneFail(__FILE__, __LINE__, "Unable to create the sparse folder %s: %s.\n",
                           m_Options.sparseFolder.c_str(), ec.message().c_str());
    if (!ZirlaneUseMapFolder(m_Options.chain.mapFolder)) return false;
    const std::wstring wsMapFolder = g_wszMapFilesFolder;
    if (!ZR::SetVDBFolders(ZirlaneWide(m_Options.sparseFolder).c_str(), wsMapFolder.c_str())) return false;
    const int iScans = ZR_ScanFull::ms_iScansRun, iBuilds = ZR_Backup::ms_iExtentMapBuilds;
    const bool bOk =
        ZirlaneWithProgress("Reading the backups", ChainBytes(m_Options.chain), BackupBytesRead, [this] {
            return ReadConfigurations() && TakeKey() && CollectFiles() && MountChain();
        });
    m_iScans = ZR_ScanFull::ms_iScansRun - iScans;
    m_iBuilds = ZR_Backup::ms_iExtentMapBuilds - iBuilds;
    if (bOk) TakeStatements();
    return bOk;
}

// The configurations of the full backup and the differential tell the
// files to move, before the library mounts the chain (which checks that
// the backups form one).
bool ZirlaneMount::ReadConfigurations() {
    std::vector<const std::vector<std::string>*> aBackups = {&m_Options.chain.aFull};
    for (const auto& aDiff : m_Options.chain.aDiffs) aBackups.push_back(&aDiff);
    m_aConfigs.resize(aBackups.size());
    int32_t iVersion = 0;
    for (size_t i = 0; i < aBackups.size(); ++i) {
        std::unique_ptr<ZR_Backup> pBackup = ZirlaneNewBackup(*aBackups[i], 1);
        if (!pBackup->PrepareContent(&iVersion) || !ZirlaneDescribe(*pBackup, &m_aConfigs[i])) return false;
    }
    ZirlaneStepSucceeded();
    return true;
}

std::wstring ZirlaneMount::HostPrefix() const { return WindowsPath(m_Options.mountPoint) + L"\\"; }

// A data file lands under the mount point by its own name; the log file in
// the sparse folder. The differential's record of a file wins: it may have
// grown.
bool ZirlaneMount::CollectFiles() {
    std::map<uint32_t, File> files;
    for (const SQL_ConfigRecords& config : m_aConfigs)
        for (const SQL_FileEntry& record : config.m_aFiles)
            if (HasData(record)) files[record.m_iFileId].record = record;
    std::set<std::string> taken;
    for (auto& [iFileId, file] : files) {
        if (file.record.m_iType == SQL_FILE_DATABASE) {
            file.name = Distinct(LastComponent(file.record.m_wsPhysicalName), iFileId, taken);
            taken.insert(file.name);
            file.wsMovedTo = HostPrefix() + ZirlaneWide(file.name);
        } else {
            file.wsMovedTo = WindowsPath(m_Options.sparseFolder) + L"\\" + m_wsKey + L"!" +
                             std::to_wstring(iFileId) + L".lcf";
        }
        if (file.wsMovedTo.size() > kMaxHostName)
            return ZirlaneFail(__FILE__, __LINE__,
                               "The name %S is too long for the driver (at most %d characters): choose a mount "
                               "point or sparse folder with a shorter path.\n",
                               file.wsMovedTo.c_str(), static_cast<int>(kMaxHostName));
        m_aFiles.push_back(file);
    }
    return true;
}

// The key names the sparse files: while this process serves them, no
// other may.
bool ZirlaneMount::TakeKey() {
    const ZirlaneChain& chain = m_Options.chain;
    m_database = chain.database.empty() ? ZirlaneUtf8(m_aConfigs[0].m_wsDatabaseName) : chain.database;
    m_wsKey = L"GUID=" + ChainKey(chain, m_database, m_stopClause);
    return ZR_ServerProcess::Lock(m_Options.sparseFolder + "/" + ZirlaneUtf8(m_wsKey) + ".lock", kLockWaitMs);
}

bool ZirlaneMount::MountChain() {
    ZR::Initialize();
    InitializeIOOperations(ZirlaneWide(m_Options.sparseFolder).c_str());
    m_pInfo = AllocateMountInfo();
    ZirlaneBuildRequest(m_pInfo, m_Options.chain, m_stopClause);
    SetTargetDatabase(m_pInfo, ZirlaneWide(m_database).c_str());
    SetGuid(m_pInfo, m_wsKey.substr(5).c_str());
    SetFilterDrive(m_pInfo, HostPrefix().c_str());
    for (size_t i = 0; i < m_aConfigs.size(); ++i)
        for (const SQL_FileEntry& record : m_aConfigs[i].m_aFiles)
            for (const File& file : m_aFiles)
                if (file.record.m_iFileId == record.m_iFileId && HasData(record))
                    AddWith(m_pInfo, static_cast<int>(i) + 1,
                            (L"move " + Quoted(record.m_wsLogicalName) + L" to " + Quoted(file.wsMovedTo)).c_str());
    wchar_t wszKey[256] = {};
    m_bMounted = WrapMount(m_pInfo, wszKey, 256);
    return m_bMounted;
}

// The statements are made once: each making gives the views new names, and
// the folder shows those of the statements printed.
void ZirlaneMount::TakeStatements() {
    m_aRestores = ZirlaneStatements(m_pInfo);
    wchar_t* wszAttach = ZR::GenAttachDatabaseSQL(m_pInfo->GetTargetDatabase(), m_wsKey.c_str());
    std::wstring wsAttach = wszAttach ? wszAttach : L"";
    free(wszAttach);
    // The attach statement names the files where the backup found them.
    for (const File& file : m_aFiles) {
        const std::wstring wsFrom = Quoted(file.record.m_wsPhysicalName), wsTo = Quoted(file.wsMovedTo);
        if (size_t i = wsAttach.find(wsFrom); i != std::wstring::npos) wsAttach.replace(i, wsFrom.size(), wsTo);
    }
    m_attach = ZirlaneUtf8(wsAttach);
    ZR_Database* pDB = ZR::FindDatabase(m_wsKey.c_str());
    for (int iSlot = 0; pDB && iSlot < pDB->GetNumBackups(); ++iSlot) {
        ZR_Backup* pBackup = pDB->GetBackup(iSlot);
        for (int i = 0; pBackup && i < pBackup->m_pCMaps->GetNumFiles(); ++i) {
            const uint32_t iId = ZR_VirtualBackupFile::HandleId(pBackup->m_aVirtualFiles(i)->GetHandle());
            const int iOfSlot = iSlot < 2 ? 0 : iSlot - 1;
            m_aViews.push_back({ZirlaneUtf8(m_wsKey) + "!" + std::to_string(iId) + ".bxk",
                                std::string("view of ") + BackupRole(iSlot) +
                                    (iOfSlot ? " " + std::to_string(iOfSlot) : "") + ", stripe " +
                                    std::to_string(i + 1) + ": " + ZirlaneUtf8(pBackup->GetFile(i)->GetFileName())});
        }
    }
}

// ---------------------------------------------------------------------------
// Restore, Expose, Report, Serve
// ---------------------------------------------------------------------------

// What RESTORE writes from the views: each data file sized as its record
// says, and its first extent, which the views keep.
bool ZirlaneMount::RestoreFile(const File& file) {
    HostFile host(file.wsMovedTo);
    ZR_Database* pDB = ZR::FindDatabase(m_wsKey.c_str());
    if (host.Status() != kHostSuccess || !pDB)
        return ZirlaneFail(__FILE__, __LINE__, "Unable to open %S (status %08x).\n", file.wsMovedTo.c_str(),
                           static_cast<unsigned>(host.Status()));
    const uint32_t cb = static_cast<uint32_t>(std::min<uint64_t>(kExtent, file.record.m_iSize));
    uint8_t* pExtent = static_cast<uint8_t*>(VirtualAlloc(nullptr, kExtent, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    const uint8_t aNoPages[kLiveBitmapBytes] = {};
    const bool bOk =
        pExtent && host.Host().SetSize(host.Handle(), file.record.m_iSize) == kHostSuccess &&
        pDB->ReadFileByBitMap(static_cast<uint16_t>(file.record.m_iFileId), pExtent, cb, aNoPages, 0, ZR_READ_LIVE) &&
        host.Host().Write(host.Handle(), 0, pExtent, cb) == kHostSuccess &&
        host.Host().Flush(host.Handle()) == kHostSuccess;
    if (pExtent) VirtualFree(pExtent, 0, MEM_RELEASE);
    return bOk ? true : ZirlaneFail(__FILE__, __LINE__, "Unable to restore %S.\n", file.wsMovedTo.c_str());
}

bool ZirlaneMount::Restore() {
    for (const File& file : m_aFiles)
        if (file.record.m_iType == SQL_FILE_DATABASE && !RestoreFile(file)) return false;
    return true;
}

bool ZirlaneMount::Expose() {
    ZR_FuseFrontOptions options;
    options.strMountPoint = m_Options.mountPoint;
    options.strNamePrefix = HostPrefix();
    options.strSpaceFolder = m_Options.sparseFolder;
    options.bAllowOther = m_Options.bAllowOther;
    for (const View& view : m_aViews) options.aNames.push_back(view.name);
    for (const File& file : m_aFiles)
        if (!file.name.empty()) options.aNames.push_back(file.name);
    m_pFront = std::make_unique<ZR_FuseFront>(ZR_FilterDriver::Host(), std::move(options));
    return m_pFront->Mount();
}

std::string ZirlaneMount::PresentPages(const File& file) {
    HostFile host(file.wsMovedTo);
    uint64_t iPresent = 0;
    if (host.Status() != kHostSuccess || host.Host().QueryPresentPages(host.Handle(), &iPresent) != kHostSuccess)
        return "";
    return ", " + std::to_string(iPresent) + " of " + std::to_string((file.record.m_iSize + 8191) / 8192) +
           " pages present";
}

void ZirlaneMount::Report() {
    std::printf("Mounted %s at %s (key %s).\n", ZirlaneUtf8(m_pInfo->GetTargetDatabase()).c_str(),
                m_Options.mountPoint.c_str(), ZirlaneUtf8(m_wsKey).c_str());
    std::printf("Maps: %s.\n", m_iScans || m_iBuilds ? "built now (full scan of the backups)"
                                                     : "read from the map folder, no scan");
    for (const View& view : m_aViews) std::printf("  %s: %s\n", view.name.c_str(), view.what.c_str());
    for (const File& file : m_aFiles) {
        if (file.name.empty())
            std::printf("The log file %s goes to %s.\n", ZirlaneUtf8(file.record.m_wsLogicalName).c_str(),
                        ZirlaneUtf8(file.wsMovedTo).c_str());
        else
            std::printf("  %s: data file %u, %s%s\n", file.name.c_str(), file.record.m_iFileId,
                        Bytes(file.record.m_iSize).c_str(), PresentPages(file).c_str());
    }
    if (m_Options.bRestore)
        std::printf("Restored: each data file is sized and holds its first extent, as RESTORE would leave it; "
                    "every other page comes from the backups when it is read.%s\n",
                    m_Options.chain.aLogs.empty() ? "" : " The log backups are not applied (that takes SQL Server).");
    std::printf("\nStatements for SQL Server on Linux, which opens C:\\ as /:\n\n");
    for (const std::string& statement : m_aRestores) std::printf("%s\n\n", statement.c_str());
    std::fputs(m_attach.c_str(), stdout);
    std::fflush(stdout);
}

void ZirlaneMount::Hydrate() {
    std::vector<ZirlaneHydration::DataFile> files;
    for (const File& file : m_aFiles)
        if (!file.name.empty()) files.push_back({file.name, file.wsMovedTo});
    m_pHydration = std::make_unique<ZirlaneHydration>(
        m_wsKey, m_Options.sparseFolder + "/" + ZirlaneUtf8(m_wsKey) + ".hydrating", files, m_Options.bJson);
}

void ZirlaneMount::Serve() {
    if (m_pFront) m_pFront->Serve();
}

void ZirlaneMount::Remove() {
    m_pFront.reset();
    if (m_bMounted) ZR::GetZR()->Remove(m_wsKey.c_str());
    m_pHydration.reset();
    ZR::UninitializeForExit();
    ZR_FilterDriver::Stop(true);
    if (m_pInfo) FreeMountInfo(m_pInfo);
}
