// The backup map: slots and GAM records grow as they are entered, the file
// holds exactly what its size word says, both plugs read it back, and a
// damaged or cut file is passed over without allocating by a bad count.
#include "maps/ZR_BMaps.h"

#include "diag/ZR_Error.h"
#include "platform/FileCallsTesting.h"
#include "support/FileBytes.h"
#include "support/StreamPlugOnly.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

namespace {

bool SameId(const PageId& a, const PageId& b) { return a.m_iPage == b.m_iPage && a.m_iFileId == b.m_iFileId; }

std::vector<uint8_t> GamBytes(uint8_t seed) {
    std::vector<uint8_t> page(ZR_PAGE_SIZE);
    for (size_t i = 0; i < page.size(); ++i)
        page[i] = static_cast<uint8_t>(seed + i * 31);
    return page;
}

// Two backup files; the second has a stream with a gap and one that is
// empty; file 1 has GAM pages for intervals 0 and 2.
void Fill(ZR_BMaps& map) {
    map.AugmentExtent(0, 0, 0, PageId{0, 1});
    map.AugmentExtent(0, 0, 1, PageId{8, 1});
    map.AugmentExtent(1, 0, 3, PageId{16, 3});
    map.AugmentExtent(1, 2, 0, PageId{0, 0});
    map.AugmentGAM(PageId{0, 1}, PageId{2, 1}, GamBytes(1).data());
    map.AugmentGAM(PageId{2 * ZR_GAM_INTERVAL, 1}, PageId{2 * ZR_GAM_INTERVAL, 1}, GamBytes(2).data());
    map.m_aBackupFiles(1).m_iTotalSlots = 4;
    map.m_aBackupFiles(1)(2).m_iFirstSlot = 4;
}

void ExpectFilled(ZR_BMaps& map) {
    ASSERT_EQ(static_cast<int>(map.m_aBackupFiles), 2);
    ZR_BMapFile& second = map.m_aBackupFiles(1);
    EXPECT_EQ(second.m_iTotalSlots, 4u);
    ASSERT_EQ(static_cast<int>(second), 3);
    ASSERT_EQ(static_cast<int>(second(0)), 4) << "slots 0 to 2 were filled with 0:0";
    EXPECT_TRUE(SameId(second(0)(1), PageId{0, 0}));
    EXPECT_TRUE(SameId(second(0)(3), PageId{16, 3}));
    EXPECT_EQ(static_cast<int>(second(1)), 0);
    EXPECT_EQ(second(2).m_iFirstSlot, 4u);
    EXPECT_TRUE(SameId(map.m_aBackupFiles(0)(0)(1), PageId{8, 1}));

    ASSERT_EQ(static_cast<int>(map.m_aGamPages), 2);
    ASSERT_EQ(map.m_aGamPages.Count(1), 3);
    const ZR_GamPage& gap = map.m_aGamPages(1, 1);
    EXPECT_TRUE(SameId(gap.m_GamPageId, PageId{0, 0})) << "a skipped interval is a zeroed record";
    const ZR_GamPage& last = map.m_aGamPages(1, 2);
    EXPECT_TRUE(SameId(last.m_NextPageId, PageId{3 * ZR_GAM_INTERVAL, 1}));
    EXPECT_EQ(std::memcmp(last.m_aPage, GamBytes(2).data(), ZR_PAGE_SIZE), 0);
    EXPECT_TRUE(SameId(map.m_aGamPages(1, 0).m_GamPageId, PageId{2, 1}));
}

class BackupMapFile : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_tmp / "maps");
        std::wstring w = (m_tmp / "maps").wstring();
        wcsncpy(g_wszMapFilesFolder, w.c_str(), MAX_PATH - 1);
    }
    void TearDown() override { g_wszMapFilesFolder[0] = 0; }

    void Identify(ZR_BMaps& map) {
        map.SetBackend(ZR_BACKEND_MTF);
        map.SetMediaFamilyId(0x99);
        map.SetBackupName((m_tmp / "full.bak").wstring().c_str());
    }

    fs::path WriteMap() {
        ZR_BMaps map;
        Identify(map);
        Fill(map);
        uint32_t cb = map.GetContentSize();
        EXPECT_TRUE(map.Write());
        fs::path name;
        for (auto& entry : fs::directory_iterator(m_tmp / "maps"))
            name = entry.path();
        EXPECT_EQ(name.extension(), ".xbm");
        EXPECT_EQ(fs::file_size(name), cb);
        // Files: 16 + (8 + 12 + 6 x 2) + (8 + 12 x 3 + 6 x 5); GAM rows:
        // 4 + (4) + (4 + 8,224 x 3).
        EXPECT_EQ(cb, 16u + 32 + 74 + 4 + 4 + 4 + 8224 * 3);
        return name;
    }

    bool ReadsBack() {
        ZR_BMaps map;
        Identify(map);
        bool b = map.Read();
        EXPECT_TRUE(b || static_cast<int>(map.m_aBackupFiles) == 0);
        return b;
    }

    zrtest::TempDir m_tmp;
};

TEST_F(BackupMapFile, ReadBackThroughTheMappingAndTheStream) {
    WriteMap();
    for (bool bStream : {false, true}) {
        zrtest::StreamPlugOnly streamOnly(bStream);
        ZR_BMaps map;
        Identify(map);
        ASSERT_TRUE(map.Read());
        EXPECT_EQ(map.GetMapPlug(), bStream ? X_MAPPLUG_STDIO : X_MAPPLUG_MMF);
        ExpectFilled(map);
    }
}

TEST_F(BackupMapFile, DamagedFilesArePassedOver) {
    const fs::path name = WriteMap();
    const std::vector<uint8_t> good = zrtest::ReadFileBytes(name);
    auto damaged = [&](size_t at, uint32_t value, const char* what) {
        zrtest::WriteFileBytes(name, good);
        zrtest::PatchFile(name, at, &value, 4);
        EXPECT_FALSE(ReadsBack()) << what;
    };
    damaged(0, 0x464D4258, "bad magic");
    damaged(8, 2, "newer version");
    damaged(12, 0, "no backup file");
    damaged(12, 0x01000000, "file count beyond the file");
    damaged(20, 0x01000000, "stream count beyond the file");
    damaged(32, 0x10000000, "page id count beyond the file");
    damaged(16 + 32 + 74, 0x01000000, "GAM row count beyond the file");
    damaged(16 + 32 + 74 + 8, 4, "GAM record count beyond the file");
    // Cut at every length through the slot tables and the GAM counts, then
    // in steps through the records.
    for (size_t len = 0; len < good.size(); len += (len < 130 ? 1 : 3001)) {
        zrtest::WriteFileBytes(name, good, len);
        EXPECT_FALSE(ReadsBack()) << "cut at " << len;
    }
    zrtest::WriteFileBytes(name, good);
    EXPECT_TRUE(ReadsBack());
    ZR_ClearErrors(nullptr);
}

}  // namespace
