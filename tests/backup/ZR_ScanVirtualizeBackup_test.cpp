// The virtualizing scan on synthetic backups, for what the real ones lack:
// the worked mapping with its numbers, many data files over three stripes,
// the record layouts of every version, differentials with a base, and
// failures. The views are checked with the test walker and the writer's own
// record of what it wrote.
#include "backup/ZR_ScanVirtualizeBackup.h"

#include "backup/ZR_Backup.h"
#include "support/MtfWalker.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"
#include "support/VirtualView.h"

#include <gtest/gtest.h>

#include <cstring>

namespace fs = std::filesystem;
using namespace zrtest;

namespace {

constexpr uint32_t kExtent = 0x10000;
constexpr uint32_t kPage = 0x2000;

class VirtualizeScan : public ::testing::Test {
protected:
    VirtualizeScan() : m_scope(m_tmp / "maps") { fs::create_directories(m_tmp / "maps"); }

    // Writes the backup; its stripe files in order.
    std::vector<fs::path> Write(SyntheticBackup& backup, const std::string& name) {
        fs::path first = m_tmp / name;
        EXPECT_TRUE(backup.Write(first)) << backup.Error();
        std::vector<fs::path> files;
        for (size_t i = 0; i < backup.Stripes().size(); ++i)
            files.push_back(backup.Stripes()[i].path);
        return files;
    }

    std::unique_ptr<ZR_Backup> Prepare(const std::vector<fs::path>& files, bool bDiffFollows) {
        std::string error;
        auto b = PrepareBackup(files, bDiffFollows, &error);
        EXPECT_TRUE(b) << error;
        return b;
    }

    static MtfWalk WalkView(ZR_Backup& b, int iDevice, std::vector<uint8_t>* pBytes) {
        std::string error;
        *pBytes = ReadWholeView(b, iDevice, kExtent, &error);
        EXPECT_FALSE(pBytes->empty()) << error;
        MtfWalk walk = MtfWalker::WalkBytes(*pBytes);
        EXPECT_TRUE(walk.ok) << walk.fault << " at " << walk.faultOffset;
        return walk;
    }

    static uint64_t OffsetOf(const WrittenStripe& s, const std::string& type) {
        for (const auto& b : s.blocks)
            if (b.type == type)
                return b.offset;
        return 0;
    }

