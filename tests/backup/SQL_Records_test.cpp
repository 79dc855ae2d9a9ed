// SQL Server's configuration records: the walk of an MQCI stream on the real
// backups (versions 9 and 10 and later) and on hand-built streams in the
// short layouts of versions 7 and 8, and the walk's refusals of bad sizes.
#include "backup/SQL_Records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>

#include "MTF_TestFiles.h"

using namespace mtftest;

namespace {

const wchar_t kKey[] = L"sql-records-test";

// Builds an MQCI stream: each record is its fixed layout followed by the
// UTF-16 strings its tape addresses point to.
class StreamBuilder {
public:
    // Appends rec (its m_size set here) and the strings, pointing each
    // address of aAddresses (offsets into rec) at its string.
    template <typename T>
    void Add(T rec, std::initializer_list<std::pair<size_t, std::wstring>> aStrings, size_t iExtra = 0) {
        std::vector<uint8_t> aRec(sizeof(T));
        std::vector<uint8_t> aTail;
        for (const auto& [iAddress, ws] : aStrings) {
            MTF_TAPE_ADDRESS ta{uint16_t(ws.size() * 2), uint16_t(sizeof(T) + aTail.size())};
            std::memcpy(reinterpret_cast<uint8_t*>(&rec) + iAddress, &ta, sizeof(ta));
            for (wchar_t c : ws) {
                aTail.push_back(uint8_t(c));
                aTail.push_back(uint8_t(c >> 8));
            }
        }
        aTail.resize(aTail.size() + iExtra);
        SQL_HEADER* pHdr = reinterpret_cast<SQL_HEADER*>(&rec);
        pHdr->m_size = uint32_t(sizeof(T) + aTail.size());
        std::memcpy(aRec.data(), &rec, sizeof(T));
        m_a.insert(m_a.end(), aRec.begin(), aRec.end());
        m_a.insert(m_a.end(), aTail.begin(), aTail.end());
    }
    std::vector<uint8_t> m_a;
};

template <typename T>
T Typed(const char* szType) {
    T rec{};
    std::memcpy(&rec, szType, 4);
    return rec;
}

SQL_CONFIG_INFO_V7 ConfigV7(uint32_t iServerVersion, uint8_t iType) {
    auto ci = Typed<SQL_CONFIG_INFO_V7>("SCIN");
    ci.m_server_version = iServerVersion;
    ci.m_backup_type = iType;
    ci.m_database_file_count = 1;
    ci.m_log_file_count = 1;
    ci.m_first_lsn = {10, 20, 3};
    ci.m_last_lsn = {10, 40, 1};
    ci.m_checkpoint_lsn = {10, 20, 3};
    return ci;
}

SQL_FILE_INFO_V7 FileV7(uint32_t iId, uint32_t iType, uint32_t iFlags, uint64_t iSize) {
    auto fi = Typed<SQL_FILE_INFO_V7>("SFIN");
    fi.m_file_number = iId;
    fi.m_file_type = iType;
    fi.m_flags = iFlags;
    fi.m_file_size = iSize;
    fi.m_page_size = ZR_PAGE_SIZE;
    return fi;
}

constexpr size_t kDbName = offsetof(SQL_CONFIG_INFO_V7, m_database_name);
constexpr size_t kServerName = offsetof(SQL_CONFIG_INFO_V7, m_server_name);
constexpr size_t kLogical = offsetof(SQL_FILE_INFO_V7, m_logical_name);
constexpr size_t kPhysical = offsetof(SQL_FILE_INFO_V7, m_physical_name);
constexpr size_t kGroupName = offsetof(SQL_FILEGROUP_INFO_V7, m_group_name);

// A version 8 stream: config, a filegroup, a data file, a dropped file and a log file.
StreamBuilder Version8Stream() {
    StreamBuilder b;
    b.Add(ConfigV7(0x080007D0, SQL_BTYPE_DIFFERENTIAL), {{kDbName, L"pubs"}, {kServerName, L"OLDBOX"}});
    auto gi = Typed<SQL_FILEGROUP_INFO_V7>("SFGI");
    gi.m_group_id = 1;
    b.Add(gi, {{kGroupName, L"PRIMARY"}});
    b.Add(FileV7(1, SQL_FILE_DATABASE, SQL_FILE_PRESENT, 3 << 20), {{kLogical, L"pubs"}, {kPhysical, L"C:\\pubs.mdf"}});
    b.Add(FileV7(3, SQL_FILE_DATABASE, SQL_FILE_DROPPED, 1 << 20), {{kLogical, L"gone"}, {kPhysical, L"C:\\gone.ndf"}});
    b.Add(FileV7(2, SQL_FILE_PHYSICAL_LOG, SQL_FILE_PRESENT, 1 << 20),
          {{kLogical, L"pubs_log"}, {kPhysical, L"C:\\pubs_log.ldf"}}, 6);
    return b;
}

// The stream data of the MQCI behind the first block of type iBlock.
std::vector<uint8_t> ConfigStream(const std::vector<uint8_t>& a, uint32_t iBlock) {
    std::vector<Item> aItems = Walk(a);
    const Item* pBlock = Find(aItems, iBlock);
    if (pBlock == nullptr) return {};
    const Item* pStream = Find(aItems, MTF_ID_MQCI, pBlock->m_iOffset);
    if (pStream == nullptr) return {};
    const MTF_STREAM_HDR hdr = Load<MTF_STREAM_HDR>(a, size_t(pStream->m_iOffset));
    auto itStart = a.begin() + std::ptrdiff_t(pStream->m_iOffset + MTF_STREAM_HDR_SIZE);
    return std::vector<uint8_t>(itStart, itStart + std::ptrdiff_t(hdr.m_length));
}

std::wstring Lower(std::wstring ws) {
    std::transform(ws.begin(), ws.end(), ws.begin(), [](wchar_t c) { return wchar_t(std::towlower(c)); });
    return ws;
}

bool EndsWith(const std::wstring& ws, const std::wstring& wsEnd) {
    return ws.size() >= wsEnd.size() && ws.compare(ws.size() - wsEnd.size(), wsEnd.size(), wsEnd) == 0;
}

}  // namespace

