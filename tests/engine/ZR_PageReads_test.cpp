// Page reads of a mounted database from its backups, held against the test
// walker's naive restore (differential over full) on real backups, and on
// synthetic backups against the writer's own record of where each extent
// lies: which pages are read, how many backup reads they take, what pages
// that no backup holds look like, and what a failing stripe costs.
#include "engine/ZR_Database.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "diag/ZR_Error.h"
#include "platform/FileCallsTesting.h"
#include "support/MountedChain.h"
#include "support/PageReadCheck.h"
#include "support/PageFormat.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"

namespace fs = std::filesystem;
using zrtest::ExpectServed;
using zrtest::MountedChain;
using zrtest::PageBuffer;
using zrtest::PageRead;
using zrtest::RandomRead;
using zrtest::SetBit;
using namespace zr::platform::testing;

namespace {

struct Chain {
    const char* name;
    const char* full;
    const char* diff;
};

class RealChainReads : public testing::TestWithParam<Chain> {};

TEST_P(RealChainReads, EveryPageIsTheNaiveRestoresAndNoOtherByteMoves) {
    ZR_REQUIRE_TESTDATA();
    std::vector<fs::path> diff;
    if (GetParam().diff) diff.push_back(*zrtest::TestDataFile(GetParam().diff));
    MountedChain chain({*zrtest::TestDataFile(GetParam().full)}, diff);
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    std::mt19937 rng(7);
    int iFromDiff = 0;
    for (int n = 0; n < 200; ++n) {
        const PageRead r = RandomRead(chain, rng);
        PageBuffer buffer(r.pages);
        buffer.Scribble(rng);
        const std::vector<uint8_t> before = buffer.Copy();
        ASSERT_TRUE(chain.Database().ReadFileByBitMap(r.fileId, buffer.Data(), r.Bytes(),
                                                      r.bitmap.data(), r.Offset(), ZR_READ_LIVE));
        ExpectServed(chain, r, buffer, before);
        for (uint32_t i = 0; i < r.pages; ++i)
            iFromDiff += r.Wanted(i) && chain.HoldingBackup(r.fileId, r.firstPage + i) == 1;
    }
    if (GetParam().diff) {
        EXPECT_GT(iFromDiff, 0) << "the differential's own pages were read";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Backups, RealChainReads,
    testing::Values(Chain{"FullAlone", "appveyor-lab/DoubleDiffing/difftest-full.bak", nullptr},
                    Chain{"DoubleDiffing", "appveyor-lab/DoubleDiffing/difftest-full.bak",
                          "appveyor-lab/DoubleDiffing/difftest-diff1.bak"},
                    Chain{"RestoreTimeClean", "appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak",
                          "appveyor-lab/RestoreTimeClean/RestoreTimeClean2.bak"}),
    [](const testing::TestParamInfo<Chain>& p) { return std::string(p.param.name); });

// ---------------------------------------------------------------------------
// Synthetic backups: where each extent lies is the writer's record.
// ---------------------------------------------------------------------------

std::atomic<int> g_iReadCalls{0};
HANDLE g_hFailing = INVALID_HANDLE_VALUE;
decltype(&::ReadFile) g_pNextReadFile = nullptr;

BOOL CountingReadFile(HANDLE h, LPVOID p, DWORD n, LPDWORD pn, LPOVERLAPPED o) {
    ++g_iReadCalls;
    if (h == g_hFailing) {
        SetLastError(ERROR_CRC);
        return FALSE;
    }
    return g_pNextReadFile(h, p, n, pn, o);
}

class SyntheticReads : public testing::Test {
protected:
    // A full backup of one data file of iPages pages over iStripes stripes,
    // one extent to a transfer buffer, so that neighbouring extents
    // alternate between the stripes.
    void Write(int iStripes, uint32_t iPages) {
        zrtest::SyntheticOptions o;
        o.stripes = iStripes;
        o.filePages = {iPages};
        m_pBackup = std::make_unique<zrtest::SyntheticBackup>(o);
        ASSERT_TRUE(m_pBackup->Write(m_tmp / "synthetic.bak")) << m_pBackup->Error();
        std::vector<fs::path> stripes;
        for (const auto& s : m_pBackup->Stripes()) {
            stripes.push_back(s.path);
            for (const auto& x : s.extents) m_where[{x.fileId, x.firstPage}] = {int(stripes.size()) - 1, x.offset};
        }
        m_fileId = m_pBackup->DataFiles().at(0).fileId;
        m_pChain = std::make_unique<MountedChain>(stripes, std::vector<fs::path>{});
        ASSERT_TRUE(m_pChain->Ready()) << m_pChain->Error();
        g_iReadCalls = 0;
        g_pNextReadFile = ReplaceFileCall(&FileCalls::ReadFile, &CountingReadFile);
    }
    void TearDown() override {
        g_hFailing = INVALID_HANDLE_VALUE;
        m_pChain.reset();
    }

    // Backup reads that the writer's layout asks for: one per stretch of
    // wanted pages, and one more wherever the next page lies neither in the
    // same extent nor in the extent right behind it in the same file.
    int ExpectedReads(const PageRead& r) {
        int n = 0;
        for (uint32_t i = 0; i < r.pages; ++i) {
            if (!r.Wanted(i)) continue;
            const uint32_t page = r.firstPage + i;
            const bool bJoins = i > 0 && r.Wanted(i - 1) && (page % 8 != 0 || Follows(page - 8, page));
            n += !bJoins;
        }
        return n;
    }
    bool Follows(uint32_t a, uint32_t b) {
        const auto& [sa, oa] = m_where.at({m_fileId, a});
        const auto& [sb, ob] = m_where.at({m_fileId, b});
        return sa == sb && oa + ZR_EXTENT_SIZE == ob;
    }
    bool Read(const PageRead& r, PageBuffer& buffer, ZR_ReadMode_e eMode = ZR_READ_LIVE) {
        return m_pChain->Database().ReadFileByBitMap(r.fileId, eMode == ZR_READ_PREPARE ? nullptr : buffer.Data(),
                                                     r.Bytes(), r.bitmap.data(), r.Offset(), eMode);
    }

    ScopedFileCalls m_restore;
    zrtest::TempDir m_tmp;
    std::unique_ptr<zrtest::SyntheticBackup> m_pBackup;
    std::unique_ptr<MountedChain> m_pChain;
    std::map<std::pair<uint16_t, uint32_t>, std::pair<int, uint64_t>> m_where;  // extent: stripe, offset
    uint16_t m_fileId = 0;
};

// 65,536 bytes at 0x2E000 start at bit 7 of the extent at page 16; with
// bit 9 set, page 25 is skipped: pages 23 and 24, and pages 26 to 30.
TEST_F(SyntheticReads, TheWorkedExampleTakesTwoReads) {
    Write(1, 64);
    PageRead r{m_fileId, 0x2E000 / ZR_PAGE_SIZE, 8};
    SetBit(r.bitmap, 9);
    ASSERT_TRUE(Follows(16, 24)) << "the writer lays the extents one behind the other";
    PageBuffer buffer(r.pages);
    std::mt19937 rng(1);
    buffer.Scribble(rng);
    const std::vector<uint8_t> before = buffer.Copy();
    const int32_t iState = m_pChain->Database().GetState();
    ASSERT_TRUE(Read(r, buffer));
    EXPECT_EQ(g_iReadCalls, 2);
    EXPECT_EQ(ExpectedReads(r), 2);
    ExpectServed(*m_pChain, r, buffer, before);
    EXPECT_EQ(m_pChain->Database().GetState(), iState) << "a read below 1 MiB is no recovery";
}

// Neighbouring extents alternate between the stripes, and an extent of the
// second stripe stands at the offset where the next one of the first
// stripe would follow it: they never join.
TEST_F(SyntheticReads, ExtentsOfTwoStripesJoinOnlyWithinAFile) {
    Write(2, 512);
    bool bTrap = false;
    for (uint32_t page = 8; page < 512; page += 8) {
        const auto& [sa, oa] = m_where.at({m_fileId, page - 8});
        const auto& [sb, ob] = m_where.at({m_fileId, page});
        bTrap |= sa != sb && oa + ZR_EXTENT_SIZE == ob;
    }
    ASSERT_TRUE(bTrap) << "the layout has the case that the file index alone tells apart";
    std::mt19937 rng(3);
    for (int n = 0; n < 60; ++n) {
        PageRead r{m_fileId, static_cast<uint32_t>(rng() % 500), 1 + static_cast<uint32_t>(rng() % 120)};
        r.pages = std::min<uint32_t>(r.pages, 520 - r.firstPage);  // a little past the end of the file
        for (uint32_t i = 0; i < r.pages; ++i)
            if (rng() % 6 == 0) SetBit(r.bitmap, r.Bit(i));
        PageBuffer buffer(r.pages);
        buffer.Scribble(rng);
        const std::vector<uint8_t> before = buffer.Copy();
        g_iReadCalls = 0;
        ASSERT_TRUE(Read(r, buffer));
        std::vector<uint8_t> cut = r.bitmap;  // pages past the end of the file are no read
        for (uint32_t i = 0; i < r.pages; ++i)
            if (r.firstPage + i >= 512) SetBit(cut, r.Bit(i));
        PageRead inFile = r;
        inFile.bitmap = cut;
        EXPECT_EQ(g_iReadCalls, ExpectedReads(inFile)) << "read at page " << r.firstPage << " of " << r.pages;
        ExpectServed(*m_pChain, r, buffer, before);
    }
}

// The prepare walk moves no byte: each stripe's sequential reader is told
// to begin at the first extent of the pages it holds.
TEST_F(SyntheticReads, ThePrepareWalkOnlyLowersWhereEachStripeBegins) {
    Write(2, 256);
    PageRead r{m_fileId, 100, 150};
    for (uint32_t i = 0; i < 40; ++i) SetBit(r.bitmap, r.Bit(i));  // pages 100 to 139 are not wanted
    std::map<int, uint64_t> lowest;
    for (uint32_t i = 40; i < r.pages; ++i) {
        const auto& [stripe, offset] = m_where.at({m_fileId, (r.firstPage + i) & ~7u});
        if (!lowest.count(stripe) || offset < lowest[stripe]) lowest[stripe] = offset;
    }
    PageBuffer unused(1);
    EXPECT_TRUE(Read(r, unused, ZR_READ_PREPARE));
    EXPECT_EQ(g_iReadCalls, 0);
    ZR_Backup* pFull = m_pChain->Database().GetFull();
    for (int s = 0; s < 2; ++s) EXPECT_EQ(pFull->GetFile(s)->GetNextRawOffset(), lowest.at(s)) << "stripe " << s;
}

TEST_F(SyntheticReads, HydrationCountsAndTheRecoveryState) {
    Write(1, 64);
    ZR_Database& db = m_pChain->Database();
    PageBuffer buffer(64);
    struct Case {
        uint32_t firstPage, pages;
        bool bAllSet;
        ZR_ReadMode_e eMode;
        int iReads, iAllUnallocated, iLowAllocated;
        bool bRecovery;
    } cases[] = {
        {0, 64, true, ZR_READ_HYDRATE, 0, 1, 0, false},      // all bits set: nothing read
        {8, 16, false, ZR_READ_HYDRATE, 1, 0, 1, false},     // one run
        {100, 16, false, ZR_READ_HYDRATE, 0, 1, 0, false},   // past the end of the file: no page held
        {128, 0, false, ZR_READ_LIVE, 0, 0, 0, false},       // 0x100000 exactly is no recovery
        {129, 0, false, ZR_READ_LIVE, 0, 0, 0, true},        // 0x102000: recovery, even without a page
        {0, 8, false, ZR_READ_HYDRATE, 1, 0, 1, true},       // the state stays
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "pages " << c.firstPage << "+" << c.pages);
        PageRead r{m_fileId, c.firstPage, c.pages};
        if (c.bAllSet) std::fill(r.bitmap.begin(), r.bitmap.end(), 0xFF);
        const int iAll = db.m_iNumAllUnallocatedHydrations, iLow = db.m_iNumLowAllocatedHydrations;
        g_iReadCalls = 0;
        EXPECT_TRUE(Read(r, buffer, c.eMode));
        EXPECT_EQ(g_iReadCalls, c.iReads);
        EXPECT_EQ(db.m_iNumAllUnallocatedHydrations - iAll, c.iAllUnallocated);
        EXPECT_EQ(db.m_iNumLowAllocatedHydrations - iLow, c.iLowAllocated);
        EXPECT_EQ(db.GetState() == ZR_VDB_STATE_RECOVERY, c.bRecovery);
    }
    db.SetState(ZR_VDB_STATE_ONLINE_HYDRATING);
    PageRead late{m_fileId, 200, 8};
    EXPECT_TRUE(Read(late, buffer, ZR_READ_HYDRATE));
    EXPECT_EQ(db.GetState(), ZR_VDB_STATE_ONLINE_HYDRATING) << "hydration's state never goes back to recovery";
}

// A stripe that fails every read fails the reads that touch it, and only
// those runs: the other stripe's pages are still served.
TEST_F(SyntheticReads, AFailingStripeFailsOnlyItsRuns) {
    Write(2, 128);
    g_hFailing = m_pChain->Database().GetFull()->GetFile(1)->GetHandle();
    PageRead r{m_fileId, 0, 128};
    PageBuffer buffer(r.pages);
    std::mt19937 rng(5);
    buffer.Scribble(rng);
    EXPECT_FALSE(Read(r, buffer));
    EXPECT_EQ(g_iLastIOError.load(), ERROR_CRC);
    int iServed = 0;
    for (uint32_t page = 0; page < r.pages; ++page) {
        if (m_where.at({m_fileId, page & ~7u}).first != 0) continue;
        ASSERT_EQ(0, std::memcmp(buffer.Page(page), m_pChain->ExpectedPage(m_fileId, page), ZR_PAGE_SIZE));
        ++iServed;
    }
    EXPECT_GT(iServed, 0);
}

// The contiguity rule on entries: native backups join the next extent in
// the file, compressed ones the next extent of the same block.
TEST(PageRunRule, EntriesJoinByTheBackendsRule) {
    ZR_Backup full(nullptr), diff(nullptr);
    const ZR_EMap none{}, all{ZR_EMap::kAllSet};
    const auto At = [](int iDevice, uint64_t iOfs, uint32_t iRel) { return ZR_EMap::Make(iDevice, iOfs, iRel); };
    struct Case {
        ZR_Backup* pA;
        ZR_EMap a;
        ZR_Backup* pB;
        ZR_EMap b;
        ZR_Backend_e eBackend;
        bool bJoins;
    } cases[] = {
        {&full, At(0, 0x30000, 0), &full, At(0, 0x30000, 0), ZR_BACKEND_MTF, true},    // same extent
        {&full, At(0, 0x30000, 0), &full, At(0, 0x40000, 0), ZR_BACKEND_MTF, true},    // next in the file
        {&full, At(0, 0x30000, 0), &full, At(0, 0x50000, 0), ZR_BACKEND_MTF, false},   // a gap
        {&full, At(0, 0x40000, 0), &full, At(0, 0x30000, 0), ZR_BACKEND_MTF, false},   // backwards
        {&full, At(0, 0x30000, 0), &full, At(1, 0x40000, 0), ZR_BACKEND_MTF, false},   // another stripe
        {&full, At(0, 0x30000, 0), &diff, At(0, 0x40000, 0), ZR_BACKEND_MTF, false},   // another backup
        {&full, none, &full, none, ZR_BACKEND_MTF, true},                              // nothing held, alike
        {&full, all, &full, all, ZR_BACKEND_MTF, true},
        {&full, none, &full, all, ZR_BACKEND_MTF, false},
        {&full, none, &full, At(0, 0x10000, 0), ZR_BACKEND_MTF, false},                // nothing held, then held
        {&full, At(2, 0x80000, 3), &full, At(2, 0x80000, 4), ZR_BACKEND_KELP, true},   // next in the block
        {&full, At(2, 0x80000, 3), &full, At(2, 0x80000, 5), ZR_BACKEND_KELP, false},
        {&full, At(2, 0x80000, 3), &full, At(2, 0x90000, 3), ZR_BACKEND_KELP, false},  // native rule only
        {&full, At(2, 0x80000, 3), &full, At(3, 0x80000, 4), ZR_BACKEND_KELP, false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        EXPECT_EQ(ZR_Database::JoinsRun({c.pA, c.a}, {c.pB, c.b}, c.eBackend), c.bJoins) << "case " << i;
    }
}

}  // namespace
