// Page reads of a mounted database from its backups, on synthetic ones
// against the writer's record of where each extent lies, counting the
// backup reads through the file-call table. (Real chains, differential over
// full, are read to the walker's naive restore end to end.)
#include "engine/ZR_Database.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include "support/MountedChain.h"
#include "support/ReadFileHook.h"
#include "support/SyntheticBackup.h"

namespace fs = std::filesystem;
using namespace zrtest;

namespace {

// A full backup of one data file over one or two stripes, one extent to a
// transfer buffer: neighbouring extents alternate between the stripes.
class SyntheticReads : public testing::Test {
protected:
    void Write(int iStripes, uint32_t iPages) {
        SyntheticOptions o;
        o.stripes = iStripes;
        o.filePages = {iPages};
        SyntheticBackup backup(o);
        ASSERT_TRUE(backup.Write(m_tmp / "synthetic.bak")) << backup.Error();
        std::vector<fs::path> stripes;
        for (const auto& s : backup.Stripes()) {
            stripes.push_back(s.path);
            for (const auto& x : s.extents) m_where[x.firstPage] = {int(stripes.size()) - 1, x.offset};
        }
        m_fileId = backup.DataFiles().at(0).fileId;
        m_pChain = std::make_unique<MountedChain>(stripes, std::vector<fs::path>{});
        ASSERT_TRUE(m_pChain->Ready()) << m_pChain->Error();
        m_hook.Install([this](ReadFileHook::Read next, auto... args) {
            ++m_iReadCalls;
            return next(args...);
        });
    }
    // The extent of page b lies right behind that of page a in one file.
    bool Follows(uint32_t a, uint32_t b) {
        return m_where.at(a & ~7u).first == m_where.at(b & ~7u).first &&
               m_where.at(a & ~7u).second + ZR_EXTENT_SIZE == m_where.at(b & ~7u).second;
    }
    // From the writer's layout: a read for each stretch of wanted pages, and
    // one more wherever a page starts an extent that doesn't follow the last.
    int ExpectedReads(const PageRead& r) {
        int n = 0;
        for (uint32_t i = 0; i < r.pages; ++i) {
            const uint32_t page = r.firstPage + i;
            n += r.Wanted(i) && !(i > 0 && r.Wanted(i - 1) && (page % 8 != 0 || Follows(page - 8, page)));
        }
        return n;
    }
    // Reads r with a fresh count of backup reads; checks the pages (not in
    // the prepare walk, which has no buffer).
    bool Read(const PageRead& r, ZR_ReadMode_e eMode = ZR_READ_LIVE) {
        PageBuffer buffer(std::max(r.pages, 1u));
        std::mt19937 rng(r.firstPage);
        const auto before = buffer.Scribble(rng);
        m_iReadCalls = 0;
        const bool bOk = m_pChain->Database().ReadFileByBitMap(
            r.fileId, eMode == ZR_READ_PREPARE ? nullptr : buffer.Page(0), r.Bytes(), r.bitmap.data(), r.Offset(), eMode);
        if (eMode != ZR_READ_PREPARE) ExpectServed(*m_pChain, r, buffer, before);
        return bOk;
    }

