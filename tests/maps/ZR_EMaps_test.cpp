// The extent map: entries at the edges of their bit fields, lookups inside
// and outside the table, the base offset of an embedded map, the trace of
// each kind of entry, sizing from a file list, and the file form: written
// and read back through both plugs, changed through an update view, and
// passed over when damaged, cut short, newer or of another backend.
#include "maps/ZR_EMaps.h"

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/Alloc.h"
#include "maps/ZR_CMaps.h"
#include "platform/FileCallsTesting.h"
#include "support/FileBytes.h"
#include "support/Resources.h"
#include "support/StreamPlugOnly.h"
#include "support/TestData.h"
#include "zirlane/zirlane.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kMaxOffset = (uint64_t{1} << 52) - 1;

PageId Page(uint16_t iFile, uint32_t iPage) { return PageId{iPage, iFile}; }

std::vector<std::string> CapturedMessages() {
    int cbBuffer = 0, cbLine = 0;
    char* p = CaptureServiceTrace(&cbBuffer, &cbLine);
    std::vector<std::string> out;
    for (int i = 0; p && i + cbLine <= cbBuffer; i += cbLine)
        out.emplace_back(p + i + kTracePrefixSize);
    FreeTraceBuffer(p);
    return out;
}

TEST(ExtentMapEntry, FieldsHoldTheirEdgesAndCutWhatIsWider) {
    ZR_EMap e = ZR_EMap::Make(63, kMaxOffset, 63);
    EXPECT_TRUE(e.IsAllSet()) << "every field at its largest is the -1 word";
    e.SetDevice(5);
    EXPECT_EQ(e.GetOffset(), kMaxOffset);
    EXPECT_EQ(e.GetRelative(), 63u);
    EXPECT_TRUE(e.HasCopy());

    ZR_EMap cut = ZR_EMap::Make(64 + 2, kMaxOffset + 1 + 0x10000, 64 + 1);
    EXPECT_EQ(cut.m_iEntry, (uint64_t{2} << 58) | (uint64_t{1} << 52) | 0x10000u);
    EXPECT_TRUE(ZR_EMap{}.IsNone());
}

TEST(ExtentMapTable, SetAndFetchRoundTripAtTheEdges) {
    ZR_EMaps map;
    map.Set(3, 9, 63, kMaxOffset, 63u << 16);
    map.Set(3, 2, 1, 0x20000, 196608);
    map.Set(1, 0, 0, 0x10000, 0);

    ZR_EMap e = map.Fetch(Page(3, 9 * 8 + 7));
    EXPECT_TRUE(e.IsAllSet());
    e = map.Fetch(Page(3, 2 * 8));
    EXPECT_EQ(e.GetOffset(), 0x20000u);
    EXPECT_EQ(e.GetRelative(), 3u) << "196,608 bytes are stored as three units";
    EXPECT_EQ(e.GetDevice(), 1);
    EXPECT_EQ(map.Fetch(Page(1, 7)).GetOffset(), 0x10000u);

    // Rows and extents the map does not hold, as in a differential.
    EXPECT_TRUE(map.Fetch(Page(3, 5 * 8)).IsNone()) << "an extent left between stays 0";
    EXPECT_TRUE(map.Fetch(Page(3, 10 * 8)).IsNone()) << "past the last extent";
    EXPECT_TRUE(map.Fetch(Page(2, 0)).IsNone()) << "an empty row";
    EXPECT_TRUE(map.Fetch(Page(7, 0)).IsNone()) << "no such row";

    // An embedded map's base moves real offsets only; -1 must stay -1.
    map.Set(3, 3, 4, 0, 0x20000);
    map.SetBaseOffset(0x1000);
    EXPECT_EQ(map.Fetch(Page(3, 16)).GetOffset(), 0x21000u);
    EXPECT_TRUE(map.Fetch(Page(3, 72)).IsAllSet());
    EXPECT_EQ(map.Fetch(Page(3, 24)).GetOffset(), 0u) << "no offset, whatever else the entry holds";
    EXPECT_TRUE(map.Fetch(Page(3, 40)).IsNone());
}

