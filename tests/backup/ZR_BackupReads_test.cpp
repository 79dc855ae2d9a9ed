// Page reads through damaged copies of the extent maps of real backups. The
// map files live in a shared cache for as long as they exist, and nothing
// but the reads can tell a damaged entry: whatever the damage, a read
// through the map either gives the pages of the naive restore of the test
// walker or fails with a message, never other bytes with success, and an
// extent that the backup holds is never reported absent. A disagreement is
// recorded, the map rebuilt from the backup, and the read served.
#include "backup/ZR_Backup.h"

#include "diag/ZR_Error.h"
#include "maps/ZR_EMaps.h"
#include "support/BackupFixture.h"
#include "support/ByteDamage.h"
#include "support/ErrorText.h"
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/RealMaps.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kTries = 20;  // damaged copies of each map

using ExtentKey = std::pair<uint16_t, uint32_t>;  // file id, first page

// A page read: iPages pages from page iFrom of an extent.
struct Shape {
    uint32_t iFrom;
    uint32_t iPages;
};
constexpr Shape kShapes[] = {{0, 8}, {3, 2}};

class BackupReads : public zrtest::BackupFixture {
protected:
    BackupReads() : BackupFixture(L"rd") {}

    // The extents the reference holds as allocated, which a map must have.
    static std::set<ExtentKey> Allocated(const zrtest::NaiveRestore& ref) {
        std::set<ExtentKey> a;
        for (ExtentKey x : ref.Extents()) {
            zrtest::PageHeaderFields h = zrtest::ReadPageHeader(ref.Page(x.first, x.second));
            if (h.headerVersion == 1 && h.type != 0 && h.type < 100)
                a.insert(x);
        }
        return a;
    }

    // Every extent of the reference and every one the map names, read in
    // each shape. Counts the reads that failed in m_iFailed.
    void ReadEverything(ZR_Backup& b, const zrtest::NaiveRestore& ref, const std::set<ExtentKey>& allocated) {
        std::set<ExtentKey> keys = allocated;
        ZR_EMaps& m = *b.m_pEMaps;
        for (int f = 0; f < static_cast<int>(static_cast<AA<ZR_EMap>&>(m)); ++f)
            for (int x = 0; x < m.Count(f); ++x)
                if (m(f, x).HasCopy())
                    keys.insert({static_cast<uint16_t>(f), static_cast<uint32_t>(x) * 8});
        std::vector<uint8_t> bytes(ZR_EXTENT_SIZE);
        for (ExtentKey x : keys) {
            SCOPED_TRACE(std::to_string(x.first) + ":" + std::to_string(x.second));
            if (!b.LookupPage(PageId{x.second, x.first}).HasCopy()) {
                EXPECT_EQ(allocated.count(x), 0u) << "an extent the backup holds is reported absent";
                continue;
            }
            for (Shape s : kShapes) {
                const PageId first{x.second + s.iFrom, x.first};
                uint32_t iRead = 0;
                m_pAhead->Reset();
                ZR_ClearErrors(m_wszKey);
                // Asked again for each read: a rebuild may have replaced the map.
                if (!b.ReadPages(m_pAhead, bytes.data(), b.LookupPage(first), first, s.iPages * ZR_PAGE_SIZE,
                                 IO_READ, &iRead)) {
                    EXPECT_FALSE(Errors().empty()) << "a read fails with a message";
                    ++m_iFailed;
                    continue;
                }
                for (uint32_t i = 0; i < s.iPages; ++i) {
                    const uint8_t* want = ref.Page(x.first, first.m_iPage + i);
                    ASSERT_NE(want, nullptr) << "served a page that the backup does not hold";
                    ASSERT_EQ(0, std::memcmp(bytes.data() + i * ZR_PAGE_SIZE, want, ZR_PAGE_SIZE))
                        << "wrong bytes for page " << first.m_iPage + i;
                }
            }
        }
    }

    int m_iFailed = 0;
};