TEST(SqlLayouts, SizesFollowTheServerVersion) {
    EXPECT_EQ(SQL_ConfigInfoSize(7), 240u);
    EXPECT_EQ(SQL_ConfigInfoSize(8), 240u);
    EXPECT_EQ(SQL_ConfigInfoSize(9), 344u);
    EXPECT_EQ(SQL_ConfigInfoSize(10), 344u);
    EXPECT_EQ(SQL_FilegroupInfoSize(8), 20u);
    EXPECT_EQ(SQL_FilegroupInfoSize(9), 48u);
    EXPECT_EQ(SQL_FileInfoSize(8), 186u);
    EXPECT_EQ(SQL_FileInfoSize(10), 402u);
    EXPECT_EQ(SQL_BackupLogHdrSize(7), 32u);
    EXPECT_EQ(SQL_BackupLogHdrSize(8), 36u);
    EXPECT_EQ(SQL_BackupLogHdrSize(10), 36u);
    EXPECT_EQ(SQL_ConfigInfoSize(6), 0u);
}

TEST(SqlConfigWalk, ShortLayoutsOfVersion8) {
    StreamBuilder b = Version8Stream();
    SQL_ConfigRecords cfg;
    ASSERT_TRUE(cfg.Parse(b.m_a.data(), b.m_a.size(), kKey));
    EXPECT_EQ(cfg.m_iVersion, 8);
    EXPECT_EQ(cfg.m_iBackupType, SQL_BTYPE_DIFFERENTIAL);
    EXPECT_EQ(cfg.m_wsDatabaseName, L"pubs");
    EXPECT_EQ(cfg.m_wsServerName, L"OLDBOX");
    EXPECT_EQ(cfg.m_firstLsn, (LSN{10, 20, 3}));
    EXPECT_EQ(cfg.m_lastLsn, (LSN{10, 40, 1}));
    ASSERT_EQ(cfg.m_aFilegroups.size(), 1u);
    EXPECT_EQ(cfg.m_aFilegroups[0].m_wsName, L"PRIMARY");
    ASSERT_EQ(cfg.m_aFiles.size(), 2u) << "the dropped file is left out";
    EXPECT_EQ(cfg.m_aFiles[0].m_iFileId, 1u);
    EXPECT_EQ(cfg.m_aFiles[0].m_iSize, 3u << 20);
    EXPECT_EQ(cfg.m_aFiles[0].m_wsPhysicalName, L"C:\\pubs.mdf");
    EXPECT_EQ(cfg.m_aFiles[1].m_iFileId, 2u);
    EXPECT_EQ(cfg.m_aFiles[1].m_iType, SQL_FILE_PHYSICAL_LOG);
    EXPECT_EQ(cfg.m_aFiles[1].m_wsLogicalName, L"pubs_log");
    // The offsets lead back to the records, which later changes patch.
    for (const SQL_FileEntry& f : cfg.m_aFiles)
        EXPECT_EQ(Load<uint32_t>(b.m_a, f.m_iOffset + offsetof(SQL_FILE_INFO_V7, m_file_number)), f.m_iFileId);
    EXPECT_FALSE(TakeError(kKey));
}

