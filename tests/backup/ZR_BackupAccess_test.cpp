// The maps of a backup: built once, shared while held, read from their file
// later, built again when the file is damaged, and each time held against
// the test walker (the content map lists the blocks the walker meets; every
// extent that the extent map names holds the pages the naive restore has
// there, and every allocated extent of the reference is in the map). A
// mount that waits for a map under construction gets it, or fails cleanly
// when its creator fails. The extent maps of every real chain are held
// against the naive restore by the page read tests and the extract tests.
//
// Pages inside allocated extents of real backups can be leftover bytes, not
// pages (difftest-full.bak, pages 173 to 183): page contents are compared
// for every page, page ids only where the header version byte is 1.
#include "backup/ZR_Backup.h"

#include "backup/ZR_ScanFull.h"
#include "diag/ZR_Error.h"
#include "foundation/BadAlloc.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"
#include "maps/ZR_MapPool.h"
#include "platform/FileCallsTesting.h"
#include "support/BackupFixture.h"
#include "support/FileBytes.h"
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/Resources.h"
#include "support/SyntheticBackup.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <set>
#include <thread>

namespace fs = std::filesystem;

namespace {

class BackupAccess : public zrtest::BackupFixture {
protected:
    BackupAccess() : BackupFixture(L"acc") {}

    // Holds the extent map of b against the reference: both ways round.
    void ExpectMapMatches(ZR_Backup& b, const zrtest::NaiveRestore& ref) {
        ASSERT_NE(b.m_pEMaps, nullptr);
        int iChecked = 0;
        for (auto [fileId, firstPage] : ref.Extents()) {
            zrtest::PageHeaderFields h = zrtest::ReadPageHeader(ref.Page(fileId, firstPage));
            if (h.headerVersion != 1 || h.type == 0 || h.type >= 100)
                continue;  // no allocated extent: the map leaves it out
            SCOPED_TRACE(std::to_string(fileId) + ":" + std::to_string(firstPage));
            const PageId id{firstPage, fileId};
            const ZR_EMap e = b.LookupPage(id);
            ASSERT_TRUE(e.HasCopy());
            EXPECT_EQ(b.LookupPage(PageId{firstPage + 7, fileId}).m_iEntry, e.m_iEntry) << "one entry per extent";
            std::vector<uint8_t> got(zrtest::kExtentSize);
            uint32_t iRead = 0;
            m_pAhead->Reset();
            ASSERT_TRUE(b.ReadPages(m_pAhead, got.data(), e, id, ZR_EXTENT_SIZE, IO_READ, &iRead)) << Errors();
            for (uint32_t i = 0; i < zrtest::kPagesPerExtent; ++i) {
                const uint8_t* page = got.data() + i * zrtest::kPageSize;
                ASSERT_EQ(0, std::memcmp(page, ref.Page(fileId, firstPage + i), zrtest::kPageSize)) << i;
                zrtest::PageHeaderFields ph = zrtest::ReadPageHeader(page);
                EXPECT_TRUE(ph.headerVersion != 1 || (ph.pageNumber == firstPage + i && ph.fileId == fileId)) << i;
            }
            ++iChecked;
        }
        EXPECT_GT(iChecked, 0);
        std::set<std::pair<uint16_t, uint32_t>> held;
        for (auto x : ref.Extents())
            held.insert(x);
        ZR_EMaps& m = *b.m_pEMaps;
        for (int f = 0; f < static_cast<int>(static_cast<AA<ZR_EMap>&>(m)); ++f)
            for (int x = 0; x < m.Count(f); ++x)
                EXPECT_TRUE(!m(f, x).HasCopy() || held.count({static_cast<uint16_t>(f), static_cast<uint32_t>(x) * 8}))
                    << f << ":" << x;
    }

    // The content map of a one-file backup lists the blocks the walker meets.
    static void ExpectBlocksMatch(ZR_Backup& b, const zrtest::MtfWalk& walk) {
        ZR_CMaps& m = *b.m_pCMaps;
        ASSERT_EQ(static_cast<size_t>(m.GetNumDBLKs(0)), walk.blocks.size());
        for (size_t i = 0; i < walk.blocks.size(); ++i) {
            const uint32_t iType = m(0, static_cast<int>(i)).m_iType;
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(&iType), 4), walk.blocks[i].type) << i;
            EXPECT_EQ(m.GetLocation(0, static_cast<int>(i)).iStripeOfs, walk.blocks[i].offset) << i;
        }
    }
};

// Both kinds of map: what builds them, their files, and a damage of the
// file that a read must notice (a wrong magic, a row count the file cannot
// hold).
struct MapKind {
    const char* szExt;
    bool bContent;
    std::atomic<int>* pBuilds;
    uint64_t iDamageAt;
    uint32_t iDamage;
};
const MapKind kMapKinds[] = {{".xcm", true, &ZR_ScanFull::ms_iScansRun, 0, 0x464D4358},
                             {".xdm", false, &ZR_Backup::ms_iExtentMapBuilds, 20, 0x7FFFFFFF}};