TEST_F(BackupReads, DamagedExtentMapsOfRealBackupsNeverServeWrongPages) {
    ZR_REQUIRE_TESTDATA();
    zrtest::ByteDamage damage(20240);
    int iRebuilt = 0;
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
            const int iBuilds = ZR_Backup::ms_iExtentMapBuilds;
            auto b = Access({p});
            ASSERT_NE(b->m_pEMaps, nullptr) << "a damaged map is built again";
            const int iReadBuilds = ZR_Backup::ms_iExtentMapBuilds - iBuilds;
            ReadEverything(*b, ref, allocated);
            iRebuilt += ZR_Backup::ms_iExtentMapBuilds - iBuilds - iReadBuilds;
            if (::testing::Test::HasFatalFailure())
                return;
        }
        fs::remove(xdm);
    }
    // Most damage is found by the reads, and then served by the map built
    // again; a read fails only where the damaged map named an extent that
    // the backup does not hold.
    std::printf("maps rebuilt by a read: %d, reads failed: %d\n", iRebuilt, m_iFailed);
    EXPECT_GT(iRebuilt, 0);
}

// The places in an extent map file of its entries that name an extent.
std::vector<size_t> EntryPlaces(const std::vector<uint8_t>& file) {
    constexpr size_t kHeader = 24;
    std::vector<size_t> a;
    uint32_t iRows = 0;
    std::memcpy(&iRows, file.data() + kHeader - 4, 4);
    size_t at = kHeader;
    for (uint32_t r = 0; r < iRows; ++r) {
        uint32_t n = 0;
        std::memcpy(&n, file.data() + at, 4);
        at += 4;
        for (uint32_t i = 0; i < n; ++i, at += 8)
            if (std::any_of(file.begin() + at, file.begin() + at + 8, [](uint8_t c) { return c != 0; }))
                a.push_back(at);
    }
    return a;
}

// Several threads read through one map whose entries of two extents were
// swapped: each gets its pages; the map is found damaged and built again
// once, while the others read on through it or wait for the new one.
TEST_F(BackupReads, ThreadsReadingThroughADamagedMapAllGetTheirPagesFromOneRebuild) {
    ZR_REQUIRE_TESTDATA();
    constexpr int kThreads = 4;
    fs::path p = *zrtest::TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak");
    zrtest::NaiveRestore ref;
    ASSERT_TRUE(ref.Apply({p})) << ref.Error();
    const std::set<ExtentKey> allocated = Allocated(ref);
    Access({p});
    ASSERT_EQ(MapFiles(".xdm").size(), 1u);
    const fs::path xdm = MapFiles(".xdm")[0];
    std::vector<uint8_t> bytes = zrtest::ReadFileBytes(xdm);
    const std::vector<size_t> places = EntryPlaces(bytes);
    ASSERT_GE(places.size(), 2u);
    std::swap_ranges(bytes.begin() + places[0], bytes.begin() + places[0] + 8, bytes.begin() + places[1]);
    std::ofstream(xdm, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));

    auto b = Access({p});
    const int iBuilds = ZR_Backup::ms_iExtentMapBuilds;
    std::atomic<int> iWrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            ZR_ReadAhead* pAhead = ZR_ReadAhead::Alloc();
            std::vector<uint8_t> extent(ZR_EXTENT_SIZE);
            for (ExtentKey x : allocated) {
                const PageId first{x.second, x.first};
                uint32_t iRead = 0;
                pAhead->Reset();
                const bool bRead = b->ReadPages(pAhead, extent.data(), b->LookupPage(first), first, ZR_EXTENT_SIZE,
                                                IO_READ, &iRead);
                for (uint32_t i = 0; i < ZR_PAGES_PER_EXTENT; ++i)
                    if (!bRead || std::memcmp(extent.data() + i * ZR_PAGE_SIZE, ref.Page(x.first, x.second + i),
                                              ZR_PAGE_SIZE) != 0)
                        ++iWrong;
            }
            ZR_ReadAhead::Free(pAhead);
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(iWrong, 0) << Errors();
    EXPECT_EQ(ZR_Backup::ms_iExtentMapBuilds, iBuilds + 1) << "one rebuild";
    const std::string errors = Errors();
    EXPECT_NE(errors.find("disagrees with the backup"), std::string::npos) << errors;
    EXPECT_EQ(errors.find("disagrees with the backup"), errors.rfind("disagrees with the backup")) << errors;
}

}  // namespace
