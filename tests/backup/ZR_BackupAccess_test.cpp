// Extent maps and page reads of a backup, held against the independent
// naive restore of the test walker: every extent that the map names holds
// the pages the reference has there, every allocated extent of the
// reference is in the map, a differential's map has only its own extents,
// and a map is built once, then read from its file, and rebuilt when the
// file is damaged.
//
// Pages inside allocated extents of real backups can be leftover bytes, not
// pages (difftest-full.bak, pages 173 to 183): page contents are compared
// for every page, page ids only where the header version byte is 1.
#include "backup/ZR_Backup.h"

#include "diag/ZR_Error.h"
#include "foundation/BadAlloc.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"
#include "maps/ZR_MapPool.h"
#include "platform/FileCallsTesting.h"
#include "support/BackupFixture.h"
#include "support/ErrorText.h"
#include "support/Manifest.h"
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/Resources.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

class BackupAccess : public zrtest::BackupFixture {
protected:
    BackupAccess() : BackupFixture(L"acc") {}

    // The eight pages of the extent from the backup's own map.
    std::vector<uint8_t> ReadExtent(ZR_Backup& b, ZR_EMap e, PageId first) {
        std::vector<uint8_t> bytes(zrtest::kExtentSize);
        uint32_t iRead = 0;
        m_pAhead->Reset();
        EXPECT_TRUE(b.ReadPages(m_pAhead, bytes.data(), e, first, ZR_EXTENT_SIZE, IO_READ, &iRead)) << Errors();
        return bytes;
    }

    // Holds the map of b against the reference: both ways round.
    void ExpectMapMatches(ZR_Backup& b, const zrtest::NaiveRestore& ref) {
        int iChecked = 0;
        for (auto [fileId, firstPage] : ref.Extents()) {
            const uint8_t* p0 = ref.Page(fileId, firstPage);
            zrtest::PageHeaderFields h = zrtest::ReadPageHeader(p0);
            if (h.headerVersion != 1 || h.type == 0 || h.type >= 100)
                continue;  // no allocated extent: the map leaves it out
            SCOPED_TRACE(std::to_string(fileId) + ":" + std::to_string(firstPage));
            PageId id{firstPage, fileId};
            ZR_EMap e = b.LookupPage(id);
            ASSERT_TRUE(e.HasCopy());
            EXPECT_EQ(b.LookupPage(PageId{firstPage + 7, fileId}).m_iEntry, e.m_iEntry) << "one entry per extent";
            std::vector<uint8_t> got = ReadExtent(b, e, id);
            for (uint32_t i = 0; i < zrtest::kPagesPerExtent; ++i) {
                const uint8_t* want = ref.Page(fileId, firstPage + i);
                const uint8_t* page = got.data() + i * zrtest::kPageSize;
                ASSERT_EQ(0, std::memcmp(page, want, zrtest::kPageSize)) << "page " << firstPage + i;
                zrtest::PageHeaderFields ph = zrtest::ReadPageHeader(page);
                if (ph.headerVersion == 1) {
                    EXPECT_EQ(ph.pageNumber, firstPage + i);
                    EXPECT_EQ(ph.fileId, fileId);
                }
            }
            ++iChecked;
        }
        EXPECT_GT(iChecked, 0);
        // Nothing in the map that the reference does not hold.
        ZR_EMaps& m = *b.m_pEMaps;
        std::set<std::pair<uint16_t, uint32_t>> held;
        for (auto x : ref.Extents())
            held.insert(x);
        for (int f = 0; f < static_cast<int>(static_cast<AA<ZR_EMap>&>(m)); ++f)
            for (int x = 0; x < m.Count(f); ++x) {
                if (m(f, x).HasCopy()) {
                    EXPECT_TRUE(held.count({static_cast<uint16_t>(f), static_cast<uint32_t>(x) * 8}))
                        << f << ":" << x * 8;
                }
            }
    }

};

TEST_F(BackupAccess, EveryFullBackupOfVersionsNineAndTenMapsTheExtentsOfTheNaiveRestore) {
    ZR_REQUIRE_TESTDATA();
    int iChecked = 0;
    for (auto& entry : zrtest::NativeBackups(9, 10)) {
        if (entry.type != 'D' || entry.stripes != 1)
            continue;
        SCOPED_TRACE(entry.file);
        fs::path p = *zrtest::TestDataFile(entry.file);
        zrtest::NaiveRestore ref;
        ASSERT_TRUE(ref.Apply({p})) << ref.Error();
        auto b = Access({p});
        ASSERT_NE(b->m_pEMaps, nullptr);
        ExpectMapMatches(*b, ref);
        // Behind the end of every file: nothing.
        EXPECT_FALSE(b->LookupPage(PageId{0x7FFFFFF8u, 1}).HasCopy());
        EXPECT_FALSE(b->LookupPage(PageId{0, 999}).HasCopy());
        ++iChecked;
    }
    EXPECT_EQ(iChecked, 7) << "the single-file full backups of the manifest";
}

