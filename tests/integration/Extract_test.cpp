// zirlane extract end to end: the data files it writes from a real chain
// are held page by page against the naive restore of the test walker
// (differential over full), those of a striped synthetic chain against the
// writer's pages. (That every real chain serves the naive restore's pages is
// the page read and end-to-end mount tests'.)
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/FileBytes.h"
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/SyntheticBackup.h"
#include "support/CliRun.h"
#include "support/Resources.h"
#include "support/TestData.h"

namespace fs = std::filesystem;

namespace {

std::string LastComponent(const std::string& s) {
    size_t i = s.find_last_of("\\/");
    return i == std::string::npos ? s : s.substr(i + 1);
}

class Extract : public ::testing::Test {
protected:
    static fs::path Data(const std::string& rel) { return *zrtest::TestDataFile(rel); }

    zrtest::CliRun Zirlane(const std::vector<fs::path>& full, const std::vector<fs::path>& diff, const fs::path& out) {
        std::vector<std::string> args{"extract", "--map-folder", (m_tmp / "maps").string(), "-o", out.string(), "--full"};
        for (auto& f : full)
            args.push_back(f.string());
        if (!diff.empty())
            args.push_back("--diff");
        for (auto& f : diff)
            args.push_back(f.string());
        zrtest::CliRun run = zrtest::RunZirlane(args, m_tmp.path());
        run.sOut += run.sErr;  // what the program said, in one text
        return run;
    }

    // The naive restore of the backups, differential over full, and the
    // files of the last one's configuration, which name the files and sizes.
    struct Reference {
        zrtest::NaiveRestore pages;
        std::vector<zrtest::MtfSqlFile> files;
    };
    static Reference Expected(const std::vector<fs::path>& full, const std::vector<fs::path>& diff) {
        Reference ref;
        EXPECT_TRUE(ref.pages.Apply(full) && (diff.empty() || ref.pages.Apply(diff))) << ref.pages.Error();
        const zrtest::MtfWalk walk = zrtest::MtfWalker::WalkFile(diff.empty() ? full[0] : diff[0]);
        EXPECT_TRUE(walk.ok) << walk.fault;
        if (walk.DataSet(1))
            ref.files = walk.DataSet(1)->msci.files;
        return ref;
    }

    // Where the reference has a page the file has the same bytes, and a page
    // whose header version byte is 1 names itself and passes its checksum;
    // where it has none the file reads zeros and takes no disk.
    static void ExpectFiles(const fs::path& out, const Reference& ref) {
        int iFiles = 0;
        for (const zrtest::MtfSqlFile& file : ref.files) {
            SCOPED_TRACE(file.physicalName);
            const fs::path path = out / LastComponent(file.physicalName);
            if (file.fileType != 1) {
                EXPECT_FALSE(fs::exists(path)) << "no log file";
                continue;
            }
            ++iFiles;
            ASSERT_TRUE(fs::exists(path));
            ASSERT_EQ(fs::file_size(path), file.fileSize);
            const std::vector<uint8_t> bytes = zrtest::ReadFileBytes(path);
            const uint16_t fileId = static_cast<uint16_t>(file.fileId);
            static const std::vector<uint8_t> zeros(zrtest::kPageSize, 0);
            uint64_t iHeld = 0;
            for (uint32_t p = 0; p < file.fileSize / zrtest::kPageSize; ++p) {
                const uint8_t* page = bytes.data() + uint64_t{p} * zrtest::kPageSize;
                const uint8_t* want = ref.pages.Page(fileId, p);
                iHeld += want != nullptr;
                ASSERT_EQ(0, std::memcmp(page, want ? want : zeros.data(), zrtest::kPageSize)) << "page " << p;
                const zrtest::PageHeaderFields h = zrtest::ReadPageHeader(page);
                EXPECT_TRUE(!want || h.headerVersion != 1 ||
                            (h.pageNumber == p && h.fileId == fileId && zrtest::PageChecksumHolds(page)))
                    << "page " << p;
            }
            EXPECT_GT(iHeld, 0u);
            EXPECT_LE(zrtest::AllocatedBytes(path), iHeld * zrtest::kPageSize) << "only what a backup holds is written";
        }
        EXPECT_GT(iFiles, 0);
    }

