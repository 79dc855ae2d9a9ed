// The virtual views of the real backups, checked with the test walker and
// the naive restore, which share no code with the library: the view walks
// clean; its configuration says what the cut leaves; its first data stream
// holds the first extent of each data file; behind it stands the real
// block's empty closing stream, after an alignment pad where the cut is not
// a whole number of filemark blocks (a checksum stream before the empty
// one); its filemarks name filemarks of the view. Views are read as RESTORE
// reads them (from offset 0 in pieces of 64 KiB), some also in pieces of any
// length, in any order, cut through the changed fields.
#include "backup/ZR_Backup.h"
#include "support/CliRun.h"
#include "support/FileBytes.h"
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
constexpr uint32_t kStreamHeader = 22;

const char kStripes[] = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";

uint64_t LoadU64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The data files of a configuration, by file id.
std::vector<MtfSqlFile> DataFiles(const MtfSqlConfig& config) {
    std::vector<MtfSqlFile> files;
    for (const auto& f : config.files)
        if (f.fileType == 1)
            files.push_back(f);
    std::sort(files.begin(), files.end(), [](auto& a, auto& b) { return a.fileId < b.fileId; });
    return files;
}

// Reads that start and end anywhere, in random order: cuts at random
// places and through every changed field of the view.
std::vector<uint8_t> ReadInPieces(ZR_Backup& backup, std::mt19937& rng) {
    const ZR_VirtualBackupFile& v = *backup.m_aVirtualFiles(0);
    const uint64_t iSize = static_cast<uint64_t>(backup.GetVirtualSize(0));
    std::set<uint64_t> cuts = {0, iSize};
    for (int i = 0; i < 40; ++i)
        cuts.insert(rng() % iSize);
    for (int i = 0; i < v.m_iNumVirtualchanges; ++i) {
        // Changes are stated in real offsets; behind the cuts they move down.
        int64_t r = static_cast<int64_t>(v.m_pChanges[i].m_iOffset), iView = r;
        if (r >= v.m_iHoleStart + v.m_iHoleLength)
            iView -= v.m_iHoleLength;
        if (r >= v.m_iMSLS)
            iView -= v.LogCut();
        cuts.insert(static_cast<uint64_t>(iView) + rng() % v.m_pChanges[i].m_iLength);
    }
    std::vector<std::pair<uint64_t, uint64_t>> pieces;
    for (auto it = cuts.begin(); std::next(it) != cuts.end(); ++it)
        pieces.emplace_back(*it, *std::next(it));
    std::shuffle(pieces.begin(), pieces.end(), rng);
    std::vector<uint8_t> bytes(iSize, 0xCD);
    for (auto [iFrom, iTo] : pieces)
        if (!ReadViewAt(backup, 0, iFrom, static_cast<uint32_t>(iTo - iFrom), bytes.data() + iFrom)) {
            ADD_FAILURE() << "read of " << iTo - iFrom << " bytes at " << iFrom << ": " << ErrorChainText();
            return {};
        }
    return bytes;
}

struct View {
    std::unique_ptr<ZR_Backup> backup;
    std::vector<uint8_t> bytes;
    MtfWalk walk;
};

// The first data stream holds extent 0 of each data file in file id
// order (in the first stripe; the others hold none), and a read that
// starts inside one file's extent and ends in the next file's gives
// both (when the view has its backup object). Pages inside allocated extents can be leftover bytes rather
// than pages: the bytes are compared, whatever their header says.
void CheckFirstExtents(const View& v, const MtfSqlConfig& real, const NaiveRestore& naive, bool bFirst) {
    const MtfDataSet& set = v.walk.dataSets.front();
    if (!bFirst) {
        for (const auto& r : set.data)
            EXPECT_EQ(r.length, 0u);
        return;
    }
    ASSERT_FALSE(set.data.empty());
    const MtfDataRun& run = set.data.front();
    const std::vector<MtfSqlFile> files = DataFiles(real);
    ASSERT_EQ(run.length, uint64_t{kExtent} * files.size());
    std::vector<uint8_t> want;
    for (const MtfSqlFile& f : files)
        for (uint32_t p = 0; p < 8; ++p) {
            const uint8_t* pPage = naive.Page(static_cast<uint16_t>(f.fileId), p);
            ASSERT_NE(pPage, nullptr) << "file " << f.fileId << " page " << p;
            want.insert(want.end(), pPage, pPage + kPage);
        }
    EXPECT_TRUE(std::equal(want.begin(), want.end(), v.bytes.begin() + static_cast<std::ptrdiff_t>(run.offset)));
    for (size_t k = 1; v.backup && k < files.size(); ++k) {
        const uint64_t iFrom = (k - 1) * kExtent + 5 * kPage + 100;
        std::vector<uint8_t> got(kExtent);
        ASSERT_TRUE(ReadViewAt(*v.backup, 0, run.offset + iFrom, kExtent, got.data())) << ErrorChainText();
        EXPECT_TRUE(std::equal(got.begin(), got.end(), want.begin() + static_cast<std::ptrdiff_t>(iFrom)))
            << "a read from file " << files[k - 1].fileId << " into file " << files[k].fileId;
    }
}

