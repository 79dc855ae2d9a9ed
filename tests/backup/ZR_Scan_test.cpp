#include "backup/ZR_Scan.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>

#include "ZR_ScanTestHelpers.h"
#include "platform/FileCallsTesting.h"
#include "support/SyntheticBackup.h"

using namespace zrscantest;
namespace fs = std::filesystem;

namespace {

const char* const kTwoSets = "gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak";
const char* const kFull = "appveyor-lab/DoubleDiffing/difftest-full.bak";

struct ScanRun {
    bool bResult = false;
    std::unique_ptr<ZR_Backup> pB;
    std::unique_ptr<RecordingScan> pScan;
};

ScanRun Walk(const std::vector<fs::path>& aFiles, int iDataSet) {
    ScanRun run;
    run.pB = MakeBackup(aFiles, iDataSet);
    run.pScan = std::make_unique<RecordingScan>(run.pB.get(), iDataSet);
    run.bResult = run.pScan->ScanFiles();
    return run;
}

const RecordingScan::Block* FirstBlock(const RecordingScan& scan, const std::string& sType) {
    for (const auto& b : scan.m_aBlocks)
        if (b.sType == sType) return &b;
    return nullptr;
}

class ScanTest : public ::testing::Test {
protected:
    void SetUp() override { ZR_ClearErrors(nullptr); }
    void TearDown() override { ZR_ClearErrors(nullptr); }
    // A synthetic backup written into the temporary folder; its file is
    // Stripes()[0].path.
    zrtest::SyntheticBackup Synthetic(const zrtest::SyntheticOptions& options) {
        zrtest::SyntheticBackup backup(options);
        EXPECT_TRUE(backup.Write(m_tmp / ("synthetic" + std::to_string(++m_iFiles) + ".bak"))) << backup.Error();
        return backup;
    }
    zrtest::TempDir m_tmp;
    int m_iFiles = 0;
};

}  // namespace

// ---------------------------------------------------------------------------
// Real backups
// ---------------------------------------------------------------------------

TEST_F(ScanTest, EveryNativeBackupWalksItsFirstDataSet) {
    ZR_REQUIRE_TESTDATA();
    auto aFiles = NativeTestBackups();
    ASSERT_GT(aFiles.size(), 40u);
    for (const auto& f : aFiles) {
        SCOPED_TRACE(f.string());
        ScanRun run = Walk({f}, 1);
        EXPECT_TRUE(run.bResult) << zrtest::ErrorTextNarrow();
        const RecordingScan& scan = *run.pScan;
        ASSERT_FALSE(scan.m_aBlocks.empty());
        EXPECT_EQ(scan.m_aBlocks.front().sType, "TAPE");
        EXPECT_EQ(scan.m_aBlocks.back().sType, "SFMB");  // the filemark behind the ESET ends the walk
        EXPECT_EQ(scan.m_aSsets, std::vector<int>{1});
        EXPECT_GE(scan.Count("ESET"), 1);
        EXPECT_EQ(scan.m_aRaidLengths.size(), 1u);
        // Database backups hold data; a log backup's share of a stripe set
        // can be empty.
        if (f.extension() == ".bak") {
            EXPECT_FALSE(scan.m_aData.empty());
        }
    }
}

// A file with two data sets: the first stops before the appended one, the
// second is reached through the filemarks without walking the first, and a
// third is not there.
TEST_F(ScanTest, DataSetsOfAFileWithTwo) {
    ZR_REQUIRE_TESTDATA();
    const fs::path file = *zrtest::TestDataFile(kTwoSets);
    ScanRun first = Walk({file}, 1);
    ASSERT_TRUE(first.bResult);
    for (const auto& b : first.pScan->m_aBlocks) EXPECT_LE(b.iDataSet, 1) << b.sType << " at " << b.iOffset;

    ScanRun second = Walk({file}, 2);
    ASSERT_TRUE(second.bResult) << zrtest::ErrorTextNarrow();
    EXPECT_EQ(second.pScan->m_aSsets, std::vector<int>{2});
    ASSERT_GE(second.pScan->m_aBlocks.size(), 2u);
    EXPECT_EQ(second.pScan->m_aBlocks[1].sType, "SSET") << "the SSET of set 2 follows the TAPE";
    EXPECT_EQ(second.pScan->m_aBlocks[1].iDataSet, 2);
    EXPECT_FALSE(second.pScan->m_aData.empty());

    EXPECT_FALSE(Walk({file}, 3).bResult);
    EXPECT_TRUE(ErrorsContain(L"Dataset #3 not found in backup."));
    EXPECT_TRUE(ErrorsContain(L"Abort during scan of backup file #0."));
}

