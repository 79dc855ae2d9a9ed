// Extent map build: writes a synthetic backup of the size asked for (in GB,
// default 2) into a temporary folder, prepares its content map, then times
// the build of its extent map (one 512-byte header read for each 64 KiB
// extent) beside a plain sequential read of the same file in the same run,
// and a second prepare that reads the map file instead.
//
//     extents_bench [GB] [folder]
#include <chrono>
#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <memory>

#include "BenchSupport.h"
#include "backup/ZR_Backup.h"
#include "backupio/ZR_IOStats.h"
#include "maps/X_MapFile.h"

namespace fs = std::filesystem;

namespace {

// The time of PrepareAccess alone; *piBytes gets what it read from the
// backup, *pbBuilt whether it built the map rather than read it.
bool TimeAccess(const fs::path& path, double* pdSeconds, uint64_t* piBytes, bool* pbBuilt) {
    ZR_Backup backup(nullptr);
    backup.SetDataSetNumber(1);
    backup.AddFile(path.wstring().c_str(), nullptr, false);
    int32_t iVersion = 0;
    if (!backup.PrepareContent(&iVersion) || !backup.Open())
        return false;
    const int iBuilds = ZR_Backup::ms_iExtentMapBuilds;
    g_IOStats.Clear();
    auto start = std::chrono::steady_clock::now();
    bool bOk = backup.PrepareAccess(0);
    *pdSeconds = zrbench::Seconds(start);
    g_IOStats.GetTotals(ZR_FILE_KIND_BAK, IO_READ, nullptr, piBytes);
    *pbBuilt = ZR_Backup::ms_iExtentMapBuilds != iBuilds;
    return bOk;
}

}  // namespace

int main(int argc, char** argv) {
    double dGigabytes = zrbench::Gigabytes(argc, argv);
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: extents_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    fs::path path = folder / "extents_bench.bak";
    fs::create_directories(folder / "maps");
    std::wcsncpy(g_wszMapFilesFolder, (folder / "maps").wstring().c_str(), MAX_PATH - 1);
    if (!zrbench::WriteSyntheticBackup(path, dGigabytes))
        return 1;

    double dBuild = 0, dSecond = 0, dRead = 0;
    uint64_t iBuildBytes = 0, iSecondBytes = 0;
    bool bBuilt = false, bSecondBuilt = false;
    bool bOk = TimeAccess(path, &dBuild, &iBuildBytes, &bBuilt) &&
               TimeAccess(path, &dSecond, &iSecondBytes, &bSecondBuilt) &&
               zrbench::TimeSequentialRead(path, &dRead);
    if (!bOk) {
        zrbench::PrintErrors();
        fs::remove_all(folder / "maps");
        fs::remove(path);
        return 1;
    }
    const double dSize = double(fs::file_size(path));
    std::printf("sequential read:  %.3f s (%.0f MB/s)\n", dRead, dSize / dRead / 1e6);
    std::printf("extent map build: %.3f s, %.1f MB read (%s)  ratio to the read: %.3f\n", dBuild,
                double(iBuildBytes) / 1e6, bBuilt ? "built" : "NOT built", dBuild / dRead);
    std::printf("second prepare:   %.3f s, %.1f MB read (%s)  ratio to the read: %.4f\n", dSecond,
                double(iSecondBytes) / 1e6, bSecondBuilt ? "built again" : "map file", dSecond / dRead);
    fs::remove_all(folder / "maps");
    fs::remove(path);
    return 0;
}
