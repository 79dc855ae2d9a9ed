// The restore and attach statements of a mount, compared to the character
// with texts written out here by hand. The mounts are made through the test
// seam of the mount: each backup gets a row of the content map and a view
// for each of its files, so that the ids in the names are those the views
// really handed out, read back after each statement.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <tuple>
#include <vector>

#include "backup/SQL_Records.h"
#include "backup/ZR_VirtualBackupFile.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "mount/ZR.h"
#include "mount/ZR_MountStepsTesting.h"
#include "zirlane/zirlane.h"
#include "support/MountTestBase.h"
#include "support/ConfigStream.h"
#include "support/ErrorText.h"

namespace {

const wchar_t kKey[] = L"GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB";
const wchar_t kMove[] = L"move 'Sales' to 'D:\\data\\Sales.mdf'";

// Views and content map rows for every file of every backup, but for one
// file that may be left without a view; fixed source names.
class ViewSteps : public ZR_MountSteps {
public:
    bool PrepareContent(ZR_Database* pDB) override {
        for (int iSlot = 0; iSlot < pDB->GetNumBackups(); ++iSlot) {
            ZR_Backup* pBackup = pDB->GetBackup(iSlot);
            if (!pBackup) continue;
            for (int iFile = 0; iFile < pBackup->GetNumFiles(); ++iFile) {
                pBackup->m_pCMaps->AddDBLK(0, iFile, ZR_StripeLocation{});
                if (iSlot == m_iViewlessSlot && iFile == pBackup->GetNumFiles() - 1) continue;
                pBackup->m_aVirtualFiles.Append(new ZR_VirtualBackupFile());
            }
        }
        return true;
    }
    bool PrepareAccess(ZR_Database*, const ZR_StopInfo&) override { return true; }
    bool OpenBackups(ZR_Database*) override { return true; }
    bool ReadSourceNames(ZR_Database*, std::wstring* pstrServer, std::wstring* pstrDatabase) override {
        *pstrServer = L"HOST";
        *pstrDatabase = L"Sales";
        return true;
    }

    int m_iViewlessSlot = -1;  // the last file of this slot has no view
};

std::wstring Sql(ZR_MountInfo* pInfo, unsigned iStatement) {
    std::vector<wchar_t> buffer(8192, L'\0');
    GetSQL(pInfo, iStatement, buffer.data(), static_cast<unsigned>(buffer.size() - 1));
    return buffer.data();
}

// A .bxk name as the statements write it.
std::wstring Name(const wchar_t* wszDrive, const wchar_t* wszKey, unsigned iId) {
    return std::wstring(wszDrive) + wszKey + L"!" + std::to_wstring(iId) + L".bxk";
}

bool EndsWith(const std::wstring& str, const std::wstring& strEnd) {
    return str.size() >= strEnd.size() && str.compare(str.size() - strEnd.size(), strEnd.size(), strEnd) == 0;
}

// The library's own mount steps, whatever a test has installed.
ZR_MountSteps* LibrarySteps() {
    ZR_MountSteps* pInstalled = ZR_InstallMountStepsForTesting(nullptr);
    ZR_MountSteps* pLibrary = &CurrentMountSteps();
    ZR_InstallMountStepsForTesting(pInstalled);
    return pLibrary;
}

// Whether a line of the trace ring holds the text.
bool Traced(const std::string& text) {
    int cbBuffer = 0, cbLine = 0;
    char* p = CaptureServiceTrace(&cbBuffer, &cbLine);
    bool bFound = false;
    for (int i = 0; p && i + cbLine <= cbBuffer; i += cbLine) bFound |= std::strstr(p + i, text.c_str()) != nullptr;
    FreeTraceBuffer(p);
    return bFound;
}

std::wstring Errors(const wchar_t* wszKey) { return zrtest::ErrorText(wszKey); }

class Statements : public MountTestBase<ViewSteps> {
protected:
    // A request for Sales on C:\ under kKey: a full backup in iFullFiles
    // files, a differential in one on demand, and iLogs logs of one file.
    ZR_MountInfo* Request(int iFullFiles, bool bDiff, int iLogs, const wchar_t* wszKey = kKey) {
        std::vector<std::filesystem::path> full;
        for (int i = 0; i < iFullFiles; ++i)
            full.push_back("full" + std::to_string(i) + ".bak");
        std::vector<std::vector<std::filesystem::path>> logs;
        for (int i = 0; i < iLogs; ++i)
            logs.push_back({"log" + std::to_string(i) + ".trn"});
        ZR_MountInfo* pInfo = LibraryTest::Request(full, bDiff ? std::vector<std::filesystem::path>{"diff.bak"}
                                                               : std::vector<std::filesystem::path>{}, logs);
        SetMountKey(pInfo, wszKey);
        SetTargetDatabase(pInfo, L"Sales");
        SetFilterDrive(pInfo, L"C:\\");
        return pInfo;
    }

