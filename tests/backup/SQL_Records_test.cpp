// SQL Server's configuration records: the walk of an MQCI stream on the real
// backups (versions 9 and 10 and later) and on hand-built streams in the
// short layouts of versions 7 and 8, and the walk's refusals of bad sizes.
#include "backup/SQL_Records.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <tuple>

#include "MTF_TestFiles.h"
#include "support/ConfigStream.h"

using namespace mtftest;

namespace {

const wchar_t kKey[] = L"sql-records-test";

using zrtest::ConfigStream;
using zrtest::SqlRecord;

SQL_CONFIG_INFO_V7 ConfigV7(uint32_t iServerVersion, uint8_t iType) {
    auto ci = SqlRecord<SQL_CONFIG_INFO_V7>("SCIN");
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
    auto fi = SqlRecord<SQL_FILE_INFO_V7>("SFIN");
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
ConfigStream Version8Stream() {
    ConfigStream b;
    b.Add(ConfigV7(0x080007D0, SQL_BTYPE_DIFFERENTIAL), {{kDbName, L"pubs"}, {kServerName, L"OLDBOX"}});
    auto gi = SqlRecord<SQL_FILEGROUP_INFO_V7>("SFGI");
    gi.m_group_id = 1;
    b.Add(gi, {{kGroupName, L"PRIMARY"}});
    b.Add(FileV7(1, SQL_FILE_DATABASE, SQL_FILE_PRESENT, 3 << 20), {{kLogical, L"pubs"}, {kPhysical, L"C:\\pubs.mdf"}});
    b.Add(FileV7(3, SQL_FILE_DATABASE, SQL_FILE_DROPPED, 1 << 20), {{kLogical, L"gone"}, {kPhysical, L"C:\\gone.ndf"}});
    b.Add(FileV7(2, SQL_FILE_PHYSICAL_LOG, SQL_FILE_PRESENT, 1 << 20),
          {{kLogical, L"pubs_log"}, {kPhysical, L"C:\\pubs_log.ldf"}}, 6);
    return b;
}

// "24:68:99" as an LSN.
LSN ParseLsn(const std::string& s) {
    unsigned a = 0, b = 0, c = 0;
    EXPECT_EQ(std::sscanf(s.c_str(), "%u:%u:%u", &a, &b, &c), 3) << s;
    return LSN{a, b, uint16_t(c)};
}

LSN WalkerLsn(const zrtest::MtfLsn& lsn) { return LSN{lsn.seqNo, lsn.blockOffset, lsn.slotId}; }

}  // namespace

// The least size of each record, by which the walk refuses a short one.
TEST(SqlLayouts, SizesFollowTheServerVersion) {
    // version: SCIN, SFGI, SFIN, log header
    const std::tuple<int, uint32_t, uint32_t, uint32_t, uint32_t> aSizes[] = {
        {6, 0, 0, 0, 0}, {7, 240, 20, 186, 32}, {8, 240, 20, 186, 36}, {9, 344, 48, 402, 36}, {10, 344, 48, 402, 36}};
    for (const auto& [iVersion, iConfig, iGroup, iFile, iLog] : aSizes) {
        EXPECT_EQ(std::make_tuple(SQL_ConfigInfoSize(iVersion), SQL_FilegroupInfoSize(iVersion), SQL_FileInfoSize(iVersion),
                                  SQL_BackupLogHdrSize(iVersion)),
                  std::make_tuple(iConfig, iGroup, iFile, iLog))
            << iVersion;
    }
}

TEST(SqlConfigWalk, ShortLayoutsOfVersion8) {
    ConfigStream b = Version8Stream();
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
    ConfigStream b;
    b.Add(ConfigV7(0x07000000 | 623, SQL_BTYPE_DATABASE), {{kDbName, L"old"}, {kServerName, L"NT4"}});
    b.Add(FileV7(1, SQL_FILE_DATABASE, 0, 1 << 20), {{kLogical, L"old"}, {kPhysical, L"D:\\old.mdf"}});
    b.m_a.resize(b.m_a.size() + 64);  // a zero header, then anything
    b.m_a.back() = 0xEE;
    SQL_ConfigRecords cfg;
    ASSERT_TRUE(cfg.Parse(b.m_a.data(), b.m_a.size(), kKey));
    EXPECT_EQ(cfg.m_iVersion, 7);
    EXPECT_EQ(cfg.m_aFiles.size(), 1u);
}

TEST(SqlConfigWalk, RefusalsStopTheWalkWithAnError) {
    const std::vector<uint8_t> good = Version8Stream().m_a;
    const size_t iSecond = Load<SQL_HEADER>(good, 0).m_size;
    auto withSize = [&](size_t iAt, uint32_t iSize) {
        std::vector<uint8_t> a = good;
        std::memcpy(a.data() + iAt + 4, &iSize, 4);
        return a;
    };
    std::vector<uint8_t> tail = good;
    tail.resize(tail.size() + 5, 0xAB);
    std::vector<uint8_t> notFirst = good;
    std::memcpy(notFirst.data(), "SFIN", 4);
    // The server name pointed at the bytes of the next record.
    std::vector<uint8_t> nameOutside = good;
    const MTF_TAPE_ADDRESS ta{8, uint16_t(iSecond - 4)};
    std::memcpy(nameOutside.data() + kServerName, &ta, sizeof(ta));
    // From version 9 on, the long layout is required.
    ConfigStream short9;
    short9.Add(ConfigV7(0x09000577, SQL_BTYPE_DATABASE), {{kDbName, L"x"}, {kServerName, L"y"}});

    const std::pair<std::vector<uint8_t>, const char*> aCases[] = {
        {withSize(0, 0), "zero size in the first record"},
        {withSize(0, 4), "size below the header"},
        {withSize(0, 200), "SCIN shorter than its layout"},
        {withSize(iSecond, uint32_t(good.size())), "size beyond the stream"},
        {withSize(iSecond, 12), "SFGI shorter than its layout"},
        {std::vector<uint8_t>(good.begin(), good.end() - 10), "last record cut short"},
        {tail, "a stub of a header at the end"},
        {notFirst, "first record is no SCIN"},
        {{}, "empty stream"},
        {nameOutside, "a name outside its record"},
        {short9.m_a, "240 bytes and strings are under 344"},
    };
    for (const auto& [a, szWhy] : aCases) {
        SQL_ConfigRecords cfg;
        EXPECT_FALSE(cfg.Parse(a.data(), a.size(), kKey)) << szWhy;
        EXPECT_TRUE(TakeError(kKey)) << szWhy;
    }
}

// The real backups: the configurations of MSCI and MSLS walk to the end of
// their streams and say what the manifest and the independent walker say.
TEST(SqlRealFiles, ConfigurationMatchesTheManifestAndTheWalker) {
    ZR_REQUIRE_TESTDATA();
    ForEachRealBackup([](const zrtest::ManifestEntry& row, const std::vector<uint8_t>& a, const zrtest::MtfWalk& walk) {
        const zrtest::MtfDataSet& set = walk.dataSets.at(0);
        const std::vector<uint8_t> aStream = ConfigData(a, set.msci), aEnd = ConfigData(a, set.msls);
        SQL_ConfigRecords cfg, cfgEnd;
        ASSERT_TRUE(cfg.Parse(aStream.data(), aStream.size(), kKey));
        ASSERT_TRUE(cfgEnd.Parse(aEnd.data(), aEnd.size(), kKey));

        EXPECT_EQ(cfg.m_iVersion, row.major);
        EXPECT_EQ(char(cfg.m_iBackupType), row.type);
        EXPECT_EQ(cfg.m_wsDatabaseName, Widen(row.database));
        EXPECT_EQ(cfg.m_wsServerName, Widen(row.server));
        EXPECT_EQ(cfg.m_firstLsn, ParseLsn(row.firstLsn));
        EXPECT_EQ(cfg.m_lastLsn, ParseLsn(row.lastLsn));
        EXPECT_EQ(cfg.m_checkpointLsn, ParseLsn(row.checkpointLsn));
        EXPECT_EQ(cfg.m_differentialBaseLsn, WalkerLsn(set.msci.differentialBaseLsn));
        EXPECT_EQ(cfg.m_iDatabaseFileCount, set.msci.dataFileCount);
        EXPECT_EQ(cfg.m_iLogFileCount, set.msci.logFileCount);
        ASSERT_EQ(cfg.m_aFiles.size(), set.msci.files.size());
        for (size_t i = 0; i < cfg.m_aFiles.size(); i++) {
            const SQL_FileEntry& f = cfg.m_aFiles[i];
            const zrtest::MtfSqlFile& want = set.msci.files[i];
            EXPECT_EQ(f.m_iFileId, want.fileId);
            EXPECT_EQ(f.m_iType, want.fileType);
            EXPECT_EQ(f.m_iSize, want.fileSize);
            EXPECT_EQ(f.m_iBackedUpPages, want.backedUpPages);
            EXPECT_EQ(f.m_wsLogicalName, Widen(want.logicalName));
            EXPECT_EQ(f.m_wsPhysicalName, Widen(want.physicalName));
            // The offsets lead back to the records, which later changes patch.
            EXPECT_EQ(Load<uint32_t>(aStream, f.m_iOffset + offsetof(SQL_FILE_INFO_V7, m_file_number)), f.m_iFileId);
        }
        ASSERT_FALSE(cfg.m_aFilegroups.empty());
        EXPECT_EQ(cfg.m_aFilegroups[0].m_wsName, L"PRIMARY");

        // Up to version 10 the closing configuration names the same LSNs
        // (later servers write other ones there).
        if (cfg.m_iVersion <= SQL_VERSION_MAX) {
            EXPECT_EQ(cfgEnd.m_firstLsn, cfg.m_firstLsn);
            EXPECT_EQ(cfgEnd.m_lastLsn, cfg.m_lastLsn);
        }
        EXPECT_EQ(cfgEnd.m_aFiles.size(), cfg.m_aFiles.size());
    });
    EXPECT_FALSE(TakeError(kKey));
}
