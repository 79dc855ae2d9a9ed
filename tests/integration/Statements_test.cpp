// Statements of mounts of the real backups. The reference for what the
// backups hold is the test walker (tests/support/MtfWalker.h), which reads
// the configuration records on its own; the manifest beside the backups
// gives the server and database names.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "backup/ZR_VirtualBackupFile.h"
#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"
#include "mount/ZR.h"
#include "mount/ZR_MountStepsTesting.h"
#include "support/Manifest.h"
#include "support/MtfWalker.h"
#include "support/CliRun.h"
#include "support/TestData.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;

namespace {

const char kClean[] = "appveyor-lab/RestoreTimeClean/";
const char kStripes[] = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";

std::string Narrow(const std::wstring& ws) { return std::string(ws.begin(), ws.end()); }

std::string Path(const std::string& relative) { return zrtest::TestDataFile(relative).value().string(); }

// The CREATE DATABASE text the walker's reading of the full backup calls for.
std::string ExpectedAttach(const std::string& database, const std::string& fullFile) {
    zrtest::MtfWalk walk = zrtest::MtfWalker::WalkFile(Path(fullFile));
    EXPECT_TRUE(walk.ok) << walk.fault;
    const zrtest::MtfDataSet* pSet = walk.DataSet(1);
    EXPECT_NE(pSet, nullptr);
    std::string text = "CREATE DATABASE [" + database + "] ON\n";
    bool bFirst = true;
    for (const zrtest::MtfSqlFile& f : pSet ? pSet->msci.files : std::vector<zrtest::MtfSqlFile>{}) {
        if (f.fileType != 1) continue;
        text += (bFirst ? "" : ",\n") + std::string("   (FILENAME = '") + f.physicalName + "')";
        bFirst = false;
    }
    return text + "\n   FOR ATTACH\n";
}

// The library's own content steps; access is left out, since the extent
// maps play no part in the statements.
class ContentOnlySteps : public ZR_MountSteps {
public:
    explicit ContentOnlySteps(ZR_MountSteps* pLibrary) : m_pLibrary(pLibrary) {}
    bool PrepareContent(ZR_Database* pDB) override { return m_pLibrary->PrepareContent(pDB); }
    bool PrepareAccess(ZR_Database*, const ZR_StopInfo&) override { return true; }
    bool OpenBackups(ZR_Database* pDB) override { return m_pLibrary->OpenBackups(pDB); }
    bool ReadSourceNames(ZR_Database* pDB, std::wstring* pstrServer, std::wstring* pstrDatabase) override {
        return m_pLibrary->ReadSourceNames(pDB, pstrServer, pstrDatabase);
    }

private:
    ZR_MountSteps* m_pLibrary;
};

class RealStatements : public testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        InitializeZR(0);
        ZR::UninitializeForExit();
        ZR_ClearErrors(nullptr);
        std::wstring folder = m_tmp.path().wstring();
        wcsncpy(g_wszMapFilesFolder, folder.c_str(), MAX_PATH - 1);
        ZR_MountSteps* pInstalled = ZR_InstallMountStepsForTesting(nullptr);
        m_pSteps = std::make_unique<ContentOnlySteps>(&CurrentMountSteps());
        ZR_InstallMountStepsForTesting(m_pSteps.get());
        m_pInstalled = pInstalled;
    }
    void TearDown() override {
        ZR_InstallMountStepsForTesting(m_pInstalled);
        ZR::UninitializeForExit();
        g_wszMapFilesFolder[0] = 0;
        if (m_pInfo) FreeMountInfo(m_pInfo);
        ZR_ClearErrors(L"real");
        ZR_ClearErrors(nullptr);
    }

    ZR_Database* Mount(const std::vector<std::string>& aFull, const std::vector<std::string>& aDiff,
                       const std::vector<std::vector<std::string>>& aLogs) {
        m_pInfo = AllocateMountInfo();
        BuildBackupInfoFromSet(m_pInfo, 1, 1, nullptr, nullptr);
        for (const auto& f : aFull) AddBackupSetFilename(m_pInfo, L"Full", fs::path(Path(f)).wstring().c_str());
        if (!aDiff.empty()) BuildBackupInfoFromSet(m_pInfo, 2, 1, nullptr, nullptr);
        for (const auto& f : aDiff) AddBackupSetFilename(m_pInfo, L"Diff", fs::path(Path(f)).wstring().c_str());
        for (const auto& aLog : aLogs) {
            BuildBackupInfoFromSet(m_pInfo, 3, 1, nullptr, nullptr);
            for (const auto& f : aLog) AddBackupSetFilename(m_pInfo, L"Log", fs::path(Path(f)).wstring().c_str());
        }
        SetMountKey(m_pInfo, L"real");
        SetTargetDatabase(m_pInfo, L"Copy");
        SetFilterDrive(m_pInfo, L"Z:\\");
        wchar_t* wszKey = nullptr;
        const bool bMounted = ZR::GetZR()->Mount(m_pInfo, &wszKey);
        free(wszKey);
        if (!bMounted) {
            wchar_t* wszErrors = ZR_ReadErrors(L"real");
            ADD_FAILURE() << Narrow(wszErrors ? wszErrors : L"");
            free(wszErrors);
            return nullptr;
        }
        return ZR::FindDatabase(L"real");
    }

    std::wstring Statement(unsigned i) {
        std::vector<wchar_t> buffer(static_cast<size_t>(GetSQLSize(m_pInfo, i)) + 64, L'\0');
        GetSQL(m_pInfo, i, buffer.data(), static_cast<unsigned>(buffer.size() - 1));
        return buffer.data();
    }

    // The quoted names of the files of a backup as their views are named now.
    static std::wstring Names(ZR_Backup* pBackup, const std::wstring& strSeparator) {
        std::wstring text;
        for (int i = 0; i < static_cast<int>(pBackup->m_aVirtualFiles); ++i) {
            if (i > 0) text += strSeparator;
            const uint32_t iId = ZR_VirtualBackupFile::HandleId(pBackup->m_aVirtualFiles(i)->GetHandle());
            text += L"'Z:\\real!" + std::to_wstring(iId) + L".bxk'\n";
        }
        return text;
    }

    zrtest::TempDir m_tmp;
    std::unique_ptr<ContentOnlySteps> m_pSteps;
    ZR_MountSteps* m_pInstalled = nullptr;
    ZR_MountInfo* m_pInfo = nullptr;
};