class RealViews : public ::testing::Test {
protected:
    void SetUp() override { ZR_REQUIRE_TESTDATA(); }

    // The view of stripe iDevice, whole, with its walk (a log backup's
    // view, which ends before its last block, does not walk whole); pRng:
    // read in pieces of any length in any order.
    View Make(const std::vector<fs::path>& files, bool bDiffFollows, int iDevice = 0, std::mt19937* pRng = nullptr) {
        View v;
        std::string error;
        v.backup = PrepareBackup(files, bDiffFollows, &error);
        EXPECT_TRUE(v.backup) << error;
        if (!v.backup)
            return v;
        v.bytes = pRng ? ReadInPieces(*v.backup, *pRng) : ReadWholeView(*v.backup, iDevice, kPiece, &error);
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
            const bool bData = real.files[i].fileType == 1;
            const bool bCut = bData && (bCutSizes || real.files[i].differentialBaseLsn == MtfLsn{});
            EXPECT_EQ(view.files[i].backedUpPages, bData ? 8 * n : real.files[i].backedUpPages);
            EXPECT_EQ(view.files[i].fileSize, bCut ? uint64_t{kExtent} * n : real.files[i].fileSize);
        }
    }

    // Behind the kept extents stands the empty stream that closes the real
    // block, at a place that differs from its real one by whole filemark
    // blocks; an alignment pad fills what lies between. Whether there is one.
    static bool CheckClosingStream(const View& v, const MtfWalk& real, const std::vector<uint8_t>& realBytes) {
        const MtfDataRun& kept = v.walk.dataSets.front().data.front();
        const MtfDataRun& data = real.dataSets.front().data.front();
        uint64_t iView = kept.offset + kept.length;
        const bool bPad = std::memcmp(v.bytes.data() + iView, "APAD", 4) == 0;
        if (bPad)
            iView = (iView + kStreamHeader + LoadU64(v.bytes.data() + iView + 8) + 3) & ~uint64_t{3};
        uint64_t iReal = data.offset + data.length;
        while (std::memcmp(realBytes.data() + iReal, "MQDA", 4) != 0 && iReal < realBytes.size())
            iReal = (iReal + kStreamHeader + LoadU64(realBytes.data() + iReal + 8) + 3) & ~uint64_t{3};
        EXPECT_EQ(LoadU64(realBytes.data() + iReal + 8), 0u) << "the real closing stream is empty";
        EXPECT_EQ(std::memcmp(v.bytes.data() + iView, realBytes.data() + iReal, kStreamHeader), 0)
            << "view " << iView << ", real " << iReal;
        EXPECT_EQ((iReal - iView) % real.softFilemarkSize, 0u) << "the cut is whole filemark blocks";
        EXPECT_EQ(bPad, iReal != data.offset + data.length) << "a pad exactly where a stream lies between";
        return bPad;
    }

    // Every filemark value that the view changes names a filemark block of
    // the view.
    static void CheckFilemarks(const View& v, const MtfWalk& real, const std::vector<uint8_t>& realBytes) {
        // The cuts hide no filemark; the view ends with the data set, so a
        // file with later data sets has more.
        ASSERT_LE(v.walk.filemarks.size(), real.filemarks.size());
        std::set<uint64_t> marks(v.walk.filemarks.begin(), v.walk.filemarks.end());
        for (size_t i = 0; i < v.walk.filemarks.size(); ++i) {
            const size_t k = v.walk.filemarkArrayOffsets[i];
            const uint64_t iView = LoadU64(v.bytes.data() + v.walk.filemarks[i] + k);
            EXPECT_TRUE(iView == LoadU64(realBytes.data() + real.filemarks[i] + k) || marks.count(iView))
                << "filemark " << i << " names " << iView;
        }
    }

    // Checks the view of a full or differential backup; whether an
    // alignment pad stands behind its kept extents.
    bool CheckDataBackup(const fs::path& file, bool bDiffFollows, std::mt19937* pRng = nullptr) {
        SCOPED_TRACE(bDiffFollows ? "with a differential following" : "alone");
        TempDir maps;
        MapFolderScope scope(maps.path());
        const View v = Make({file}, bDiffFollows, 0, pRng);
        const std::vector<uint8_t> realBytes = ReadFileBytes(file);
        const MtfWalk real = MtfWalker::WalkBytes(realBytes);
        NaiveRestore naive;
        if (!v.walk.ok || !real.ok || !naive.Apply({file})) {
            ADD_FAILURE() << v.walk.fault << " at " << v.walk.faultOffset << real.fault << naive.Error();
            return false;
        }
        const MtfDataSet& rs = real.dataSets.front();
        const MtfDataSet& vs = v.walk.dataSets.front();
        CheckFirstExtents(v, rs.msci, naive, true);
        const bool bCutSizes = rs.msci.backupType == 'D' || (rs.ssetAttributes & 4);
        CheckConfig(vs.msci, rs.msci, bCutSizes);
        CheckConfig(vs.msls, rs.msls, bCutSizes);
        if (bDiffFollows) {
            EXPECT_EQ(vs.msci.lastLsn, rs.msci.firstLsn);
            EXPECT_EQ(vs.msls.lastLsn, rs.msls.firstLsn);
            EXPECT_TRUE(vs.log.empty());
        } else {
            EXPECT_EQ(vs.msci.lastLsn, rs.msci.lastLsn);
            EXPECT_EQ(vs.log.size(), rs.log.size());
            for (size_t i = 0; i < std::min(rs.log.size(), vs.log.size()); ++i)
                EXPECT_EQ(vs.log[i].length, rs.log[i].length);
        }
        CheckFilemarks(v, real, realBytes);
        return CheckClosingStream(v, real, realBytes);
    }
};

