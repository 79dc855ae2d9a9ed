// The virtual views of the real backups, read as RESTORE reads them (from
// offset 0 to the view's size in pieces of 64 KiB) and checked with the
// test walker and the naive restore, which share no code with the library.
#include "backup/ZR_Backup.h"
#include "support/CliRun.h"
#include "support/Manifest.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"
#include "support/VirtualView.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>

namespace fs = std::filesystem;
using namespace zrtest;

namespace {

constexpr uint32_t kPiece = 0x10000;
constexpr uint32_t kExtent = 0x10000;
constexpr uint32_t kPage = 0x2000;

std::vector<MtfSqlFile> DataFiles(const MtfSqlConfig& config) {
    std::vector<MtfSqlFile> files;
    for (const auto& f : config.files)
        if (f.fileType == 1)
            files.push_back(f);
    std::sort(files.begin(), files.end(), [](auto& a, auto& b) { return a.fileId < b.fileId; });
    return files;
}

uint64_t LoadU64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

class RealViews : public ::testing::Test {
protected:
    void SetUp() override { ZR_REQUIRE_TESTDATA(); }

    // The view of a single-file backup, whole, with its walk.
    struct View {
        std::unique_ptr<ZR_Backup> backup;
        std::vector<uint8_t> bytes;
        MtfWalk walk;
    };
    View Make(const fs::path& file, bool bDiffFollows) {
        View v;
        std::string error;
        v.backup = PrepareBackup({file}, bDiffFollows, &error);
        EXPECT_TRUE(v.backup) << error;
        if (!v.backup)
            return v;
        v.bytes = ReadWholeView(*v.backup, 0, kPiece, &error);
        EXPECT_FALSE(v.bytes.empty()) << error;
        v.walk = MtfWalker::WalkBytes(v.bytes);
        return v;
    }

    // The configuration of the view says 8 pages for each data file, the
    // kept size where it is cut, and otherwise what the real backup says.
    static void CheckConfig(const MtfSqlConfig& view, const MtfSqlConfig& real, bool bCutSizes) {
        ASSERT_TRUE(view.present);
        const uint32_t n = real.dataFileCount;
        ASSERT_EQ(view.files.size(), real.files.size());
        for (size_t i = 0; i < real.files.size(); ++i) {
            SCOPED_TRACE("file id " + std::to_string(real.files[i].fileId));
            if (real.files[i].fileType != 1) {
                EXPECT_EQ(view.files[i].backedUpPages, real.files[i].backedUpPages);
                EXPECT_EQ(view.files[i].fileSize, real.files[i].fileSize);
                continue;
            }
            EXPECT_EQ(view.files[i].backedUpPages, 8 * n);
            bool bZeroBase = real.files[i].differentialBaseLsn == MtfLsn{};
            uint64_t iExpected = bCutSizes || bZeroBase ? uint64_t{kExtent} * n : real.files[i].fileSize;
            EXPECT_EQ(view.files[i].fileSize, iExpected);
        }
    }

    // The first data stream holds extent 0 of each data file in file id
    // order. Pages inside allocated extents can be leftover bytes rather
    // than pages; only pages whose header version byte is 1 are compared.
    static void CheckFirstExtents(const View& v, const MtfSqlConfig& real, const NaiveRestore& naive, bool bFirst) {
        const MtfDataSet& set = v.walk.dataSets.front();
        if (!bFirst) {
            // An empty stream: no data run, or one of no bytes.
            for (const auto& r : set.data)
                EXPECT_EQ(r.length, 0u);
            return;
        }
        ASSERT_FALSE(set.data.empty());
        const MtfDataRun& run = set.data.front();
        std::vector<MtfSqlFile> files = DataFiles(real);
        ASSERT_EQ(run.length, uint64_t{kExtent} * files.size());
        int iCompared = 0;
        for (size_t k = 0; k < files.size(); ++k) {
            for (uint32_t p = 0; p < 8; ++p) {
                const uint8_t* pView = v.bytes.data() + run.offset + k * kExtent + p * kPage;
                const uint8_t* pReal = naive.Page(static_cast<uint16_t>(files[k].fileId), p);
                ASSERT_NE(pReal, nullptr) << "file " << files[k].fileId << " page " << p;
                if (pReal[0] != 1)
                    continue;
                EXPECT_EQ(std::memcmp(pView, pReal, kPage), 0) << "file " << files[k].fileId << " page " << p;
                ++iCompared;
            }
        }
        EXPECT_GT(iCompared, 0);
    }