TEST_F(BackupAccess, AStripedSetMapsEachExtentToTheStripeThatHoldsIt) {
    ZR_REQUIRE_TESTDATA();
    const std::string dir = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";
    std::vector<fs::path> files = {*zrtest::TestDataFile(dir + "Stripe2/RestoreTimeStripe1.bak"),
                                   *zrtest::TestDataFile(dir + "Stripe1/RestoreTimeStripe.bak")};
    zrtest::NaiveRestore ref;
    ASSERT_TRUE(ref.Apply(files)) << ref.Error();
    auto b = Access(files);  // named in reverse: the files are sorted
    ExpectMapMatches(*b, ref);
    std::set<int> devices;
    ZR_EMaps& m = *b->m_pEMaps;
    for (int f = 0; f < static_cast<int>(static_cast<AA<ZR_EMap>&>(m)); ++f)
        for (int x = 0; x < m.Count(f); ++x)
            if (m(f, x).HasCopy())
                devices.insert(m(f, x).GetDevice());
    EXPECT_EQ(devices, (std::set<int>{0, 1}));
}

TEST_F(BackupAccess, ADifferentialMapsOnlyItsOwnExtentsAndALogHasNoMap) {
    ZR_REQUIRE_TESTDATA();
    fs::path diff = *zrtest::TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak");
    zrtest::NaiveRestore ref;
    ASSERT_TRUE(ref.Apply({diff})) << ref.Error();
    auto d = Access({diff}, 1);
    ExpectMapMatches(*d, ref);

    auto log = Access({*zrtest::TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean_1.trn")}, 2);
    EXPECT_EQ(log->m_pEMaps, nullptr);
    EXPECT_EQ(MapFiles(".xdm").size(), 1u) << "only the differential's";
    EXPECT_EQ(MapFiles(".xbm").size(), 0u) << "backup maps are never written";
}

TEST_F(BackupAccess, AMapIsBuiltOnceThenSharedOrReadAndRebuiltWhenDamaged) {
    ZR_REQUIRE_TESTDATA();
    fs::path p = *zrtest::TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak");
    zrtest::NaiveRestore ref;
    ASSERT_TRUE(ref.Apply({p})) << ref.Error();
    const int iBuilds = ZR_Backup::ms_iExtentMapBuilds;
    {
        auto first = Access({p});
        auto second = Access({p});
        EXPECT_EQ(second->m_pEMaps, first->m_pEMaps) << "shared through the pool";
        EXPECT_EQ(ZR_Backup::ms_iExtentMapBuilds, iBuilds + 1);
    }
    {
        auto later = Access({p});
        EXPECT_EQ(ZR_Backup::ms_iExtentMapBuilds, iBuilds + 1) << "read from the file";
        EXPECT_EQ(later->m_pEMaps->GetMapLocale(), X_MAPLOCALE_CACHED);
        ExpectMapMatches(*later, ref);
    }
    ASSERT_EQ(MapFiles(".xdm").size(), 1u);
    const fs::path xdm = MapFiles(".xdm")[0];
    // A row count that the file cannot hold, then a file cut short.
    for (int damage = 0; damage < 2; ++damage) {
        SCOPED_TRACE(damage);
        if (damage == 0) {
            std::fstream f(xdm, std::ios::in | std::ios::out | std::ios::binary);
            f.seekp(20);
            uint32_t huge = 0x7FFFFFFF;
            f.write(reinterpret_cast<const char*>(&huge), 4);
        } else {
            fs::resize_file(xdm, fs::file_size(xdm) - 9);
        }
        const int iBefore = ZR_Backup::ms_iExtentMapBuilds;
        auto again = Access({p});
        EXPECT_EQ(ZR_Backup::ms_iExtentMapBuilds, iBefore + 1) << "rebuilt";
        ExpectMapMatches(*again, ref);
    }
}

// What the real files lack: many stripes with the extents spread over them,
// enough extents that their headers are read by several threads, and a read
// error in the middle of the walk.
TEST_F(BackupAccess, SyntheticStripesPutEveryExtentWhereTheWriterPutIt) {
    zrtest::SyntheticOptions o;
    o.stripes = 3;
    o.filePages = {8192, 1200};
    o.transferExtents = 2;
    zrtest::SyntheticBackup writer(o);
    fs::path first = m_tmp / "synth.bak";
    ASSERT_TRUE(writer.Write(first)) << writer.Error();
    std::vector<fs::path> files;
    for (int s = 0; s < 3; ++s)
        files.push_back(zrtest::SyntheticBackup::StripePath(first, s));
    auto b = Access(files);
    int iExtents = 0;
    for (int s = 0; s < 3; ++s) {
        for (const zrtest::WrittenExtent& x : writer.Stripes()[s].extents) {
            ZR_EMap e = b->LookupPage(PageId{x.firstPage, x.fileId});
            ASSERT_TRUE(e.HasCopy()) << x.fileId << ":" << x.firstPage;
            EXPECT_EQ(e.GetDevice(), s);
            EXPECT_EQ(e.GetOffset(), x.offset);
            ++iExtents;
        }
    }
    EXPECT_EQ(iExtents, (8192 + 1200) / 8);
}

TEST_F(BackupAccess, AReadErrorInTheWalkFailsTheBuildAndLeavesNoMapFile) {
    zrtest::SyntheticOptions o;
    o.filePages = {4096};
    zrtest::SyntheticBackup writer(o);
    fs::path p = m_tmp / "cut.bak";
    ASSERT_TRUE(writer.Write(p)) << writer.Error();
    {
        int32_t v = 0;
        ASSERT_TRUE(Named({p})->PrepareContent(&v)) << Errors();  // the content map is now a file
    }
    auto b = Named({p});
    int32_t v = 0;
    ASSERT_TRUE(b->PrepareContent(&v)) << Errors();
    // Cut the file in the middle of its data once its content is known: the
    // walk of the extents cannot read it.
    const auto& extents = writer.Stripes()[0].extents;
    fs::resize_file(p, extents[extents.size() / 2].offset + 100);
    ASSERT_TRUE(b->Open());
    EXPECT_FALSE(b->PrepareAccess(0));
    EXPECT_NE(Errors().find("MTF Error: MQDA."), std::string::npos) << Errors();
    EXPECT_EQ(b->m_pEMaps, nullptr);
    EXPECT_EQ(MapFiles(".xdm").size(), 0u);
}

// A recorded data file size is what the backup says, not what it holds: up
// to the 16 TB a data file can have it costs no memory and no map by
// itself; beyond, the backup is refused, naming the file and the file id.
TEST_F(BackupAccess, ARecordedDataFileSizeCostsNothingUpTo16TBAndIsRefusedBeyond) {
    const uint64_t k16TB = uint64_t{1} << 44;
    const struct {
        uint64_t iSize;
        bool bServed;
    } cases[] = {{uint64_t{1} << 43, true}, {k16TB, true}, {k16TB + ZR_EXTENT_SIZE, false}};
    uint32_t iFamily = 0x5EED0100;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.iSize);
        zrtest::SyntheticOptions o;
        o.filePages = {64};
        o.recordedFileSizes = {c.iSize};
        o.mediaFamilyId = ++iFamily;  // a map of its own
        zrtest::SyntheticBackup writer(o);
        fs::path p = m_tmp / ("big" + std::to_string(iFamily) + ".bak");
        ASSERT_TRUE(writer.Write(p)) << writer.Error();
        auto b = Named({p});
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v)) << Errors();
        ASSERT_TRUE(b->Open());
        ASSERT_TRUE(zrtest::ResetPeakResident());
        const uint64_t iBefore = zrtest::PeakResidentBytes();
        EXPECT_EQ(b->PrepareAccess(0), c.bServed) << Errors();
        EXPECT_LT(zrtest::PeakResidentBytes() - iBefore, uint64_t{64} << 20) << "peak resident memory of the build";
        if (c.bServed) {
            EXPECT_TRUE(b->LookupPage(PageId{8, 1}).HasCopy());
            EXPECT_FALSE(b->LookupPage(PageId{64, 1}).HasCopy()) << "behind what the backup holds";
            continue;
        }
        const std::string errors = Errors();
        EXPECT_NE(errors.find("16 TB"), std::string::npos) << errors;
        EXPECT_NE(errors.find(p.filename().string()), std::string::npos) << errors;
        EXPECT_NE(errors.find("data file 1"), std::string::npos) << errors;
        ZR_ClearErrors(L"acc");
    }
    ASSERT_EQ(MapFiles(".xdm").size(), 2u);
    for (const fs::path& xdm : MapFiles(".xdm"))
        EXPECT_LT(fs::file_size(xdm), 4096u) << "a row runs to the last extent held";
}

