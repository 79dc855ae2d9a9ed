// The live I/O queue of a mounted database: which thread a queued read goes
// to (the queue served from the test thread, without live I/O threads), how
// many threads a mount starts, and reads served end to end by the threads,
// completed on a stand-in for the driver's async live I/O port and checked
// against the test walker's naive restore of the chain.
#include "engine/ZR_Database.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "diag/ZR_Error.h"
#include "platform/FileCallsTesting.h"
#include "support/LiveIOCompletions.h"
#include "support/MountedChain.h"
#include "support/PageReadCheck.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using zrtest::MountedChain;
using zrtest::PageBuffer;
using zrtest::PageRead;

namespace {

constexpr uint32_t kNone = ZR_LiveIOEntry::ms_iNoOwner;
const char* const kFull = "appveyor-lab/DoubleDiffing/difftest-full.bak";
const char* const kDiff = "appveyor-lab/DoubleDiffing/difftest-diff1.bak";

void* Op(uint64_t i) { return reinterpret_cast<void*>(i); }

// Queues a one-page read of page `page`; the queue copies the bitmap.
bool QueuePage(ZR_Database& db, uint64_t iOp, uint16_t fileId, uint32_t page, void* pBuffer = nullptr) {
    const uint8_t bitmap[ZR_LiveIOEntry::ms_iBitmapBytes] = {};
    return db.AddLiveIOEntry(Op(iOp), pBuffer, fileId, uint64_t{page} * ZR_PAGE_SIZE, ZR_PAGE_SIZE, bitmap, Op(iOp));
}

std::vector<uint32_t> Owners(ZR_Database& db) {
    std::vector<uint32_t> a;
    for (ZR_LiveIOEntry* p = db.m_pLiveHead; p; p = p->pNext) a.push_back(p->iOwner);
    return a;
}

// A queue without threads over a real full backup, and two of its extents:
// X and Y lie in different places of the backup.
class LiveIOSelection : public testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        m_pChain = std::make_unique<MountedChain>(std::vector<fs::path>{*zrtest::TestDataFile(kFull)},
                                                  std::vector<fs::path>{}, MountedChain::LiveIO::kQueueOnly);
        ASSERT_TRUE(m_pChain->Ready()) << m_pChain->Error();
        const auto held = m_pChain->HeldExtents();
        ASSERT_GE(held.size(), 2u);
        m_fileId = held[0].first;
        m_x = held[0].second;
        m_y = held[1].second;
        ASSERT_EQ(held[1].first, m_fileId);
        ZR_Database& db = Db();
        ASSERT_NE(db.LocatePage({m_x, m_fileId}).entry.GetOffset(), db.LocatePage({m_y, m_fileId}).entry.GetOffset());
    }
    ZR_Database& Db() { return m_pChain->Database(); }
    uint64_t Take(uint32_t iThread) {
        ZR_LiveIOEntry e{};
        EXPECT_TRUE(Db().GetLiveIOEntry(iThread, &e));
        m_taken[reinterpret_cast<uint64_t>(e.pOpId)] = e;
        return reinterpret_cast<uint64_t>(e.pOpId);
    }
    void Remove(uint32_t iThread, uint64_t iOp) { Db().RemoveLiveIOEntry(iThread, &m_taken.at(iOp)); }

    std::unique_ptr<MountedChain> m_pChain;
    std::map<uint64_t, ZR_LiveIOEntry> m_taken;
    uint16_t m_fileId = 0;
    uint32_t m_x = 0, m_y = 0;
};

// Three reads of one block: thread 0 takes the first and claims the two
// behind it in one step; its next two calls take them as its own, and the
// first of these finds more of its own behind it.
TEST_F(LiveIOSelection, ThreeReadsOfOneBlockGoToTheThreadThatTakesTheFirst) {
    ZR_Database& db = Db();
    for (uint32_t i = 0; i < 3; ++i) ASSERT_TRUE(QueuePage(db, 1 + i, m_fileId, m_x + i));
    EXPECT_EQ(Take(0), 1u);
    EXPECT_EQ(Owners(db), (std::vector<uint32_t>{0, 0, 0}));
    EXPECT_EQ(db.m_iNumOwnedIOSequences, 1);
    Remove(0, 1);
    EXPECT_EQ(Take(0), 2u);
    EXPECT_EQ(db.m_iNumPreOwnedReleased, 1);
    Remove(0, 2);
    EXPECT_EQ(Take(0), 3u);
    EXPECT_EQ(db.m_iNumPreOwnedReleased, 1);
    Remove(0, 3);
    EXPECT_EQ(db.m_pLiveHead, nullptr);
    EXPECT_EQ(db.m_iLiveIOsQueued, 0);
    EXPECT_EQ(db.m_iLiveIOsCount, 3);
}