    ReadFileHook m_hook;
    std::atomic<int> m_iReadCalls{0};
    TempDir m_tmp;
    std::unique_ptr<MountedChain> m_pChain;
    std::map<uint32_t, std::pair<int, uint64_t>> m_where;  // first page of an extent: stripe, offset
    uint16_t m_fileId = 0;
};

// 65,536 bytes at 0x2E000 start at bit 7 of the extent at page 16; with
// bit 9 set, page 25 is skipped: pages 23 and 24, then pages 26 to 30.
TEST_F(SyntheticReads, TheWorkedExampleTakesTwoReads) {
    Write(1, 64);
    PageRead r{m_fileId, 0x2E000 / ZR_PAGE_SIZE, 8};
    SetBit(r.bitmap, 9);
    ASSERT_TRUE(Follows(16, 24));
    EXPECT_TRUE(Read(r));
    EXPECT_EQ(m_iReadCalls, 2);
}

// An extent of the second stripe stands at the offset where the next one of
// the first stripe would: only the file index keeps them apart.
TEST_F(SyntheticReads, ExtentsJoinOnlyWithinOneBackupFile) {
    Write(2, 512);
    bool bTrap = false;
    for (uint32_t page = 8; page < 512; page += 8)
        bTrap |= m_where.at(page - 8).first != m_where.at(page).first &&
                 m_where.at(page - 8).second + ZR_EXTENT_SIZE == m_where.at(page).second;
    ASSERT_TRUE(bTrap);
    std::mt19937 rng(3);
    for (int n = 0; n < 60; ++n) {
        PageRead r{m_fileId, static_cast<uint32_t>(rng() % 400), 1 + static_cast<uint32_t>(rng() % 112)};
        for (uint32_t i = 0; i < r.pages; ++i)
            if (rng() % 6 == 0) SetBit(r.bitmap, r.Bit(i));
        EXPECT_TRUE(Read(r));
        EXPECT_EQ(m_iReadCalls, ExpectedReads(r)) << r.pages << " pages at " << r.firstPage;
    }
}

// The prepare walk reads nothing: each stripe's sequential reader is told
// to begin at the lowest extent of the wanted pages that it holds.
TEST_F(SyntheticReads, ThePrepareWalkOnlyLowersWhereEachStripeBegins) {
    Write(2, 256);
    PageRead r{m_fileId, 100, 150};
    std::map<int, uint64_t> lowest;
    for (uint32_t i = 0; i < r.pages; ++i) {
        if (i < 40) {
            SetBit(r.bitmap, r.Bit(i));
            continue;
        }
        const auto [stripe, offset] = m_where.at((r.firstPage + i) & ~7u);
        lowest[stripe] = lowest.count(stripe) ? std::min(lowest[stripe], offset) : offset;
    }
    EXPECT_TRUE(Read(r, ZR_READ_PREPARE));
    EXPECT_EQ(m_iReadCalls, 0);
    for (int s = 0; s < 2; ++s)
        EXPECT_EQ(m_pChain->Database().GetFull()->GetFile(s)->GetNextRawOffset(), lowest.at(s)) << s;
}

TEST_F(SyntheticReads, HydrationCountsAndTheRecoveryState) {
    Write(1, 64);
    ZR_Database& db = m_pChain->Database();
    struct Case {
        uint32_t firstPage, pages;
        bool bAllSet;
        ZR_ReadMode_e eMode;
        int iReads, iAllUnallocated, iLowAllocated;
        int32_t iState;
    } cases[] = {
        {0, 64, true, ZR_READ_HYDRATE, 0, 1, 0, ZR_VDB_STATE_PREPARING_ACCESS},  // nothing wanted
        {8, 16, false, ZR_READ_HYDRATE, 1, 0, 1, ZR_VDB_STATE_PREPARING_ACCESS},
        {100, 16, false, ZR_READ_HYDRATE, 0, 1, 0, ZR_VDB_STATE_PREPARING_ACCESS},  // past the end: no page held
        {128, 0, false, ZR_READ_LIVE, 0, 0, 0, ZR_VDB_STATE_PREPARING_ACCESS},     // 0x100000 exactly
        {129, 0, false, ZR_READ_LIVE, 0, 0, 0, ZR_VDB_STATE_RECOVERY},             // 0x102000
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.pages << " pages at " << c.firstPage);
        PageRead r{m_fileId, c.firstPage, c.pages};
        if (c.bAllSet) std::fill(r.bitmap.begin(), r.bitmap.end(), 0xFF);
        const int iAll = db.m_iNumAllUnallocatedHydrations, iLow = db.m_iNumLowAllocatedHydrations;
        EXPECT_TRUE(Read(r, c.eMode));
        EXPECT_EQ(m_iReadCalls, c.iReads);
        EXPECT_EQ(db.m_iNumAllUnallocatedHydrations - iAll, c.iAllUnallocated);
        EXPECT_EQ(db.m_iNumLowAllocatedHydrations - iLow, c.iLowAllocated);
        EXPECT_EQ(db.GetState(), c.iState);
    }
    db.SetState(ZR_VDB_STATE_ONLINE_HYDRATING);
    EXPECT_TRUE(Read(PageRead{m_fileId, 200, 8}, ZR_READ_HYDRATE));
    EXPECT_EQ(db.GetState(), ZR_VDB_STATE_ONLINE_HYDRATING) << "a hydrating mount never goes back to recovery";
}

// The rule on entries where the files above can't show it: compressed
// blocks, and entries that hold nothing.
TEST(PageRunRule, EntriesJoinByTheBackendsRule) {
    ZR_Backup full(nullptr), diff(nullptr);
    const auto At = [](int iDevice, uint64_t iOfs, uint32_t iRel) { return ZR_EMap::Make(iDevice, iOfs, iRel); };
    const ZR_EMap none{}, all{ZR_EMap::kAllSet}, x = At(2, 0x80000, 3);
    struct Case {
        ZR_EMap a, b;
        ZR_Backend_e eBackend;
        bool bJoins;
    } cases[] = {
        {none, none, ZR_BACKEND_MTF, true},
        {none, all, ZR_BACKEND_MTF, false},
        {none, At(0, 0x10000, 0), ZR_BACKEND_MTF, false},  // offset 0 + 64 KiB, but nothing is held
        {x, At(2, 0x80000, 4), ZR_BACKEND_KELP, true},     // the next extent of the block
        {x, At(2, 0x80000, 5), ZR_BACKEND_KELP, false},
        {x, At(2, 0x90000, 3), ZR_BACKEND_KELP, false},
        {x, At(3, 0x80000, 4), ZR_BACKEND_KELP, false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ZR_Database::JoinsRun({&full, c.a}, {&full, c.b}, c.eBackend), c.bJoins) << std::hex << c.b.m_iEntry;
    EXPECT_FALSE(ZR_Database::JoinsRun({&full, x}, {&diff, At(2, 0x80000, 4)}, ZR_BACKEND_KELP));
}

}  // namespace
