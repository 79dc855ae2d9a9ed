// Hydration of mounts brought online as a service and SQL Server bring them
// (the exports, the embedded driver, the emulator's RESTORE through the
// driver's host side): the data files on disk end equal to the test
// walker's naive restore while readers check pages as the database reads
// them; progress, pause, the limit on active hydrations, the end of a mount
// in the middle, a corrupted bitmap, and a process killed half-way.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <thread>

#include "driver/ZR_DriverCommands.h"
#include "engine/ZR_Database.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "mount/ZR.h"
#include "platform/FileCallsTesting.h"
#include "support/ErrorText.h"
#include "support/FileBytes.h"
#include "support/HydrationMount.h"
#include "support/ReadFileHook.h"
#include "support/RealChains.h"
#include "support/SyntheticBackup.h"
#include "support/WaitUntil.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace zrtest;

namespace {

const wchar_t kGuid[] = L"0c0ffee0-1234-4abc-9def-00112233aabb";

// Readers that check random pages through the host side until stopped.
class Readers {
public:
    Readers(HydrationMount& chain, int iThreads) : m_failures(size_t(iThreads)) {
        for (size_t i = 0; i < m_failures.size(); ++i)
            m_threads.emplace_back([this, &chain, i](std::stop_token stop) {
                std::mt19937 rng(static_cast<unsigned>(100 + i));
                for (std::string strWhy; !stop.stop_requested(); ++m_iReads)
                    if (!chain.CheckRandomRead(rng, &strWhy)) m_failures[i] += strWhy + "\n";
            });
    }
    int Reads() const { return m_iReads; }
    // Stops them; what they found wrong.
    std::string Stop() {
        m_threads.clear();
        std::string strAll;
        for (const std::string& str : m_failures) strAll += str;
        return strAll;
    }

private:
    std::atomic<int> m_iReads{0};
    std::vector<std::string> m_failures;
    std::vector<std::jthread> m_threads;  // last, so that they stop first
};

// Every figure WaitOnPercentChange gives until 10,000 or the end.
std::vector<int> WatchProgress(const wchar_t* wszKey, const std::atomic<bool>& bEnded) {
    std::vector<int> seen;
    do seen.push_back(WaitOnPercentChange(wszKey));
    while (seen.back() < 10000 && !bEnded);
    return seen;
}

class EveryChain : public testing::TestWithParam<RealChain> {};

TEST_P(EveryChain, HydratesToTheBackupsWhileReadsGoOn) {
    ZR_REQUIRE_TESTDATA();
    RunningService service;
    ASSERT_TRUE(service.Up()) << service.Error();
    HydrationMount chain(service, InTestData(GetParam().request));
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    const fs::path marker = service.Folder() / "marker";
    std::ofstream(marker) << "hydrating";

    std::atomic<bool> bEnded{false};
    std::vector<int> progress;
    std::thread watcher([&] { progress = WatchProgress(chain.Key(), bEnded); });
    Readers readers(chain, 4);
    StartDataHydration(chain.Key(), marker.wstring().c_str(), 0);
    bEnded = true;
    watcher.join();
    ASSERT_TRUE(WaitUntil([&] { return readers.Reads() >= 40; }));
    EXPECT_EQ(readers.Stop(), "") << ErrorTextNarrow(chain.Key()) << ErrorTextNarrow();
    bool bDeleted = true;
    EXPECT_TRUE(DatabaseHydrationDone(chain.Key(), &bDeleted));
    EXPECT_FALSE(bDeleted);
    EXPECT_TRUE(fs::exists(marker.string() + ".completed"));
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_EQ(chain.CompareSparseFiles(), "");
    ASSERT_FALSE(progress.empty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.back(), 10000);
    long long iDone = 0, iTotal = 0;
    GetPercentComplete(chain.Key(), &iDone, &iTotal);
    EXPECT_EQ(iDone, iTotal);
    EXPECT_GT(iTotal, 0);
}

INSTANTIATE_TEST_SUITE_P(RealBackups, EveryChain, testing::ValuesIn(RealChains()),
                         [](const testing::TestParamInfo<RealChain>& param) { return param.param.strName; });

// ---------------------------------------------------------------------------
// Control of a running hydration, on a synthetic backup whose reads are
// slowed down so that a hydration lasts long enough to be met half-way.
// ---------------------------------------------------------------------------

const wchar_t kOtherGuid[] = L"0c0ffee0-1234-4abc-9def-00112233aabc";

// A full backup of two data files of iPages and iPages / 2 pages, mounted
// with the GUID; false when it could not be written.
bool WriteSynthetic(const fs::path& folder, std::uint32_t iPages) {
    SyntheticOptions o;
    o.filePages = {iPages, iPages / 2};
    return SyntheticBackup(o).Write(folder / "synthetic.bak");
}

MountRequest Synthetic(const fs::path& folder, const wchar_t* wszGuid = kGuid) {
    return MountRequest{.full = {folder / "synthetic.bak"}, .wszGuid = wszGuid};
}

ZR_Database& Database(const HydrationMount& chain) { return *ZR::FindDatabase(chain.Key()); }

class HydrationControl : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_service.Up()) << m_service.Error();
        ASSERT_TRUE(WriteSynthetic(m_service.Folder(), 1024));
    }
    MountRequest Files(const wchar_t* wszGuid = kGuid) { return Synthetic(m_service.Folder(), wszGuid); }

    ReadFileHook m_slow;
    RunningService m_service;
};