TEST_F(RealViews, EveryNativeSingleFileBackupGivesAValidView) {
    int iChecked = 0, iPadded = 0;
    for (const auto& e : NativeBackups(9, 10)) {
        if (e.stripes != 1)
            continue;
        SCOPED_TRACE(e.file);
        const fs::path file = *TestDataFile(e.file);
        ++iChecked;
        if (e.type != 'L') {
            iPadded += CheckDataBackup(file, false);
            if (e.type == 'D')
                CheckDataBackup(file, true);
            continue;
        }
        // A log backup's view is the real file up to the start of its last block.
        TempDir maps;
        MapFolderScope scope(maps.path());
        const View v = Make({file}, false);
        const std::vector<uint8_t> bytes = ReadFileBytes(file);
        const MtfWalk real = MtfWalker::WalkBytes(bytes);
        ASSERT_FALSE(real.blocks.empty());
        ASSERT_EQ(v.bytes.size(), real.blocks.back().offset);
        EXPECT_TRUE(std::equal(v.bytes.begin(), v.bytes.end(), bytes.begin()));
    }
    EXPECT_GT(iChecked, 10);
    EXPECT_EQ(iPadded, 4) << "the backups of db1 and db2, whose checksum stream the cut takes";
}

TEST_F(RealViews, ReadsOfAnyLengthInAnyOrderGiveAValidView) {
    std::mt19937 rng(7);
    for (auto [szFile, bDiffFollows] : {std::pair{"appveyor-lab/DoubleDiffing/difftest-full.bak", true},
                                        {"appveyor-lab/sql2008-backups/db1/DIFF/SQL2008_db1_DIFF_20170518_041819.bak", false},
                                        {"appveyor-lab/sql2008-backups/db2/FULL/SQL2008_db2_FULL_20170518_041738.bak", true}}) {
        SCOPED_TRACE(szFile);
        CheckDataBackup(*TestDataFile(szFile), bDiffFollows, &rng);
    }
}

// zirlane view writes the view of the chosen stripe of a stripe set named in
// reverse (the views follow the stripe numbers), which the walker walks
// clean and finds the first extents in the first stripe only.
class ViewCommand : public ::testing::Test {
protected:
    void SetUp() override { ZR_REQUIRE_TESTDATA(); }

    int Run(std::vector<std::string> args, std::string* pOut) {
        args.insert(args.begin(), {"view", "--map-folder", (m_tmp / "maps").string()});
        CliRun run = RunZirlane(args, m_tmp.path());
        *pOut = run.sOut + run.sErr;
        return run.iExit;
    }

    TempDir m_tmp;
};

TEST_F(ViewCommand, WritesTheViewOfTheChosenStripe) {
    const fs::path first = *TestDataFile(std::string(kStripes) + "Stripe1/RestoreTimeStripe.bak");
    const fs::path second = *TestDataFile(std::string(kStripes) + "Stripe2/RestoreTimeStripe1.bak");
    NaiveRestore naive;
    ASSERT_TRUE(naive.Apply({first, second})) << naive.Error();
    const MtfWalk real = MtfWalker::WalkFile(first);
    std::string out;
    for (int iStripe : {1, 2}) {
        SCOPED_TRACE("stripe " + std::to_string(iStripe));
        const fs::path file = m_tmp / ("view" + std::to_string(iStripe) + ".bxk");
        ASSERT_EQ(Run({"--diff-follows", "--stripe", std::to_string(iStripe), "-o", file.string(), second.string(),
                       first.string()},
                      &out),
                  0)
            << out;
        View v;
        v.bytes = ReadFileBytes(file);
        EXPECT_NE(out.find(std::to_string(v.bytes.size()) + " bytes"), std::string::npos) << out;
        v.walk = MtfWalker::WalkBytes(v.bytes);
        ASSERT_TRUE(v.walk.ok) << v.walk.fault;
        EXPECT_TRUE(v.walk.dataSets.front().log.empty());
        EXPECT_EQ(v.walk.raid.sequenceNumber, static_cast<uint32_t>(iStripe));
        const MtfDataSet& set = v.walk.dataSets.front();
        EXPECT_EQ(set.msci.lastLsn, real.dataSets.front().msci.firstLsn);
        CheckFirstExtents(v, real.dataSets.front().msci, naive, iStripe == 1);
    }
}

TEST_F(ViewCommand, RefusesAStripeTheBackupLacksAndADifferentialOverADifferential) {
    const fs::path full = *TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak");
    const fs::path diff = *TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak");
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