    TempDir m_tmp;
    MapFolderScope m_scope;
};

// Two data files, 14 extents and the trailer (15 extents in the stream), a
// differential over it: the numbers of the worked mapping, at the offsets
// where the writer put things. The same whether an empty data stream closes
// the MSDA or its one data stream stands alone (visited twice, the second
// visit changes nothing). A read that starts inside the first file's extent
// ends in the second's.
TEST_F(VirtualizeScan, WorkedMappingWithADifferentialOverTheFullBackup) {
    for (bool bClosing : {true, false}) {
        SCOPED_TRACE(bClosing ? "closing stream" : "one stream");
        SyntheticBackup synth({.filePages = {64, 48}, .logExtents = 3, .closingDataStream = bClosing,
                               .mediaFamilyId = 0x5EED0200u + bClosing});
        auto files = Write(synth, bClosing ? "worked.bak" : "single.bak");
        MtfWalk real = MtfWalker::WalkFile(files[0]);
        ASSERT_TRUE(real.ok) << real.fault;
        const MtfDataRun& data = real.dataSets[0].data[0];
        ASSERT_EQ(data.length, 15u * kExtent);
        const int64_t iHeader = static_cast<int64_t>(data.offset) - 24;
        const int64_t iMSTL = static_cast<int64_t>(OffsetOf(synth.Stripes()[0], "MSTL"));
        const int64_t iMSLS = static_cast<int64_t>(OffsetOf(synth.Stripes()[0], "MSLS"));
        ASSERT_GT(iMSTL, iHeader);
        ASSERT_GT(iMSLS, iMSTL);

        auto b = Prepare(files, true);
        ASSERT_TRUE(b);
        const ZR_VirtualBackupFile& v = *b->m_aVirtualFiles(0);
        EXPECT_EQ(v.m_iKeptBytes, 131072);
        EXPECT_EQ(v.m_iExtentsStart, iHeader + 24);
        EXPECT_EQ(v.m_iHoleStart, iHeader + 24 + 131072);
        EXPECT_EQ(v.m_iHoleLength, 983040 - 131072);
        EXPECT_EQ(v.LogCut(), iMSLS - iMSTL);
        // The end of the kept stream stands for the real end of the stream,
        // and the place of the first MSTL for the MSLS.
        EXPECT_EQ(v.RealOffset(v.m_iHoleStart), iHeader + 22 + 983042);
        EXPECT_EQ(v.RealOffset(v.LogCutViewOffset()), iMSLS);
        EXPECT_EQ(v.LogCutViewOffset(), iMSTL - (983040 - 131072));

        std::vector<uint8_t> bytes;
        MtfWalk walk = WalkView(*b, 0, &bytes);
        ASSERT_TRUE(walk.ok);
        const MtfDataSet& set = walk.dataSets[0];
        ASSERT_EQ(set.data.size(), 1u);
        EXPECT_EQ(set.data[0].length, 131072u);
        EXPECT_TRUE(set.log.empty());
        EXPECT_EQ(set.msci.lastLsn, set.msci.firstLsn);
        EXPECT_EQ(set.msls.lastLsn, set.msls.firstLsn);
        // Extent 0 of file 1, then extent 0 of file 2.
        std::vector<uint8_t> want(2 * kExtent);
        for (uint32_t k = 0; k < 2; ++k)
            for (uint32_t p = 0; p < 8; ++p)
                synth.ExpectedPage(1, synth.DataFiles()[k].fileId, p, want.data() + k * kExtent + p * kPage);
        EXPECT_EQ(std::memcmp(bytes.data() + set.data[0].offset, want.data(), want.size()), 0);
        const uint32_t iFrom = 5 * kPage + 100;
        std::vector<uint8_t> across(kExtent);
        ASSERT_TRUE(ReadViewAt(*b, 0, set.data[0].offset + iFrom, kExtent, across.data()));
        EXPECT_EQ(std::memcmp(across.data(), want.data() + iFrom, kExtent), 0);
    }
}

// Three data files over three stripes: the first file carries the three
// first extents, the others an empty stream.
TEST_F(VirtualizeScan, ThreeStripesKeepTheExtentsInTheFirst) {
    SyntheticBackup synth({.filePages = {32, 40, 48}, .stripes = 3});
    auto files = Write(synth, "striped.bak");
    auto b = Prepare(files, false);
    ASSERT_TRUE(b);
    ASSERT_EQ(b->m_aVirtualFiles.operator int(), 3);
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE("stripe " + std::to_string(i + 1));
        std::vector<uint8_t> bytes;
        MtfWalk walk = WalkView(*b, i, &bytes);
        ASSERT_TRUE(walk.ok);
        const MtfDataSet& set = walk.dataSets[0];
        uint64_t iData = 0;
        for (const auto& r : set.data)
            iData += r.length;
        EXPECT_EQ(iData, i == 0 ? 3u * kExtent : 0u);
        EXPECT_TRUE(i == 0 || b->m_aVirtualFiles(i)->m_iExtentsStart == 0);
        for (const MtfSqlConfig* c : {&set.msci, &set.msls})
            for (const auto& f : c->files)
                EXPECT_TRUE(f.fileType != 1 || (f.backedUpPages == 24u && f.fileSize == 196608u)) << f.fileId;
    }
}

