// Scan throughput: writes a synthetic backup of the size asked for (in GB,
// default 2) into a temporary folder, walks it with the scan, and reads the
// same file from start to end in 1 MiB aligned reads, in the same run. The
// scan touches only headers and jumps over the data, so its time should be a
// small fraction of the sequential read.
//
//     scan_bench [GB] [folder]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "backup/ZR_Backup.h"
#include "backup/ZR_Scan.h"
#include "backupio/ZR_BackupFile.h"
#include "backupio/ZR_IOStats.h"
#include "diag/ZR_Error.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kReadSize = 1 << 20;
constexpr uint64_t kDataFiles = 4;

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

bool WriteBackup(const fs::path& path, double dGigabytes) {
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

// The scan's time; *piBytes gets what it read from the disk.
bool TimeScan(const fs::path& path, double* pdSeconds, uint64_t* piBytes) {
    ZR_Backup backup(nullptr);
    backup.SetDataSetNumber(1);
    backup.AddFile(path.wstring().c_str(), nullptr, false);
    g_IOStats.Clear();
    auto start = std::chrono::steady_clock::now();
    ZR_Scan scan(&backup, 1);
    bool bOk = scan.ScanFiles();
    *pdSeconds = Seconds(start);
    g_IOStats.GetTotals(ZR_FILE_KIND_BAK, IO_READ, nullptr, piBytes);
    return bOk;
}

bool TimeSequentialRead(const fs::path& path, double* pdSeconds) {
    ZR_BackupFile file(nullptr, 1, path.wstring().c_str(), nullptr, false);
    if (!file.Open()) return false;
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

void PrintErrors() {
    wchar_t* wsz = ZR_ReadErrors(nullptr);
    if (wsz) std::fprintf(stderr, "%ls", wsz);
    free(wsz);
}

}  // namespace

int main(int argc, char** argv) {
    double dGigabytes = argc > 1 ? std::atof(argv[1]) : 2.0;
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: scan_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pTemp;
    fs::path folder;
    if (argc > 2) {
        folder = argv[2];
    } else {
        pTemp = std::make_unique<zrtest::TempDir>();
        folder = pTemp->path();
    }
    fs::path path = folder / "scan_bench.bak";
    if (!WriteBackup(path, dGigabytes)) return 1;

    double dScan = 0, dRead = 0;
    uint64_t iScanBytes = 0;
    if (!TimeScan(path, &dScan, &iScanBytes) || !TimeSequentialRead(path, &dRead)) {
        PrintErrors();
        fs::remove(path);
        return 1;
    }
    uint64_t iSize = fs::file_size(path);
    std::printf("scan:             %.3f s, %llu bytes read (%.4f%% of the file)\n", dScan,
                static_cast<unsigned long long>(iScanBytes), 100.0 * double(iScanBytes) / double(iSize));
    std::printf("sequential read:  %.3f s (%.0f MB/s)\n", dRead, double(iSize) / (1 << 20) / dRead);
    std::printf("scan / read:      %.4f\n", dScan / dRead);
    fs::remove(path);
    return 0;
}