    ZR_Database* Mount(ZR_MountInfo* pInfo) {
        ZR_Database* pDB = LibraryTest::Mount(pInfo);
        EXPECT_NE(pDB, nullptr) << testing::PrintToString(Errors(pInfo->GetMountKey()));
        return pDB;
    }

    // The id that the view of file iFile of slot iSlot carries now.
    static unsigned Id(ZR_Database* pDB, int iSlot, int iFile) {
        return ZR_VirtualBackupFile::HandleId(pDB->GetBackup(iSlot)->m_aVirtualFiles(iFile)->GetHandle());
    }
    static std::wstring Quoted(ZR_Database* pDB, int iSlot, int iFile) {
        return L"'" + Name(L"C:\\", kKey, Id(pDB, iSlot, iFile)) + L"'";
    }
};

// The whole chain of the worked example: a full backup in two files, a
// differential, two logs, a move for the full backup and a stop by time.
TEST_F(Statements, TheWorkedChainReadsAsWrittenToTheCharacter) {
    ZR_MountInfo* pInfo = Request(2, true, 2);
    AddWith(pInfo, 1, kMove);
    ASSERT_TRUE(SetStop(pInfo, L"STOPAT='2009-05-15 13:19:34.790'"));
    ZR_Database* pDB = Mount(pInfo);
    ASSERT_NE(pDB, nullptr);
    EXPECT_EQ(GetNumSQL(pInfo), 4);

    const std::wstring strFull = Sql(pInfo, 0);
    EXPECT_EQ(strFull, L"RESTORE DATABASE [Sales] FROM DISK=\n" + Quoted(pDB, 0, 0) + L"\n,DISK=\n" +
                           Quoted(pDB, 0, 1) +
                           L"\nwith \nnorecovery, \n\nSTOPAT='2009-05-15 13:19:34.790',\n"
                           L"move 'Sales' to 'D:\\data\\Sales.mdf'");
    EXPECT_NE(Id(pDB, 0, 0), Id(pDB, 0, 1));

    const std::wstring strDiff = Sql(pInfo, 1), strLog1 = Sql(pInfo, 2), strLog2 = Sql(pInfo, 3);
    EXPECT_EQ(strDiff, L"RESTORE DATABASE [Sales] FROM DISK=\n" + Quoted(pDB, 1, 0) +
                           L"\n\nwith norecovery, \n\nSTOPAT='2009-05-15 13:19:34.790'");
    EXPECT_EQ(strLog1, L"RESTORE DATABASE [Sales] FROM DISK=\n" + Quoted(pDB, 2, 0) +
                           L"\n\nwith norecovery, \n\nSTOPAT='2009-05-15 13:19:34.790'");
    EXPECT_EQ(strLog2, L"RESTORE DATABASE [Sales] FROM DISK=\n" + Quoted(pDB, 3, 0) +
                           L"\n\nwith recovery, \n\nSTOPAT='2009-05-15 13:19:34.790'");
}

TEST_F(Statements, NumberingAndRecoveryFollowTheShapeOfTheChain) {
    // Logs without a differential: statement 1 is the first log.
    ZR_MountInfo* pLogs = Request(1, false, 2, L"logs");
    ZR_Database* pDB = Mount(pLogs);
    ASSERT_NE(pDB, nullptr);
    EXPECT_EQ(GetNumSQL(pLogs), 3);
    EXPECT_NE(Sql(pLogs, 0).find(L"\nwith \nnorecovery"), std::wstring::npos);
    const std::wstring strLog1 = Sql(pLogs, 1);
    EXPECT_EQ(strLog1, L"RESTORE DATABASE [Sales] FROM DISK=\n'" + Name(L"C:\\", L"logs", Id(pDB, 2, 0)) +
                           L"'\n\nwith norecovery");
    EXPECT_NE(Sql(pLogs, 2).find(L"!" + std::to_wstring(Id(pDB, 3, 0)) + L".bxk'\n\nwith recovery"),
              std::wstring::npos);

    // A differential and no log: the differential recovers. Names are quoted
    // the way SQL Server reads them.
    ZR_MountInfo* pDiff = Request(1, true, 0, L"it's]key");
    SetTargetDatabase(pDiff, L"Sa]l'es");
    pDB = Mount(pDiff);
    ASSERT_NE(pDB, nullptr);
    EXPECT_EQ(GetNumSQL(pDiff), 2);
    const std::wstring strFull = Sql(pDiff, 0);  // the id is that of the last generation
    EXPECT_EQ(strFull, L"RESTORE DATABASE [Sa]]l'es] FROM DISK=\n'C:\\it''s]key!" + std::to_wstring(Id(pDB, 0, 0)) +
                           L".bxk'\nwith \nnorecovery");
    EXPECT_TRUE(EndsWith(Sql(pDiff, 1), L"'\n\nwith recovery"));

    // A full backup alone recovers.
    ZR_MountInfo* pAlone = Request(1, false, 0, L"alone");
    ASSERT_NE(Mount(pAlone), nullptr);
    EXPECT_EQ(GetNumSQL(pAlone), 1);
    EXPECT_TRUE(EndsWith(Sql(pAlone, 0), L"'\nwith \nrecovery"));
}

// A stop at a mark by its name holds only where the log is restored; a stop
// by time or LSN stands in every statement.
TEST_F(Statements, StopKindsGiveTheirClausesWhereTheyBelong) {
    ZR_MountInfo* pInfo = Request(1, true, 1);
    ASSERT_NE(Mount(pInfo), nullptr);
    struct Case {
        ZR_StopType_e eType;
        const wchar_t* wszClause;
        bool bInData;
    };
    const Case aCases[] = {
        {ZR_STOP_AT_LSN, L"STOPATMARK='LSN:25:173:1'", true},
        {ZR_STOP_AT_LSN_AFTER, L"STOPATMARK='LSN:25:173:1' AFTER '2009-05-15 13:19:34.790'", true},
        {ZR_STOP_AT_MARK, L"STOPATMARK='it's'", false},
        {ZR_STOP_BEFORE_LSN, L"STOPBEFOREMARK='LSN:25:173:1'", true},
        {ZR_STOP_BEFORE_LSN_AFTER, L"STOPBEFOREMARK='LSN:25:173:1' AFTER '2009-05-15 13:19:34.790'", true},
        {ZR_STOP_BEFORE_MARK, L"STOPBEFOREMARK='it's'", false},
        {ZR_STOP_AT_MARK_AFTER, L"STOPATMARK='it's' AFTER '2009-05-15 13:19:34.790'", false},
        {ZR_STOP_BEFORE_MARK_AFTER, L"STOPBEFOREMARK='it's' AFTER '2009-05-15 13:19:34.790'", false},
    };
    pInfo->m_Stop.m_lsn = LSN{25, 173, 1};
    pInfo->m_Stop.m_strMark = L"it's";
    pInfo->m_Stop.m_dtAfter = {14392437, 39946};  // 13:19:34.790 in ticks of 1/300 s, 2009-05-15 in days from 1900
    for (const Case& c : aCases) {
        SCOPED_TRACE(static_cast<int>(c.eType));
        pInfo->m_Stop.m_eStopType = c.eType;
        const std::wstring strTail = std::wstring(L", \n\n") + c.wszClause;
        const std::wstring strFull = Sql(pInfo, 0), strDiff = Sql(pInfo, 1), strLog = Sql(pInfo, 2);
        EXPECT_TRUE(EndsWith(strLog, L"\nwith recovery" + strTail)) << testing::PrintToString(strLog);
        if (c.bInData) {
            EXPECT_TRUE(EndsWith(strFull, L"\nnorecovery" + strTail)) << testing::PrintToString(strFull);
            EXPECT_TRUE(EndsWith(strDiff, L"\nwith norecovery" + strTail)) << testing::PrintToString(strDiff);
        } else {
            EXPECT_TRUE(EndsWith(strFull, L"'\nwith \nnorecovery")) << testing::PrintToString(strFull);
            EXPECT_TRUE(EndsWith(strDiff, L"'\n\nwith norecovery")) << testing::PrintToString(strDiff);
        }
    }
    pInfo->m_Stop.m_eStopType = ZR_STOP_UNDEFINED;
    EXPECT_TRUE(EndsWith(Sql(pInfo, 2), L"'\n\nwith recovery"));
}

TEST_F(Statements, GenStopAtWithoutWithStartsItsOwnClause) {
    ZR_MountInfo* pInfo = Request(1, false, 0);
    pInfo->m_Stop.m_eStopType = ZR_STOP_AT_TIME;
    pInfo->m_Stop.m_dtStopAt = {25919999, -1};  // the last tick of the day before 1900-01-01
    XString<wchar_t> str(L"x");
    ZR::GetZR()->GenStopAt(pInfo, str, false);
    EXPECT_STREQ(str.GetString(), L"x with \n\nSTOPAT='1899-12-31 23:59:59.997'");
    pInfo->m_Stop.m_eStopType = ZR_STOP_UNDEFINED;
    ZR::GetZR()->GenStopAt(pInfo, str, true);
    EXPECT_STREQ(str.GetString(), L"x with \n\nSTOPAT='1899-12-31 23:59:59.997'") << "kind 0 adds nothing";
}

// AddWith counts from 1, the statements from 0; the options of a statement
// keep their order, and a statement with a differential moves the logs'
// entries by one.
TEST_F(Statements, WithOptionsGoToTheirStatementsInOrder) {
    ZR_MountInfo* pInfo = Request(1, false, 2);
    AddWith(pInfo, 3, L"stats = 10");
    AddWith(pInfo, 3, L"checksum");
    AddWith(pInfo, 0, L"ignored");
    EXPECT_NE(Errors(kKey).find(L"statement number from 1 (got 0)"), std::wstring::npos);
    ASSERT_EQ(pInfo->m_aWith.size(), 3u);
    EXPECT_TRUE(pInfo->m_aWith.front().empty());
    ASSERT_NE(Mount(pInfo), nullptr);
    const std::wstring strLast = Sql(pInfo, 2);
    EXPECT_TRUE(EndsWith(strLast, L"'\n\nwith recovery,\nstats = 10,\nchecksum")) << testing::PrintToString(strLast);
    EXPECT_TRUE(EndsWith(Sql(pInfo, 1), L"'\n\nwith norecovery"));
    EXPECT_TRUE(EndsWith(Sql(pInfo, 0), L"'\nwith \nnorecovery"));
}

// A file of the full backup without a view ends the statement at its
// separator; the differential names such a file with id 0 and goes on.
TEST_F(Statements, AFileWithoutAViewStopsOnlyTheFullStatement) {
    m_steps.m_iViewlessSlot = 0;
    ZR_MountInfo* pInfo = Request(2, true, 0);
    ZR_Database* pDB = Mount(pInfo);
    ASSERT_NE(pDB, nullptr);
    const std::wstring strFull = Sql(pInfo, 0);
    EXPECT_EQ(strFull, L"RESTORE DATABASE [Sales] FROM DISK=\n" + Quoted(pDB, 0, 0) + L"\n,DISK=\n");

    m_steps.m_iViewlessSlot = 1;
    ZR_MountInfo* pDiffless = Request(1, true, 0, L"second");
    ASSERT_NE(Mount(pDiffless), nullptr);
    EXPECT_EQ(Sql(pDiffless, 1), L"RESTORE DATABASE [Sales] FROM DISK=\n'C:\\second!0.bxk'\n\nwith recovery");
}

TEST_F(Statements, AnUnknownKeyGivesTheFirstLineAlone) {
    ZR_MountInfo* pInfo = Request(1, true, 1);
    XString<wchar_t> strFull, strDiff, strLog;
    ZR::GetZR()->GenRestoreDatabaseFullSQL(L"Sales", pInfo, L"C:\\", L"nobody", strFull);
    ZR::GetZR()->GenRestoreDatabaseDiffSQL(L"Sales", pInfo, L"C:\\", L"nobody", strDiff);
    ZR::GetZR()->GenRestoreDatabaseLogSQL(L"Sales", pInfo, L"C:\\", L"nobody", 0, strLog);
    for (const XString<wchar_t>* p : {&strFull, &strDiff, &strLog})
        EXPECT_STREQ(p->GetString(), L"RESTORE DATABASE [Sales] FROM DISK=\n");
    wchar_t* wszAttach = ZR::GenAttachDatabaseSQL(L"Sales", L"nobody");
    EXPECT_STREQ(wszAttach, L"CREATE DATABASE [Sales] ON\n\n   FOR ATTACH\n");
    free(wszAttach);
}

TEST_F(Statements, SizesCopiesAndNullArguments) {
    ZR_MountInfo* pInfo = Request(1, false, 1);
    ZR_Database* pDB = Mount(pInfo);
    ASSERT_NE(pDB, nullptr);

    // The size is that of the statement generated for it, ids included.
    const int iSize = GetSQLSize(pInfo, 0);
    const std::wstring strThen =
        L"RESTORE DATABASE [Sales] FROM DISK=\n" + Quoted(pDB, 0, 0) + L"\nwith \nnorecovery";
    EXPECT_EQ(iSize, static_cast<int>(strThen.size()) + 1);

    // A short buffer gets what fits and no terminator.
    std::vector<wchar_t> aShort(12, L'#');
    GetSQL(pInfo, 0, aShort.data(), 10);
    EXPECT_EQ(std::wstring(aShort.data(), 12), L"RESTORE DA##");

    EnableServiceTrace(1);
    EXPECT_EQ(GetNumSQL(nullptr), 0);
    EXPECT_EQ(GetSQLSize(nullptr, 0), 0);
    EXPECT_TRUE(Traced("GetSQL MountInfo is Null"));
    GetSQL(nullptr, 0, aShort.data(), 12);
    GetSQL(pInfo, 0, nullptr, 12);
    EXPECT_TRUE(Traced("GetSQL SQL buffer is Null"));
    GetSQL(pInfo, 0, aShort.data(), 0);
    EXPECT_EQ(std::wstring(aShort.data(), 12), L"RESTORE DA##") << "nothing copied";
    // Generating traces the statement.
    Sql(pInfo, 1);
    EXPECT_TRUE(Traced("SQL log restore: RESTORE DATABASE [Sales] FROM DISK="));
    Sql(pInfo, 0);
    EXPECT_TRUE(Traced("SQL full restore: RESTORE DATABASE [Sales] FROM DISK="));
    EnableServiceTrace(0);

    // Past the last statement: nothing, and the reason recorded.
    EXPECT_EQ(GetSQLSize(pInfo, 2), 0);
    EXPECT_NE(Errors(kKey).find(L"Statement 2 does not exist: the mount has 2 statements"), std::wstring::npos);
}

// ---- The attach statement and the source names, from configuration records
// laid out here as a backup lays them out. ----

std::vector<uint8_t> ConfigStream(const std::wstring& strServer) {
    auto ci = zrtest::SqlRecord<SQL_CONFIG_INFO_V7>("SCIN");
    ci.m_server_version = 10u << 24;
    zrtest::ConfigStream stream;
    stream.Add(ci, {{offsetof(SQL_CONFIG_INFO_V7, m_server_name), strServer},
                    {offsetof(SQL_CONFIG_INFO_V7, m_database_name), L"Sales"}});
    const std::tuple<uint32_t, uint32_t, const wchar_t*> aFiles[] = {{SQL_FILE_DATABASE, 0, L"D:\\a.mdf"},
                                                                     {SQL_FILE_PHYSICAL_LOG, 0, L"D:\\a_log.ldf"},
                                                                     {SQL_FILE_DATABASE, SQL_FILE_DROPPED, L"D:\\gone.ndf"},
                                                                     {SQL_FILE_DATABASE, 0, L"D:\\b.ndf"}};
    for (const auto& [iType, iFlags, wszPhysical] : aFiles) {
        auto fi = zrtest::SqlRecord<SQL_FILE_INFO_V7>("SFIN");
        fi.m_file_type = iType;
        fi.m_flags = iFlags;
        stream.Add(fi, {{offsetof(SQL_FILE_INFO_V7, m_physical_name), wszPhysical}});
    }
    return stream.m_a;
}

// Rows and views as ViewSteps gives them, and the configuration above in
// the full backup's content map; the source names are read by the
// library's own step.
class ConfigSteps : public ViewSteps {
public:
    explicit ConfigSteps(ZR_MountSteps* pLibrary) : m_pLibrary(pLibrary) {}
    bool PrepareContent(ZR_Database* pDB) override {
        std::vector<uint8_t> stream = ConfigStream(m_strServer);
        ZR_CMaps* pCMaps = pDB->GetFull()->m_pCMaps;
        if (!pCMaps->ParseConfig(pCMaps->m_ConfigMSCI, stream.data(), static_cast<uint32_t>(stream.size())))
            return false;
        if (m_bBadName) pCMaps->m_ConfigMSCI.m_pConfig->m_server_name.m_offset = 0xFFF0;
        return ViewSteps::PrepareContent(pDB);
    }
    bool ReadSourceNames(ZR_Database* pDB, std::wstring* pstrServer, std::wstring* pstrDatabase) override {
        return m_pLibrary->ReadSourceNames(pDB, pstrServer, pstrDatabase);
    }