// Every record layout and both filemark layouts: the walker checks that
// each filemark array lists exactly the filemarks of the view.
TEST_F(VirtualizeScan, EveryVersionGivesAValidView) {
    for (int version = 7; version <= 10; ++version) {
        for (bool bDiffFollows : {false, true}) {
            SCOPED_TRACE("version " + std::to_string(version) + (bDiffFollows ? " with a differential" : ""));
            // Backups of one identity share their maps; each is its own.
            SyntheticBackup synth({.version = version, .filePages = {24, 16},
                                   .mediaFamilyId = 0x5EED0100u + static_cast<uint32_t>(version * 2 + bDiffFollows)});
            auto files = Write(synth, "v" + std::to_string(version) + (bDiffFollows ? "d" : "") + ".bak");
            auto b = Prepare(files, bDiffFollows);
            ASSERT_TRUE(b);
            EXPECT_EQ(b->m_iVersion, version);
            std::vector<uint8_t> bytes;
            MtfWalk walk = WalkView(*b, 0, &bytes);
            ASSERT_TRUE(walk.ok);
            EXPECT_EQ(walk.dataSets[0].log.empty(), bDiffFollows);
            EXPECT_EQ(walk.filemarks.size(), synth.Stripes()[0].filemarks.size());
        }
    }
}

// A differential whose files have a base keeps their sizes; the page counts
// still change. Its SSET does not say normal.
TEST_F(VirtualizeScan, DifferentialKeepsTheSizesOfFilesWithABase) {
    SyntheticBackup synth({.kind = SyntheticKind::Differential, .filePages = {64, 32}, .differentialBaseLsn = {19, 50, 1}});
    auto files = Write(synth, "diff.bak");
    MtfWalk real = MtfWalker::WalkFile(files[0]);
    ASSERT_TRUE(real.ok);
    auto b = Prepare(files, false);
    ASSERT_TRUE(b);
    EXPECT_FALSE(b->m_aVirtualFiles(0)->m_bNormalBackup);
    std::vector<uint8_t> bytes;
    MtfWalk walk = WalkView(*b, 0, &bytes);
    ASSERT_TRUE(walk.ok);
    const auto& rf = real.dataSets[0].msci.files;
    const auto& vf = walk.dataSets[0].msci.files;
    ASSERT_EQ(rf.size(), vf.size());
    int iData = 0;
    for (size_t i = 0; i < rf.size(); ++i) {
        if (rf[i].fileType != 1)
            continue;
        ++iData;
        EXPECT_EQ(vf[i].backedUpPages, 16u);
        EXPECT_EQ(vf[i].fileSize, rf[i].fileSize);
    }
    EXPECT_EQ(iData, 2);
}

// A full backup without an MSTL has no log part to cut, even with a
// differential over it: its view is the data cut alone, as long as what it
// holds, and walks clean to its last filemark.
TEST_F(VirtualizeScan, WithoutAnMstlNothingIsCutForTheLog) {
    SyntheticBackup synth({.mstl = false});
    auto files = Write(synth, "nolog.bak");
    auto b = Prepare(files, true);
    ASSERT_TRUE(b);
    const ZR_VirtualBackupFile& v = *b->m_aVirtualFiles(0);
    EXPECT_EQ(v.m_iFirstMSTL, 0);
    EXPECT_GT(v.m_iMSLS, 0);
    EXPECT_EQ(v.LogCut(), 0);
    EXPECT_EQ(b->GetVirtualSize(0), static_cast<int64_t>(synth.Stripes()[0].size) - v.m_iHoleLength);
    std::vector<uint8_t> bytes;
    MtfWalk walk = WalkView(*b, 0, &bytes);
    ASSERT_TRUE(walk.ok);
    EXPECT_TRUE(walk.dataSets[0].closed);
    EXPECT_EQ(walk.filemarks.size(), synth.Stripes()[0].filemarks.size());
}

TEST_F(VirtualizeScan, BackupThatCannotBeOpenedFailsTheScan) {
    SyntheticBackup synth({});
    auto files = Write(synth, "gone.bak");
    auto b = Prepare(files, false);
    ASSERT_TRUE(b);
    b->Close();
    fs::remove(files[0]);
    ZR_ScanVirtualizeBackup scan(b.get(), 1);
    EXPECT_FALSE(scan.ScanFiles(false));
    EXPECT_NE(ErrorChainText().find("Failed to open backup file"), std::string::npos) << ErrorChainText();
}

}  // namespace