TEST_F(RealStatements, SourceNamesAndAttachComeFromTheFullBackup) {
    ZR_Database* pDB = Mount({std::string(kClean) + "RestoreTimeClean.bak"},
                             {std::string(kClean) + "RestoreTimeClean2.bak"},
                             {{std::string(kClean) + "RestoreTimeClean2_1.trn"}});
    ASSERT_NE(pDB, nullptr);
    EXPECT_STREQ(pDB->GetSourceMachine(), L"SQL2008");  // the manifest's server, a default instance
    EXPECT_STREQ(pDB->GetSourceInstance(), L"");
    EXPECT_STREQ(pDB->GetSourceDatabase(), L"RestoreTimeClean");

    wchar_t* wszAttach = ZR::GenAttachDatabaseSQL(L"Copy", L"real");
    const std::string strAttach = Narrow(wszAttach);
    free(wszAttach);
    EXPECT_EQ(strAttach, ExpectedAttach("Copy", std::string(kClean) + "RestoreTimeClean.bak"));
    EXPECT_EQ(strAttach.find(".ldf"), std::string::npos) << "the log file is not attached";
}

TEST_F(RealStatements, ANamedInstanceSplitsAtItsBackslash) {
    const std::string file = "appveyor-lab/DoubleDiffing/difftest-full.bak";
    ZR_Database* pDB = Mount({file}, {}, {});
    ASSERT_NE(pDB, nullptr);
    for (const zrtest::ManifestEntry& e : zrtest::ReadManifest()) {
        if (e.file != file) continue;
        const size_t iSlash = e.server.find('\\');
        ASSERT_NE(iSlash, std::string::npos);
        EXPECT_EQ(Narrow(pDB->GetSourceMachine()), e.server.substr(0, iSlash));
        EXPECT_EQ(Narrow(pDB->GetSourceInstance()), e.server.substr(iSlash + 1));
        EXPECT_EQ(Narrow(pDB->GetSourceDatabase()), e.database);
    }
}

