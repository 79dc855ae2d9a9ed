#include "BenchSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

#include "backup/ZR_Backup.h"
#include "backupio/ZR_BackupFile.h"
#include "backupio/ZR_ReadAhead.h"
#include "diag/ZR_Error.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "foundation/ZR_Types.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"
#include "support/PosixFileIo.h"
#include "support/SyntheticBackup.h"

namespace zrbench {

namespace fs = std::filesystem;

namespace {
constexpr uint32_t kReadSize = 1 << 20;
constexpr uint64_t kDataFiles = 4;
}  // namespace

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

fs::path Folder(int argc, char** argv, std::unique_ptr<zrtest::TempDir>* pHolder) {
    if (argc > 2)
        return argv[2];
    *pHolder = std::make_unique<zrtest::TempDir>();
    return (*pHolder)->path();
}

double Gigabytes(int argc, char** argv) {
    double d = argc > 1 ? std::atof(argv[1]) : 2.0;
    return d > 0 ? d : 0;
}

bool WriteSyntheticBackup(const fs::path& path, double dGigabytes) {
    uint64_t iPages = static_cast<uint64_t>(dGigabytes * (1ull << 30)) / ZR_PAGE_SIZE;
    zrtest::SyntheticOptions options;
    options.version = 10;
    options.filePages.assign(kDataFiles, static_cast<uint32_t>(iPages / kDataFiles / 8 * 8));
    options.transferExtents = 16;
    zrtest::SyntheticBackup backup(options);
    auto start = std::chrono::steady_clock::now();
    if (!backup.Write(path)) {
        std::fprintf(stderr, "cannot write the backup: %s\n", backup.Error().c_str());
        return false;
    }
    std::printf("written:          %.2f GB in %.2f s\n", double(fs::file_size(path)) / (1 << 30), Seconds(start));
    return true;
}

bool TimeSequentialRead(const fs::path& path, double* pdSeconds) {
    ZR_BackupFile file(nullptr, 1, path.wstring().c_str(), nullptr, false);
    if (!file.Open())
        return false;
    void* pBuffer = VirtualAlloc(nullptr, kReadSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    auto start = std::chrono::steady_clock::now();
    bool bOk = true;
    for (uint64_t iOfs = 0; bOk && iOfs < file.GetFileSize(); iOfs += kReadSize) {
        uint32_t iRead = 0;
        bOk = file.ReadA(pBuffer, iOfs, kReadSize, IO_READ, &iRead);
    }
    *pdSeconds = Seconds(start);
    VirtualFree(pBuffer, 0, MEM_RELEASE);
    file.Close();
    return bOk;
}

void PrintErrors(const wchar_t* wszKey) {
    wchar_t* wsz = ZR_ReadErrors(wszKey);
    if (wsz)
        std::fprintf(stderr, "%ls", wsz);
    free(wsz);
}

std::vector<PageAt> PickPages(ZR_Backup& b, int n) {
    std::vector<PageAt> a;
    std::mt19937_64 rng(42);
    ZR_ConfigInfo& config = b.m_pCMaps->m_ConfigMSCI;
    const int nFiles = static_cast<int>(config.m_Files);
    for (int tries = 0; static_cast<int>(a.size()) < n && tries < 20 * n; ++tries) {
        const SQL_FILE_INFO_V7* f = config.m_Files(static_cast<int>(rng() % nFiles));
        if (f->m_file_type != SQL_FILE_DATABASE || f->m_file_size < ZR_PAGE_SIZE)
            continue;
        PageId id{static_cast<uint32_t>(rng() % (f->m_file_size / ZR_PAGE_SIZE)), static_cast<uint16_t>(f->m_file_number)};
        ZR_EMap e = b.LookupPage(id);
        if (e.HasCopy())
            a.push_back({id, e.GetOffset() + (id.m_iPage & 7) * uint64_t{ZR_PAGE_SIZE}});
    }
    return a;
}

HANDLE OpenPlain(const fs::path& path) {
    return CreateFileW(path.wstring().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       ZR_BackupFile::ms_iOpenFlags, nullptr);
}

bool ReadPlainPage(HANDLE h, uint64_t iFileOfs, void* pBuffer) {
    OVERLAPPED o{};
    o.Offset = static_cast<DWORD>(iFileOfs);
    o.OffsetHigh = static_cast<DWORD>(iFileOfs >> 32);
    DWORD iRead = 0;
    return ReadFile(h, pBuffer, ZR_PAGE_SIZE, &iRead, &o) ||
           (GetLastError() == ERROR_IO_PENDING && GetOverlappedResult(h, &o, &iRead, TRUE));
}

namespace {

class UnbufferedFile : public zrtest::MtfSource {
public:
    explicit UnbufferedFile(const fs::path& path)
        : m_file(nullptr, 1, path.wstring().c_str(), nullptr, false), m_pAhead(ZR_ReadAhead::Alloc()) {
        m_bOpen = m_file.Open();
    }
    ~UnbufferedFile() override {
        ZR_ReadAhead::Free(m_pAhead);
        m_file.Close();
    }
    uint64_t Size() const override { return m_bOpen ? m_file.GetFileSize() : 0; }
    bool Read(uint64_t iOfs, void* pOut, size_t cb) const override {
        uint32_t iRead = 0;
        return m_pAhead && iOfs + cb <= Size() &&
               m_file.Read(m_pAhead, pOut, iOfs, static_cast<uint32_t>(cb), IO_READ, &iRead) && iRead == cb;
    }

private:
    mutable ZR_BackupFile m_file;  // the walker's reads are const; the reader moves its window
    ZR_ReadAhead* m_pAhead;
    bool m_bOpen = false;
};

}  // namespace

std::unique_ptr<zrtest::MtfSource> UnbufferedSource(const fs::path& path) {
    return std::make_unique<UnbufferedFile>(path);
}

bool TimeNaiveRestore(const fs::path& backup, const fs::path& folder, double* pdSeconds) {
    fs::create_directories(folder / "Data");
    zrtest::PosixFileIo io(folder);
    zrtest::SqlServerEmulator sql(io);
    std::vector<zrtest::BackupStripe> stripes;
    stripes.push_back({backup.wstring(), UnbufferedSource(backup)});
    const auto start = std::chrono::steady_clock::now();
    const bool bOk = sql.Restore(stripes, {});
    *pdSeconds = Seconds(start);
    if (!bOk) std::fprintf(stderr, "naive restore: %s\n", sql.Error().c_str());
    fs::remove_all(folder);
    return bOk;
}

bool BringOnline(const fs::path& backup, OnlineMount* pOnline) {
    std::shared_ptr<ZR_DriverHost> pHost = ZR_FilterDriver::Host();
    if (!pHost) {
        std::fprintf(stderr, "no driver runs\n");
        return false;
    }
    pOnline->pIo = std::make_unique<zrtest::DriverHostFileIo>(std::move(pHost));
    pOnline->pSql = std::make_unique<zrtest::SqlServerEmulator>(*pOnline->pIo);
    if (pOnline->mount.Mount({.full = {backup}}) && pOnline->mount.Restore(*pOnline->pSql))
        return true;
    std::fprintf(stderr, "%s\n", pOnline->mount.Error().c_str());
    return false;
}

double Percentile(std::vector<double> a, double p) {
    if (a.empty())
        return 0;
    std::sort(a.begin(), a.end());
    return a[std::min(a.size() - 1, static_cast<size_t>(p * double(a.size())))];
}

void PrintRun(const char* szWhat, const Run& run, size_t nPages) {
    std::printf("%-22s %8.0f pages/s   p50 %8.1f us   p99 %8.1f us\n", szWhat, double(nPages) / run.dSeconds,
                Percentile(run.aLatencies, 0.5), Percentile(run.aLatencies, 0.99));
}

namespace {

// A field of /proc/<process>/status, in kB there.
double StatusMiB(const std::string& process, const std::string& strField) {
    std::ifstream status("/proc/" + process + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(strField, 0) == 0) return std::atof(line.c_str() + strField.size()) / 1024;
    return 0;
}

}  // namespace

double PeakRssMiB(const std::string& process) { return StatusMiB(process, "VmHWM:"); }

double RssMiB() { return StatusMiB("self", "VmRSS:"); }

void ResetPeakRss() { std::ofstream("/proc/self/clear_refs") << "5"; }

}  // namespace zrbench