    ZR_MountSteps* m_pLibrary;
    std::wstring m_strServer = L"HOST\\INST";
    bool m_bBadName = false;
};

TEST_F(Statements, TheAttachStatementListsTheDataFilesOfTheFullBackup) {
    ConfigSteps steps(LibrarySteps());
    ZR_InstallMountStepsForTesting(&steps);
    ZR_MountInfo* pInfo = Request(1, false, 1);
    ZR_Database* pDB = Mount(pInfo);
    ASSERT_NE(pDB, nullptr);
    wchar_t* wszAttach = ZR::GenAttachDatabaseSQL(L"Sa]les", kKey);
    EXPECT_STREQ(wszAttach,
                 L"CREATE DATABASE [Sa]]les] ON\n"
                 L"   (FILENAME = 'D:\\a.mdf'),\n"
                 L"   (FILENAME = 'D:\\b.ndf')\n"
                 L"   FOR ATTACH\n");
    free(wszAttach);
    EXPECT_STREQ(pDB->GetSourceMachine(), L"HOST");
    EXPECT_STREQ(pDB->GetSourceInstance(), L"INST");
    EXPECT_STREQ(pDB->GetSourceDatabase(), L"Sales");
}

// A tape address outside its record fails the mount, said under its key.
TEST_F(Statements, ABrokenNameInTheConfigurationFailsTheMount) {
    ConfigSteps steps(LibrarySteps());
    ZR_InstallMountStepsForTesting(&steps);
    steps.m_bBadName = true;
    EXPECT_EQ(LibraryTest::Mount(Request(1, false, 0, L"broken")), nullptr);
    EXPECT_FALSE(Errors(L"broken").empty());
}

}  // namespace
