// zirlane extract end to end: the data files it writes from the real
// backups are held page by page against the naive restore of the test
// walker (differential over full). Where the reference has a page the file
// has the same bytes, and a page whose header version byte is 1 names
// itself and passes its checksum; pages in leftover extents (version byte
// not 1, as in difftest-full.bak pages 173 to 183) are compared as bytes
// only. Where the reference has nothing the file reads zeros and is not
// allocated.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/win32.h"
#include "support/Manifest.h"
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/SyntheticBackup.h"
#include "support/ByteDamage.h"
#include "support/CliRun.h"
#include "support/RealMaps.h"
#include "support/Resources.h"
#include "support/TestData.h"

namespace fs = std::filesystem;

namespace {

std::string Slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

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

    // The naive restore of the backups, and the walk of the last one, whose
    // configuration names the files and sizes.
    static void Reference(const std::vector<fs::path>& full, const std::vector<fs::path>& diff,
                          zrtest::NaiveRestore* pRef, zrtest::MtfWalk* pWalk) {
        ASSERT_TRUE(pRef->Apply(full)) << pRef->Error();
        if (!diff.empty()) {
            ASSERT_TRUE(pRef->Apply(diff)) << pRef->Error();
        }
        *pWalk = zrtest::MtfWalker::WalkFile(diff.empty() ? full[0] : diff[0]);
        ASSERT_TRUE(pWalk->ok) << pWalk->fault;
    }

    // Extracts and holds every data file against the reference.
    void ExpectExtracted(const std::vector<fs::path>& full, const std::vector<fs::path>& diff) {
        zrtest::NaiveRestore ref;
        zrtest::MtfWalk walk;
        ASSERT_NO_FATAL_FAILURE(Reference(full, diff, &ref, &walk));
        fs::path out = m_tmp / ("out" + std::to_string(m_iRuns++));
        zrtest::CliRun run = Zirlane(full, diff, out);
        ASSERT_EQ(run.iExit, 0) << run.sOut;
        ExpectFiles(out, walk, ref);
    }

    void ExpectFiles(const fs::path& out, const zrtest::MtfWalk& walk, const zrtest::NaiveRestore& ref) {
        int iFiles = 0;
        for (const zrtest::MtfSqlFile& file : walk.DataSet(1)->msci.files) {
            if (file.fileType != 1) {
                EXPECT_FALSE(fs::exists(out / LastComponent(file.physicalName))) << "no log file";
                continue;
            }
            SCOPED_TRACE(file.physicalName);
            ExpectFile(out / LastComponent(file.physicalName), file, ref);
            ++iFiles;
        }
        EXPECT_GT(iFiles, 0);
    }

    void ExpectFile(const fs::path& path, const zrtest::MtfSqlFile& file, const zrtest::NaiveRestore& ref) {
        ASSERT_TRUE(fs::exists(path));
        ASSERT_EQ(fs::file_size(path), file.fileSize);
        std::string bytes = Slurp(path);
        const uint16_t fileId = static_cast<uint16_t>(file.fileId);
        static const std::vector<uint8_t> zeros(zrtest::kPageSize, 0);
        uint64_t iHeld = 0;
        for (uint32_t p = 0; p < file.fileSize / zrtest::kPageSize; ++p) {
            const uint8_t* page = reinterpret_cast<const uint8_t*>(bytes.data()) + uint64_t{p} * zrtest::kPageSize;
            const uint8_t* want = ref.Page(fileId, p);
            if (!want) {
                ASSERT_EQ(0, std::memcmp(page, zeros.data(), zrtest::kPageSize)) << "page " << p << " is no hole";
                continue;
            }
            ++iHeld;
            ASSERT_EQ(0, std::memcmp(page, want, zrtest::kPageSize)) << "page " << p;
            zrtest::PageHeaderFields h = zrtest::ReadPageHeader(page);
            if (h.headerVersion != 1)
                continue;
            EXPECT_EQ(h.pageNumber, p);
            EXPECT_EQ(h.fileId, fileId);
            EXPECT_TRUE(zrtest::PageChecksumHolds(page)) << "page " << p;
        }
        EXPECT_GT(iHeld, 0u);
        EXPECT_LE(zrtest::AllocatedBytes(path), iHeld * zrtest::kPageSize) << "only what a backup holds is written";
    }

    zrtest::TempDir m_tmp;
    int m_iRuns = 0;
};

