// The independent walker, on which every check of a view rests, against the
// real SQL Server backups: each native file walks clean and reads as the
// manifest that other tools wrote says, stripes carry their place, and a
// damaged copy is stopped at its first fault. (That the naive restore built
// on it places pages by their ids is held by the extract and end-to-end mount
// tests, whose pages must name themselves and pass their checksums.)
#include "support/FileBytes.h"
#include "support/Manifest.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>

namespace zrtest {
namespace {

std::string Text(const MtfLsn& l) {
    return std::to_string(l.seqNo) + ":" + std::to_string(l.blockOffset) + ":" + std::to_string(l.slotId);
}

TEST(MtfWalkerReal, EveryNativeBackupWalksCleanAsTheManifestSaysAndTheCompressedOneIsRefused) {
    ZR_REQUIRE_TESTDATA();
    const auto rows = ReadManifest();
    ASSERT_GE(rows.size(), 40u);
    for (const ManifestEntry& row : rows) {
        SCOPED_TRACE(row.file);
        const MtfWalk w = MtfWalker::WalkFile(*TestDataFile(row.file));
        if (row.compressed) {
            EXPECT_FALSE(w.ok);
            EXPECT_EQ(w.faultOffset, 0u);
            EXPECT_NE(w.fault.find("MSSQ"), std::string::npos) << w.fault;
            continue;
        }
        ASSERT_TRUE(w.ok) << w.fault << " at " << w.faultOffset;
        EXPECT_EQ(w.filemarks.back() + w.softFilemarkSize, w.size);
        EXPECT_EQ(w.raid.sequenceNumber, static_cast<uint32_t>(row.stripe));
        EXPECT_EQ(w.raid.Stripes(), static_cast<uint32_t>(row.stripes));
        ASSERT_EQ(w.dataSets.size(), std::size_t(row.sets));
        for (const auto& set : w.dataSets) {
            EXPECT_TRUE(set.closed);
            ASSERT_TRUE(set.msci.present && set.msls.present);
            EXPECT_EQ(set.msci.version, set.softwareMajorVersion);
            EXPECT_EQ(set.msci.version, row.major);
            EXPECT_EQ(set.data.empty(), set.msci.backupType == 'L');
            EXPECT_TRUE(row.stripe == 1 || set.log.empty()) << "the log goes to the first stripe";
            EXPECT_EQ(w.filemarkArrayOffsets.back(), row.major >= 10 ? 72u : 60u);
        }
        const MtfSqlConfig& c = w.dataSets.front().msci;
        EXPECT_EQ(c.backupType, row.type);
        EXPECT_EQ(c.databaseName, row.database);
        EXPECT_EQ(w.dataSets.front().msls.serverName, row.server);
        EXPECT_EQ(Text(c.firstLsn), row.firstLsn);
        if (row.sets == 1) {  // the manifest's LSNs are those of the last data set
            EXPECT_EQ(Text(c.lastLsn), row.lastLsn);
            EXPECT_EQ(Text(c.checkpointLsn), row.checkpointLsn);
        }
    }
}

TEST(MtfWalkerBytes, FindsTheFirstFaultInDamagedCopiesOfARealBackup) {
    ZR_REQUIRE_TESTDATA();
    const auto bytes = ReadFileBytes(*TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean_1.trn"));
    ASSERT_TRUE(MtfWalker::WalkBytes(bytes).ok);
    const struct {
        std::size_t iAt;
        std::uint8_t iXor;
        std::uint64_t iFault;
        const char* szFault;
    } flips[] = {
        {140 + 9, 1, 140, "STREAM"},   // the length of the RAID stream
        {81920 + 72, 2, 81920, ""},    // an entry of the last filemark array, checksum untouched
        {1024, 'X' ^ 'S', 1024, "not supported"},  // a block type no one knows
    };
    for (const auto& f : flips) {
        auto damaged = bytes;
        damaged[f.iAt] ^= f.iXor;
        const MtfWalk w = MtfWalker::WalkBytes(damaged);
        EXPECT_FALSE(w.ok);
        EXPECT_EQ(w.faultOffset, f.iFault) << w.fault;
        EXPECT_NE(w.fault.find(f.szFault), std::string::npos) << w.fault;
    }
    for (std::size_t cut : {std::size_t(3), std::size_t(1030), std::size_t(50000), bytes.size() - 512}) {
        const MtfWalk w = MtfWalker::WalkBytes(std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + std::ptrdiff_t(cut)));
        EXPECT_FALSE(w.ok) << cut;
        EXPECT_LE(w.faultOffset, cut);
    }
}

}  // namespace
}  // namespace zrtest