    zrtest::TempDir m_tmp;
};

TEST_F(Extract, ASecondExtractReadsTheMapFilesAndScansNothing) {
    ZR_REQUIRE_TESTDATA();
    const fs::path full = Data("appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak");
    const fs::path diff = Data("appveyor-lab/RestoreTimeClean/RestoreTimeClean2.bak");
    zrtest::CliRun first = Zirlane({full}, {diff}, m_tmp / "a");
    ASSERT_EQ(first.iExit, 0) << first.sOut;
    EXPECT_NE(first.sOut.find("full backup: content map built, extent map built"), std::string::npos) << first.sOut;
    EXPECT_NE(first.sOut.find("differential backup: content map built, extent map built"), std::string::npos);
    zrtest::CliRun second = Zirlane({full}, {diff}, m_tmp / "b");
    ASSERT_EQ(second.iExit, 0) << second.sOut;
    EXPECT_NE(second.sOut.find("full backup: content map read, extent map read"), std::string::npos) << second.sOut;
    EXPECT_NE(second.sOut.find("differential backup: content map read, extent map read"), std::string::npos);
    ExpectFiles(m_tmp / "b", Expected({full}, {diff}));
}

TEST_F(Extract, RefusesADifferentialOfAnotherFullBackupAndALogBackup) {
    ZR_REQUIRE_TESTDATA();
    zrtest::CliRun run = Zirlane({Data("appveyor-lab/DoubleDiffing/difftest-full.bak")},
                      {Data("appveyor-lab/RestoreTimeClean/RestoreTimeClean2.bak")}, m_tmp / "x");
    EXPECT_EQ(run.iExit, 1);
    EXPECT_NE(run.sOut.find("is not of the database of"), std::string::npos) << run.sOut;

    run = Zirlane({Data("appveyor-lab/RestoreTimeClean/RestoreTimeClean_1.trn")}, {}, m_tmp / "y");
    EXPECT_EQ(run.iExit, 1);
    EXPECT_NE(run.sOut.find("This is not a Full Database backup."), std::string::npos) << run.sOut;
}

// No real backup has a striped differential: the synthetic writer's full
// backup and differential, both over three stripes, whose pages it can
// recompute.
TEST_F(Extract, AStripedDifferentialGoesOverAStripedFullBackup) {
    zrtest::SyntheticOptions o;
    o.stripes = 3;
    o.filePages = {640, 200};
    o.transferExtents = 2;
    zrtest::SyntheticBackup full(o);
    o.kind = zrtest::SyntheticKind::Differential;
    o.seed = 77;
    o.mediaFamilyId = 0x5EED0002;
    o.differentialBaseLsn = o.checkpointLsn;
    o.firstLsn = o.checkpointLsn = {30, 100, 1};
    o.lastLsn = {30, 200, 1};
    zrtest::SyntheticBackup diff(o);
    ASSERT_TRUE(full.Write(m_tmp / "full.bak")) << full.Error();
    ASSERT_TRUE(diff.Write(m_tmp / "diff.bak")) << diff.Error();
    std::vector<fs::path> aFull, aDiff;
    for (int s = 2; s >= 0; --s) {  // any order
        aFull.push_back(zrtest::SyntheticBackup::StripePath(m_tmp / "full.bak", s));
        aDiff.push_back(zrtest::SyntheticBackup::StripePath(m_tmp / "diff.bak", s));
    }
    zrtest::CliRun run = Zirlane(aFull, aDiff, m_tmp / "out");
    ASSERT_EQ(run.iExit, 0) << run.sOut;
    int iFromDiff = 0;
    std::vector<uint8_t> want(zrtest::kPageSize);
    for (const zrtest::SyntheticDataFile& f : full.DataFiles()) {
        const fs::path path = m_tmp / "out" / ("Synthetic_" + std::to_string(f.fileId) + ".mdf");
        ASSERT_EQ(fs::file_size(path), uint64_t{f.pages} * zrtest::kPageSize);
        const std::vector<uint8_t> bytes = zrtest::ReadFileBytes(path);
        for (uint32_t p = 0; p < f.pages; ++p) {
            const bool bDiff = diff.HoldsExtent(f.fileId, p / 8);
            iFromDiff += bDiff;
            (bDiff ? diff : full).ExpectedPage(1, f.fileId, p, want.data());
            ASSERT_EQ(0, std::memcmp(bytes.data() + uint64_t{p} * zrtest::kPageSize, want.data(), want.size()))
                << f.fileId << ":" << p << (bDiff ? " from the differential" : " from the full backup");
        }
    }
    EXPECT_GT(iFromDiff, 0);
}

}  // namespace
