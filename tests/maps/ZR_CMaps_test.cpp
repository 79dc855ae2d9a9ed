// The content map in memory and on disk: a map written once is read back
// whole, through the mapping and through the stream, by a second object of
// the same backup; a file that is damaged, cut short, of a newer version or
// of another backup is passed over without harm.
#include "maps/ZR_CMaps.h"

#include "diag/ZR_Error.h"
#include "platform/FileCallsTesting.h"
#include "platform/PathNames.h"
#include "support/ErrorText.h"
#include "support/FileBytes.h"
#include "support/StreamPlugOnly.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <tuple>
#include <vector>

namespace fs = std::filesystem;

namespace {

// A configuration stream as SQL Server writes one: a SCIN record, one
// filegroup, a data file, a dropped file and a log file.
std::vector<uint8_t> ConfigStream() {
    std::vector<uint8_t> bytes;
    auto record = [&](const char* type, uint32_t size, uint32_t flags) {
        size_t at = bytes.size();
        bytes.resize(at + size);
        std::memcpy(&bytes[at], type, 4);
        std::memcpy(&bytes[at + 4], &size, 4);
        std::memcpy(&bytes[at + 8], &flags, 4);
        for (uint32_t i = 12; i < size; ++i)
            bytes[at + i] = static_cast<uint8_t>(i * 7 + size);
    };
    record("SCIN", 344 + 40, 0);
    bytes[87] = 'D';
    record("SFGI", 48 + 16, 0);
    record("SFIN", 402 + 30, 0);
    record("SFIN", 402 + 30, SQL_FILE_DROPPED);
    record("SFIN", 402 + 50, 0);
    return bytes;
}

ZR_StripeLocation Loc(uint64_t ofs, uint64_t len, uint8_t device) { return {ofs, len, device, ofs, 0}; }

MTF_DATE_TIME Date(uint8_t seed) {
    MTF_DATE_TIME d{};
    for (int i = 0; i < 5; ++i)
        d.m_bytes[i] = static_cast<uint8_t>(seed + i * 13);
    return d;
}

// A map of a two-file backup with an empty third row.
void Fill(ZR_CMaps& map) {
    auto config = ConfigStream();
    ASSERT_TRUE(map.ParseConfig(map.m_ConfigMSCI, config.data(), static_cast<uint32_t>(config.size())));
    ASSERT_TRUE(map.ParseConfig(map.m_ConfigMSLS, config.data(), static_cast<uint32_t>(config.size())));
    for (int iFile = 0; iFile < 2; ++iFile) {
        map.AddDBLK(0x45504154, iFile, Loc(0, 1024, iFile));
        map.AddDBLK(0x4144534D, iFile, Loc(4096, 60, iFile));
        ASSERT_TRUE(map.AddSTREAM(0x4144514D, iFile, Loc(4200, 22, iFile), 1 + 65536 * 3));
        for (int s = 0; s < 3; ++s)
            ASSERT_TRUE(map.AddSegment(iFile, Loc(4224 + 65536 * s, 65536, iFile)));
        ASSERT_TRUE(map.AddSTREAM(0x44415053, iFile, Loc(300000, 22, iFile), 0));
    }
    map.Set(2);  // a file with no blocks is kept as an empty row
    map.SetRequiredFiles(2);
}

void SetIdentity(ZR_CMaps& map, int iDataSet = 1, uint32_t iFamily = 0x1234ABCD) {
    map.SetBackend(ZR_BACKEND_MTF);
    map.SetDataSetNumber(iDataSet);
    map.SetMediaFamilyId(iFamily);
    map.SetMediaDate(Date(0x10));
    map.SetMediaWriteDate(Date(0x20));
}

class ContentMapFile : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_tmp / "maps");
        SetFolder(m_tmp / "maps");
        m_backup = (m_tmp / "backup.bak").wstring();
    }
    void TearDown() override { g_wszMapFilesFolder[0] = 0; }

    static void SetFolder(const fs::path& folder) {
        std::wstring w = folder.wstring();
        wcsncpy(g_wszMapFilesFolder, w.c_str(), MAX_PATH - 1);
    }

    // Writes a filled map and returns the name of its file.
    std::wstring WriteMap(int iDataSet = 1) {
        ZR_CMaps map;
        SetIdentity(map, iDataSet);
        map.SetBackupName(m_backup.c_str());
        map.SetPrimaryName(m_backup.c_str());
        Fill(map);
        EXPECT_TRUE(map.Write());
        std::wstring name;
        for (auto& e : fs::directory_iterator(m_tmp / "maps"))
            name = e.path().wstring();
        for (auto& e : fs::directory_iterator(m_tmp.path()))
            if (e.path().extension() == ".xcm")
                name = e.path().wstring();
        return name;
    }

    // A fresh object of the same backup reads the map.
    bool ReadBack(ZR_CMaps& map, int iDataSet = 1, uint32_t iFamily = 0x1234ABCD) {
        SetIdentity(map, iDataSet, iFamily);
        map.SetBackupName(m_backup.c_str());
        return map.Read();
    }

    zrtest::TempDir m_tmp;
    std::wstring m_backup;
};

