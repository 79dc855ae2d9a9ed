// The content road of a mount on a multi-GB synthetic backup: the first
// prepare probes, scans every block header and writes the content map; the
// second, by a new backup object once the first is gone, reads the map file
// and scans nothing. Both beside a plain sequential read of the same file in
// the same run.
//
//     content_bench [GB] [folder]
#include <cstdio>
#include <cwchar>

#include "BenchSupport.h"
#include "backup/ZR_Backup.h"
#include "backup/ZR_ScanFull.h"
#include "maps/X_MapFile.h"

namespace fs = std::filesystem;

namespace {

bool TimePrepare(const fs::path& path, double* pdSeconds) {
    ZR_Backup backup(nullptr);
    backup.SetDataSetNumber(1);
    backup.AddFile(path.wstring().c_str(), nullptr, false);
    int32_t iVersion = 0;
    auto start = std::chrono::steady_clock::now();
    bool bOk = backup.PrepareContent(&iVersion);
    *pdSeconds = zrbench::Seconds(start);
    return bOk;
}

}  // namespace

int main(int argc, char** argv) {
    double dGigabytes = zrbench::Gigabytes(argc, argv);
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: content_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    fs::path path = folder / "content_bench.bak";
    fs::create_directories(folder / "maps");
    std::wstring maps = (folder / "maps").wstring();
    std::wcsncpy(g_wszMapFilesFolder, maps.c_str(), MAX_PATH - 1);
    if (!zrbench::WriteSyntheticBackup(path, dGigabytes))
        return 1;

    double dFirst = 0, dSecond = 0, dRead = 0;
    int iScans = ZR_ScanFull::ms_iScansRun;
    bool bOk = TimePrepare(path, &dFirst);
    int iFirstScans = ZR_ScanFull::ms_iScansRun - iScans;
    bOk = bOk && TimePrepare(path, &dSecond);
    int iSecondScans = ZR_ScanFull::ms_iScansRun - iScans - iFirstScans;
    bOk = bOk && zrbench::TimeSequentialRead(path, &dRead);
    if (!bOk) {
        zrbench::PrintErrors();
        fs::remove_all(folder / "maps");
        fs::remove(path);
        return 1;
    }
    uint64_t iMap = 0;
    for (auto& e : fs::directory_iterator(folder / "maps"))
        iMap += fs::file_size(e.path());
    std::printf("first prepare:    %.3f s (%d full scan, map of %llu bytes written)\n", dFirst, iFirstScans,
                static_cast<unsigned long long>(iMap));
    std::printf("second prepare:   %.3f s (%d full scans: the map file is read)\n", dSecond, iSecondScans);
    std::printf("sequential read:  %.3f s (%.0f MB/s)\n", dRead, double(fs::file_size(path)) / (1 << 20) / dRead);
    std::printf("first / read:     %.4f\n", dFirst / dRead);
    std::printf("second / read:    %.4f\n", dSecond / dRead);
    fs::remove_all(folder / "maps");
    fs::remove(path);
    return 0;
}
