// Page reads through damaged copies of the extent maps of real backups, as
// map files in a shared cache may be. Two threads read every extent at
// once, from its first page and from inside it: each read gives the pages
// of the naive restore of the test walker or fails with a message, never
// other bytes with success, and no extent the backup holds is reported
// absent. A disagreement is recorded, the map rebuilt once from the backup
// (while the other thread reads on through the old map), and reads served.
#include "backup/ZR_Backup.h"

#include "maps/ZR_EMaps.h"
#include "support/BackupFixture.h"
#include "support/ByteDamage.h"
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/RealMaps.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kTries = 20;  // damaged copies of each map
constexpr int kThreads = 2;

using ExtentKey = std::pair<uint16_t, uint32_t>;  // file id, first page

// What the reads of one damaged map came to.
struct Tally {
    std::atomic<int> iWrong{0};     // bytes other than the reference's, given as good
    std::atomic<int> iAbsent{0};    // an extent the backup holds, not found
    std::atomic<int> iSilent{0};    // a failed read without a message
    std::atomic<int> iFailed{0};    // a failed read with one
};

class BackupReads : public zrtest::BackupFixture {
protected:
    BackupReads() : BackupFixture(L"rd") {}

    // The extents the reference holds allocated, which a map must have.
    static std::set<ExtentKey> Allocated(const zrtest::NaiveRestore& ref) {
        std::set<ExtentKey> a;
        for (ExtentKey x : ref.Extents()) {
            zrtest::PageHeaderFields h = zrtest::ReadPageHeader(ref.Page(x.first, x.second));
            if (h.headerVersion == 1 && h.type != 0 && h.type < 100)
                a.insert(x);
        }
        return a;
    }

    // Every extent in keys, whole and from its fourth page for two pages,
    // each read asking the map again (a rebuild may have replaced it).
    void ReadAll(ZR_Backup& b, const zrtest::NaiveRestore& ref, const std::set<ExtentKey>& keys,
                 const std::set<ExtentKey>& allocated, Tally* pTally) const {
        ZR_ReadAhead* pAhead = ZR_ReadAhead::Alloc();
        std::vector<uint8_t> bytes(ZR_EXTENT_SIZE);
        for (ExtentKey x : keys) {
            if (!b.LookupPage(PageId{x.second, x.first}).HasCopy()) {
                pTally->iAbsent += static_cast<int>(allocated.count(x));
                continue;
            }
            for (auto [iFrom, iPages] : {std::pair<uint32_t, uint32_t>{0, 8}, {3, 2}}) {
                const PageId first{x.second + iFrom, x.first};
                uint32_t iRead = 0;
                pAhead->Reset();
                if (!b.ReadPages(pAhead, bytes.data(), b.LookupPage(first), first, iPages * ZR_PAGE_SIZE, IO_READ,
                                 &iRead)) {
                    ++(Errors().empty() ? pTally->iSilent : pTally->iFailed);
                    continue;
                }
                for (uint32_t i = 0; i < iPages; ++i) {
                    const uint8_t* want = ref.Page(x.first, first.m_iPage + i);
                    pTally->iWrong += !want || std::memcmp(bytes.data() + i * ZR_PAGE_SIZE, want, ZR_PAGE_SIZE) != 0;
                }
            }
        }
        ZR_ReadAhead::Free(pAhead);
    }
};

TEST_F(BackupReads, DamagedExtentMapsOfRealBackupsNeverServeWrongPages) {
    ZR_REQUIRE_TESTDATA();
    zrtest::ByteDamage damage(20240);
    int iRebuilt = 0;
    int iFailed = 0;
    for (const char* name : {"appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak",
                             "appveyor-lab/DoubleDiffing/difftest-full.bak", "xandelima-MVCNorthwind/Northwind.bak"}) {
        SCOPED_TRACE(name);
        fs::path p = *zrtest::TestDataFile(name);
        zrtest::NaiveRestore ref;
        ASSERT_TRUE(ref.Apply({p})) << ref.Error();
        const std::set<ExtentKey> allocated = Allocated(ref);
        Access({p});  // writes the map file
        ASSERT_EQ(MapFiles(".xdm").size(), 1u);
        const fs::path xdm = MapFiles(".xdm")[0];
        const std::vector<uint8_t> good = zrtest::ReadFileBytes(xdm);
        for (int i = 0; i < kTries; ++i) {
            SCOPED_TRACE(i);
            // Behind magic, size and version: the rest is what a read trusts.
            const std::vector<uint8_t> bad = damage.Damage(good, 12);
            std::ofstream(xdm, std::ios::binary | std::ios::trunc)
                .write(reinterpret_cast<const char*>(bad.data()), static_cast<std::streamsize>(bad.size()));
            auto b = Access({p});
            ASSERT_NE(b->m_pEMaps, nullptr) << "a map that does not read is built again";
            // The extents of the reference and every one the damaged map names.
            std::set<ExtentKey> keys = allocated;
            ZR_EMaps& m = *b->m_pEMaps;
            for (int f = 0; f < static_cast<int>(static_cast<AA<ZR_EMap>&>(m)); ++f)
                for (int e = 0; e < m.Count(f); ++e)
                    if (m(f, e).HasCopy())
                        keys.insert({static_cast<uint16_t>(f), static_cast<uint32_t>(e) * 8});
            const int iBuilds = ZR_Backup::ms_iExtentMapBuilds;
            Tally tally;
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t)
                threads.emplace_back([&] { ReadAll(*b, ref, keys, allocated, &tally); });
            for (std::thread& t : threads)
                t.join();
            EXPECT_EQ(tally.iWrong, 0) << Errors();
            EXPECT_EQ(tally.iAbsent, 0);
            EXPECT_EQ(tally.iSilent, 0);
            EXPECT_LE(ZR_Backup::ms_iExtentMapBuilds - iBuilds, 1) << "one rebuild for both threads";
            iRebuilt += ZR_Backup::ms_iExtentMapBuilds - iBuilds;
            iFailed += tally.iFailed;
            ZR_ClearErrors(m_wszKey);
        }
        fs::remove(xdm);
    }
    // Most damage is found by the reads and served through the map built
    // again; a read fails only where the damaged map named an extent that
    // the backup does not hold.
    std::printf("maps rebuilt by a read: %d, reads failed: %d\n", iRebuilt, iFailed);
    EXPECT_GT(iRebuilt, kTries);
}

}  // namespace