TEST(SqlConfigWalk, Version7AndAZeroSizeThatEndsTheSequence) {
    StreamBuilder b;
    b.Add(ConfigV7(0x07000000 | 623, SQL_BTYPE_DATABASE), {{kDbName, L"old"}, {kServerName, L"NT4"}});
    b.Add(FileV7(1, SQL_FILE_DATABASE, 0, 1 << 20), {{kLogical, L"old"}, {kPhysical, L"D:\\old.mdf"}});
    b.m_a.resize(b.m_a.size() + 64);  // a zero header, then anything
    b.m_a.back() = 0xEE;
    SQL_ConfigRecords cfg;
    ASSERT_TRUE(cfg.Parse(b.m_a.data(), b.m_a.size(), kKey));
    EXPECT_EQ(cfg.m_iVersion, 7);
    EXPECT_EQ(cfg.m_aFiles.size(), 1u);
}

TEST(SqlConfigWalk, BadSizesStopTheWalkWithAnError) {
    const StreamBuilder good = Version8Stream();
    const size_t iSecond = Load<SQL_HEADER>(good.m_a, 0).m_size;
    auto expectRefused = [](std::vector<uint8_t> a, const char* szWhy) {
        SQL_ConfigRecords cfg;
        EXPECT_FALSE(cfg.Parse(a.data(), a.size(), kKey)) << szWhy;
        EXPECT_TRUE(TakeError(kKey)) << szWhy;
    };
    auto withSize = [&](size_t iAt, uint32_t iSize) {
        std::vector<uint8_t> a = good.m_a;
        std::memcpy(a.data() + iAt + 4, &iSize, 4);
        return a;
    };
    expectRefused(withSize(0, 0), "zero size in the first record");
    expectRefused(withSize(0, 4), "size below the header");
    expectRefused(withSize(0, 200), "SCIN shorter than its layout");
    expectRefused(withSize(iSecond, uint32_t(good.m_a.size())), "size beyond the stream");
    expectRefused(withSize(iSecond, 12), "SFGI shorter than its layout");
    expectRefused(std::vector<uint8_t>(good.m_a.begin(), good.m_a.end() - 10), "last record cut short");
    std::vector<uint8_t> tail = good.m_a;
    tail.resize(tail.size() + 5, 0xAB);
    expectRefused(tail, "a stub of a header at the end");
    std::vector<uint8_t> notFirst = good.m_a;
    std::memcpy(notFirst.data(), "SFIN", 4);
    expectRefused(notFirst, "first record is no SCIN");
    expectRefused({}, "empty stream");
}

TEST(SqlConfigWalk, NameOutsideItsRecordIsRefused) {
    StreamBuilder b = Version8Stream();
    const uint32_t iScin = Load<SQL_HEADER>(b.m_a, 0).m_size;
    // Point the server name at the bytes of the next record.
    MTF_TAPE_ADDRESS ta{8, uint16_t(iScin - 4)};
    std::memcpy(b.m_a.data() + kServerName, &ta, sizeof(ta));
    SQL_ConfigRecords cfg;
    EXPECT_FALSE(cfg.Parse(b.m_a.data(), b.m_a.size(), kKey));
    EXPECT_TRUE(TakeError(kKey));
}

