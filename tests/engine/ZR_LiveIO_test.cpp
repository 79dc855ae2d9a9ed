// The live I/O queue of a mounted database: which thread a read goes to (the
// queue served from the test thread), how many threads a mount starts, and
// the end of what no thread served, completed on a stand-in for the driver's
// async port. (Reads served by the threads, also when the mount goes, are
// checked end to end against the walker's naive restore.)
#include "engine/ZR_Database.h"

#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "support/LiveIOCompletions.h"
#include "support/MountedChain.h"
#include "support/ReadFileHook.h"
#include "support/SyntheticBackup.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace zrtest;

namespace {

constexpr uint32_t kNone = ZR_LiveIOEntry::ms_iNoOwner;

void* Op(uint64_t i) { return reinterpret_cast<void*>(i); }

bool Queue(ZR_Database& db, uint64_t iOp, const PageRead& r, void* pBuffer = nullptr) {
    return db.AddLiveIOEntry(Op(iOp), pBuffer, r.fileId, r.Offset(), r.Bytes(), r.bitmap.data(), Op(iOp));
}

// A queue without threads over a real full backup; X and Y are extents that
// lie in different places of the backup.
class LiveIOSelection : public testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        m_pChain = std::make_unique<MountedChain>(
            std::vector<fs::path>{*TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak")},
            std::vector<fs::path>{}, MountedChain::LiveIO::kQueueOnly);
        ASSERT_TRUE(m_pChain->Ready()) << m_pChain->Error();
        const auto held = m_pChain->HeldExtents();
        std::tie(m_fileId, m_x) = held.at(0);
        m_y = held.at(1).second;
        ASSERT_EQ(held.at(1).first, m_fileId);
    }
    ZR_Database& Db() { return m_pChain->Database(); }
    void QueuePage(uint64_t iOp, uint32_t page) { ASSERT_TRUE(Queue(Db(), iOp, PageRead{m_fileId, page, 1})); }
    uint64_t Take(uint32_t iThread) {
        ZR_LiveIOEntry e{};
        EXPECT_TRUE(Db().GetLiveIOEntry(iThread, &e));
        m_taken[iThread] = e;
        return reinterpret_cast<uint64_t>(e.pOpId);
    }
    void Done(uint32_t iThread) { Db().RemoveLiveIOEntry(iThread, &m_taken.at(iThread)); }
    std::vector<uint32_t> Owners() {
        std::vector<uint32_t> a;
        for (ZR_LiveIOEntry* p = Db().m_pLiveHead; p; p = p->pNext) a.push_back(p->iOwner);
        return a;
    }

    std::unique_ptr<MountedChain> m_pChain;
    std::map<uint32_t, ZR_LiveIOEntry> m_taken;
    uint16_t m_fileId = 0;
    uint32_t m_x = 0, m_y = 0;
};

// Thread 0 takes the first of three reads of one block and claims the two
// behind it; a read of the block that comes later is tied to it on the way
// past. Thread 0 then takes them in a row, finding more of its own behind.
TEST_F(LiveIOSelection, ReadsOfOneBlockGoToTheThreadThatWorksOnIt) {
    for (uint32_t i = 0; i < 3; ++i) QueuePage(1 + i, m_x + i);
    EXPECT_EQ(Take(0), 1u);
    EXPECT_EQ(Owners(), (std::vector<uint32_t>{0, 0, 0}));
    EXPECT_EQ(Db().m_iNumOwnedIOSequences, 1);
    QueuePage(4, m_x + 3);
    QueuePage(5, m_y);
    EXPECT_EQ(Take(1), 5u);
    EXPECT_EQ(Owners(), (std::vector<uint32_t>{0, 0, 0, 0, 1}));
    EXPECT_EQ(Db().m_iNumOwnedIOSequences, 2);
    for (uint64_t iOp = 2; iOp <= 4; ++iOp) {
        Done(0);
        EXPECT_EQ(Take(0), iOp);
        EXPECT_EQ(Db().m_iNumPreOwnedReleased, iOp == 2 ? 1 : 2);
    }
    Done(0);
    Done(1);
    EXPECT_EQ(Db().m_pLiveHead, nullptr);
    EXPECT_EQ(Db().m_iLiveIOsQueued, 0);
}

