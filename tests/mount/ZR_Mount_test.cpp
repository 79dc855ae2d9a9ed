#include "mount/ZR.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/MountTestBase.h"
#include "diag/ZR_Error.h"
#include "support/ErrorText.h"
#include "support/FakeDriver.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;

// Reaches the private mounts of a virtual file name.
struct ZR_TestAccess {
    static ZR_Database* Mount(ZR_FileInfo* pFileInfo) { return ZR::GetZR()->Mount(pFileInfo); }
};

namespace {

enum FailAt { FAIL_NONE, FAIL_CONTENT, FAIL_ACCESS, FAIL_OPEN, FAIL_NAMES };

// Stands in for the backup work of a mount and notes what the mount had
// built by the time each step came.
class ScriptedSteps : public ZR_MountSteps {
public:
    bool PrepareContent(ZR_Database* pDB) override {
        m_aSteps.push_back("content");
        m_iBackupSlots = pDB->GetNumBackups();
        m_bDiffFollows = pDB->GetFull() && pDB->GetFull()->m_bDiffFollows;
        m_bFoundDuringMount = ZR::FindDatabase(pDB->GetMountKey()) == pDB;
        return Step(pDB, FAIL_CONTENT);
    }
    bool PrepareAccess(ZR_Database* pDB, const ZR_StopInfo& stop) override {
        m_aSteps.push_back("access");
        m_eStopType = stop.m_eStopType;
        return Step(pDB, FAIL_ACCESS);
    }
    bool OpenBackups(ZR_Database* pDB) override {
        m_aSteps.push_back("open");
        m_iStateAtOpen = pDB->GetState();
        return Step(pDB, FAIL_OPEN);
    }
    bool ReadSourceNames(ZR_Database* pDB, std::wstring* pstrServer, std::wstring* pstrDatabase) override {
        m_aSteps.push_back("names");
        *pstrServer = m_strServer;
        *pstrDatabase = L"Sales";
        return Step(pDB, FAIL_NAMES);
    }

