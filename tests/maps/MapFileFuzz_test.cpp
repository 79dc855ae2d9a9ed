// The content map of a real backup, damaged at random and cut short:
// whatever the bytes, Read() ends with true or false, never with a crash, an
// exception or a read outside the file; a map that does read is whole, so
// every lookup into it stays inside its arrays. Both plugs are exercised:
// the mapping, where arrays point into the view, and the stream, where they
// are copies. (Damaged extent maps are the page read tests', which hold
// every read through them against the naive restore.)
#include "maps/ZR_CMaps.h"

#include "diag/ZR_Error.h"
#include "platform/FileCallsTesting.h"
#include "support/StreamPlugOnly.h"
#include "support/ByteDamage.h"
#include "support/RealMaps.h"
#include "support/TestData.h"
#include "support/VirtualView.h"

#include <gtest/gtest.h>

#include <filesystem>
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

class MapFileFuzz : public ::testing::Test {
protected:
    MapFileFuzz() : m_maps(m_tmp / "maps") {}
    void SetUp() override { fs::create_directories(m_tmp / "maps"); }

    // One read of the map file as it stands, through the mapping or the
    // stream. A read that fails leaves nothing behind; a map that read keeps
    // its file open while it lives, no longer.
    bool ReadOnce(bool bStream) {
        zrtest::StreamPlugOnly streamOnly(bStream);
        bool bRead = false;
        {
            ZR_CMaps map;
            zrtest::SetTestIdentity(map, m_backup);
            EXPECT_NO_THROW(bRead = map.Read());
            if (bRead) {
                EXPECT_NO_THROW(TouchContent(map));
            } else {
                EXPECT_EQ(map.GetNumFiles(), 0);
            }
        }
        EXPECT_EQ(zr::platform::testing::OpenFileHandleCount(), m_iHandles);
        return bRead;
    }

    zrtest::TempDir m_tmp;
    zrtest::MapFolderScope m_maps;
    fs::path m_backup = m_tmp / "backup.bak";
    size_t m_iHandles = zr::platform::testing::OpenFileHandleCount();
};

// Damaged copies, then every cut, each read through both plugs. Some damaged
// copies must still read: damage inside records and locations is not
// detectable, and a test that never gets past the checks would prove
// nothing about the code behind them.
TEST_F(MapFileFuzz, DamagedContentMapOfARealBackupReadsCleanlyOrNotAtAll) {
    ZR_REQUIRE_TESTDATA();
    {
        ZR_CMaps map;
        zrtest::SetTestIdentity(map, m_backup);
        ASSERT_TRUE(zrtest::FillContentMap(map, zrtest::ReadFileBytes(*zrtest::TestDataFile(kBackup))));
        ASSERT_GT(map.GetNumDBLKs(0), 10);
        ASSERT_TRUE(map.Write());
    }
    const fs::path name = fs::directory_iterator(m_tmp / "maps")->path();
    const std::vector<uint8_t> good = zrtest::ReadFileBytes(name);
    ASSERT_GT(good.size(), kContentMapIdentity + 1000);
    zrtest::ByteDamage damage(0x2A17 + static_cast<uint32_t>(good.size()));
    int iRead = 0;
    for (int i = 0; i < kIterations; ++i) {
        zrtest::WriteFileBytes(name, damage.Damage(good, kContentMapIdentity));
        SCOPED_TRACE(testing::Message() << "damaged copy " << i);
        iRead += ReadOnce(i % 2 == 1);
    }
    EXPECT_GT(iRead, 0) << "no damaged copy got past the checks";
    for (size_t len : zrtest::CutLengths(good.size(), kContentMapIdentity + 64, 37)) {
        zrtest::WriteFileBytes(name, good, len);
        SCOPED_TRACE(testing::Message() << "cut at " << len);
        EXPECT_FALSE(ReadOnce(len % 2 == 1));
    }
    zrtest::WriteFileBytes(name, good);
    EXPECT_TRUE(ReadOnce(false));
    EXPECT_TRUE(ReadOnce(true));
}

}  // namespace