TEST_F(ScanTest, FlippedBlockHeaderGivesCorruptionWithNameAndOffset) {
    ZR_REQUIRE_TESTDATA();
    fs::path copy = m_tmp / "flipped.bak";
    fs::copy_file(*zrtest::TestDataFile(kFull), copy);
    int64_t iMsci = 0;
    {
        ScanRun clean = Walk({copy}, 1);
        ASSERT_TRUE(clean.bResult);
        const RecordingScan::Block* pMsci = FirstBlock(*clean.pScan, "MSCI");
        ASSERT_NE(pMsci, nullptr);
        iMsci = pMsci->iOffset;
    }
    FlipByte(copy, static_cast<uint64_t>(iMsci) + 20);
    ZR_ClearErrors(nullptr);
    ScanRun run = Walk({copy}, 1);
    EXPECT_FALSE(run.bResult);
    std::wstring expected =
        L"DBLK Corruption detected in \"" + Wide(copy) + L"\" at offset " + std::to_wstring(iMsci) + L".";
    EXPECT_TRUE(ErrorsContain(expected)) << zrtest::ErrorTextNarrow();
    EXPECT_TRUE(ErrorsContain(L"Error during scan of backup file #0."));
    EXPECT_TRUE(FirstBlock(*run.pScan, "MSCI") == nullptr);
}

// Cut inside the data of a stream, the walk meets the end of the file where
// it expects the next header and ends there; cut inside a header, the header
// cannot be read whole and the scan fails.
TEST_F(ScanTest, TruncatedFileEndsTheWalk) {
    ZR_REQUIRE_TESTDATA();
    fs::path source = *zrtest::TestDataFile(kFull);
    ScanRun clean = Walk({source}, 1);
    ASSERT_TRUE(clean.bResult);
    ASSERT_FALSE(clean.pScan->m_aData.empty());
    const auto& mqda = clean.pScan->m_aData.front();
    const RecordingScan::Block* pMsci = FirstBlock(*clean.pScan, "MSCI");
    ASSERT_NE(pMsci, nullptr);

    fs::path inData = m_tmp / "cut_in_data.bak";
    fs::copy_file(source, inData);
    fs::resize_file(inData, static_cast<uint64_t>(mqda.iOffset) + mqda.iLength / 2);
    ScanRun cutData = Walk({inData}, 1);
    EXPECT_TRUE(cutData.bResult);
    EXPECT_EQ(cutData.pScan->Count("ESET"), 0);

    fs::path inHeader = m_tmp / "cut_in_header.bak";
    fs::copy_file(source, inHeader);
    fs::resize_file(inHeader, static_cast<uint64_t>(pMsci->iOffset) + 30);
    ZR_ClearErrors(nullptr);
    ScanRun cutHeader = Walk({inHeader}, 1);
    EXPECT_FALSE(cutHeader.bResult);
    EXPECT_TRUE(ErrorsContain(L"Failed to read 52 bytes from " + Wide(inHeader) + L" at offset " +
                              std::to_wstring(pMsci->iOffset) + L"."));
}

namespace {

namespace pt = zr::platform::testing;

// Every disk read of a walk, logged; the read numbered iFailAt (from 1) fails.
struct ReadPlan {
    std::mutex m;
    std::vector<std::pair<uint64_t, uint64_t>> aReads;  // offset, length
    int iFailAt = 0;
};
ReadPlan g_plan;

BOOL PlannedReadFile(HANDLE h, LPVOID p, DWORD n, LPDWORD pRead, LPOVERLAPPED pOv) {
    {
        std::lock_guard<std::mutex> lock(g_plan.m);
        g_plan.aReads.push_back({pOv ? (uint64_t(pOv->OffsetHigh) << 32) | pOv->Offset : 0, n});
        if (int(g_plan.aReads.size()) == g_plan.iFailAt) {
            SetLastError(ERROR_READ_FAULT);
            return FALSE;
        }
    }
    return g_DefaultFileCalls.ReadFile(h, p, n, pRead, pOv);
}

ScanRun PlannedWalk(const fs::path& file, int iDataSet, int iFailAt) {
    g_plan.aReads.clear();
    g_plan.iFailAt = iFailAt;
    pt::ScopedFileCalls restore;
    pt::ReplaceFileCall(&FileCalls::ReadFile, &PlannedReadFile);
    return Walk({file}, iDataSet);
}

}  // namespace

