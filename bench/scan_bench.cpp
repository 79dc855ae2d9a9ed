// Scan throughput: writes a synthetic backup of the size asked for (in GB,
// default 2) into a temporary folder, walks it with the scan, and reads the
// same file from start to end in 1 MiB aligned reads, in the same run. The
// scan touches only headers and jumps over the data, so its time should be a
// small fraction of the sequential read.
//
//     scan_bench [GB] [folder]
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "BenchSupport.h"
#include "backup/ZR_Backup.h"
#include "backup/ZR_Scan.h"
#include "backupio/ZR_IOStats.h"

namespace fs = std::filesystem;

namespace {

// The scan's time; *piBytes gets what it read from the disk.
bool TimeScan(const fs::path& path, double* pdSeconds, uint64_t* piBytes) {
    ZR_Backup backup(nullptr);
    backup.SetDataSetNumber(1);
    backup.AddFile(path.wstring().c_str(), nullptr, false);
    g_IOStats.Clear();
    auto start = std::chrono::steady_clock::now();
    ZR_Scan scan(&backup, 1);
    bool bOk = scan.ScanFiles();
    *pdSeconds = zrbench::Seconds(start);
    g_IOStats.GetTotals(ZR_FILE_KIND_BAK, IO_READ, nullptr, piBytes);
    return bOk;
}

}  // namespace

int main(int argc, char** argv) {
    double dGigabytes = zrbench::Gigabytes(argc, argv);
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: scan_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    fs::path path = zrbench::Folder(argc, argv, &pHolder) / "scan_bench.bak";
    if (!zrbench::WriteSyntheticBackup(path, dGigabytes)) return 1;

    double dScan = 0, dRead = 0;
    uint64_t iScanBytes = 0;
    if (!TimeScan(path, &dScan, &iScanBytes) || !zrbench::TimeSequentialRead(path, &dRead)) {
        zrbench::PrintErrors();
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