// A (block X), B (block Y), C (block X): B stands between, so thread 0
// claims nothing; the rule looks at the last owned read only, so C goes to
// a third thread. A read of pages that no backup holds is tied to nobody.
TEST_F(LiveIOSelection, OnlyTheLastOwnedReadPassesItsBlockOn) {
    ZR_Database& db = Db();
    ASSERT_TRUE(QueuePage(db, 1, m_fileId, m_x));
    ASSERT_TRUE(QueuePage(db, 2, m_fileId, m_y));
    ASSERT_TRUE(QueuePage(db, 3, m_fileId, m_x + 1));
    ASSERT_TRUE(QueuePage(db, 4, m_fileId, 0x7FFFFFF0));  // no backup holds it
    ASSERT_FALSE(db.LocatePage({0x7FFFFFF0, m_fileId}).entry.HasCopy());
    EXPECT_EQ(Take(0), 1u);
    EXPECT_EQ(Owners(db), (std::vector<uint32_t>{0, kNone, kNone, kNone}));
    EXPECT_EQ(Take(1), 2u);
    EXPECT_EQ(Take(2), 3u);
    EXPECT_EQ(Owners(db), (std::vector<uint32_t>{0, 1, 2, kNone}));
    Remove(1, 2);
    EXPECT_EQ(Take(1), 4u);
}

// Entries come in blocks of 100; the eleventh block doubles the table. A
// read longer than its bitmap is refused; after a stop nothing is queued,
// and what no thread served is completed as aborted.
TEST_F(LiveIOSelection, BlocksOfAHundredAndAStopThatAbortsWhatIsLeft) {
    zrtest::LiveIOCompletions port;
    ASSERT_TRUE(port.Connected());
    ZR_Database& db = Db();
    EXPECT_EQ(db.m_iNumLiveBlocks, 10);
    for (uint64_t i = 1; i <= 1000; ++i) ASSERT_TRUE(QueuePage(db, i, m_fileId, m_x));
    EXPECT_EQ(db.m_iNumLiveBlocks, 10);
    ASSERT_TRUE(QueuePage(db, 1001, m_fileId, m_x));
    EXPECT_EQ(db.m_iNumLiveBlocks, 20);
    EXPECT_EQ(db.m_iLiveIOsHighWaterMark, 1001);

    const uint8_t bitmap[ZR_LiveIOEntry::ms_iBitmapBytes] = {};
    const uint64_t iLastPageOfAnExtent = 7 * ZR_PAGE_SIZE;
    EXPECT_TRUE(db.AddLiveIOEntry(Op(1002), nullptr, m_fileId, iLastPageOfAnExtent, 1017 * ZR_PAGE_SIZE, bitmap, nullptr));
    EXPECT_FALSE(db.AddLiveIOEntry(Op(1003), nullptr, m_fileId, iLastPageOfAnExtent, 1018 * ZR_PAGE_SIZE, bitmap, nullptr));

    db.StopLiveIORead();
    EXPECT_FALSE(QueuePage(db, 1004, m_fileId, m_x));
    auto results = port.Results();
    EXPECT_EQ(results.size(), 1002u);
    for (auto [iOp, hr] : results) ASSERT_EQ(hr, static_cast<HRESULT>(ERROR_OPERATION_ABORTED)) << iOp;
}

// min(CPUs, 3 x stripes) + 2 x stripes, unless the process asked for 1 to
// 1,000 threads.
TEST(LiveIOThreads, AMountStartsThreadsByCPUsAndStripes) {
    zrtest::TempDir tmp;
    struct Case {
        int iStripes, iCPUs, iRequested, iThreads;
    } cases[] = {
        {1, 1, 0, 3}, {2, 16, 0, 10}, {2, -4, 0, 5}, {1, 2, 1001, 4}, {1, 1, 7, 7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.iStripes << " stripes, " << c.iCPUs << " CPUs, " << c.iRequested);
        zrtest::SyntheticOptions o;
        o.stripes = c.iStripes;
        zrtest::SyntheticBackup backup(o);
        const fs::path first = tmp / ("s" + std::to_string(c.iStripes) + ".bak");
        ASSERT_TRUE(backup.Write(first)) << backup.Error();
        std::vector<fs::path> stripes;
        for (const auto& s : backup.Stripes()) stripes.push_back(s.path);
        SetNumCPUs(c.iCPUs);
        SetNumLiveIOThreads(c.iRequested);
        MountedChain chain(stripes, {});
        ASSERT_TRUE(chain.Ready()) << chain.Error();
        EXPECT_EQ(chain.Database().m_iNumLiveIOThreads, c.iThreads);
    }
    SetNumCPUs(1);
    SetNumLiveIOThreads(0);
}