void ExpectSameContent(ZR_CMaps& map) {
    ASSERT_EQ(map.GetNumFiles(), 3);
    EXPECT_EQ(map.GetRequiredFiles(), 2);
    EXPECT_EQ(map.GetNumDBLKs(2), 0);
    for (int iFile = 0; iFile < 2; ++iFile) {
        ASSERT_EQ(map.GetNumDBLKs(iFile), 2);
        EXPECT_EQ(map(iFile, 1).m_iType, 0x4144534Du);
        ASSERT_EQ(map.GetNumSTREAMs(iFile, 1), 2);
        EXPECT_EQ(map(iFile, 1)(0).m_iLength, 1u + 65536 * 3);
        ASSERT_EQ(map.GetNumSegments(iFile, 1, 0), 3);
        EXPECT_EQ(map.GetNumSegments(iFile, 1, 1), 0);
        ZR_StripeLocation seg = map.GetLocation(iFile, 1, 0, 2);
        EXPECT_EQ(seg.GetBkpFileOfs(), 4224u + 65536 * 2);
        EXPECT_EQ(seg.iDevice, iFile);
        EXPECT_EQ(map.GetType(iFile), 0x4144534Du);
    }
    ASSERT_NE(map.m_ConfigMSCI.m_pConfig, nullptr);
    EXPECT_EQ(map.m_ConfigMSCI.m_pConfig->m_backup_type, 'D');
    EXPECT_EQ(static_cast<int>(map.m_ConfigMSCI.m_FileGroups), 1);
    // The dropped file is not kept.
    ASSERT_EQ(static_cast<int>(map.m_ConfigMSLS.m_Files), 2);
    EXPECT_EQ(uint32_t{map.m_ConfigMSLS.m_Files(1)->m_hdr.m_size}, 402u + 50);
}

TEST_F(ContentMapFile, WrittenMapIsReadBackUnderItsIdentityNameThroughBothPlugs) {
    std::wstring name = WriteMap();
    // The name follows from the identity alone: both dates and the family.
    EXPECT_EQ(fs::path(name).filename().string(), "1031-04-21 03_29_04 2059-04-29 04_29_20 0x1234ABCD.xcm");
    EXPECT_EQ(fs::path(name).parent_path(), m_tmp / "maps");
    for (bool bStream : {false, true}) {
        SCOPED_TRACE(bStream ? "stream" : "mapping");
        zrtest::StreamPlugOnly streamOnly(bStream);
        ZR_CMaps map;
        ASSERT_TRUE(ReadBack(map));
        EXPECT_EQ(map.GetMapLocale(), X_MAPLOCALE_CACHED);
        EXPECT_EQ(map.GetMapPlug(), bStream ? X_MAPPLUG_STDIO : X_MAPPLUG_MMF);
        ExpectSameContent(map);
        EXPECT_EQ(map.m_ConfigMSCI.m_bMapped, !bStream) << "records stay in the view";
        EXPECT_EQ(std::wstring(map.GetPrimaryName()), m_backup);
    }
}

// Another family or data set finds no map; data set 0 is written as 1.
// Backend 3 is a native backup to every map: a file that says 3 is read by
// a native object and a native file by an object that says 3; a compressed
// backup's word is another backup.
TEST_F(ContentMapFile, OnlyTheIdentityOfTheBackupReadsItsMap) {
    const fs::path name = WriteMap(0);
    ZR_CMaps otherFamily, otherSet, setOne;
    EXPECT_FALSE(ReadBack(otherFamily, 1, 0x1234ABCE));
    EXPECT_FALSE(ReadBack(otherSet, 2));
    EXPECT_EQ(otherSet.GetNumFiles(), 0);
    EXPECT_TRUE(ReadBack(setOne, 1));
    for (auto [iInFile, iObject, bRead] : {std::tuple{3, 1, true}, {1, 3, true}, {2, 1, false}}) {
        zrtest::PatchFile(name, 8, &iInFile, 4);  // behind the magic and the version
        ZR_CMaps map;
        SetIdentity(map);
        map.SetBackend(static_cast<ZR_Backend_e>(iObject));
        map.SetBackupName(m_backup.c_str());
        EXPECT_EQ(map.Read(), bRead) << iInFile << " read as " << iObject;
    }
}