// Paused in the middle, no page is pushed for longer than a paused thread
// sleeps, while reads still get correct pages; resumed, it ends complete.
TEST_F(HydrationControl, PauseHoldsTheDriverStillWhileReadsGoOn) {
    HydrationMount chain(m_service, Files());
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    m_slow.Install(ReadFileHook::Slow(50));
    std::thread hydration([&] { StartDataHydration(chain.Key(), nullptr, 0); });
    ZR_Database& db = Database(chain);
    ASSERT_TRUE(WaitUntil([&] { return db.m_TotalHydratedByDataPasses > 0; }));
    EXPECT_TRUE(PauseHydration(chain.Key()));
    EXPECT_TRUE(IsHydrationPaused(chain.Key()));
    EXPECT_FALSE(IsHydrating(chain.Key()));
    std::this_thread::sleep_for(300ms);  // the chunk in hand
    const uint64_t iPresent = chain.PresentBytes(), iPushed = db.m_TotalHydratedByDataPasses;
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(chain.PresentBytes(), iPresent);
    std::mt19937 rng(5);
    for (int i = 0; i < 10; ++i) {
        std::string strWhy;
        EXPECT_TRUE(chain.CheckRandomRead(rng, &strWhy)) << strWhy;
    }
    EXPECT_EQ(db.m_TotalHydratedByDataPasses, iPushed);
    EXPECT_LT(iPresent, db.m_iTotalBytesToHydrate);
    EXPECT_TRUE(ResumeHydration(chain.Key()));
    EXPECT_TRUE(IsHydrating(chain.Key()));
    hydration.join();
    EXPECT_TRUE(DatabaseHydrationDone(chain.Key(), nullptr));
    EXPECT_EQ(chain.CompareSparseFiles(), "");
}

// With one active hydration at most, the mount with the larger order key
// pushes nothing until the first has ended, then goes on to its end.
TEST_F(HydrationControl, ASecondHydrationWaitsForTheFirstWhenOneMayRun) {
    HydrationMount first(m_service, Files()), second(m_service, Files(kOtherGuid));
    ASSERT_TRUE(first.Ready() && second.Ready()) << first.Error() << second.Error();
    SetMaxActiveHydrations(1);
    m_slow.Install(ReadFileHook::Slow(20));
    std::atomic<bool> bFirstEnded{false};
    std::thread a([&] {
        StartDataHydration(first.Key(), nullptr, 10);
        bFirstEnded = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return Database(first).m_TotalHydratedByDataPasses > 0; }));
    std::thread b([&] { StartDataHydration(second.Key(), nullptr, 20); });
    ASSERT_TRUE(WaitUntil([&] { return IsHydrating(second.Key()); }));
    ZR_Database& db = Database(second);
    while (!bFirstEnded) {
        ASSERT_EQ(db.m_DataDrivenHydrationPasses, 0);
        std::this_thread::sleep_for(1ms);
    }
    b.join();
    a.join();
    SetMaxActiveHydrations(1000);
    EXPECT_TRUE(DatabaseHydrationDone(second.Key(), nullptr));
    EXPECT_EQ(first.CompareSparseFiles(), "");
    EXPECT_EQ(second.CompareSparseFiles(), "");
}