// Whatever a map's creator throws, the map ends failed: a mount that waits
// for it wakes and fails cleanly, and a later mount builds it anew. The
// creator's reads throw (exhausted memory) once the second mount has taken
// the map under construction and waits for it; the header reads of an
// extent map run on several threads, whose exceptions reach the builder.
namespace creators {

std::atomic<std::thread::id> g_waiter;       // whose reads pass
std::atomic<int> g_iType{0};                 // the map type whose build throws; 0: none
decltype(FileCalls::ReadFile) g_pfnRead = nullptr;

// References to the map of type iType under construction; 0 when none is.
int BuildingMapRefs(int iType) {
    int iRefs = 0;
    g_MapPool.Lock();
    for (int i = 0; i < static_cast<int>(g_MapPool); ++i) {
        X_MapFile* p = g_MapPool(i);
        if (p->GetMapType() == iType && !p->GetIsCreated() && !p->GetIsRetired())
            iRefs = p->GetRefCount();
    }
    g_MapPool.Unlock();
    return iRefs;
}

bool WaitForRefs(int iType, int iRefs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (BuildingMapRefs(iType) < iRefs) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

BOOL ThrowOnceWaited(HANDLE h, LPVOID p, DWORD n, LPDWORD pn, LPOVERLAPPED o) {
    const int iType = g_iType;
    if (iType != 0 && std::this_thread::get_id() != g_waiter && BuildingMapRefs(iType) > 0 && WaitForRefs(iType, 2))
        throw BadAlloc(n);
    return g_pfnRead(h, p, n, pn, o);
}

}  // namespace creators

TEST_F(BackupAccess, AThrowingMapCreatorWakesTheMountThatWaitsForIt) {
    using namespace creators;
    zrtest::SyntheticOptions o;
    o.filePages = {1024};  // enough extents for the header reads to take threads
    zrtest::SyntheticBackup writer(o);
    fs::path p = m_tmp / "throw.bak";
    ASSERT_TRUE(writer.Write(p)) << writer.Error();
    for (int iType : {1, 2}) {
        SCOPED_TRACE(iType == 1 ? "content map" : "extent map");
        const bool bContent = iType == 1;
        fs::remove_all(Maps());  // no map file to read instead of building
        fs::create_directories(Maps());
        auto prepare = [&](ZR_Backup& b) {
            int32_t v = 0;
            return bContent ? b.PrepareContent(&v) : b.PrepareAccess(0);
        };
        auto creator = Named({p});
        auto waiter = Named({p});
        if (!bContent) {
            int32_t v = 0;
            ASSERT_TRUE(creator->PrepareContent(&v) && waiter->PrepareContent(&v)) << Errors();
            ASSERT_TRUE(creator->Open() && waiter->Open());
        }
        zr::platform::testing::ScopedFileCalls restore;
        g_pfnRead = zr::platform::testing::ReplaceFileCall(&FileCalls::ReadFile, &ThrowOnceWaited);
        g_iType = iType;
        std::atomic<bool> bThrew{false};
        std::thread build([&] {
            try {
                prepare(*creator);
            } catch (const BadAlloc&) {
                bThrew = true;
            }
        });
        EXPECT_TRUE(WaitForRefs(iType, 1)) << "the creator took the map";
        std::promise<bool> waited;
        std::future<bool> result = waited.get_future();
        std::thread wait([&] {
            g_waiter = std::this_thread::get_id();
            waited.set_value(prepare(*waiter));
        });
        const bool bWoke = result.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
        EXPECT_TRUE(bWoke) << "the waiting mount hangs";
        build.join();
        if (!bWoke) {  // free the waiter, so that the test ends
            g_MapPool.Lock();
            for (int i = 0; i < static_cast<int>(g_MapPool); ++i)
                if (g_MapPool(i)->GetMapType() == iType)
                    g_MapPool(i)->SetCreatedEvent();
            g_MapPool.Unlock();
        }
        wait.join();
        g_iType = 0;
        EXPECT_TRUE(bThrew) << "the exception goes on";
        EXPECT_FALSE(result.get()) << "the waiter fails";
        EXPECT_EQ(BuildingMapRefs(iType), 0) << "the failed map left the pool";
        auto later = Named({p});
        int32_t v = 0;
        EXPECT_TRUE(later->PrepareContent(&v) && later->Open() && later->PrepareAccess(0)) << Errors();
        ZR_ClearErrors(L"acc");
    }
}

}  // namespace
