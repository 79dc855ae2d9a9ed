// Live reads: writes a synthetic backup of the size asked for (in GB,
// default 2) into a temporary folder, mounts it as a database (content,
// access, backups open, live I/O threads running) and serves random 8 KiB
// page reads through the live I/O queue to their completion on a stand-in
// for the driver's port, from 1 and from 8 submitters that each wait for
// their read before the next, as SQL Server's workers do. The same pages are
// then read at the same concurrency with plain positioned reads of the
// backup file, opened the same way (unbuffered): the physical limit.
//
//     live_bench [GB] [folder] [reads]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "engine/ZR_Database.h"
#include "maps/X_MapFile.h"
#include "support/LiveIOCompletions.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using zrbench::PageAt;

namespace {

constexpr int kDefaultReads = 4000;

struct Run {
    double dSeconds = 0;
    std::vector<double> aLatencies;  // microseconds, one per read
    bool bOk = true;
};

double Percentile(std::vector<double> a, double p) {
    if (a.empty()) return 0;
    std::sort(a.begin(), a.end());
    return a[std::min(a.size() - 1, static_cast<size_t>(p * double(a.size())))];
}

// Each of nSubmitters threads takes every nSubmitters-th page and reads it
// with readPage(page, buffer), one after the other.
template <class ReadPage>
Run Submit(const std::vector<PageAt>& pages, int nSubmitters, ReadPage readPage) {
    Run run;
    std::vector<std::vector<double>> latencies(nSubmitters);
    std::atomic<bool> bOk{true};
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int s = 0; s < nSubmitters; ++s)
        threads.emplace_back([&, s] {
            void* pBuffer = VirtualAlloc(nullptr, ZR_PAGE_SIZE, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
            for (size_t i = size_t(s); bOk && i < pages.size(); i += size_t(nSubmitters)) {
                const auto t0 = std::chrono::steady_clock::now();
                bOk = bOk && readPage(i, pBuffer);
                latencies[s].push_back(zrbench::Seconds(t0) * 1e6);
            }
            VirtualFree(pBuffer, 0, MEM_RELEASE);
        });
    for (std::thread& t : threads) t.join();
    run.dSeconds = zrbench::Seconds(start);
    run.bOk = bOk;
    for (auto& a : latencies) run.aLatencies.insert(run.aLatencies.end(), a.begin(), a.end());
    return run;
}

void Print(const char* szWhat, const Run& run, size_t nPages) {
    std::printf("%-22s %8.0f pages/s   p50 %8.1f us   p99 %8.1f us\n", szWhat, double(nPages) / run.dSeconds,
                Percentile(run.aLatencies, 0.5), Percentile(run.aLatencies, 0.99));
}

bool Measure(ZR_Database& db, const fs::path& path, const std::vector<PageAt>& pages, int nSubmitters) {
    zrtest::LiveIOCompletions port;
    HANDLE h = zrbench::OpenPlain(path);
    if (!port.Connected() || h == INVALID_HANDLE_VALUE) return false;
    std::atomic<uint64_t> iNextOp{1};
    const uint8_t bitmap[ZR_LiveIOEntry::ms_iBitmapBytes] = {};
    const Run live = Submit(pages, nSubmitters, [&](size_t i, void* pBuffer) {
        void* pOp = reinterpret_cast<void*>(iNextOp++);
        const PageAt& p = pages[i];
        return db.AddLiveIOEntry(pOp, pBuffer, p.id.m_iFileId, uint64_t{p.id.m_iPage} * ZR_PAGE_SIZE, ZR_PAGE_SIZE,
                                 bitmap, pOp) &&
               port.WaitForOp(reinterpret_cast<uint64_t>(pOp), 60s) == 0;
    });
    const Run plain = Submit(pages, nSubmitters,
                             [&](size_t i, void* pBuffer) { return zrbench::ReadPlainPage(h, pages[i].iFileOfs, pBuffer); });
    CloseHandle(h);
    if (!live.bOk || !plain.bOk) return false;
    std::printf("\n%d submitter%s, %zu random 8 KiB reads:\n", nSubmitters, nSubmitters > 1 ? "s" : "", pages.size());
    Print("plain reads", plain, pages.size());
    Print("live reads", live, pages.size());
    std::printf("ratio of live to plain pages/s: %.3f\n", plain.dSeconds / live.dSeconds);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const double dGigabytes = zrbench::Gigabytes(argc, argv);
    const int nReads = argc > 3 ? std::atoi(argv[3]) : kDefaultReads;
    if (dGigabytes <= 0 || nReads <= 0) {
        std::fprintf(stderr, "usage: live_bench [GB] [folder] [reads]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    const fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    const fs::path path = folder / "live_bench.bak";
    fs::create_directories(folder / "maps");
    std::wcsncpy(g_wszMapFilesFolder, (folder / "maps").wstring().c_str(), MAX_PATH - 1);
    if (!zrbench::WriteSyntheticBackup(path, dGigabytes)) return 1;
    bool bOk = false;
    {
        ZR_Database db(L"/tmp", GUID_NULL);
        db.SetMountKey(L"live-bench");
        ZR_Backup* pFull = db.NewFull();
        pFull->SetDataSetNumber(1);
        pFull->AddFile(path.wstring().c_str(), nullptr, false);
        if (db.PrepareContent() && db.PrepareAccess(ZR_StopInfo{}) && db.OpenBackups()) {
            std::printf("live I/O threads: %d\n", db.m_iNumLiveIOThreads);
            const std::vector<PageAt> pages = zrbench::PickPages(*pFull, nReads);
            bOk = !pages.empty() && Measure(db, path, pages, 1) && Measure(db, path, pages, 8);
        }
        if (!bOk) zrbench::PrintErrors(L"live-bench");
    }
    std::printf("\npeak RSS: %.1f MiB\n", zrbench::PeakRssMiB());
    fs::remove_all(folder / "maps");
    fs::remove(path);
    return bOk ? 0 : 1;
}
