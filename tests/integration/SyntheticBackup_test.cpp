// The synthetic writer, which stands in for the real backups the test data
// lacks, checked through the independent walker: each version and kind walks
// clean with the configuration asked for and its blocks where the writer
// says; appended data sets have their own filemarks and pages; every damage
// is met where the writer reports it. The page checksum helper, on which the
// page checks of other tests rest, catches a flipped bit. (That pages and
// extents lie where the writer records them is what the tests of the
// library hold it to.)
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>

namespace zrtest {
namespace {

SyntheticBackup Written(const TempDir& dir, SyntheticOptions o, const char* name = "s.bak") {
    SyntheticBackup b(std::move(o));
    EXPECT_TRUE(b.Write(dir / name)) << b.Error();
    return b;
}

TEST(SyntheticBackup, EveryVersionAndKindWalksClean) {
    TempDir dir;
    for (int version = 7; version <= 10; ++version) {
        for (auto kind : {SyntheticKind::Full, SyntheticKind::Differential, SyntheticKind::Log}) {
            const SyntheticLsn base = kind == SyntheticKind::Differential ? SyntheticLsn{19, 5, 1} : SyntheticLsn{};
            const SyntheticOptions o{.version = version, .kind = kind, .databaseName = "db" + std::to_string(version),
                                     .filePages = {40, 17}, .differentialBaseLsn = base};
            SyntheticBackup b = Written(dir, o);
            MtfWalk w = MtfWalker::WalkFile(b.Stripes()[0].path);
            ASSERT_TRUE(w.ok) << version << ": " << w.fault << " at " << w.faultOffset;
            ASSERT_EQ(w.dataSets.size(), 1u);
            const MtfDataSet& s = w.dataSets[0];
            EXPECT_EQ(s.msci.version, version);
            EXPECT_EQ(s.msci.backupType, kind == SyntheticKind::Full ? 'D' : kind == SyntheticKind::Log ? 'L' : 'I');
            EXPECT_EQ(s.msci.databaseName, o.databaseName);
            EXPECT_EQ(s.msls.serverName, o.serverName);
            EXPECT_EQ(s.msci.firstLsn, (MtfLsn{20, 100, 1}));
            EXPECT_EQ(s.msci.differentialBaseLsn, (MtfLsn{base.seqNo, base.blockOffset, base.slotId}));
            ASSERT_EQ(s.msci.files.size(), 3u);
            EXPECT_EQ(s.msci.files[1].fileId, 3u);
            EXPECT_EQ(s.msci.files[1].fileSize, 17u * kPageSize);
            EXPECT_EQ(s.msci.files[2].fileType, 2u);
            EXPECT_EQ(s.data.empty(), kind == SyntheticKind::Log);
            EXPECT_EQ(s.log.size(), 1u);
            for (std::size_t at : w.filemarkArrayOffsets) EXPECT_EQ(at, version == 10 ? 72u : 60u);
            ASSERT_EQ(w.blocks.size(), b.Stripes()[0].blocks.size());
            for (std::size_t i = 0; i < w.blocks.size(); ++i)
                EXPECT_TRUE(w.blocks[i].offset == b.Stripes()[0].blocks[i].offset &&
                            w.blocks[i].type == b.Stripes()[0].blocks[i].type) << i;
        }
    }
}

TEST(SyntheticBackup, PageChecksumCatchesEveryFlippedBit) {
    std::vector<std::uint8_t> page(kPageSize);
    FillSyntheticPage(page.data(), 3, 1, 77);
    ASSERT_TRUE(PageChecksumHolds(page.data()));
    for (std::size_t bit : {std::size_t(0), std::size_t(60 * 8 + 3), std::size_t(511 * 8), std::size_t(8191 * 8 + 7)}) {
        auto damaged = page;
        damaged[bit / 8] ^= std::uint8_t(1u << (bit % 8));
        EXPECT_FALSE(PageChecksumHolds(damaged.data())) << bit;
    }
}

TEST(SyntheticBackup, AppendedDataSetsHaveTheirFilemarksAndOwnPages) {
    TempDir dir;
    for (int version : {9, 10}) {
        SyntheticBackup b = Written(dir, {.version = version, .dataSets = 3, .ph6sFiles = 2});
        MtfWalk w = MtfWalker::WalkFile(b.Stripes()[0].path);
        ASSERT_TRUE(w.ok) << w.fault << " at " << w.faultOffset;
        ASSERT_EQ(w.dataSets.size(), 3u);
        EXPECT_EQ(w.filemarks, b.Stripes()[0].filemarks);
        EXPECT_EQ(w.filemarks.size(), 1u + 2u * 3u);
        for (const auto& s : w.dataSets) EXPECT_EQ(s.ph6sHeaders, 2u);
        NaiveRestore second;
        ASSERT_TRUE(second.Apply({b.Stripes()[0].path}, 2));
        std::vector<std::uint8_t> want(kPageSize);
        b.ExpectedPage(2, 1, 9, want.data());
        EXPECT_EQ(0, std::memcmp(second.Page(1, 9), want.data(), kPageSize));
        b.ExpectedPage(1, 1, 9, want.data());
        EXPECT_NE(0, std::memcmp(second.Page(1, 9), want.data(), kPageSize));
    }
}

TEST(SyntheticBackup, EachDamageIsMetWhereTheWriterSaysItIs) {
    TempDir dir;
    auto damaged = [&](SyntheticDamage damage, int stripes) {
        SyntheticBackup b = Written(dir, {.stripes = stripes, .dataSets = 2, .damage = damage});
        const WrittenStripe& s = b.Stripes()[std::size_t(damage.stripe)];
        EXPECT_TRUE(s.damageOffset.has_value());
        MtfWalk w = MtfWalker::WalkFile(s.path);
        EXPECT_FALSE(w.ok);
        EXPECT_EQ(w.faultOffset, s.damageOffset.value_or(~0ull)) << w.fault;
        for (const auto& other : b.Stripes())
            EXPECT_TRUE(&other == &s || MtfWalker::WalkFile(other.path).ok);
        return w;
    };
    EXPECT_NE(damaged({.badChecksumBlock = 6}, 1).fault.find("DBLK"), std::string::npos);  // MSDA of data set 1
    EXPECT_NE(damaged({.stripe = 1, .badLastFilemark = true}, 2).fault.find("SFMB"), std::string::npos);
    for (std::uint64_t cut : {100000, 1536, 5700}) damaged({.truncateAt = cut}, 1);
}

}  // namespace
}  // namespace zrtest
