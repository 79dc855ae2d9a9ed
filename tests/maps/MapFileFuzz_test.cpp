// Map files of real backups, damaged at random and cut short: whatever the
// bytes, Read() ends with true or false, never with a crash, an exception or
// a read outside the file; a map that does read is whole, so every lookup
// into it stays inside its arrays. Both plugs are exercised: the mapping,
// where arrays point into the view, and the stream, where they are copies.
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

#include "diag/ZR_Error.h"
#include "platform/FileCallsTesting.h"
#include "support/StreamPlugOnly.h"
#include "support/ByteDamage.h"
#include "support/RealMaps.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <optional>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kIterations = 300;
const char kBackup[] = "appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak";

// Bytes in front of the content map's tables: magic and version (8), the
// backend and the required file count (8), the primary name (520), the
// family and both dates (14), the data set (4). Damage there only stops the
// read at the identity, so the random damage goes behind it.
constexpr size_t kContentMapIdentity = 8 + 8 + 520 + 14 + 4;
// Preamble and header of an extent map: magic, size, version, backend, flag.
constexpr size_t kExtentMapHeader = 20;

// Reads every location the map holds and walks both configurations again.
void TouchContent(ZR_CMaps& map) {
    for (int iFile = 0; iFile < map.GetNumFiles(); ++iFile)
        for (int iBlock = 0; iBlock < map.GetNumDBLKs(iFile); ++iBlock) {
            map.GetLocation(iFile, iBlock);
            for (int iStream = 0; iStream < map.GetNumSTREAMs(iFile, iBlock); ++iStream)
                for (int iSeg = 0; iSeg < map.GetNumSegments(iFile, iBlock, iStream); ++iSeg)
                    map.GetLocation(iFile, iBlock, iStream, iSeg);
        }
    SQL_ConfigRecords records;
    map.m_ConfigMSCI.Describe(&records, L"fuzz");
    map.m_ConfigMSLS.Describe(&records, L"fuzz");
}

void TouchExtents(ZR_EMaps& map) {
    for (int iFile = 0; iFile < static_cast<int>(map); ++iFile)
        for (int iExtent = 0; iExtent <= map.Count(iFile); ++iExtent)
            map.Fetch(PageId{static_cast<uint32_t>(iExtent * 8), static_cast<uint16_t>(iFile)});
}

int Rows(ZR_CMaps& map) { return map.GetNumFiles(); }
int Rows(ZR_EMaps& map) { return static_cast<int>(map); }

class MapFileFuzz : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_tmp / "maps");
        std::wstring w = (m_tmp / "maps").wstring();
        wcsncpy(g_wszMapFilesFolder, w.c_str(), MAX_PATH - 1);
        m_backup = m_tmp / "backup.bak";
    }
    void TearDown() override {
        g_wszMapFilesFolder[0] = 0;
        ZR_ClearErrors(nullptr);
    }

    // The one file the map folder holds.
    fs::path MapFile() const {
        fs::path name;
        for (auto& e : fs::directory_iterator(m_tmp / "maps"))
            name = e.path();
        return name;
    }
    static void Rewrite(const fs::path& p, const std::vector<uint8_t>& bytes, size_t len) {
        std::ofstream out(p, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(len));
    }

    // One read of the map file as it stands, through the mapping or the
    // stream. A read that fails leaves nothing behind.
    template <class Map, class Touch>
    bool ReadOnce(bool bStream, Touch touch) {
        std::optional<zrtest::StreamPlugOnly> streamOnly;
        if (bStream)
            streamOnly.emplace();
        bool bRead = false;
        {
            Map map;
            zrtest::SetTestIdentity(map, m_backup);
            EXPECT_NO_THROW(bRead = map.Read());
            if (bRead) {
                EXPECT_NO_THROW(touch(map));
            } else {
                EXPECT_EQ(Rows(map), 0);
            }
        }
        // A map that read keeps its file open while it lives, no longer.
        EXPECT_EQ(zr::platform::testing::OpenFileHandleCount(), m_iHandles);
        return bRead;
    }

    // Damaged copies, then every cut, each read through both plugs. Some
    // damaged copies must still read: damage inside records and locations
    // is not detectable, and a test that never gets past the checks would
    // prove nothing about the code behind them.
    template <class Map, class Touch>
    void Hammer(const std::vector<uint8_t>& good, size_t iFrom, Touch touch) {
        fs::path name = MapFile();
        m_iHandles = zr::platform::testing::OpenFileHandleCount();
        zrtest::ByteDamage damage(0x2A17 + static_cast<uint32_t>(good.size()));
        int iRead = 0;
        for (int i = 0; i < kIterations; ++i) {
            std::vector<uint8_t> bytes = damage.Damage(good, iFrom);
            Rewrite(name, bytes, bytes.size());
            SCOPED_TRACE(testing::Message() << "damaged copy " << i);
            iRead += ReadOnce<Map>(i % 2 == 1, touch);
        }
        EXPECT_GT(iRead, 0) << "no damaged copy got past the checks";
        for (size_t len : zrtest::CutLengths(good.size(), iFrom + 64, 37)) {
            Rewrite(name, good, len);
            SCOPED_TRACE(testing::Message() << "cut at " << len);
            EXPECT_FALSE(ReadOnce<Map>(len % 2 == 1, touch));
        }
        Rewrite(name, good, good.size());
        EXPECT_TRUE(ReadOnce<Map>(false, touch));
        EXPECT_TRUE(ReadOnce<Map>(true, touch));
    }

    zrtest::TempDir m_tmp;
    fs::path m_backup;
    size_t m_iHandles = 0;
};

TEST_F(MapFileFuzz, DamagedContentMapOfARealBackupReadsCleanlyOrNotAtAll) {
    ZR_REQUIRE_TESTDATA();
    auto path = zrtest::TestDataFile(kBackup);
    ASSERT_TRUE(path);
    {
        ZR_CMaps map;
        zrtest::SetTestIdentity(map, m_backup);
        ASSERT_TRUE(zrtest::FillContentMap(map, zrtest::ReadFileBytes(*path)));
        ASSERT_GT(map.GetNumDBLKs(0), 10);
        ASSERT_TRUE(map.Write());
    }
    std::vector<uint8_t> good = zrtest::ReadFileBytes(MapFile());
    ASSERT_GT(good.size(), kContentMapIdentity + 1000);
    Hammer<ZR_CMaps>(good, kContentMapIdentity, TouchContent);
}

TEST_F(MapFileFuzz, DamagedExtentMapOfARealBackupReadsCleanlyOrNotAtAll) {
    ZR_REQUIRE_TESTDATA();
    auto path = zrtest::TestDataFile(kBackup);
    ASSERT_TRUE(path);
    {
        ZR_EMaps map;
        zrtest::SetTestIdentity(map, m_backup);
        ASSERT_TRUE(zrtest::FillExtentMap(map, *path));
        ASSERT_TRUE(map.Write());
    }
    std::vector<uint8_t> good = zrtest::ReadFileBytes(MapFile());
    ASSERT_GT(good.size(), kExtentMapHeader + 100);
    Hammer<ZR_EMaps>(good, kExtentMapHeader, TouchExtents);
}

}  // namespace