TEST_F(Extract, EveryFullBackupOfVersionsNineAndTenGivesTheNaiveRestore) {
    ZR_REQUIRE_TESTDATA();
    int iChecked = 0;
    for (auto& e : zrtest::NativeBackups(9, 10)) {
        if (e.type != 'D' || e.stripes != 1)
            continue;
        SCOPED_TRACE(e.file);
        ExpectExtracted({Data(e.file)}, {});
        ++iChecked;
    }
    EXPECT_EQ(iChecked, 7);
}

TEST_F(Extract, AStripedFullBackupGivesTheNaiveRestore) {
    ZR_REQUIRE_TESTDATA();
    const std::string dir = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";
    ExpectExtracted({Data(dir + "Stripe1/RestoreTimeStripe.bak"), Data(dir + "Stripe2/RestoreTimeStripe1.bak")}, {});
}

TEST_F(Extract, DifferentialsGoOverTheirFullBackup) {
    ZR_REQUIRE_TESTDATA();
    const fs::path full = Data("appveyor-lab/DoubleDiffing/difftest-full.bak");
    ExpectExtracted({full}, {Data("appveyor-lab/DoubleDiffing/difftest-diff1.bak")});
    ExpectExtracted({full}, {Data("appveyor-lab/DoubleDiffing/difftest-diff2.bak")});
    ExpectExtracted({Data("appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak")},
                    {Data("appveyor-lab/RestoreTimeClean/RestoreTimeClean2.bak")});
}

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
    EXPECT_EQ(Slurp(m_tmp / "a" / "RestoreTimeClean.mdf"), Slurp(m_tmp / "b" / "RestoreTimeClean.mdf"));
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
        std::string bytes = Slurp(path);
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

// The maps of one extract serve the next from a shared folder. Damaged
// there, an extract gives the files of the naive restore, or fails with a
// message; never other pages with success.
TEST_F(Extract, DamagedExtentMapsGiveTheSameFilesOrARefusal) {
    ZR_REQUIRE_TESTDATA();
    constexpr int kTries = 10;
    zrtest::ByteDamage damage(8088);
    const std::pair<const char*, const char*> chains[] = {
        {"appveyor-lab/DoubleDiffing/difftest-full.bak", "appveyor-lab/DoubleDiffing/difftest-diff1.bak"},
        {"appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak", "appveyor-lab/RestoreTimeClean/RestoreTimeClean2.bak"}};
    for (auto [szFull, szDiff] : chains) {
        SCOPED_TRACE(szFull);
        const std::vector<fs::path> full{Data(szFull)}, diff{Data(szDiff)};
        zrtest::NaiveRestore ref;
        zrtest::MtfWalk walk;
        ASSERT_NO_FATAL_FAILURE(Reference(full, diff, &ref, &walk));
        fs::remove_all(m_tmp / "maps");
        ASSERT_EQ(Zirlane(full, diff, m_tmp / "first").iExit, 0);
        std::vector<fs::path> maps;
        for (auto& e : fs::directory_iterator(m_tmp / "maps"))
            if (e.path().extension() == ".xdm")
                maps.push_back(e.path());
        ASSERT_EQ(maps.size(), 2u) << "the full backup's and the differential's";
        for (int i = 0; i < kTries; ++i) {
            SCOPED_TRACE(i);
            const fs::path& xdm = maps[static_cast<size_t>(i) % maps.size()];
            const std::vector<uint8_t> good = zrtest::ReadFileBytes(xdm);
            const std::vector<uint8_t> bad = damage.Damage(good, 12);
            std::ofstream(xdm, std::ios::binary | std::ios::trunc)
                .write(reinterpret_cast<const char*>(bad.data()), static_cast<std::streamsize>(bad.size()));
            const fs::path out = m_tmp / ("damaged" + std::to_string(m_iRuns++));
            zrtest::CliRun run = Zirlane(full, diff, out);
            if (run.iExit == 0)
                ExpectFiles(out, walk, ref);
            else
                EXPECT_NE(run.sOut.find("extent map"), std::string::npos) << run.sOut;
            fs::remove_all(out);
        }
    }
}

// A data file of more than 16 TB is a damaged record: refused with a
// message, where it once made the program abort for want of memory.
TEST_F(Extract, ADataFileRecordedBeyond16TBIsRefused) {
    zrtest::SyntheticOptions o;
    o.recordedFileSizes = {uint64_t{1} << 45};
    zrtest::SyntheticBackup writer(o);
    ASSERT_TRUE(writer.Write(m_tmp / "huge.bak")) << writer.Error();
    zrtest::CliRun run = Zirlane({m_tmp / "huge.bak"}, {}, m_tmp / "out");
    EXPECT_EQ(run.iExit, 1) << run.sOut;
    EXPECT_NE(run.sOut.find("a data file holds at most 16 TB"), std::string::npos) << run.sOut;
}

}  // namespace
