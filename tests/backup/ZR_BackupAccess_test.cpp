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
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"
#include "support/ErrorText.h"
#include "support/Manifest.h"
#include "support/MtfWalker.h"
#include "support/PageFormat.h"
#include "support/SyntheticBackup.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string Errors() { return zrtest::ErrorTextNarrow(L"acc"); }

class BackupAccess : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(Maps());
        std::wcsncpy(g_wszMapFilesFolder, Maps().wstring().c_str(), MAX_PATH - 1);
        ZR_ClearErrors(L"acc");
        m_pAhead = ZR_ReadAhead::Alloc();
    }
    void TearDown() override {
        ZR_ReadAhead::Free(m_pAhead);
        g_wszMapFilesFolder[0] = 0;
        ZR_ClearErrors(L"acc");
    }
    fs::path Maps() const { return m_tmp / "maps"; }

    int MapFiles(const char* ext) {
        int n = 0;
        for (auto& e : fs::directory_iterator(Maps()))
            n += e.path().extension() == ext;
        return n;
    }

    // A backup of the given files, prepared and opened, with its extent map.
    std::unique_ptr<ZR_Backup> Access(const std::vector<fs::path>& files, int iIndex = 0) {
        auto b = std::make_unique<ZR_Backup>(L"acc");
        b->SetDataSetNumber(1);
        for (auto& f : files)
            b->AddFile(f.wstring().c_str(), nullptr, false);
        int32_t v = 0;
        EXPECT_TRUE(b->PrepareContent(&v)) << Errors();
        EXPECT_TRUE(b->Open());
        EXPECT_TRUE(b->PrepareAccess(iIndex)) << Errors();
        return b;
    }

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

    zrtest::TempDir m_tmp;
    ZR_ReadAhead* m_pAhead = nullptr;
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
    EXPECT_EQ(MapFiles(".xdm"), 1) << "only the differential's";
    EXPECT_EQ(MapFiles(".xbm"), 0) << "backup maps are never written";
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
    fs::path xdm;
    for (auto& e : fs::directory_iterator(Maps()))
        if (e.path().extension() == ".xdm")
            xdm = e.path();
    ASSERT_FALSE(xdm.empty());
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
        auto b = std::make_unique<ZR_Backup>(L"acc");
        b->SetDataSetNumber(1);
        b->AddFile(p.wstring().c_str(), nullptr, false);
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v)) << Errors();  // the content map is now a file
    }
    auto b = std::make_unique<ZR_Backup>(L"acc");
    b->SetDataSetNumber(1);
    b->AddFile(p.wstring().c_str(), nullptr, false);
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
    EXPECT_EQ(MapFiles(".xdm"), 0);
}

}  // namespace