// ---------------------------------------------------------------------------
// End to end: the threads serve the queue.
// ---------------------------------------------------------------------------

class LiveIOServed : public testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        ASSERT_TRUE(m_port.Connected());
    }
    void TearDown() override { SetNumLiveIOThreads(0); }

    zrtest::LiveIOCompletions m_port;
};

// One read, its buffer and what it held before.
struct Queued {
    PageRead read;
    std::unique_ptr<PageBuffer> pBuffer;
    std::vector<uint8_t> before;
};

// Four submitters queue reads on eight threads; the first ones are served
// while the mount runs, the rest are still queued when it goes, and the
// stop serves them all: every read completes once, without an error, with
// the pages of the chain in its buffer.
TEST_F(LiveIOServed, EveryQueuedReadIsServedAlsoWhenTheMountGoes) {
    SetNumLiveIOThreads(8);
    MountedChain chain({*zrtest::TestDataFile(kFull)}, {*zrtest::TestDataFile(kDiff)});
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    constexpr int kSubmitters = 4, kEach = 60;
    std::vector<Queued> reads(kSubmitters * kEach);
    std::mt19937 rng(11);
    for (Queued& q : reads) {
        q.read = zrtest::RandomRead(chain, rng);
        q.pBuffer = std::make_unique<PageBuffer>(q.read.pages);
        q.pBuffer->Scribble(rng);
        q.before = q.pBuffer->Copy();
    }
    std::vector<std::thread> submitters;
    std::atomic<int> iRefused{0};
    for (int s = 0; s < kSubmitters; ++s)
        submitters.emplace_back([&, s] {
            for (int i = s * kEach; i < (s + 1) * kEach; ++i) {
                const PageRead& r = reads[i].read;
                iRefused += !chain.Database().AddLiveIOEntry(Op(i + 1), reads[i].pBuffer->Data(), r.fileId, r.Offset(),
                                                             r.Bytes(), r.bitmap.data(), Op(i + 1));
            }
        });
    for (std::thread& t : submitters) t.join();
    EXPECT_EQ(iRefused, 0);
    EXPECT_TRUE(m_port.WaitForCount(20, 20s));
    chain.Unmount();
    const auto results = m_port.Results();
    ASSERT_EQ(results.size(), reads.size());
    EXPECT_EQ(m_port.Repeats(), 0u);
    for (size_t i = 0; i < reads.size(); ++i) {
        ASSERT_EQ(results.at(i + 1), 0) << "read " << i;
        ExpectServed(chain, reads[i].read, *reads[i].pBuffer, reads[i].before);
    }
}

BOOL FailingReadFile(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED) {
    SetLastError(ERROR_CRC);
    return FALSE;
}

// A backup read that fails completes the read with the error, and the queue
// goes on; pages that no backup holds are no failure.
TEST_F(LiveIOServed, AFailedBackupReadCompletesWithItsError) {
    MountedChain chain({*zrtest::TestDataFile(kFull)}, {});
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    zr::platform::testing::ScopedFileCalls restore;
    zr::platform::testing::ReplaceFileCall(&FileCalls::ReadFile, &FailingReadFile);
    const auto [fileId, extent] = chain.HeldExtents().front();
    PageBuffer buffer(2);
    ASSERT_TRUE(QueuePage(chain.Database(), 1, fileId, extent, buffer.Page(0)));
    ASSERT_TRUE(QueuePage(chain.Database(), 2, fileId, 0x7FFFFFF0, buffer.Page(1)));
    EXPECT_EQ(m_port.WaitForOp(1, 20s), static_cast<HRESULT>(ERROR_CRC));
    EXPECT_EQ(m_port.WaitForOp(2, 20s), 0);
    chain.Unmount();  // no thread reads any more: the file calls may be restored
}

}  // namespace
