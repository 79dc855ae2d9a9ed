// Hydration of real chains mounted as a service mounts them, with the
// embedded driver and its host side: the data files on disk end equal to
// the test walker's naive restore while readers check pages through the
// host side; progress, pause, the limit on active hydrations, Remove in the
// middle, a corrupted bitmap, and a process killed half-way.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "engine/ZR_Database.h"
#include "mount/ZR.h"
#include "platform/FileCallsTesting.h"
#include "support/ErrorText.h"
#include "support/ServedChain.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace zrtest;

namespace {

const std::string kDD = "appveyor-lab/DoubleDiffing/";
const std::string kClean = "appveyor-lab/RestoreTimeClean/";
const std::string kStripe = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";
const std::string kDb2 = "appveyor-lab/sql2008-backups/db2/";

const wchar_t kGuid[] = L"0c0ffee0-1234-4abc-9def-00112233aabb";

struct Chain {
    const char* name;
    std::vector<std::string> full;
    std::vector<std::string> diff = {};
    std::vector<std::string> logs = {};
    const wchar_t* stop = L"";
};

// Readers that check random pages through the host side until stopped.
class Readers {
public:
    Readers(ServedChain& chain, int iThreads) {
        for (int i = 0; i < iThreads; ++i)
            m_threads.emplace_back([this, &chain, i] {
                std::mt19937 rng(100 + i);
                while (!m_bStop) {
                    std::string strWhy;
                    if (!chain.CheckRandomRead(rng, &strWhy)) {
                        std::lock_guard guard(m_cs);
                        m_failures.push_back(strWhy);
                    }
                    ++m_iReads;
                }
            });
    }
    ~Readers() { Stop(); }
    void Stop() {
        m_bStop = true;
        for (std::thread& t : m_threads)
            if (t.joinable()) t.join();
    }
    int Reads() const { return m_iReads; }
    std::vector<std::string> Failures() {
        std::lock_guard guard(m_cs);
        return m_failures;
    }

private:
    std::atomic<bool> m_bStop{false};
    std::atomic<int> m_iReads{0};
    std::mutex m_cs;
    std::vector<std::string> m_failures;
    std::vector<std::thread> m_threads;
};

// Every figure WaitOnPercentChange gives until 10,000 or the end.
std::vector<int> WatchProgress(const wchar_t* wszKey, const std::atomic<bool>& bEnded) {
    std::vector<int> seen;
    do seen.push_back(WaitOnPercentChange(wszKey));
    while (seen.back() < 10000 && !bEnded);
    return seen;
}

class ServedChainHydration : public testing::TestWithParam<Chain> {};

TEST_P(ServedChainHydration, DataFilesEndEqualToTheBackupsWhileReadsGoOn) {
    ZR_REQUIRE_TESTDATA();
    ServedLibrary library;
    const Chain& c = GetParam();
    ServedChain chain(library, TestChain(c.full, c.diff, c.logs, c.stop), kGuid);
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    const fs::path marker = library.Folder() / "marker";
    std::ofstream(marker) << "hydrating";

    std::atomic<bool> bEnded{false};
    std::vector<int> progress;
    std::thread watcher([&] { progress = WatchProgress(chain.Key(), bEnded); });
    Readers readers(chain, 4);
    StartDataHydration(chain.Key(), marker.wstring().c_str(), 0);
    bEnded = true;
    watcher.join();
    while (readers.Reads() < 40) std::this_thread::sleep_for(1ms);
    readers.Stop();

    EXPECT_EQ(readers.Failures(), std::vector<std::string>{}) << ErrorTextNarrow(chain.Key()) << ErrorTextNarrow();
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

INSTANTIATE_TEST_SUITE_P(
    Chains, ServedChainHydration,
    testing::Values(
        Chain{"DoubleDiffingFull", {kDD + "difftest-full.bak"}},
        Chain{"DoubleDiffingDiff1", {kDD + "difftest-full.bak"}, {kDD + "difftest-diff1.bak"}},
        Chain{"DoubleDiffingDiff2", {kDD + "difftest-full.bak"}, {kDD + "difftest-diff2.bak"}},
        Chain{"RestoreTimeCleanFull", {kClean + "RestoreTimeClean.bak"}},
        Chain{"RestoreTimeCleanDiff", {kClean + "RestoreTimeClean.bak"}, {kClean + "RestoreTimeClean2.bak"}},
        Chain{"RestoreTimeCleanLogsStop",
              {kClean + "RestoreTimeClean.bak"},
              {kClean + "RestoreTimeClean2.bak"},
              {kClean + "RestoreTimeClean2_1.trn", kClean + "RestoreTimeClean2_2.trn", kClean + "RestoreTimeClean2_3.trn"},
              L"STOPAT='2017-06-01 13:25:00'"},
        Chain{"StripesInReverseOrder", {kStripe + "Stripe2/RestoreTimeStripe1.bak", kStripe + "Stripe1/RestoreTimeStripe.bak"}},
        Chain{"SecondStripedFull", {kStripe + "Stripe1/RestoreTimeStripe2.bak", kStripe + "Stripe2/RestoreTimeStripe2a.bak"}},
        Chain{"Db2Full", {kDb2 + "FULL/SQL2008_db2_FULL_20170518_041738.bak"}},
        Chain{"Db2Diff", {kDb2 + "FULL/SQL2008_db2_FULL_20170518_041738.bak"}, {kDb2 + "DIFF/SQL2008_db2_DIFF_20170518_041819.bak"}},
        Chain{"Version10_0", {"KhanhHoang123-Lap-trinh-web/backup.bak"}},
        Chain{"Version9Northwind", {"xandelima-MVCNorthwind/Northwind.bak"}},
        Chain{"Version9TwoDataSets", {"gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak"}},
        Chain{"PasswordMedia", {"appveyor-lab/backuppassword/passwd.bak"}}),
    [](const testing::TestParamInfo<Chain>& p) { return std::string(p.param.name); });

}  // namespace