TEST(ExtentMapTable, TracesEachKindOfEntry) {
    TraceSetup(kTraceNoLimit, 0x1000, 1);
    TraceSetup(kTraceNoLimit, kTraceRingSize, 1);
    ZR_EMaps map;
    map.Set(2, 1, 3, 0x50000, 0x20000);
    map.Set(2, 0, 0, 0, 0);
    map.Set(2, 2, 63, kMaxOffset, 63u << 16);
    map.Fetch(Page(2, 9));
    map.Fetch(Page(2, 1));
    map.Fetch(Page(2, 17));
    map.Fetch(Page(4, 6));
    std::vector<std::string> lines = CapturedMessages();
    TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    EXPECT_EQ(lines, (std::vector<std::string>{
                        "EMaps.Set(2, 1, {3, 327680, 2})\n", "EMaps.Set(2, 0, 0)\n", "EMaps.Set(2, 2, -1)\n",
                        "EMaps.Fetch(2 9) = {3, 327680, 2}\n", "EMaps.Fetch(2 1) = 0\n",
                        "EMaps.Fetch(2 17) = -1\n", "EMaps.Fetch(4 6) = .\n"}));
}

TEST(ExtentMapTable, AugmentKeysByThePageIdInTheHeader) {
    ZR_EMaps map;
    uint8_t page[ZR_PAGE_SIZE] = {};
    PageId id = Page(5, 17);
    std::memcpy(page + 32, &id, sizeof id);
    EXPECT_TRUE(map.Augment(page, 1, 0x70000, 0));
    EXPECT_EQ(map.Fetch(Page(5, 16)).GetOffset(), 0x70000u) << "page 17 lies in extent 2";
    id = Page(0, 40);
    std::memcpy(page + 32, &id, sizeof id);
    EXPECT_FALSE(map.Augment(page, 1, 0x80000, 0));
    EXPECT_TRUE(map.Fetch(Page(0, 40)).IsNone()) << "file id 0 is no database page";
}

SQL_FILE_INFO_V7* FileRecord(uint32_t iNumber, uint32_t iType, uint64_t cbSize) {
    auto* p = static_cast<SQL_FILE_INFO_V7*>(Calloc(1, sizeof(SQL_FILE_INFO_V7)));
    std::memcpy(p->m_hdr.m_type, "SFIN", 4);
    p->m_hdr.m_size = sizeof(SQL_FILE_INFO_V7);
    p->m_file_number = iNumber;
    p->m_file_type = iType;
    p->m_file_size = cbSize;
    return p;
}

MTF_DATE_TIME Date(uint8_t seed) { return MTF_DATE_TIME{{seed, 1, 2, 3, 4}}; }

class ExtentMapFile : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(m_tmp / "maps");
        std::wstring w = (m_tmp / "maps").wstring();
        wcsncpy(g_wszMapFilesFolder, w.c_str(), MAX_PATH - 1);
    }
    void TearDown() override { g_wszMapFilesFolder[0] = 0; }

    void Identify(ZR_EMaps& map, ZR_Backend_e eBackend = ZR_BACKEND_MTF) {
        map.SetBackend(eBackend);
        map.SetDataSetNumber(1);
        map.SetMediaFamilyId(0xABCD);
        map.SetMediaDate(Date(0x11));
        map.SetMediaWriteDate(Date(0x22));
        map.SetBackupName((m_tmp / "full.bak").wstring().c_str());
    }

    // The one file of the map folder.
    fs::path MapFile() const { return fs::directory_iterator(m_tmp / "maps")->path(); }

    fs::path WriteMap(bool bIncremental = false) {
        ZR_EMaps map;
        Identify(map);
        map.Set(1, 0, 0, 0x10000, 0);
        map.Set(1, 4, 1, kMaxOffset, 0);
        map.Set(3, 1, 63, 0x20000, 0x30000);
        map.SetIsIncremental(bIncremental);
        EXPECT_TRUE(map.Write());
        // Header, then rows of 0, 5, 0 and 2 entries.
        EXPECT_EQ(fs::file_size(MapFile()), 24u + (4) + (4 + 8 * 5) + (4) + (4 + 8 * 2));
        return MapFile();
    }

    static void ExpectWritten(ZR_EMaps& map) {
        ASSERT_EQ(static_cast<int>(map), 4);
        EXPECT_EQ(map.Count(2), 0);
        EXPECT_EQ(map.Fetch(Page(1, 0)).GetOffset(), 0x10000u);
        EXPECT_EQ(map.Fetch(Page(1, 33)).GetOffset(), kMaxOffset);
        EXPECT_TRUE(map.Fetch(Page(1, 8)).IsNone());
        ZR_EMap e = map.Fetch(Page(3, 15));
        EXPECT_EQ(e.GetDevice(), 63);
        EXPECT_EQ(e.GetRelative(), 3u);
    }

    bool ReadsBack(ZR_Backend_e eBackend = ZR_BACKEND_MTF) {
        ZR_EMaps map;
        Identify(map, eBackend);
        bool b = map.Read();
        EXPECT_TRUE(b || static_cast<int>(map) == 0);
        return b;
    }

    zrtest::TempDir m_tmp;
};