// Every statement of a striped chain names each stripe's view, with the
// ids the views carry after the statement was made.
TEST_F(RealStatements, AStripedChainNamesEveryStripe) {
    const std::string s1 = std::string(kStripes) + "Stripe1/", s2 = std::string(kStripes) + "Stripe2/";
    ZR_Database* pDB = Mount({s1 + "RestoreTimeStripe.bak", s2 + "RestoreTimeStripe1.bak"}, {},
                             {{s1 + "RestoreTimeStripe_1.trn", s2 + "RestoreTimeStripe_1a.trn"}});
    ASSERT_NE(pDB, nullptr);
    ASSERT_EQ(static_cast<int>(pDB->GetFull()->m_aVirtualFiles), 2);
    ASSERT_EQ(GetNumSQL(m_pInfo), 2);
    const std::wstring strFull = Statement(0);
    EXPECT_EQ(strFull, L"RESTORE DATABASE [Copy] FROM DISK=\n" + Names(pDB->GetFull(), L",DISK=\n") +
                           L"with \nnorecovery");
    const std::wstring strLog = Statement(1);
    EXPECT_EQ(strLog, L"RESTORE DATABASE [Copy] FROM DISK=\n" + Names(pDB->GetBackup(2), L",DISK=") +
                          L"\nwith recovery");
}

// ---- The zirlane program ----

zrtest::CliRun Zirlane(const std::vector<std::string>& aArgs, const zrtest::TempDir& tmp) {
    return zrtest::RunZirlane(aArgs, tmp.path());
}

size_t Count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t i = text.find(part); i != std::string::npos; i = text.find(part, i + 1)) ++n;
    return n;
}

// A log older than the differential: no statement comes out, since SQL
// Server would refuse the chain only when it ran them.
TEST(ZirlaneStatements, ABrokenChainPrintsNoStatement) {
    ZR_REQUIRE_TESTDATA();
    zrtest::TempDir tmp;
    const std::string dir = std::string(kClean);
    zrtest::CliRun run = Zirlane({"statements", "--database", "Copy", "--map-folder", (tmp / "maps").string(), "--full",
                                  Path(dir + "RestoreTimeClean.bak"), "--diff", Path(dir + "RestoreTimeClean2.bak"),
                                  "--log", Path(dir + "RestoreTimeClean_3.trn")},
                                 tmp);
    EXPECT_EQ(run.iExit, 1);
    EXPECT_EQ(run.sOut.find("RESTORE"), std::string::npos) << run.sOut;
    EXPECT_NE((run.sOut + run.sErr).find("does not go on from"), std::string::npos) << run.sOut << run.sErr;
}

TEST(ZirlaneStatements, TheCleanChainComesOutInOrderThenTheAttach) {
    ZR_REQUIRE_TESTDATA();
    zrtest::TempDir tmp;
    const std::string dir = std::string(kClean);
    zrtest::CliRun run = Zirlane({"statements", "--database", "Copy", "--key", "K", "--map-folder", (tmp / "maps").string(),
                       "--full", Path(dir + "RestoreTimeClean.bak"), "--diff", Path(dir + "RestoreTimeClean2.bak"),
                       "--log", Path(dir + "RestoreTimeClean2_1.trn"), "--log", Path(dir + "RestoreTimeClean2_2.trn"),
                       "--log", Path(dir + "RestoreTimeClean2_3.trn"), "--stop", "STOPAT='2017-06-01 13:25:00'",
                       "--with", "1:move 'RestoreTimeClean' to 'D:\\x.mdf'"},
                      tmp);
    ASSERT_EQ(run.iExit, 0) << run.sErr;
    EXPECT_EQ(Count(run.sOut, "RESTORE DATABASE [Copy] FROM DISK=\n'C:\\K!"), 5u) << run.sOut;
    EXPECT_EQ(Count(run.sOut, "STOPAT='2017-06-01 13:25:00.000'"), 5u);
    EXPECT_EQ(Count(run.sOut, "\nnorecovery, \n\nSTOPAT="), 1u) << "the full backup";
    EXPECT_EQ(Count(run.sOut, "\nwith norecovery, \n\nSTOPAT="), 3u) << "the differential and two logs";
    EXPECT_EQ(Count(run.sOut, "\nwith recovery, \n\nSTOPAT="), 1u) << "the last log";
    EXPECT_NE(run.sOut.find("',\nmove 'RestoreTimeClean' to 'D:\\x.mdf'\n"), std::string::npos);
    const std::string attach = ExpectedAttach("Copy", dir + "RestoreTimeClean.bak");
    ASSERT_GE(run.sOut.size(), attach.size());
    EXPECT_EQ(run.sOut.substr(run.sOut.size() - attach.size()), attach);
}

}  // namespace