TEST_F(BackupAccess, AMapIsBuiltOnceSharedWhileHeldReadFromItsFileAndBuiltAgainWhenDamaged) {
    ZR_REQUIRE_TESTDATA();
    const fs::path p = *zrtest::TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak");
    zrtest::NaiveRestore ref;
    ASSERT_TRUE(ref.Apply({p})) << ref.Error();
    const zrtest::MtfWalk walk = zrtest::MtfWalker::WalkFile(p);
    for (const MapKind& k : kMapKinds) {
        SCOPED_TRACE(k.szExt);
        fs::remove_all(Maps());
        fs::create_directories(Maps());
        auto map = [&](ZR_Backup& b) -> X_MapFile* { return k.bContent ? static_cast<X_MapFile*>(b.m_pCMaps) : b.m_pEMaps; };
        auto expectSound = [&](ZR_Backup& b) {
            EXPECT_EQ(map(b)->GetMapLocale(), X_MAPLOCALE_CACHED);
            if (k.bContent)
                ExpectBlocksMatch(b, walk);
            else
                ExpectMapMatches(b, ref);
        };
        const int iBuilds = *k.pBuilds;
        {
            auto first = Access({p});
            auto second = Access({p});
            EXPECT_EQ(map(*second), map(*first)) << "shared through the pool";
            EXPECT_EQ(*k.pBuilds, iBuilds + 1);
        }
        expectSound(*Access({p}));
        EXPECT_EQ(*k.pBuilds, iBuilds + 1) << "read from the file";
        ASSERT_EQ(MapFiles(k.szExt).size(), 1u);
        const fs::path file = MapFiles(k.szExt)[0];
        const std::vector<uint8_t> good = zrtest::ReadFileBytes(file);
        zrtest::PatchFile(file, k.iDamageAt, &k.iDamage, 4);
        // Damaged, then cut short.
        for (size_t iCut : {good.size(), good.size() - 9}) {
            if (iCut < good.size())
                zrtest::WriteFileBytes(file, good, iCut);
            const int iBefore = *k.pBuilds;
            expectSound(*Access({p}));
            EXPECT_EQ(*k.pBuilds, iBefore + 1) << "built again";
            EXPECT_EQ(zrtest::ReadFileBytes(file), good) << "and written again whole";
        }
    }
    auto log = Access({*zrtest::TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean_1.trn")}, 2);
    EXPECT_EQ(log->m_pEMaps, nullptr) << "a log has no extent map";
    EXPECT_EQ(MapFiles(".xdm").size(), 1u);
    EXPECT_EQ(MapFiles(".xbm").size(), 0u) << "backup maps are never written";
}

// What the real files lack: many stripes with the extents spread over them,
// enough extents that their headers are read by several threads.
TEST_F(BackupAccess, SyntheticStripesPutEveryExtentWhereTheWriterPutIt) {
    zrtest::SyntheticBackup writer({.filePages = {8192, 1200}, .stripes = 3, .transferExtents = 2});
    const fs::path first = m_tmp / "synth.bak";
    ASSERT_TRUE(writer.Write(first)) << writer.Error();
    std::vector<fs::path> files;
    for (int s = 0; s < 3; ++s)
        files.push_back(zrtest::SyntheticBackup::StripePath(first, s));
    auto b = Access(files);
    size_t iExtents = 0;
    for (int s = 0; s < 3; ++s)
        for (const zrtest::WrittenExtent& x : writer.Stripes()[s].extents) {
            const ZR_EMap e = b->LookupPage(PageId{x.firstPage, x.fileId});
            ASSERT_TRUE(e.HasCopy()) << x.fileId << ":" << x.firstPage;
            EXPECT_EQ(e.GetDevice(), s);
            EXPECT_EQ(e.GetOffset(), x.offset);
            ++iExtents;
        }
    EXPECT_EQ(iExtents, (8192u + 1200u) / 8);
}

TEST_F(BackupAccess, AReadErrorInTheWalkFailsTheBuildAndLeavesNoMapFile) {
    zrtest::SyntheticBackup writer({.filePages = {4096}});
    const fs::path p = m_tmp / "cut.bak";
    ASSERT_TRUE(writer.Write(p)) << writer.Error();
    auto b = Named({p});
    int32_t v = 0;
    ASSERT_TRUE(b->PrepareContent(&v)) << Errors();
    // Cut in the middle of the data once the content is known.
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
    } cases[] = {{k16TB, true}, {k16TB + ZR_EXTENT_SIZE, false}};
    uint32_t iFamily = 0x5EED0100;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.iSize);
        zrtest::SyntheticBackup writer({.filePages = {64}, .recordedFileSizes = {c.iSize}, .mediaFamilyId = ++iFamily});
        const fs::path p = m_tmp / ("big" + std::to_string(iFamily) + ".bak");
        ASSERT_TRUE(writer.Write(p)) << writer.Error();
        auto b = Named({p});
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v) && b->Open()) << Errors();
        ASSERT_TRUE(zrtest::ResetPeakResident());
        const uint64_t iBefore = zrtest::PeakResidentBytes();
        EXPECT_EQ(b->PrepareAccess(0), c.bServed) << Errors();
        EXPECT_LT(zrtest::PeakResidentBytes() - iBefore, uint64_t{64} << 20) << "peak resident memory of the build";
        if (c.bServed) {
            EXPECT_TRUE(b->LookupPage(PageId{8, 1}).HasCopy());
            EXPECT_FALSE(b->LookupPage(PageId{64, 1}).HasCopy()) << "behind what the backup holds";
            continue;
        }
        for (const std::string& part : {std::string("16 TB"), p.filename().string(), std::string("data file 1")})
            EXPECT_NE(Errors().find(part), std::string::npos) << Errors();
        ZR_ClearErrors(L"acc");
    }
    ASSERT_EQ(MapFiles(".xdm").size(), 1u);
    for (const fs::path& xdm : MapFiles(".xdm"))
        EXPECT_LT(fs::file_size(xdm), 4096u) << "a row runs to the last extent held";
}