size_t ThreadCount() {
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

// Remove, the end of the library, and a driver that stops end a hydration
// in the middle within seconds. The first two leave no thread and no
// handle of the mount behind; the driver's end leaves the mount
// incomplete.
enum class Ending { kRemove, kUninitialize, kDriverStops };

class HydrationEnds : public HydrationControl, public testing::WithParamInterface<Ending> {};

TEST_P(HydrationEnds, WithinSecondsInTheMiddle) {
    // The library's connection to the control port lasts until its end;
    // after an earlier end in this process the mount would open it anew.
    ASSERT_TRUE(OpenControlCommunicationPort());
    const size_t iThreads = ThreadCount(), iHandles = zr::platform::testing::OpenHandleCount();
    {
        HydrationMount chain(m_service, Files());
        ASSERT_TRUE(chain.Ready()) << chain.Error();
        m_slow.Install(ReadFileHook::Slow(50));
        std::thread hydration([&] { StartDataHydration(chain.Key(), nullptr, 0); });
        ASSERT_TRUE(WaitUntil([&] { return Database(chain).m_TotalHydratedByDataPasses > 0; }));
        const auto start = std::chrono::steady_clock::now();
        switch (GetParam()) {
            case Ending::kRemove: Remove(chain.Key()); break;
            case Ending::kUninitialize: UninitializeForExit(); break;
            case Ending::kDriverStops: ZR_FilterDriver::Stop(); break;
        }
        hydration.join();
        EXPECT_LT(std::chrono::steady_clock::now() - start, GetParam() == Ending::kDriverStops ? 8s : 3s);
        if (GetParam() == Ending::kDriverStops) {
            EXPECT_FALSE(DatabaseHydrationDone(chain.Key(), nullptr));
            return;
        }
        EXPECT_EQ(ZR::FindDatabase(chain.Key()), nullptr);
    }
    // A thread that has signalled its end may take a moment to leave. The
    // end of the library also ends its service's threads and handles.
    const bool bService = GetParam() == Ending::kUninitialize;
    EXPECT_TRUE(WaitUntil([&] { return bService ? ThreadCount() < iThreads : ThreadCount() == iThreads; }, 1s))
        << ThreadCount() << " threads, not " << iThreads;
    if (bService)
        EXPECT_LT(zr::platform::testing::OpenHandleCount(), iHandles);
    else
        EXPECT_EQ(zr::platform::testing::OpenHandleCount(), iHandles);
}

std::string EndingName(const testing::TestParamInfo<Ending>& info) {
    const char* aszNames[] = {"Remove", "Uninitialize", "DriverStops"};
    return aszNames[int(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Endings, HydrationEnds,
                         testing::Values(Ending::kRemove, Ending::kUninitialize, Ending::kDriverStops), EndingName);

// A bitmap that fails its check stops hydration: the mount reads as done,
// its database as gone, and the marker keeps its name.
TEST_F(HydrationControl, ACorruptedBitmapStopsHydration) {
    HydrationMount chain(m_service, Files());
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    // Both slots of each bitmap hold a store once a read has changed what
    // the restore left; the driver loads them again when the files reopen.
    for (const HydrationMount::DataFile& file : chain.DataFiles()) {
        uint8_t aPage[8192];
        uint32_t cbRead = 0;
        ASSERT_EQ(chain.Sql().ReadData(file.fileId, 8 * sizeof aPage, aPage, sizeof aPage, &cbRead), 0);
    }
    chain.Sql().CloseDataFiles();
    int iCorrupted = 0;
    for (const auto& entry : fs::directory_iterator(m_service.Folder() / "sparse")) {
        if (entry.path().extension() != ".bitmap") continue;
        ASSERT_EQ(entry.file_size(), 8192u) << entry.path();
        for (uint64_t iSlot : {0, 4096}) PatchFile(entry.path(), iSlot + 40, "\x5A", 1);
        ++iCorrupted;
    }
    ASSERT_EQ(iCorrupted, 2);
    ASSERT_TRUE(chain.Sql().OpenDataFiles());
    const fs::path marker = m_service.Folder() / "marker";
    std::ofstream(marker) << "hydrating";
    StartDataHydration(chain.Key(), marker.wstring().c_str(), 0);
    bool bDeleted = false;
    EXPECT_TRUE(DatabaseHydrationDone(chain.Key(), &bDeleted));
    EXPECT_TRUE(bDeleted);
    EXPECT_TRUE(fs::exists(marker));
    EXPECT_EQ(Database(chain).m_TotalHydratedByDataPasses, 0u);
}

// ---------------------------------------------------------------------------
// A process killed in the middle of a hydration: the test binary runs the
// child test in a process of its own, which kills itself with SIGKILL
// half-way, and hydrates the same sparse folder again.
// ---------------------------------------------------------------------------

constexpr char kChildFolder[] = "ZR_HYDRATION_CHILD_FOLDER";
constexpr std::uint32_t kKilledPages = 4096;

// Hydrates slowly and, past 40%, is killed: no destructor, no stop of the
// driver, no store of a bitmap. The parent judges.
TEST(HydrationKilled, Child) {
    const char* szFolder = std::getenv(kChildFolder);
    if (!szFolder) GTEST_SKIP() << "runs only as the child of KilledHalfWayTheNextProcessFinishes";
    ReadFileHook slow;
    RunningService service(szFolder);
    ASSERT_TRUE(service.Up()) << service.Error();
    HydrationMount chain(service, Synthetic(szFolder));
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    slow.Install(ReadFileHook::Slow(100));
    std::thread hydration([&] { StartDataHydration(chain.Key(), nullptr, 0); });
    long long iDone = 0, iTotal = 0;
    const bool bHalfWay = WaitUntil([&] {
        GetPercentComplete(chain.Key(), &iDone, &iTotal);
        return iTotal > 0 && iDone * 10 >= iTotal * 4;
    }, 30s);
    if (!bHalfWay || iDone == iTotal) std::cerr << "not met half-way: " << iDone << " of " << iTotal << std::endl;
    if (bHalfWay && iDone < iTotal) std::raise(SIGKILL);
    std::_Exit(1);
}

TEST(HydrationKilled, KilledHalfWayTheNextProcessFinishes) {
    TempDir tmp;
    ASSERT_TRUE(WriteSynthetic(tmp.path(), kKilledPages));
    const std::string strChild = std::string(kChildFolder) + "=" + tmp.path().string() + " " +
                                 fs::read_symlink("/proc/self/exe").string() +
                                 " --gtest_filter=HydrationKilled.Child > " + (tmp / "child.log").string() + " 2>&1";
    // Killed, as the shell that ran it or the child itself reports it.
    const int iStatus = std::system(strChild.c_str());
    ASSERT_TRUE((iStatus & 0x7f) == SIGKILL || iStatus >> 8 == 128 + SIGKILL)
        << iStatus << "\n" << std::ifstream(tmp / "child.log").rdbuf();

    RunningService service(tmp.path());
    ASSERT_TRUE(service.Up()) << service.Error();
    HydrationMount chain(service, Synthetic(tmp.path()));
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    const uint64_t iFound = chain.PresentBytes();
    StartDataHydration(chain.Key(), nullptr, 0);
    ZR_Database& db = Database(chain);
    EXPECT_TRUE(db.IsHydrationDone());
    EXPECT_GT(iFound, db.m_iTotalBytesToHydrate / 4) << "the pages that the killed process wrote";
    EXPECT_LE(db.m_TotalHydratedByDataPasses, db.m_iTotalBytesToHydrate - iFound);
    EXPECT_EQ(chain.CompareSparseFiles(), "");
}

}  // namespace
