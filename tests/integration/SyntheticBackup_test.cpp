// The synthetic writer, checked through the independent walker: each version
// and kind walks clean, pages hold what the writer says, stripes and data
// sets come out as asked, and every damage is met where the writer reports it.
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace zrtest {
namespace {

std::vector<std::filesystem::path> Paths(const SyntheticBackup& b) {
    std::vector<std::filesystem::path> paths;
    for (const auto& s : b.Stripes()) paths.push_back(s.path);
    return paths;
}

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
            for (std::size_t i = 0; i < w.blocks.size(); ++i) {
                EXPECT_EQ(w.blocks[i].offset, b.Stripes()[0].blocks[i].offset);
                EXPECT_EQ(w.blocks[i].type, b.Stripes()[0].blocks[i].type);
            }
        }
    }
}

TEST(SyntheticBackup, PagesHoldWhatTheWriterSaysAndRestoreByTheirIds) {
    TempDir dir;
    // The second file ends inside its last extent.
    SyntheticBackup b = Written(dir, {.filePages = {24, 20}, .seed = 7});
    const WrittenStripe& s = b.Stripes()[0];
    ASSERT_EQ(s.extents.size(), 3u + 3u);
    auto source = MtfSource::FromFile(s.path);
    std::vector<std::uint8_t> page(kPageSize), want(kPageSize);
    for (const auto& e : s.extents) {
        for (std::uint32_t p = 0; p < kPagesPerExtent; ++p) {
            ASSERT_TRUE(source->Read(e.offset + p * kPageSize, page.data(), kPageSize));
            b.ExpectedPage(1, e.fileId, e.firstPage + p, want.data());
            ASSERT_EQ(page, want) << e.fileId << ":" << e.firstPage + p;
            if (e.firstPage + p >= (e.fileId == 1 ? 24u : 20u)) {
                EXPECT_TRUE(IsBlankPageHeader(page.data()));
                continue;
            }
            PageHeaderFields h = ReadPageHeader(page.data());
            EXPECT_EQ(h.pageNumber, e.firstPage + p);
            EXPECT_EQ(h.fileId, e.fileId);
            EXPECT_TRUE(PageChecksumHolds(page.data()));
        }
    }
    NaiveRestore restore;
    ASSERT_TRUE(restore.Apply(Paths(b))) << restore.Error();
    EXPECT_EQ(restore.ExtentCount(), 6u);
    b.ExpectedPage(1, 3, 17, want.data());
    ASSERT_NE(restore.Page(3, 17), nullptr);
    EXPECT_EQ(0, std::memcmp(restore.Page(3, 17), want.data(), kPageSize));
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
    std::vector<std::uint8_t> other(kPageSize);
    FillSyntheticPage(other.data(), 4, 1, 77);
    EXPECT_NE(page, other);
}

TEST(SyntheticBackup, StripesShareTheDataRoundRobin) {
    TempDir dir;
    SyntheticBackup b = Written(dir, {.filePages = {96, 64}, .stripes = 3, .transferExtents = 2});
    ASSERT_EQ(b.Stripes().size(), 3u);
    std::set<std::pair<std::uint16_t, std::uint32_t>> seen;
    for (int i = 0; i < 3; ++i) {
        const WrittenStripe& s = b.Stripes()[std::size_t(i)];
        MtfWalk w = MtfWalker::WalkFile(s.path);
        ASSERT_TRUE(w.ok) << w.fault;
        EXPECT_EQ(w.raid.deviceCount, 0x10003u);
        EXPECT_EQ(w.raid.sequenceNumber, std::uint32_t(i + 1));
        EXPECT_EQ(w.dataSets[0].log.empty(), i != 0);
        ASSERT_EQ(w.dataSets[0].data.size(), 1u);
        EXPECT_EQ(w.dataSets[0].data[0].offset, s.extents.empty() ? w.dataSets[0].data[0].offset : s.extents[0].offset);
        for (const auto& e : s.extents) EXPECT_TRUE(seen.insert({e.fileId, e.firstPage}).second);
        // 20 extents dealt two by two: 8, 6, 6, with the trailer in the first
        EXPECT_EQ(s.extents.size(), i == 0 ? 8u : 6u);
        EXPECT_EQ(s.extents[0].firstPage, std::uint32_t(i * 16));
    }
    EXPECT_EQ(seen.size(), 20u);
    NaiveRestore restore;
    ASSERT_TRUE(restore.Apply(Paths(b))) << restore.Error();
    EXPECT_EQ(restore.ExtentCount(), 20u);
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
        ASSERT_TRUE(second.Apply(Paths(b), 2));
        std::vector<std::uint8_t> want(kPageSize);
        b.ExpectedPage(2, 1, 9, want.data());
        EXPECT_EQ(0, std::memcmp(second.Page(1, 9), want.data(), kPageSize));
        b.ExpectedPage(1, 1, 9, want.data());
        EXPECT_NE(0, std::memcmp(second.Page(1, 9), want.data(), kPageSize));
        NaiveRestore missing;
        EXPECT_FALSE(missing.Apply(Paths(b), 4));
    }
}

TEST(SyntheticBackup, DifferentialHoldsTheChosenExtentsOverTheFull) {
    TempDir dir;
    SyntheticBackup f = Written(dir, {.filePages = {80}}, "full.bak");
    SyntheticBackup d = Written(dir,
                                {.kind = SyntheticKind::Differential,
                                 .filePages = {80},
                                 .seed = 50,
                                 .differentialExtents = [](std::uint16_t, std::uint32_t e) { return e == 0 || e == 7; }},
                                "diff.bak");
    MtfWalk w = MtfWalker::WalkFile(d.Stripes()[0].path);
    ASSERT_TRUE(w.ok) << w.fault;
    EXPECT_EQ(w.dataSets[0].ssetAttributes, 8u);
    EXPECT_EQ(w.dataSets[0].msci.files[0].backedUpPages, 16u);
    NaiveRestore restore;
    ASSERT_TRUE(restore.Apply(Paths(f)));
    ASSERT_TRUE(restore.Apply(Paths(d)));
    std::vector<std::uint8_t> want(kPageSize);
    for (std::uint32_t page = 0; page < 80; ++page) {
        bool changed = page / 8 == 0 || page / 8 == 7;
        (changed ? d : f).ExpectedPage(1, 1, page, want.data());
        ASSERT_EQ(0, std::memcmp(restore.Page(1, page), want.data(), kPageSize)) << page;
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
            if (&other != &s) {
                EXPECT_TRUE(MtfWalker::WalkFile(other.path).ok);
            }
        return w;
    };
    EXPECT_NE(damaged({.badChecksumBlock = 6}, 1).fault.find("DBLK"), std::string::npos);  // MSDA of data set 1
    EXPECT_NE(damaged({.stripe = 1, .badLastFilemark = true}, 2).fault.find("SFMB"), std::string::npos);
    for (std::uint64_t cut : {100000, 1536, 5700}) damaged({.truncateAt = cut}, 1);
}

TEST(SyntheticBackup, RefusesOptionsThatMakeNoBackup) {
    TempDir dir;
    SyntheticBackup b({.version = 11});
    EXPECT_FALSE(b.Write(dir / "x.bak"));
    EXPECT_FALSE(b.Error().empty());
    SyntheticBackup c({.damage = {.badChecksumBlock = 10000}});
    EXPECT_FALSE(c.Write(dir / "y.bak"));
}

}  // namespace
}  // namespace zrtest
