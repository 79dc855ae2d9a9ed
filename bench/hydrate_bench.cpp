// Hydration: writes a synthetic backup of four data files, mounts it as a
// service mounts it (the embedded driver serving the ports, the data files
// opened through its host side) and hydrates it:
//   - alone, beside `cp` of the backup file to the same disk followed by a
//     sync of the copy (hydration's end stores every data file too): the
//     physical limit, as a ratio;
//   - with four readers of random 8 KiB pages through the host side, whose
//     p99 latency stands beside that of the same readers on a mount that
//     does not hydrate;
// at half the size asked for and at the size asked for, with the peak
// resident memory that the hydrations take beyond their mounts, which must
// not grow with the backup's size, and the peak of the whole process.
//
//     hydrate_bench [GB] [folder]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "engine/ZR_Database.h"
#include "mount/ZR.h"
#include "support/HydrationMount.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;

namespace {

constexpr int kReaders = 4;
constexpr int kIdleReads = 500;  // for each reader on the mount that does not hydrate
const wchar_t* const kGuids[] = {L"0b0e0c00-0000-4000-8000-000000000001", L"0b0e0c00-0000-4000-8000-000000000002",
                                 L"0b0e0c00-0000-4000-8000-000000000003"};

double MiBps(uint64_t iBytes, double dSeconds) { return double(iBytes) / (1 << 20) / dSeconds; }

// kReaders threads reading random pages of the data files until bStop (or,
// without it, iReads each); latencies in microseconds.
std::vector<double> ReadRandomPages(zrtest::HydrationMount& chain, const std::atomic<bool>* pbStop, int iReads) {
    std::vector<std::vector<double>> latencies(kReaders);
    std::vector<std::thread> threads;
    for (int r = 0; r < kReaders; ++r)
        threads.emplace_back([&, r] {
            std::mt19937_64 rng(uint64_t(r) + 1);
            void* pPage = VirtualAlloc(nullptr, ZR_PAGE_SIZE, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
            for (int i = 0; pbStop ? !*pbStop : i < iReads; ++i) {
                const auto& file = chain.DataFiles()[rng() % chain.DataFiles().size()];
                const uint64_t iOffset = rng() % (file.iSize / ZR_PAGE_SIZE) * ZR_PAGE_SIZE;
                uint32_t cbRead = 0;
                const auto start = std::chrono::steady_clock::now();
                if (chain.Sql().ReadData(file.fileId, iOffset, pPage, ZR_PAGE_SIZE, &cbRead) != 0) {
                    std::fprintf(stderr, "a read failed\n");
                    break;
                }
                latencies[size_t(r)].push_back(zrbench::Seconds(start) * 1e6);
            }
            VirtualFree(pPage, 0, MEM_RELEASE);
        });
    for (std::thread& t : threads) t.join();
    std::vector<double> all;
    for (auto& a : latencies) all.insert(all.end(), a.begin(), a.end());
    return all;
}

// Hydrates a fresh mount; its throughput in MiB/s, 0 on failure. *pdPeak
// grows to the most resident memory the hydration took beyond what the
// process held before it.
double Hydrate(zrtest::HydrationMount& chain, double* pdPeak) {
    zrbench::ResetPeakRss();
    const double dBefore = zrbench::RssMiB();
    const auto start = std::chrono::steady_clock::now();
    StartDataHydration(chain.Key(), nullptr, 0);
    const double dSeconds = zrbench::Seconds(start);
    *pdPeak = std::max(*pdPeak, zrbench::PeakRssMiB() - dBefore);
    ZR_Database* pDB = ZR::FindDatabase(chain.Key());
    if (!pDB || !pDB->IsHydrationDone()) return 0;
    return MiBps(pDB->m_TotalHydratedByDataPasses, dSeconds);
}

bool RunSize(const fs::path& folder, double dGigabytes) {
    fs::create_directories(folder);
    const fs::path backup = folder / "hydrate_bench.bak";
    if (!zrbench::WriteSyntheticBackup(backup, dGigabytes)) return false;
    const uint64_t iBackupBytes = fs::file_size(backup);

    const auto copyStart = std::chrono::steady_clock::now();
    const std::string strCopy = (folder / "copy.bak").string();
    if (std::system(("cp '" + backup.string() + "' '" + strCopy + "' && sync '" + strCopy + "'").c_str()) != 0)
        return false;
    const double dCopy = MiBps(iBackupBytes, zrbench::Seconds(copyStart));
    fs::remove(strCopy);

    double dAlone = 0, dWithReaders = 0, dPeak = 0;
    std::vector<double> idle, busy;
    for (int iRun = 0; iRun < 3; ++iRun) {
        const zrtest::RunningService service(folder / ("run" + std::to_string(iRun)));
        zrtest::HydrationMount chain(service, {.full = {backup}, .wszGuid = kGuids[iRun]}, false);
        if (!service.Up() || !chain.Ready()) {
            std::fprintf(stderr, "%s%s\n", service.Error().c_str(), chain.Error().c_str());
            return false;
        }
        if (iRun == 0) dAlone = Hydrate(chain, &dPeak);
        if (iRun == 1) idle = ReadRandomPages(chain, nullptr, kIdleReads);
        if (iRun == 2) {
            std::atomic<bool> bStop{false};
            std::thread readers([&] { busy = ReadRandomPages(chain, &bStop, 0); });
            dWithReaders = Hydrate(chain, &dPeak);
            bStop = true;
            readers.join();
        }
    }
    if (dAlone == 0 || dWithReaders == 0) {
        zrbench::PrintErrors();
        return false;
    }
    std::printf("cp and sync of the backup:  %8.1f MiB/s\n", dCopy);
    std::printf("hydration alone:            %8.1f MiB/s   ratio to cp %.3f\n", dAlone, dAlone / dCopy);
    std::printf("hydration with %d readers:   %8.1f MiB/s   ratio to cp %.3f\n", kReaders, dWithReaders,
                dWithReaders / dCopy);
    std::printf("random 8 KiB reads, p99:   %8.0f us while hydrating (%zu reads), %8.0f us without (%zu reads)\n",
                zrbench::Percentile(busy, 0.99), busy.size(), zrbench::Percentile(idle, 0.99), idle.size());
    std::printf("peak RSS of the hydrations: %8.1f MiB above the mount's\n", dPeak);
    fs::remove_all(folder);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const double dGigabytes = zrbench::Gigabytes(argc, argv);
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: hydrate_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    const fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    SetNumCPUs(static_cast<int>(std::thread::hardware_concurrency()));
    for (double dSize : {dGigabytes / 2, dGigabytes}) {
        std::printf("\n--- %.2f GB ---\n", dSize);
        if (!RunSize(folder / ("size" + std::to_string(int(dSize * 1000))), dSize)) return 1;
    }
    std::printf("\npeak RSS of the process:    %8.1f MiB\n", zrbench::PeakRssMiB());
    return 0;
}