// A (X), B (Y), C (X): B stands between, so thread 0 claims nothing, and as
// the rule looks at the last owned read only, C goes to a third thread. A
// read of pages that no backup holds is tied to nobody.
TEST_F(LiveIOSelection, OnlyTheLastOwnedReadPassesItsBlockOn) {
    QueuePage(1, m_x);
    QueuePage(2, m_y);
    QueuePage(3, m_x + 1);
    QueuePage(4, 0x7FFFFFF0);
    EXPECT_EQ(Take(0), 1u);
    EXPECT_EQ(Owners(), (std::vector<uint32_t>{0, kNone, kNone, kNone}));
    EXPECT_EQ(Take(1), 2u);
    EXPECT_EQ(Take(2), 3u);
    EXPECT_EQ(Owners(), (std::vector<uint32_t>{0, 1, 2, kNone}));
    Done(1);
    EXPECT_EQ(Take(1), 4u);
}

// Entries come in blocks of 100 and the eleventh block doubles the table; a
// read longer than its bitmap is refused; a stop completes what no thread
// served as aborted, and nothing is queued after it.
TEST_F(LiveIOSelection, BlocksOfAHundredAndAStopThatAbortsWhatIsLeft) {
    LiveIOCompletions port;
    ASSERT_TRUE(port.Connected());
    for (uint64_t i = 1; i <= 1001; ++i) {
        QueuePage(i, m_x);
        ASSERT_EQ(Db().m_iNumLiveBlocks, i <= 1000 ? 10 : 20) << i;
    }
    EXPECT_TRUE(Queue(Db(), 1002, PageRead{m_fileId, 7, 1017}));
    EXPECT_FALSE(Queue(Db(), 1003, PageRead{m_fileId, 7, 1018}));
    Db().StopLiveIORead();
    EXPECT_FALSE(Queue(Db(), 1004, PageRead{m_fileId, m_x, 1}));
    const auto results = port.Results();
    EXPECT_EQ(results.size(), 1002u);
    for (auto [iOp, hr] : results) ASSERT_EQ(hr, static_cast<HRESULT>(ERROR_OPERATION_ABORTED)) << iOp;
}

// min(CPUs, 3 x stripes) + 2 x stripes, unless 1 to 1,000 were asked for.
TEST(LiveIOThreads, AMountStartsThreadsByCPUsAndStripes) {
    TempDir tmp;
    struct Case {
        int iStripes, iCPUs, iRequested, iThreads;
    } cases[] = {{1, 1, 0, 3}, {2, 16, 0, 10}, {2, -4, 0, 5}, {1, 2, 1001, 4}, {1, 1, 7, 7}};
    for (const Case& c : cases) {
        SyntheticOptions o;
        o.stripes = c.iStripes;
        SyntheticBackup backup(o);
        ASSERT_TRUE(backup.Write(tmp / ("s" + std::to_string(c.iStripes) + ".bak"))) << backup.Error();
        std::vector<fs::path> stripes;
        for (const auto& s : backup.Stripes()) stripes.push_back(s.path);
        SetNumCPUs(c.iCPUs);
        SetNumLiveIOThreads(c.iRequested);
        MountedChain chain(stripes, {});
        ASSERT_TRUE(chain.Ready()) << chain.Error();
        EXPECT_EQ(chain.Database().m_iNumLiveIOThreads, c.iThreads) << c.iStripes << " " << c.iCPUs;
    }
    SetNumCPUs(1);
    SetNumLiveIOThreads(0);
}

// With the second stripe failing, a read across both completes with its
// error, though the first stripe's run succeeds after it.
TEST(LiveIOServed, AFailedBackupReadCompletesWithItsError) {
    TempDir tmp;
    SyntheticOptions options;
    options.stripes = 2;
    SyntheticBackup backup(options);
    ASSERT_TRUE(backup.Write(tmp / "f.bak")) << backup.Error();
    LiveIOCompletions port;
    MountedChain chain({backup.Stripes()[0].path, backup.Stripes()[1].path}, {});
    ASSERT_TRUE(chain.Ready()) << chain.Error();
    const HANDLE hFailing = chain.Database().GetFull()->GetFile(1)->GetHandle();
    ReadFileHook hook([hFailing](ReadFileHook::Read next, HANDLE h, auto... rest) {
        if (h != hFailing) return next(h, rest...);
        SetLastError(ERROR_CRC);
        return FALSE;
    });
    PageBuffer buffer(64);
    ASSERT_TRUE(Queue(chain.Database(), 1, PageRead{backup.DataFiles()[0].fileId, 0, 64}, buffer.Page(0)));
    EXPECT_EQ(port.WaitForOp(1, 20s), static_cast<HRESULT>(ERROR_CRC));
    chain.Unmount();  // no thread reads any more: the file calls may be restored
}

}  // namespace