TEST_F(ScanTest, DataOfSqlStreamsIsNeverRead) {
    ZR_REQUIRE_TESTDATA();
    fs::path file = *zrtest::TestDataFile(kTwoSets);
    ScanRun run = PlannedWalk(file, 1, 0);
    ASSERT_TRUE(run.bResult);
    ASSERT_FALSE(run.pScan->m_aData.empty());
    uint64_t iTotal = 0;
    for (const auto& r : g_plan.aReads) iTotal += r.second;
    EXPECT_LT(iTotal, fs::file_size(file) / 4);
    // Only the read-ahead window at either end of a stream's data may touch it.
    const uint64_t iWindow = ZR_ReadAhead::ms_iDataSize + 4096;
    for (const auto& d : run.pScan->m_aData) {
        if (d.iLength < 3 * iWindow) continue;
        uint64_t iInnerStart = static_cast<uint64_t>(d.iOffset) + iWindow;
        uint64_t iInnerEnd = static_cast<uint64_t>(d.iOffset) + d.iLength - iWindow;
        for (const auto& r : g_plan.aReads)
            EXPECT_FALSE(r.first < iInnerEnd && r.first + r.second > iInnerStart)
                << d.sType << " data read at " << r.first << " for " << r.second;
    }
}

// Whichever disk read fails, the scan either ends with a recorded error or
// succeeds, and every file it opened is closed again.
TEST_F(ScanTest, FailedReadAnywhereEndsCleanly) {
    const fs::path path = Synthetic({.dataSets = 3}).Stripes()[0].path;
    size_t iHandlesBefore = pt::OpenFileHandleCount();
    int iFailAt = 1;
    for (bool bHitFault = true; bHitFault; ++iFailAt) {
        SCOPED_TRACE(iFailAt);
        ZR_ClearErrors(nullptr);
        ScanRun run = PlannedWalk(path, 3, iFailAt);
        bHitFault = int(g_plan.aReads.size()) >= iFailAt;
        if (run.bResult) {
            EXPECT_EQ(run.pScan->m_aSsets, std::vector<int>{3});
        } else {
            EXPECT_FALSE(ErrorsText().empty());
        }
        EXPECT_EQ(pt::OpenFileHandleCount(), iHandlesBefore);
        ASSERT_LT(iFailAt, 1000);
    }
    EXPECT_GT(iFailAt, 3);
}

TEST_F(ScanTest, UnsupportedFileAmongGoodOnesOnlyWarns) {
    ZR_REQUIRE_TESTDATA();
    auto compressed = zrtest::TestDataFile("JoeyCheung-Databases/TSQLV4.bak");
    ASSERT_TRUE(compressed);
    ScanRun run = Walk({*compressed, *zrtest::TestDataFile(kFull)}, 1);
    EXPECT_TRUE(run.bResult);
    EXPECT_TRUE(ErrorsContain(L"The " + Wide(*compressed) + L" file is not a supported backup."));
    EXPECT_EQ(run.pScan->m_aSsets, std::vector<int>{1});
    EXPECT_EQ(run.pB->m_eBackend, ZR_BACKEND_MTF);
}

// ---------------------------------------------------------------------------
// Synthetic backups
// ---------------------------------------------------------------------------

TEST_F(ScanTest, OlderVersionsWalk) {
    for (int iVersion : {7, 8}) {
        SCOPED_TRACE(iVersion);
        ScanRun run = Walk({Synthetic({.version = iVersion}).Stripes()[0].path}, 1);
        EXPECT_TRUE(run.bResult);
        EXPECT_EQ(run.pScan->m_aSsets, std::vector<int>{1});
        EXPECT_EQ(run.pScan->Count("MSDA"), 1);
        EXPECT_GE(run.pScan->Count("MSTL"), 1);
    }
}

