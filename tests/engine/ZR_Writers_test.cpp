// The writer threads against the embedded driver, fed with blocks cut from
// a real full backup and its differential as the test walker finds them:
// a block's runs reach the data file when they are the copy that counts, a
// page inside an extent that is not the one expected becomes zeros, a
// block whose extent map names another place, or whose extent the
// differential holds, is dropped, and the completion headers let every
// buffer be used again.
#include "engine/ZR_Writers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <thread>

#include "engine/ZR_Database.h"
#include "mount/ZR.h"
#include "support/FileBytes.h"
#include "support/HydrationMount.h"
#include "support/PageFormat.h"

namespace fs = std::filesystem;
using namespace zrtest;

namespace {

const std::string kDD = "appveyor-lab/DoubleDiffing/";

// An extent of a backup's data streams, where it lies in the backup file.
struct BackupExtent {
    uint64_t iOffset = 0;
    uint16_t fileId = 0;
    uint32_t firstPage = 0;
    std::vector<uint8_t> bytes;
};

std::vector<BackupExtent> ExtentsOf(const fs::path& file) {
    const MtfWalk walk = MtfWalker::WalkFile(file);
    const auto source = MtfSource::FromFile(file);
    std::vector<BackupExtent> extents;
    for (const MtfDataRun& run : walk.DataSet(1)->data)
        for (uint64_t off = 0; off + kPageSize * kPagesPerExtent <= run.length; off += kPageSize * kPagesPerExtent) {
            BackupExtent x{run.offset + off, 0, 0, std::vector<uint8_t>(kPageSize * kPagesPerExtent)};
            source->Read(x.iOffset, x.bytes.data(), x.bytes.size());
            const PageHeaderFields h = ReadPageHeader(x.bytes.data());
            if (h.headerVersion != 1 || h.type >= 100 || h.fileId == 0) continue;
            x.fileId = h.fileId;
            x.firstPage = h.pageNumber;
            extents.push_back(std::move(x));
        }
    return extents;
}

// A page of a block as the writer hands it on: itself when its header names
// the page expected there, else zeros.
std::vector<uint8_t> Written(const BackupExtent& x, uint32_t i) {
    const uint8_t* p = x.bytes.data() + size_t{i} * kPageSize;
    const PageHeaderFields h = ReadPageHeader(p);
    if (i == 0 || (h.fileId == x.fileId && h.pageNumber == x.firstPage + i)) return {p, p + kPageSize};
    return std::vector<uint8_t>(kPageSize);
}

// Capped or not: a capped queue makes the writers hand blocks over in the
// driver's synchronous mode near the queue's end.
class WriterThreads : public testing::TestWithParam<bool> {};

TEST_P(WriterThreads, RunsThatCountReachTheDataFilesAndEveryBufferComesBack) {
    ZR_REQUIRE_TESTDATA();
    RunningService service;
    ASSERT_TRUE(service.Up()) << service.Error();
    const fs::path folder = *TestDataDir() / kDD;
    const MountRequest files{.full = {folder / "difftest-full.bak"}, .diff = {folder / "difftest-diff1.bak"}};
    HydrationMount chain(service, files);
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    ZR_Database& db = *ZR::FindDatabase(chain.Key());
    const ZR_HydrationSizing sizing =
        ZR_HydrationSizing::Compute({db.GetNumDataFileSlots(), 1, 2, 2, GetParam() ? 0x10000000u : 0u});
    ASSERT_EQ(sizing.bQueueMemoryCapped, GetParam());

    std::vector<BackupExtent> full = ExtentsOf(files.full[0]), diff = ExtentsOf(files.diff[0]);
    // One extent of the full backup that nothing else writes goes with a
    // token the extent map doesn't name for it.
    auto misplaced = std::find_if(full.begin(), full.end(), [&](const BackupExtent& x) {
        return x.firstPage >= kPagesPerExtent && chain.Reference().HoldingBackup(x.fileId, x.firstPage) == 0;
    });
    ASSERT_NE(misplaced, full.end());
    const BackupExtent wrongToken = *misplaced;
    full.erase(misplaced);
    uint64_t iKept = 0;
    for (const BackupExtent& x : full) iKept += chain.Reference().HoldingBackup(x.fileId, x.firstPage) == 1 ? 0 : 1;
    {
        ZR_Writers writers(db, sizing);
        ASSERT_EQ(writers.Start(), 2);
        auto post = [&](int iThread, const BackupExtent& x, ZR_BlockKind_e eKind, uint64_t iToken) {
            void* p = writers.GetPoolBuffer(iThread, static_cast<uint32_t>(x.bytes.size()));
            ASSERT_NE(p, nullptr);
            std::memcpy(p, x.bytes.data(), x.bytes.size());
            writers.PostToWriter(iThread, p, static_cast<uint32_t>(x.bytes.size()), eKind, iToken);
        };
        std::vector<std::thread> producers;
        for (int t = 0; t < 2; ++t)
            producers.emplace_back([&, t] {
                for (size_t i = t; i < diff.size(); i += 2) post(t, diff[i], ZR_BLOCK_DIFF, diff[i].iOffset);
                for (size_t i = full.size() - 1 - t; i < full.size(); i -= 2) post(t, full[i], ZR_BLOCK_FULL, full[i].iOffset);
                if (t == 0) post(t, wrongToken, ZR_BLOCK_FULL, wrongToken.iOffset + ZR_EXTENT_SIZE);
            });
        for (std::thread& p : producers) p.join();
        writers.StopAndWait();
        EXPECT_EQ(writers.UnfinishedBlocks(), 0);
        writers.ReleaseQueues();
        for (int t = 0; t < 2; ++t) EXPECT_EQ(writers.Pool(t).InUse(), 0);
    }
    EXPECT_EQ(db.m_TotalHydratedByBackupPasses, (iKept + diff.size()) * ZR_EXTENT_SIZE);

    std::map<uint16_t, std::vector<uint8_t>> disk;
    for (const HydrationMount::DataFile& f : chain.DataFiles()) disk[f.fileId] = ReadFileBytes(f.sparse);
    auto onDisk = [&](uint16_t fileId, uint32_t page) {
        const uint8_t* p = disk.at(fileId).data() + size_t{page} * kPageSize;
        return std::vector<uint8_t>(p, p + kPageSize);
    };
    for (const auto* pExtents : {&diff, &full})
        for (const BackupExtent& x : *pExtents) {
            if (x.firstPage < kPagesPerExtent) continue;  // the first extent was read before
            const bool bFromDiff = chain.Reference().HoldingBackup(x.fileId, x.firstPage) == 1;
            if (bFromDiff != (pExtents == &diff)) continue;
            for (uint32_t i = 0; i < kPagesPerExtent; ++i)
                ASSERT_EQ(onDisk(x.fileId, x.firstPage + i), Written(x, i))
                    << "page " << x.fileId << ":" << x.firstPage + i << (bFromDiff ? " of the differential" : "");
        }
    for (uint32_t i = 0; i < kPagesPerExtent; ++i)
        EXPECT_EQ(onDisk(wrongToken.fileId, wrongToken.firstPage + i), std::vector<uint8_t>(kPageSize));
}

INSTANTIATE_TEST_SUITE_P(Queues, WriterThreads, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& p) { return p.param ? "Capped" : "Plain"; });

TEST(WriterThreads, FirstPageOfABlockBehindItsPad) {
    std::vector<uint8_t> block(3 * kPageSize);
    std::memcpy(block.data(), "APAD", 4);
    block[8] = 0x10;  // a pad of 16 bytes: the pages start at the next 512
    block[512 + 32] = 0x28;
    block[512 + 36] = 3;
    const PageId page = ZR_Writers::FirstPageOf(block.data(), static_cast<uint32_t>(block.size()));
    EXPECT_EQ(page.m_iPage, 0x28u);
    EXPECT_EQ(page.m_iFileId, 3);
    std::memcpy(block.data() + 512, "MQDA", 4);
    EXPECT_EQ(ZR_Writers::FirstPageOf(block.data(), static_cast<uint32_t>(block.size())).m_iFileId, 0);
}

}  // namespace