    FailAt m_eFailAt = FAIL_NONE;
    std::wstring m_strServer = L"HOST\\INST";
    std::vector<std::string> m_aSteps;
    int m_iBackupSlots = -1;
    bool m_bDiffFollows = false;
    bool m_bFoundDuringMount = false;
    int m_iStateAtOpen = -1;
    ZR_StopType_e m_eStopType = ZR_STOP_UNDEFINED;

private:
    bool Step(ZR_Database* pDB, FailAt eStep) {
        if (m_eFailAt != eStep) return true;
        ZR_Error(pDB->GetMountKey(), __FILE__, "ScriptedSteps", __LINE__, "scripted failure %d\n", int(eStep));
        return false;
    }
};

std::wstring Errors(const wchar_t* wszKey) { return zrtest::ErrorText(wszKey); }

bool Contains(const std::wstring& strText, const wchar_t* wszPart) {
    return strText.find(wszPart) != std::wstring::npos;
}

class MountFlow : public MountTestBase<ScriptedSteps> {
protected:
    // A request with a full backup (data set 2) of one file, and a
    // differential and logs on demand.
    ZR_MountInfo* Request(const wchar_t* wszKey, bool bDiff = false, int iLogs = 0) {
        ZR_MountInfo* pInfo = LibraryTest::Request({"full.bak"}, bDiff ? std::vector<fs::path>{"diff.bak"} : std::vector<fs::path>{},
                                                   std::vector<std::vector<fs::path>>(size_t(iLogs), {"log.trn"}), 2);
        if (wszKey)
            SetMountKey(pInfo, wszKey);
        return pInfo;
    }
};

// The source names come from the steps, split at the instance's backslash;
// nothing can find a database before its backups are open.
TEST_F(MountFlow, ARequestWithoutKeyIsKnownByItsGuidInUpperCaseOrByAGuidOfItsOwn) {
    ZR_MountInfo* pInfo = Request(nullptr);
    ASSERT_EQ(SetGuid(pInfo, L"6b29fc40-ca47-1067-b31d-00dd010662da"), 0);
    ZR::GetZR()->SetFilterVolume(L"C:\\volume\\");
    std::wstring strKey;
    ZR_Database* pDB = Mount(pInfo, &strKey);
    ASSERT_NE(pDB, nullptr);
    EXPECT_EQ(strKey, L"GUID=6B29FC40-CA47-1067-B31D-00DD010662DA");
    EXPECT_EQ(std::wstring(pInfo->GetMountKey()), strKey);
    EXPECT_EQ((std::vector<std::wstring>{pDB->GetSourceMachine(), pDB->GetSourceInstance(), pDB->GetSourceDatabase()}),
              (std::vector<std::wstring>{L"HOST", L"INST", L"Sales"}));
    EXPECT_EQ(std::wstring(pDB->GetFilterVolume()), L"C:\\volume");
    EXPECT_EQ(pDB->GetState(), ZR_VDB_STATE_PREPARED);
    EXPECT_EQ(m_steps.m_iStateAtOpen, ZR_VDB_STATE_PREPARED);
    EXPECT_EQ(m_steps.m_aSteps, (std::vector<std::string>{"content", "access", "open", "names"}));
    EXPECT_FALSE(m_steps.m_bFoundDuringMount);

    m_steps.m_strServer = L"HOST";
    std::wstring strKey1, strKey2;
    ZR_Database* pDB1 = Mount(Request(L""), &strKey1);
    ASSERT_NE(pDB1, nullptr);
    EXPECT_STREQ(pDB1->GetSourceInstance(), L"") << "a default instance";
    ASSERT_NE(Mount(Request(nullptr), &strKey2), nullptr);
    for (const std::wstring& str : {strKey1, strKey2}) {
        EXPECT_EQ(str.rfind(L"GUID=", 0), 0u);
        EXPECT_EQ(str.size(), 41u);
    }
    EXPECT_NE(strKey1, strKey2);
    EXPECT_NE(ZR::FindDatabase(strKey1.c_str()), ZR::FindDatabase(strKey2.c_str()));
}

TEST_F(MountFlow, TheSameKeyTwiceMakesTwoDatabasesAndLookupsFindTheOlder) {
    ZR_Database* pFirst = Mount(Request(L"Sales"));
    std::wstring strKey;
    ASSERT_NE(Mount(Request(L"SALES"), &strKey), nullptr);
    EXPECT_EQ(strKey, L"SALES");
    EXPECT_EQ(static_cast<int>(g_DBs), 2);
    EXPECT_EQ(ZR::FindDatabase(L"sales"), pFirst);
    EXPECT_EQ(ZR::FindDatabase(L"SALES"), pFirst);
    EXPECT_EQ(g_DBs.IndexOf(pFirst), 0);
    EXPECT_EQ(ZR::FindDatabase(L"other"), nullptr);
}

TEST_F(MountFlow, TheChainStandsInItsSlotsAndTheStopReachesPrepareAccess) {
    ZR_MountInfo* pInfo = Request(L"logs", false, 2);
    ASSERT_TRUE(SetStop(pInfo, L"STOPATMARK='lsn:1:2:3'"));
    ZR_Database* pDB = Mount(pInfo);
    ASSERT_NE(pDB, nullptr);
    EXPECT_EQ(m_steps.m_eStopType, ZR_STOP_AT_LSN);
    EXPECT_EQ(m_steps.m_iBackupSlots, 4);
    EXPECT_FALSE(m_steps.m_bDiffFollows);
    EXPECT_EQ(pDB->GetDiff(), nullptr);
    ASSERT_NE(pDB->GetBackup(3), nullptr);
    EXPECT_EQ((std::vector{pDB->GetBackup(3)->GetNumFiles(), pDB->GetFull()->GetDataSetNumber(),
                           pDB->GetFull()->GetFile(0)->GetDataSet()}),
              (std::vector{1, 2, 2}));
    EXPECT_EQ(std::wstring(pDB->GetFull()->GetKey()), L"logs");

    ASSERT_NE(Mount(Request(L"diff", true, 1)), nullptr);
    EXPECT_EQ(m_steps.m_iBackupSlots, 3);
    EXPECT_TRUE(m_steps.m_bDiffFollows);
}

// Each failing step leaves nothing in g_DBs, hands back the key, and
// records the step's own reason under the key and the mount's under no key.
TEST_F(MountFlow, AFailureAtAnyStepLeavesNothingBehind) {
    const struct {
        FailAt eFailAt;
        const wchar_t* wszMountError;  // null: the mount only traces
    } aCases[] = {
        {FAIL_CONTENT, nullptr},
        {FAIL_ACCESS, L"Failed to prepare backup for access\n"},
        {FAIL_OPEN, L"Failed to open backup files\n"},
        {FAIL_NAMES, nullptr},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(int(c.eFailAt));
        ZR_ClearErrors(nullptr);
        m_steps.m_eFailAt = c.eFailAt;
        m_steps.m_aSteps.clear();
        std::wstring strKey;
        EXPECT_EQ(Mount(Request(L"Failing"), &strKey), nullptr);
        EXPECT_EQ(strKey, L"Failing");
        EXPECT_EQ(static_cast<int>(g_DBs), 0);
        EXPECT_EQ(m_steps.m_aSteps.size(), size_t(c.eFailAt));
        EXPECT_TRUE(Contains(Errors(L"Failing"), L"scripted failure"));
        const std::wstring strNullKey = Errors(nullptr);
        EXPECT_TRUE(c.wszMountError ? Contains(strNullKey, c.wszMountError) : strNullKey.empty())
            << testing::PrintToString(strNullKey);
        ZR_ClearErrors(L"Failing");
    }
}

// Requests without a full backup or with a record of no known type are
// refused before any step, after the key is made.
TEST_F(MountFlow, RequestsThatMakeNoChainAreRefused) {
    ZR_MountInfo* pLogOnly = NewRequest();
    BuildBackupInfoFromSet(pLogOnly, 3, 1, nullptr, nullptr);
    ZR_MountInfo* pTyped = Request(L"typed", true);
    pTyped->GetDiff()->m_eType = static_cast<ZR_BackupType_e>(7);
    for (auto [pInfo, wszReason, wszKey] : {std::tuple{pLogOnly, L"A mount needs a full backup", L"GUID="},
                                            {pTyped, L"Not a supported backup type (7)", L"typed"}}) {
        std::wstring strKey;
        EXPECT_EQ(Mount(pInfo, &strKey), nullptr);
        EXPECT_EQ(strKey.rfind(wszKey, 0), 0u);
        EXPECT_TRUE(Contains(Errors(nullptr), wszReason)) << testing::PrintToString(Errors(nullptr));
    }
    EXPECT_TRUE(m_steps.m_aSteps.empty());
    EXPECT_EQ(static_cast<int>(g_DBs), 0);
}

// Without the test steps a mount meets the library's own: this build cannot
// read backup content, and says so under the mount key.
TEST_F(MountFlow, TheLibrarysOwnStepsFailOnBackupsThatDoNotExist) {
    ZR_InstallMountStepsForTesting(nullptr);
    EXPECT_EQ(Mount(Request(L"real")), nullptr);
    const std::wstring strErrors = Errors(L"real");
    EXPECT_TRUE(Contains(strErrors, L"Failed to prepare backup content for backup id: 0 SQL version: 0"));
    EXPECT_EQ(static_cast<int>(g_DBs), 0);
}

TEST_F(MountFlow, RemoveEndsTheMountAndClearsOnlyItsKey) {
    ZR_Database* pOne = Mount(Request(L"one"));
    ASSERT_NE(pOne, nullptr);
    ASSERT_NE(Mount(Request(L"two")), nullptr);
    pOne->AssociateDataFile(3, 11, FileObjectUniquifier{{0, 0, 1, 0}}, L"D:\\data\\one.mdf");
    EXPECT_EQ(g_DBs.FindByDataFileName(L"d:\\DATA\\ONE.MDF"), pOne);

    ZR_Error(L"one", __FILE__, "test", __LINE__, "one failed\n");
    ZR_Error(L"two", __FILE__, "test", __LINE__, "two failed\n");
    ZR_Error(L"three", __FILE__, "test", __LINE__, "three failed\n");
    ZR::GetZR()->Remove(L"one");
    EXPECT_EQ(ZR::FindDatabase(L"one"), nullptr);
    EXPECT_NE(ZR::FindDatabase(L"two"), nullptr);
    EXPECT_EQ(Errors(L"one"), L"");
    EXPECT_TRUE(Contains(Errors(L"two"), L"two failed"));

    // An unknown key still loses its errors, and nothing else changes.
    ZR::GetZR()->Remove(L"three");
    EXPECT_EQ(Errors(L"three"), L"");
    EXPECT_TRUE(Contains(Errors(L"two"), L"two failed"));
    EXPECT_EQ(static_cast<int>(g_DBs), 1);
}

TEST_F(MountFlow, WrapMountChecksItsArgumentsAndNeedsTheDriver) {
    ZR_MountInfo* pInfo = Request(L"wrapped");
    wchar_t wszKey[64] = L"x";
    EXPECT_FALSE(WrapMount(pInfo, nullptr, 64));
    EXPECT_FALSE(WrapMount(pInfo, wszKey, 0));
    EXPECT_FALSE(WrapMount(nullptr, wszKey, 64));
    EXPECT_EQ(wszKey[0], L'x');  // untouched before the request is checked
    // No driver: the embedded one that InitializeZR started is stopped, and
    // the library's connection to it closed.
    zrtest::StopEmbeddedDriver();
    EXPECT_FALSE(WrapMount(pInfo, wszKey, 64));
    EXPECT_EQ(wszKey[0], 0);
    EXPECT_TRUE(m_steps.m_aSteps.empty());
    EXPECT_EQ(static_cast<int>(g_DBs), 0);
}

TEST_F(MountFlow, ABackupsNameMountsItsFilesByTheirMarks) {
    ZR_FileInfo fileInfo;
    fileInfo.m_eScheme = ZR_FILE_BACKUPS;
    fileInfo.m_strMountKey = L"Backups=Sales!list";
    fileInfo.m_strFolder = L"\\\\host\\share";
    for (const wchar_t* wsz : {L"D:\\b\\sales!full.bak", L"D:\\b\\sales.bak", L"D:\\b\\sales!Diff.bak",
                               L"D:\\b\\sales!log1.trn", L"D:\\b\\sales!LOG2.trn", L"D:\\b\\sales!FULL2.bak"})
        fileInfo.m_aBackupFiles.Append(_wcsdup(wsz));
    ZR_Database* pDB = ZR_TestAccess::Mount(&fileInfo);
    ASSERT_NE(pDB, nullptr);
    EXPECT_EQ(pDB, ZR::FindDatabase(L"backups=sales!LIST"));
    EXPECT_EQ(std::wstring(pDB->GetFilterVolume()), L"\\\\host\\share");
    ASSERT_EQ(pDB->GetNumBackups(), 4);
    EXPECT_EQ((std::vector{pDB->GetFull()->GetNumFiles(), pDB->GetDiff()->GetNumFiles(), pDB->GetBackup(2)->GetNumFiles()}),
              (std::vector{2, 1, 1}));
    EXPECT_EQ(std::wstring(pDB->GetFull()->GetFile(0)->GetFileName()), L"D:\\b\\sales!full.bak");
    EXPECT_EQ(pDB->GetFull()->GetDataSetNumber(), 1);
    EXPECT_TRUE(m_steps.m_bDiffFollows);

    // The same name again finds the mount instead of making another.
    EXPECT_EQ(ZR_TestAccess::Mount(&fileInfo), pDB);
    EXPECT_EQ(static_cast<int>(g_DBs), 1);
}

TEST_F(MountFlow, OtherNamesOnlyFindMounts) {
    ZR_Database* pDB = Mount(Request(L"found"));
    ASSERT_NE(pDB, nullptr);

    ZR_FileInfo byGuid;
    byGuid.m_eScheme = ZR_FILE_GUID;
    byGuid.m_Guid = pDB->GetGuid();
    EXPECT_EQ(ZR_TestAccess::Mount(&byGuid), pDB);

    for (auto [eScheme, wszKey, pFound] : {std::tuple{ZR_FILE_VDB, L"FOUND", pDB},
                                           {ZR_FILE_VDB, L"missing", nullptr}, {ZR_FILE_STOP, L"found", nullptr}}) {
        ZR_FileInfo byKey;
        byKey.m_eScheme = eScheme;
        byKey.m_strMountKey = wszKey;
        EXPECT_EQ(ZR_TestAccess::Mount(&byKey), pFound) << std::wstring(wszKey);
    }
    EXPECT_EQ(static_cast<int>(g_DBs), 1);
}

}  // namespace