// A second mount that asks for a map under construction waits for it. The
// creator's first read of the backup behind the map is held until the pool
// shows the waiter's reference, so the waiter is in its wait when the
// creator finishes; then the creator succeeds, or throws (exhausted memory).
// The header reads of an extent map run on several threads, whose
// exceptions reach the builder.
namespace creators {

std::atomic<std::thread::id> g_waiter;  // whose reads pass
std::atomic<int> g_iType{0};            // the map type whose creator is held; 0: none
std::atomic<bool> g_bThrow{false};
std::atomic<bool> g_bWaited{false};
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
    while (BuildingMapRefs(iType) < iRefs)
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

BOOL HoldTheCreator(HANDLE h, LPVOID p, DWORD n, LPDWORD pn, LPOVERLAPPED o) {
    const int iType = g_iType;
    if (iType != 0 && std::this_thread::get_id() != g_waiter && BuildingMapRefs(iType) > 0) {
        g_bWaited = WaitForRefs(iType, 2);
        if (g_bThrow)
            throw BadAlloc(n);
        g_iType = 0;
    }
    return g_pfnRead(h, p, n, pn, o);
}

}  // namespace creators

TEST_F(BackupAccess, AMountWaitingForAMapUnderConstructionSharesItOrFailsWithItsCreator) {
    using namespace creators;
    zrtest::SyntheticBackup writer({.filePages = {1024}});  // enough extents for the header reads to take threads
    const fs::path p = m_tmp / "held.bak";
    ASSERT_TRUE(writer.Write(p)) << writer.Error();
    for (const MapKind& k : kMapKinds)
        for (bool bThrow : {false, true}) {
            SCOPED_TRACE(std::string(k.szExt) + (bThrow ? ", the creator throws" : ", the creator succeeds"));
            const int iType = k.bContent ? 1 : 2;
            fs::remove_all(Maps());  // no map file to read instead of building
            fs::create_directories(Maps());
            auto prepare = [&](ZR_Backup& b) {
                int32_t v = 0;
                return k.bContent ? b.PrepareContent(&v) : b.PrepareAccess(0);
            };
            auto creator = Named({p});
            auto waiter = Named({p});
            if (!k.bContent) {
                int32_t v = 0;
                ASSERT_TRUE(creator->PrepareContent(&v) && waiter->PrepareContent(&v) && creator->Open() && waiter->Open())
                    << Errors();
            }
            const int iBuilds = *k.pBuilds;
            zr::platform::testing::ScopedFileCalls restore;
            g_pfnRead = zr::platform::testing::ReplaceFileCall(&FileCalls::ReadFile, &HoldTheCreator);
            g_bThrow = bThrow;
            g_bWaited = false;
            g_iType = iType;
            std::atomic<bool> bThrew{false}, bBuilt{false};
            std::thread build([&] {
                try {
                    bBuilt = prepare(*creator);
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
            EXPECT_TRUE(g_bWaited) << "the waiter took the map under construction";
            EXPECT_EQ(bThrew.load(), bThrow) << "an exception goes on";
            EXPECT_EQ(result.get(), !bThrow);
            EXPECT_EQ(BuildingMapRefs(iType), 0) << "no map is left under construction";
            if (!bThrow) {
                EXPECT_TRUE(bBuilt);
                EXPECT_EQ(*k.pBuilds, iBuilds + 1);
                EXPECT_EQ(k.bContent ? static_cast<X_MapFile*>(waiter->m_pCMaps) : waiter->m_pEMaps,
                          k.bContent ? static_cast<X_MapFile*>(creator->m_pCMaps) : creator->m_pEMaps);
                continue;
            }
            waiter.reset();
            creator.reset();
            auto later = Named({p});
            int32_t v = 0;
            EXPECT_TRUE(later->PrepareContent(&v) && later->Open() && later->PrepareAccess(0)) << Errors();
            ZR_ClearErrors(L"acc");
        }
}

}  // namespace