TEST_F(ExtentMapFile, ReadBackThroughTheMappingInPlaceAndThroughTheStream) {
    WriteMap();
    for (bool bStream : {false, true}) {
        zrtest::StreamPlugOnly streamOnly(bStream);
        ZR_EMaps map;
        Identify(map);
        ASSERT_TRUE(map.Read());
        EXPECT_EQ(map.GetMapPlug(), bStream ? X_MAPPLUG_STDIO : X_MAPPLUG_MMF);
        EXPECT_EQ(map.m_bMapped, !bStream) << "the rows stay in the view";
        ExpectWritten(map);
    }
}

// A map costs what the backup holds, not what the configuration says of its
// files: a 16 TB data file with two extents in the backup gives a row that
// ends at the last of them, and the run of empty entries between is a hole.
TEST_F(ExtentMapFile, RowsRunToTheLastExtentHeldAndLongGapsAreHoles) {
    ZR_ConfigInfo config;
    config.m_Files.Append(FileRecord(3, SQL_FILE_DATABASE, ZR_EMaps::ms_iMaxDataFileBytes));
    config.m_Files.Append(FileRecord(4, SQL_FILE_PHYSICAL_LOG, 9 * 65536));
    config.m_Files.Append(FileRecord(0x10005, SQL_FILE_DATABASE, 65536));
    ZR_EMaps map;
    Identify(map);
    map.SetIsIncremental(true);
    map.AllocFromFileList(config);
    EXPECT_FALSE(map.GetIsIncremental());
    constexpr int kFar = 1 << 20;  // 8 MiB into the row
    map.Set(3, kFar, 0, 0x30000, 0);
    map.Set(3, 2, 0, 0x20000, 0);
    map.Set(3, 2, 1, 0x40000, 0);
    EXPECT_EQ(map.Fetch(Page(3, 16)).GetDevice(), 1) << "the later entry of an extent stands";
    ASSERT_TRUE(map.Write());
    EXPECT_EQ(fs::file_size(MapFile()), 24u + 6 * 4 + 8u * (kFar + 1)) << "rows 0 to 5; only row 3 holds entries";
    EXPECT_LT(zrtest::AllocatedBytes(MapFile()), 1u << 20) << "the gap takes no disk";

    ZR_EMaps again;
    Identify(again);
    ASSERT_TRUE(again.Read());
    EXPECT_EQ(static_cast<int>(again), 6) << "a row for each file id up to the largest data file";
    EXPECT_EQ(again.Count(3), kFar + 1);
    EXPECT_EQ(again.Count(5), 0);
    EXPECT_EQ(again.Fetch(Page(3, 16)).GetOffset(), 0x40000u);
    EXPECT_EQ(again.Fetch(Page(3, kFar * 8 + 7)).GetOffset(), 0x30000u);
    EXPECT_TRUE(again.Fetch(Page(3, 8)).IsNone());
    EXPECT_TRUE(again.Fetch(Page(3, (kFar + 1) * 8)).IsNone()) << "past the row's end: not in the backup";
}