// Both layouts of the filemark array lead straight to the data set asked
// for; with more filemarks than one block's array holds, the oldest entry of
// the last block leads to an older block, whose entries reach further back.
TEST_F(ScanTest, SeekFindsTheDataSetThroughTheFilemarks) {
    const struct {
        int iVersion, iDataSets;
        std::vector<int> aWanted;
    } aCases[] = {{9, 6, {2, 3, 4, 5, 6}}, {10, 6, {2, 3, 4, 5, 6}}, {10, 24, {2, 5, 23, 24}}};
    for (const auto& c : aCases) {
        const fs::path path =
            Synthetic({.version = c.iVersion, .filePages = {8}, .dataSets = c.iDataSets}).Stripes()[0].path;
        for (int iDataSet : c.aWanted) {
            SCOPED_TRACE(testing::Message() << "version " << c.iVersion << " data set " << iDataSet);
            ScanRun run = Walk({path}, iDataSet);
            ASSERT_TRUE(run.bResult) << zrtest::ErrorTextNarrow();
            EXPECT_EQ(run.pScan->m_aSsets, std::vector<int>{iDataSet});
            ASSERT_GE(run.pScan->m_aBlocks.size(), 2u);
            EXPECT_EQ(run.pScan->m_aBlocks[1].sType, "SSET");
        }
        EXPECT_FALSE(Walk({path}, c.iDataSets + 1).bResult);
        EXPECT_TRUE(ErrorsContain(L"Dataset #" + std::to_wstring(c.iDataSets + 1) + L" not found in backup."));
    }
}

TEST_F(ScanTest, DamagedLastFilemarkFallsBackToTheBlockWalk) {
    const fs::path path = Synthetic({.version = 9, .dataSets = 4, .damage = {.badLastFilemark = true}}).Stripes()[0].path;
    ScanRun run = Walk({path}, 3);
    ASSERT_TRUE(run.bResult) << zrtest::ErrorTextNarrow();
    EXPECT_EQ(run.pScan->m_aSsets, std::vector<int>{3});
    EXPECT_TRUE(ErrorsContain(L"SFMB Corruption detected in \"" + Wide(path) + L"\""));
    // The walk went through the filemarks of the data sets in front.
    EXPECT_GT(run.pScan->Count("SFMB"), 4);
}

TEST_F(ScanTest, HeaderRunBehindPh6sIsWalked) {
    ScanRun run = Walk({Synthetic({.ph6sFiles = 3}).Stripes()[0].path}, 1);
    ASSERT_TRUE(run.bResult) << zrtest::ErrorTextNarrow();
    EXPECT_EQ(run.pScan->m_aHeaderLengths, (std::vector<uint32_t>{700, 1000, 1300, 0}));
    // The blocks behind the run were found again.
    EXPECT_GE(run.pScan->Count("MSTL"), 1);
    EXPECT_EQ(run.pScan->Count("MSLS"), 1);
}

// A header whose checksum holds but whose length cannot move the walk on
// must not hold the walk at one place.
TEST_F(ScanTest, BlockOfZeroLengthIsRefused) {
    const auto backup = Synthetic({});
    const fs::path path = backup.Stripes()[0].path;
    uint64_t iSset = 0;
    for (const auto& b : backup.Stripes()[0].blocks)
        if (b.type == "SSET") iSset = b.offset;
    ASSERT_NE(iSset, 0u);
    {
        std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
        MTF_DB_HDR hdr;
        f.seekg(static_cast<std::streamoff>(iSset));
        f.read(reinterpret_cast<char*>(&hdr), sizeof hdr);
        hdr.m_first_event_offset = 0;
        MTF_SetBlockChecksum(hdr);
        f.seekp(static_cast<std::streamoff>(iSset));
        f.write(reinterpret_cast<const char*>(&hdr), sizeof hdr);
    }
    ScanRun run = Walk({path}, 1);
    EXPECT_FALSE(run.bResult);
    EXPECT_TRUE(ErrorsContain(L"at offset " + std::to_wstring(iSset) + L"."));
}
