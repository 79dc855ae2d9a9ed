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
#include <semaphore>
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

// Each submitter waits for its own read's completion, as a worker of SQL
// Server waits for its read; the operation id names the submitter.
bool Measure(ZR_Database& db, const fs::path& path, const std::vector<PageAt>& pages, int nSubmitters) {
    std::vector<std::unique_ptr<std::binary_semaphore>> done;
    std::vector<std::atomic<int32_t>> results(nSubmitters);
    for (int s = 0; s < nSubmitters; ++s) done.push_back(std::make_unique<std::binary_semaphore>(0));
    zrtest::LiveIOCompletions port([&](uint64_t iOpId, int32_t hr) {
        const size_t s = size_t(iOpId >> 32) - 1;
        results[s] = hr;
        done[s]->release();
    });
    HANDLE h = zrbench::OpenPlain(path);
    if (!port.Connected() || h == INVALID_HANDLE_VALUE) return false;
    std::atomic<uint32_t> iNextRead{0};
    const uint8_t bitmap[ZR_LiveIOEntry::ms_iBitmapBytes] = {};
    const auto readPlain = [&](size_t i, size_t, void* pBuffer) { return zrbench::ReadPlainPage(h, pages[i].iFileOfs, pBuffer); };
    const auto readLive = [&](size_t i, size_t s, void* pBuffer) {
        void* pOp = reinterpret_cast<void*>(uint64_t(s + 1) << 32 | iNextRead++);
        const PageAt& p = pages[i];
        if (!db.AddLiveIOEntry(pOp, pBuffer, p.id.m_iFileId, uint64_t{p.id.m_iPage} * ZR_PAGE_SIZE, ZR_PAGE_SIZE,
                               bitmap, pOp))
            return false;
        return done[s]->try_acquire_for(60s) && results[s] == 0;
    };
    std::printf("\n%d submitter%s, %zu random 8 KiB reads:\n", nSubmitters, nSubmitters > 1 ? "s" : "", pages.size());
    const bool bOk = zrbench::MeasureAgainstPlain("live", pages.size(), nSubmitters, readPlain, readLive);
    CloseHandle(h);
    if (!bOk) return false;
    std::printf("reads taken by live I/O threads other than 0 so far: %d\n", g_iNumNon0ThreadActivity.load());
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