// A map found damaged is built again and written under the same name while
// reads still run through the view of the old file: the new file must not
// be the old one cut and written over.
TEST_F(ExtentMapFile, WritingAMapAgainLeavesTheViewOfTheOldFileAlone) {
    WriteMap();
    ZR_EMaps old;
    Identify(old);
    ASSERT_TRUE(old.Read());
    ASSERT_EQ(old.GetMapPlug(), X_MAPPLUG_MMF);
    ZR_EMaps again;
    Identify(again);
    again.Set(1, 0, 2, 0x70000, 0);
    ASSERT_TRUE(again.Write());
    EXPECT_EQ(old.Fetch(Page(1, 0)).GetOffset(), 0x10000u) << "the old view keeps its bytes";
    ExpectWritten(old);
    ZR_EMaps fresh;
    Identify(fresh);
    ASSERT_TRUE(fresh.Read());
    EXPECT_EQ(fresh.Fetch(Page(1, 0)).GetOffset(), 0x70000u) << "a later read finds the new file";
}

TEST_F(ExtentMapFile, IncrementalMapLoadsOnlyInAnUpdateViewWhereSetsReachTheFile) {
    fs::path name = WriteMap(true);
    ZR_EMaps map;
    Identify(map);
    ASSERT_TRUE(map.Read());
    EXPECT_TRUE(map.GetIsIncremental());
    EXPECT_EQ(static_cast<int>(map), 0) << "not loaded for plain reading";
    map.Close();
    ASSERT_TRUE(map.OpenForUpdate());
    ExpectWritten(map);
    map.Set(1, 2, 7, 0x90000, 0);
    EXPECT_TRUE(map.m_bMapped) << "an existing entry is changed in the view";
    EXPECT_TRUE(map.Flush());
    map.Close();
    map.Clean();

    ZR_EMaps again;
    Identify(again);
    ASSERT_TRUE(again.OpenForUpdate());
    EXPECT_EQ(again.Fetch(Page(1, 16)).GetOffset(), 0x90000u);
    EXPECT_EQ(again.Fetch(Page(1, 16)).GetDevice(), 7);
}

TEST_F(ExtentMapFile, VersionOneHasNoBackendAndNoFlag) {
    fs::path name = WriteMap(true);
    std::vector<uint8_t> good = zrtest::ReadFileBytes(name);
    // Version 1: the row count follows the preamble.
    std::vector<uint8_t> v1(good.begin(), good.begin() + 12);
    v1.insert(v1.end(), good.begin() + 20, good.end());
    uint32_t size = static_cast<uint32_t>(v1.size()), version = 1;
    std::memcpy(&v1[4], &size, 4);
    std::memcpy(&v1[8], &version, 4);
    zrtest::WriteFileBytes(name, v1);
    ZR_EMaps map;
    Identify(map);
    ASSERT_TRUE(map.Read());
    EXPECT_FALSE(map.GetIsIncremental()) << "the flag written in version 2 is not there to read";
    ExpectWritten(map);
}

TEST_F(ExtentMapFile, DamagedFilesArePassedOver) {
    fs::path name = WriteMap();
    const std::vector<uint8_t> good = zrtest::ReadFileBytes(name);
    auto damaged = [&](size_t at, uint32_t value, const char* what) {
        zrtest::WriteFileBytes(name, good);
        zrtest::PatchFile(name, at, &value, 4);
        EXPECT_FALSE(ReadsBack()) << what;
    };
    EXPECT_FALSE(ReadsBack(static_cast<ZR_Backend_e>(0))) << "another backend";
    EXPECT_TRUE(ReadsBack(static_cast<ZR_Backend_e>(3))) << "backend 3 reads like a native backup";
    damaged(0, 0x464D4458, "bad magic");
    damaged(8, 3, "newer version");
    damaged(8, 0, "version 0");
    damaged(4, static_cast<uint32_t>(good.size() + 8), "size word");
    damaged(20, 0, "no rows");
    damaged(24, 0x10000000, "entry count beyond the file");
    damaged(24 + 4 + (4 + 8 * 5) + 4, 1, "last row cut short: bytes left over");
    // Row counts beyond the file are refused before anything is allocated.
    long iAllocs = g_iTotalAllocs;
    damaged(20, 1000, "row count beyond the file");
    damaged(20, 0x10000000, "row count far beyond the file");
    EXPECT_EQ(g_iTotalAllocs, iAllocs);
    for (size_t len = 0; len < good.size(); ++len) {
        zrtest::WriteFileBytes(name, good, len);
        EXPECT_FALSE(ReadsBack()) << "cut at " << len;
    }
    zrtest::WriteFileBytes(name, good);
    EXPECT_TRUE(ReadsBack());
    ZR_ClearErrors(nullptr);
}

}  // namespace