    // Every filemark value that the view changes names a filemark block of
    // the view.
    static void CheckFilemarks(const View& v, const MtfWalk& real, const std::vector<uint8_t>& realBytes) {
        // The cuts hide no filemark; the view ends with the data set, so a
        // file with later data sets has more.
        ASSERT_LE(v.walk.filemarks.size(), real.filemarks.size());
        std::set<uint64_t> marks(v.walk.filemarks.begin(), v.walk.filemarks.end());
        for (size_t i = 0; i < v.walk.filemarks.size(); ++i) {
            size_t k = v.walk.filemarkArrayOffsets[i];
            uint64_t iView = LoadU64(v.bytes.data() + v.walk.filemarks[i] + k);
            uint64_t iReal = LoadU64(realBytes.data() + real.filemarks[i] + k);
            if (iView != iReal) {
                EXPECT_TRUE(marks.count(iView)) << "filemark " << i << " names " << iView;
            }
        }
    }

    static std::vector<uint8_t> ReadFile(const fs::path& file) {
        auto src = MtfSource::FromFile(file);
        std::vector<uint8_t> bytes(src->Size());
        EXPECT_TRUE(src->Read(0, bytes.data(), bytes.size()));
        return bytes;
    }

    void CheckDataBackup(const fs::path& file, bool bDiffFollows) {
        SCOPED_TRACE(bDiffFollows ? "with a differential following" : "alone");
        View v = Make(file, bDiffFollows);
        ASSERT_TRUE(v.backup);
        ASSERT_TRUE(v.walk.ok) << v.walk.fault << " at " << v.walk.faultOffset;
        MtfWalk real = MtfWalker::WalkFile(file);
        ASSERT_TRUE(real.ok);
        const MtfDataSet& rs = real.dataSets.front();
        const MtfDataSet& vs = v.walk.dataSets.front();
        NaiveRestore naive;
        ASSERT_TRUE(naive.Apply({file})) << naive.Error();
        CheckFirstExtents(v, rs.msci, naive, true);
        bool bCutSizes = rs.msci.backupType == 'D' || (rs.ssetAttributes & 4);
        CheckConfig(vs.msci, rs.msci, bCutSizes);
        CheckConfig(vs.msls, rs.msls, bCutSizes);
        if (bDiffFollows) {
            EXPECT_EQ(vs.msci.lastLsn, rs.msci.firstLsn);
            EXPECT_EQ(vs.msls.lastLsn, rs.msls.firstLsn);
            EXPECT_TRUE(vs.log.empty());
        } else {
            EXPECT_EQ(vs.msci.lastLsn, rs.msci.lastLsn);
            ASSERT_EQ(vs.log.size(), rs.log.size());
            for (size_t i = 0; i < rs.log.size(); ++i)
                EXPECT_EQ(vs.log[i].length, rs.log[i].length);
        }
        CheckFilemarks(v, real, ReadFile(file));
    }
};

TEST_F(RealViews, EveryNativeSingleFileBackupGivesAValidView) {
    int iChecked = 0;
    for (const auto& e : NativeBackups(9, 10)) {
        if (e.stripes != 1)
            continue;
        SCOPED_TRACE(e.file);
        fs::path file = *TestDataFile(e.file);
        TempDir maps;
        MapFolderScope scope(maps.path());
        if (e.type == 'L') {
            View v = Make(file, false);
            ASSERT_TRUE(v.backup);
            MtfWalk real = MtfWalker::WalkFile(file);
            ASSERT_FALSE(real.blocks.empty());
            // A log backup's view is the real file up to the start of its
            // last block.
            std::vector<uint8_t> bytes = ReadFile(file);
            ASSERT_EQ(v.bytes.size(), real.blocks.back().offset);
            EXPECT_TRUE(std::equal(v.bytes.begin(), v.bytes.end(), bytes.begin()));
        } else {
            CheckDataBackup(file, false);
            if (e.type == 'D')
                CheckDataBackup(file, true);
        }
        ++iChecked;
    }
    EXPECT_GT(iChecked, 10);
}

TEST_F(RealViews, StripeSetKeepsTheExtentsInTheFirstFileOnly) {
    fs::path first = *TestDataFile("appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe1/RestoreTimeStripe.bak");
    fs::path second = *TestDataFile("appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe2/RestoreTimeStripe1.bak");
    TempDir maps;
    MapFolderScope scope(maps.path());
    std::string error;
    // Named in the reverse order: the rows follow the stripe numbers.
    auto backup = PrepareBackup({second, first}, false, &error);
    ASSERT_TRUE(backup) << error;
    NaiveRestore naive;
    ASSERT_TRUE(naive.Apply({first, second})) << naive.Error();
    MtfWalk real = MtfWalker::WalkFile(first);
    for (int iDevice = 0; iDevice < 2; ++iDevice) {
        SCOPED_TRACE("stripe " + std::to_string(iDevice + 1));
        View v;
        v.bytes = ReadWholeView(*backup, iDevice, kPiece, &error);
        ASSERT_FALSE(v.bytes.empty()) << error;
        v.walk = MtfWalker::WalkBytes(v.bytes);
        ASSERT_TRUE(v.walk.ok) << v.walk.fault << " at " << v.walk.faultOffset;
        CheckFirstExtents(v, real.dataSets.front().msci, naive, iDevice == 0);
    }
}

// Reads at any offset and length, across the first extents, the hole, the
// log cut and the changed fields, give the bytes of the whole view.
TEST_F(RealViews, ReadsAtAnyOffsetEqualTheWholeView) {
    fs::path file = *TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak");
    TempDir maps;
    MapFolderScope scope(maps.path());
    View v = Make(file, true);
    ASSERT_TRUE(v.backup);
    ZR_VirtualBackupFile* pView = v.backup->m_aVirtualFiles(0);
    const uint64_t iSize = v.bytes.size();
    std::vector<uint64_t> aPlaces = {0, static_cast<uint64_t>(pView->m_iExtentsStart),
                                     static_cast<uint64_t>(pView->m_iHoleStart),
                                     static_cast<uint64_t>(pView->LogCutViewOffset())};
    for (int i = 0; i < pView->m_iNumVirtualchanges; ++i) {
        // Changes are stated in real offsets; behind the hole and the
        // MSLS they move down by the cuts.
        int64_t r = static_cast<int64_t>(pView->m_pChanges[i].m_iOffset);
        int64_t iView = r;
        if (r >= pView->m_iHoleStart + pView->m_iHoleLength)
            iView -= pView->m_iHoleLength;
        if (r >= pView->m_iMSLS)
            iView -= pView->LogCut();
        aPlaces.push_back(static_cast<uint64_t>(iView));
    }
    std::mt19937 rng(7);
    std::vector<uint8_t> aOut;
    int iReads = 0;
    for (uint64_t place : aPlaces) {
        for (int j = 0; j < 40; ++j) {
            int64_t iStart = static_cast<int64_t>(place) - static_cast<int64_t>(rng() % 9000);
            iStart = std::clamp<int64_t>(iStart, 0, static_cast<int64_t>(iSize) - 1);
            uint32_t n = 1 + rng() % (j < 20 ? 16 : 150000);
            n = static_cast<uint32_t>(std::min<uint64_t>(n, iSize - iStart));
            aOut.assign(n, 0xCD);
            ASSERT_TRUE(ReadViewAt(*v.backup, 0, iStart, n, aOut.data())) << "at " << iStart << " length " << n;
            ASSERT_EQ(std::memcmp(aOut.data(), v.bytes.data() + iStart, n), 0) << "at " << iStart << " length " << n;
            ++iReads;
        }
    }
    EXPECT_GT(iReads, 200);
}

}  // namespace

