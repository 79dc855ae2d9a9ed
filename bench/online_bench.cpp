// Time to online: writes a synthetic backup of the size asked for (in GB,
// default 2), then mounts it as a service does (InitializeZR, the folders,
// the operation service, WrapMount) and runs its RESTORE through the
// embedded driver's host side: the database is then online. Once with no
// maps (the mount scans the backup and builds its maps), then again with
// the maps on disk (a second mount of the same backup). Beside it the naive
// restore of the same backup: every extent of its data streams copied into
// plain data files, as a full RESTORE writes them, the backup read without
// the system cache as the library reads it (neither side waits for its
// writes to reach the disk); and a sequential read of the backup, the
// physical limit of that copy.
//
//     online_bench [GB] [folder]
#include <cstdio>
#include <filesystem>

#include "BenchSupport.h"
#include "mount/ZR.h"

namespace fs = std::filesystem;

namespace {

// A mount of the backup brought online, then removed; false when it fails.
bool TimeOnline(const fs::path& backup, double* pdSeconds) {
    std::wstring strKey;
    {
        zrbench::OnlineMount online;
        const auto start = std::chrono::steady_clock::now();
        if (!zrbench::BringOnline(backup, &online)) return false;
        *pdSeconds = zrbench::Seconds(start);
        strKey = online.mount.Key();
    }
    ZR::GetZR()->Remove(strKey.c_str());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const double dGigabytes = zrbench::Gigabytes(argc, argv);
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: online_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    const fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    const fs::path backup = folder / "online_bench.bak";
    if (!zrbench::WriteSyntheticBackup(backup, dGigabytes)) return 1;
    double dRead = 0, dNaive = 0, dFirst = 0, dSecond = 0;
    std::string strError;
    bool bOk = zrbench::TimeSequentialRead(backup, &dRead) && zrbench::TimeNaiveRestore(backup, folder / "naive", &dNaive);
    if (bOk && !zrtest::StartService(folder / "service", &strError)) {
        std::fprintf(stderr, "%s\n", strError.c_str());
        bOk = false;
    }
    bOk = bOk && TimeOnline(backup, &dFirst) && TimeOnline(backup, &dSecond);
    if (!bOk) zrbench::PrintErrors();
    zrtest::StopService();
    if (bOk) {
        std::printf("sequential read:          %8.2f s\n", dRead);
        std::printf("naive restore:            %8.2f s   %.2f x the sequential read\n", dNaive, dNaive / dRead);
        std::printf("online, maps built:       %8.2f s   ratio to the naive restore %.3f\n", dFirst, dFirst / dNaive);
        std::printf("online, maps on disk:     %8.2f s   ratio to the naive restore %.4f\n", dSecond, dSecond / dNaive);
    }
    std::printf("\npeak RSS: %.1f MiB\n", zrbench::PeakRssMiB());
    fs::remove_all(folder / "service");
    fs::remove(backup);
    return bOk ? 0 : 1;
}
