// The independent walker against the real SQL Server backups: every native
// file walks clean, data sets are counted as the README says, and a naive
// restore of a full backup gives pages that carry their own ids and checksums.
#include "support/MtfWalker.h"
#include "support/Manifest.h"
#include "support/PageFormat.h"
#include "support/RealMaps.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>

namespace zrtest {
namespace {

TEST(MtfWalkerReal, EveryNativeBackupWalksCleanAndTheCompressedOneIsRefused) {
    ZR_REQUIRE_TESTDATA();
    const auto rows = ReadManifest();
    ASSERT_GE(rows.size(), 40u);
    for (const ManifestEntry& row : rows) {
        SCOPED_TRACE(row.file);
        MtfWalk w = MtfWalker::WalkFile(*TestDataFile(row.file));
        if (row.compressed) {
            EXPECT_FALSE(w.ok);
            EXPECT_EQ(w.faultOffset, 0u);
            EXPECT_NE(w.fault.find("MSSQ"), std::string::npos) << w.fault;
            continue;
        }
        ASSERT_TRUE(w.ok) << w.fault << " at " << w.faultOffset;
        EXPECT_EQ(w.filemarks.back() + w.softFilemarkSize, w.size);
        ASSERT_EQ(w.dataSets.size(), std::size_t(row.sets));
        for (const auto& set : w.dataSets) {
            EXPECT_TRUE(set.closed);
            ASSERT_TRUE(set.msci.present && set.msls.present);
            EXPECT_EQ(set.msci.version, set.softwareMajorVersion);
            EXPECT_EQ(set.data.empty(), set.msci.backupType == 'L');
        }
    }
}

TEST(MtfWalkerReal, CountsDataSetsAndReadsConfiguration) {
    ZR_REQUIRE_TESTDATA();
    MtfWalk two = MtfWalker::WalkFile(*TestDataFile("gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak"));
    ASSERT_TRUE(two.ok) << two.fault;
    ASSERT_EQ(two.dataSets.size(), 2u);
    EXPECT_EQ(two.dataSets[1].number, 2);
    EXPECT_EQ(two.dataSets[0].msci.databaseName, "StDb2SQL");
    EXPECT_EQ(two.dataSets[0].msci.firstLsn, (MtfLsn{28, 252, 37}));
    EXPECT_EQ(two.dataSets[1].msci.firstLsn, (MtfLsn{37, 480, 37}));
    EXPECT_EQ(two.filemarkArrayOffsets.front(), 60u);

    MtfWalk diff = MtfWalker::WalkFile(*TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak"));
    ASSERT_TRUE(diff.ok) << diff.fault;
    ASSERT_EQ(diff.dataSets.size(), 1u);
    const MtfSqlConfig& c = diff.dataSets[0].msci;
    EXPECT_EQ(c.version, 10);
    EXPECT_EQ(c.backupType, 'I');
    EXPECT_EQ(c.databaseName, "doublediff");
    EXPECT_EQ(c.lastLsn, (MtfLsn{24, 132, 1}));
    EXPECT_EQ(diff.filemarkArrayOffsets.back(), 72u);
    ASSERT_EQ(c.files.size(), 2u);
    EXPECT_EQ(c.files[0].fileType, 1u);
    EXPECT_EQ(c.files[1].fileId, 2u);
}

TEST(MtfWalkerReal, StripesCarryTheirPlaceInTheRaidStream) {
    ZR_REQUIRE_TESTDATA();
    const char* dir = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";
    MtfWalk one = MtfWalker::WalkFile(*TestDataFile(std::string(dir) + "Stripe1/RestoreTimeStripe.bak"));
    MtfWalk two = MtfWalker::WalkFile(*TestDataFile(std::string(dir) + "Stripe2/RestoreTimeStripe1.bak"));
    ASSERT_TRUE(one.ok && two.ok);
    EXPECT_EQ(one.raid.deviceCount, 0x10002u);
    EXPECT_EQ(one.raid.Stripes(), 2u);
    EXPECT_EQ(one.raid.sequenceNumber, 1u);
    EXPECT_EQ(two.raid.sequenceNumber, 2u);
    EXPECT_FALSE(one.dataSets[0].log.empty());
    EXPECT_TRUE(two.dataSets[0].log.empty());
}

TEST(MtfWalkerReal, NaiveRestoreOfAFullBackupPlacesPagesByTheirIds) {
    ZR_REQUIRE_TESTDATA();
    NaiveRestore restore;
    ASSERT_TRUE(restore.Apply({*TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak")})) << restore.Error();
    ASSERT_EQ(restore.ExtentCount(), 23u);
    std::size_t checked = 0;
    for (auto [fileId, first] : restore.Extents()) {
        for (std::uint32_t p = first; p < first + kPagesPerExtent; ++p) {
            const std::uint8_t* page = restore.Page(fileId, p);
            ASSERT_NE(page, nullptr);
            // Unused pages of an allocated extent hold whatever the disk held.
            PageHeaderFields h = ReadPageHeader(page);
            if (h.headerVersion != 1) continue;
            EXPECT_EQ(h.fileId, fileId);
            EXPECT_EQ(h.pageNumber, p);
            EXPECT_TRUE(PageChecksumHolds(page)) << fileId << ":" << p;
            checked += (h.flagBits & kPageHasChecksum) ? 1 : 0;
        }
    }
    EXPECT_GT(checked, 100u);
    EXPECT_EQ(restore.Page(1, 184), nullptr);
}

TEST(MtfWalkerReal, NaiveRestorePutsTheDifferentialOverTheFull) {
    ZR_REQUIRE_TESTDATA();
    auto full = *TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak");
    auto diff = *TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak");
    NaiveRestore onlyDiff;
    ASSERT_TRUE(onlyDiff.Apply({diff}));
    NaiveRestore both;
    ASSERT_TRUE(both.Apply({full}));
    ASSERT_TRUE(both.Apply({diff}));
    EXPECT_EQ(both.ExtentCount(), 23u);
    for (auto [fileId, first] : onlyDiff.Extents())
        EXPECT_EQ(0, std::memcmp(both.Page(fileId, first), onlyDiff.Page(fileId, first), kExtentSize));
}

TEST(MtfWalkerBytes, FindsTheFirstFaultInDamagedCopiesOfARealBackup) {
    ZR_REQUIRE_TESTDATA();
    auto bytes = ReadFileBytes(*TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean_1.trn"));
    ASSERT_TRUE(MtfWalker::WalkBytes(bytes).ok);

    auto streamFlip = bytes;
    streamFlip[140 + 9] ^= 1;  // length of the RAID stream
    MtfWalk w = MtfWalker::WalkBytes(streamFlip);
    EXPECT_FALSE(w.ok);
    EXPECT_EQ(w.faultOffset, 140u);
    EXPECT_NE(w.fault.find("STREAM"), std::string::npos) << w.fault;

    auto filemarkEntry = bytes;
    filemarkEntry[81920 + 72] ^= 0x02;  // an entry of the last filemark array, checksum untouched
    w = MtfWalker::WalkBytes(filemarkEntry);
    EXPECT_EQ(w.faultOffset, 81920u) << w.fault;

    auto unknown = bytes;
    std::memcpy(&unknown[1024], "XXXX", 4);
    w = MtfWalker::WalkBytes(unknown);
    EXPECT_EQ(w.faultOffset, 1024u);
    EXPECT_NE(w.fault.find("not supported"), std::string::npos);

    for (std::size_t cut : {std::size_t(3), std::size_t(1030), std::size_t(50000), bytes.size() - 512}) {
        std::vector<std::uint8_t> head(bytes.begin(), bytes.begin() + std::ptrdiff_t(cut));
        w = MtfWalker::WalkBytes(head);
        EXPECT_FALSE(w.ok) << cut;
        EXPECT_LE(w.faultOffset, cut);
    }
}

}  // namespace
}  // namespace zrtest