namespace {

// zirlane view writes exactly what reads of the view return, read here in
// pieces of 1 MiB rather than the command's 64 KiB.
class ViewCommand : public ::testing::Test {
protected:
    void SetUp() override { ZR_REQUIRE_TESTDATA(); }

    int Run(std::vector<std::string> args, std::string* pOut) {
        args.insert(args.begin(), {"view", "--map-folder", (m_tmp / "maps").string()});
        zrtest::CliRun run = zrtest::RunZirlane(args, m_tmp.path());
        *pOut = run.sOut + run.sErr;
        return run.iExit;
    }

    static std::vector<uint8_t> Bytes(const fs::path& file) {
        auto src = MtfSource::FromFile(file);
        std::vector<uint8_t> b(src ? src->Size() : 0);
        if (src && !b.empty()) {
            EXPECT_TRUE(src->Read(0, b.data(), b.size()));
        }
        return b;
    }

    TempDir m_tmp;
};

TEST_F(ViewCommand, WritesTheViewOfTheChosenStripe) {
    fs::path first = *TestDataFile("appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe1/RestoreTimeStripe.bak");
    fs::path second = *TestDataFile("appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe2/RestoreTimeStripe1.bak");
    std::string out;
    for (int iStripe : {1, 2}) {
        SCOPED_TRACE("stripe " + std::to_string(iStripe));
        fs::path file = m_tmp / ("view" + std::to_string(iStripe) + ".bxk");
        ASSERT_EQ(Run({"--diff-follows", "--stripe", std::to_string(iStripe), "-o", file.string(), second.string(),
                       first.string()},
                      &out),
                  0)
            << out;
        std::vector<uint8_t> written = Bytes(file);
        EXPECT_NE(out.find(std::to_string(written.size()) + " bytes"), std::string::npos) << out;

        MapFolderScope scope(m_tmp / "maps");
        std::string error;
        auto backup = PrepareBackup({first, second}, true, &error);
        ASSERT_TRUE(backup) << error;
        EXPECT_EQ(written, ReadWholeView(*backup, iStripe - 1, 0x100000, &error)) << error;
        MtfWalk walk = MtfWalker::WalkBytes(written);
        EXPECT_TRUE(walk.ok) << walk.fault;
        EXPECT_TRUE(walk.dataSets.front().log.empty());
    }
}

TEST_F(ViewCommand, RefusesAStripeTheBackupLacksAndADifferentialOverADifferential) {
    fs::path full = *TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak");
    fs::path diff = *TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak");
    std::string out;
    EXPECT_EQ(Run({"--stripe", "2", "-o", (m_tmp / "a.bxk").string(), full.string()}, &out), 1);
    EXPECT_NE(out.find("has no stripe 2"), std::string::npos) << out;
    EXPECT_EQ(Run({"--diff-follows", "-o", (m_tmp / "b.bxk").string(), diff.string()}, &out), 1);
    EXPECT_NE(out.find("This is not a Full Database backup."), std::string::npos) << out;
    // A differential alone is fine.
    EXPECT_EQ(Run({"-o", (m_tmp / "c.bxk").string(), diff.string()}, &out), 0) << out;
    EXPECT_TRUE(MtfWalker::WalkFile(m_tmp / "c.bxk").ok);
}

}  // namespace