TEST(SqlConfigWalk, LongLayoutIsRequiredFromVersion9) {
    StreamBuilder b;
    b.Add(ConfigV7(0x09000577, SQL_BTYPE_DATABASE), {{kDbName, L"x"}, {kServerName, L"y"}});
    SQL_ConfigRecords cfg;
    EXPECT_FALSE(cfg.Parse(b.m_a.data(), b.m_a.size(), kKey)) << "240 bytes and strings are under 344";
    EXPECT_TRUE(TakeError(kKey));
}

// The real backups: the configuration of MSCI and MSLS walks to the end of
// its stream and agrees with the manifest.
TEST(SqlRealFiles, ConfigurationMatchesTheManifest) {
    ZR_REQUIRE_TESTDATA();
    for (const ManifestRow& row : TapeFormatRows()) {
        SCOPED_TRACE(row.at("file"));
        std::vector<uint8_t> a = ReadWhole(*zrtest::TestDataFile(row.at("file")));
        std::vector<uint8_t> aStream = ConfigStream(a, MTF_ID_MSCI);
        ASSERT_FALSE(aStream.empty());
        SQL_ConfigRecords cfg;
        ASSERT_TRUE(cfg.Parse(aStream.data(), aStream.size(), kKey));

        EXPECT_EQ(cfg.m_iVersion, std::atoi(row.at("ver").c_str()));
        EXPECT_EQ(std::string(1, char(cfg.m_iBackupType)), row.at("type"));
        EXPECT_EQ(cfg.m_wsDatabaseName, Widen(row.at("db")));
        EXPECT_EQ(cfg.m_wsServerName, Widen(row.at("server")));
        EXPECT_EQ(cfg.m_firstLsn, ParseLsn(row.at("first_lsn")));
        EXPECT_EQ(cfg.m_lastLsn, ParseLsn(row.at("last_lsn")));
        EXPECT_EQ(cfg.m_checkpointLsn, ParseLsn(row.at("checkpoint_lsn")));

        // One data file with id 1 and at least one log file.
        ASSERT_GE(cfg.m_aFiles.size(), 2u);
        EXPECT_EQ(cfg.m_aFiles[0].m_iFileId, 1u);
        EXPECT_EQ(cfg.m_aFiles[0].m_iType, SQL_FILE_DATABASE);
        EXPECT_TRUE(EndsWith(Lower(cfg.m_aFiles[0].m_wsPhysicalName), L".mdf"));
        size_t iLogs = 0, iData = 0;
        for (const SQL_FileEntry& f : cfg.m_aFiles) {
            EXPECT_FALSE(f.m_wsLogicalName.empty());
            EXPECT_EQ(f.m_iSize % ZR_PAGE_SIZE, 0u);
            EXPECT_GT(f.m_iSize, 0u);
            iLogs += f.m_iType == SQL_FILE_PHYSICAL_LOG;
            iData += f.m_iType == SQL_FILE_DATABASE;
        }
        EXPECT_EQ(iData, cfg.m_iDatabaseFileCount);
        EXPECT_EQ(iLogs, cfg.m_iLogFileCount);
        ASSERT_FALSE(cfg.m_aFilegroups.empty());
        EXPECT_EQ(cfg.m_aFilegroups[0].m_wsName, L"PRIMARY");

        // The closing configuration walks too; up to version 10 it names the
        // same LSNs (later servers write other ones there).
        std::vector<uint8_t> aEnd = ConfigStream(a, MTF_ID_MSLS);
        SQL_ConfigRecords cfgEnd;
        ASSERT_TRUE(cfgEnd.Parse(aEnd.data(), aEnd.size(), kKey));
        if (cfg.m_iVersion <= SQL_VERSION_MAX) {
            EXPECT_EQ(cfgEnd.m_firstLsn, cfg.m_firstLsn);
            EXPECT_EQ(cfgEnd.m_lastLsn, cfg.m_lastLsn);
        }
        EXPECT_EQ(cfgEnd.m_aFiles.size(), cfg.m_aFiles.size());
    }
    EXPECT_FALSE(TakeError(kKey));
}