TEST_F(ContentMapFile, AnUnwritableFolderFallsBackToASatelliteBesideTheBackupAndThenFails) {
    SetFolder(m_tmp / "no" / "such" / "folder");
    std::wstring name = WriteMap();
    EXPECT_EQ(fs::path(name), fs::path(m_backup + L".1.xcm"));
    ZR_CMaps map;
    ASSERT_TRUE(ReadBack(map));
    EXPECT_EQ(map.GetMapLocale(), X_MAPLOCALE_SATELLITE);
    ExpectSameContent(map);
    EXPECT_NE(zrtest::ErrorText().find(L"Failed to open ContentMap"), std::wstring::npos);
    m_backup = (m_tmp / "missing" / "backup.bak").wstring();
    ZR_CMaps nowhere;
    SetIdentity(nowhere);
    nowhere.SetBackupName(m_backup.c_str());
    Fill(nowhere);
    EXPECT_FALSE(nowhere.Write());
    ZR_ClearErrors(nullptr);
}

// Every damage leaves Read() false, with no crash, and the file untouched.
// (Cuts at every length are the fuzz test's.)
TEST_F(ContentMapFile, DamagedFilesArePassedOver) {
    const fs::path name = WriteMap();
    const std::vector<uint8_t> good = zrtest::ReadFileBytes(name);
    // The segment count of the last data stream, behind the end word and the
    // empty stream and the segments of the last data stream.
    const size_t iSegments = good.size() - 4 - (4 + 29 + 8 + 4) - 29 * 3 - 4;
    uint32_t was = 0;
    std::memcpy(&was, &good[iSegments], 4);
    ASSERT_EQ(was, 3u);
    const struct {
        size_t iAt;
        uint32_t iValue;
        const char* szWhat;
    } cases[] = {
        {0, 0x464D4358, "bad magic"},
        {4, 4, "a version newer than this library writes"},
        {iSegments, 100000, "a segment count beyond the file"},
        {iSegments, 0x7FFFFFF0, "a segment count far beyond the file"},  // refused before anything is allocated
    };
    for (const auto& c : cases) {
        zrtest::WriteFileBytes(name, good);
        zrtest::PatchFile(name, c.iAt, &c.iValue, c.iAt == 4 ? 1 : 4);
        ZR_CMaps map;
        EXPECT_FALSE(ReadBack(map)) << c.szWhat;
        EXPECT_EQ(map.GetNumFiles(), 0) << c.szWhat;
    }
    zrtest::WriteFileBytes(name, good);
    ZR_CMaps map;
    EXPECT_TRUE(ReadBack(map));
    ZR_ClearErrors(nullptr);
}

TEST(ContentMapConfig, BrokenStreamsAreRefused) {
    ZR_CMaps map;
    auto bytes = ConfigStream();
    // Not a SCIN first.
    std::vector<uint8_t> notScin = bytes;
    std::memcpy(notScin.data(), "SFIN", 4);
    EXPECT_FALSE(map.ParseConfig(map.m_ConfigMSCI, notScin.data(), static_cast<uint32_t>(notScin.size())));
    // A record that runs past the stream.
    std::vector<uint8_t> longRecord = bytes;
    uint32_t tooLong = 100000;
    std::memcpy(&longRecord[384 + 4], &tooLong, 4);
    EXPECT_FALSE(map.ParseConfig(map.m_ConfigMSCI, longRecord.data(), static_cast<uint32_t>(longRecord.size())));
    // A stream shorter than its SCIN.
    EXPECT_FALSE(map.ParseConfig(map.m_ConfigMSCI, bytes.data(), 100));
    // A zero size ends the sequence early but is sound.
    std::vector<uint8_t> ended = bytes;
    std::memset(&ended[384 + 4], 0, 4);
    EXPECT_TRUE(map.ParseConfig(map.m_ConfigMSCI, ended.data(), static_cast<uint32_t>(ended.size())));
    EXPECT_EQ(static_cast<int>(map.m_ConfigMSCI.m_FileGroups), 0);
}

}  // namespace
