// The request as the exports build it: which record each file goes to, what
// a setter keeps, and what is refused. (The stop clause is the stop clause
// tests', the GUID the mount tests'.)
#include <gtest/gtest.h>

#include <string>

#include "mount/ZR_MountInfo.h"
#include "zirlane/zirlane.h"

namespace {

// The request as the exports build it, freed at the end of each test.
class MountRequest : public testing::Test {
protected:
    void TearDown() override { FreeMountInfo(m_pInfo); }
    ZR_MountInfo* m_pInfo = AllocateMountInfo();
};

std::wstring Text(const wchar_t* wsz) { return wsz ? wsz : L"(null)"; }

TEST_F(MountRequest, FilesGoToTheRecordOfTheirTypeName) {
    ASSERT_TRUE(BuildBackupInfoFromSet(m_pInfo, 1, 3, nullptr, nullptr));
    AddBackupSetFilename(m_pInfo, L"Full", L"full1.bak");
    AddBackupSetFilename(m_pInfo, L"Full", L"full2.bak");
    // No log record yet, and the compare respects case: both do nothing.
    AddBackupSetFilename(m_pInfo, L"Log", L"early.trn");
    AddBackupSetFilename(m_pInfo, L"full", L"lower.bak");
    AddBackupSetFilename(m_pInfo, L"Stripe", L"other.bak");
    ASSERT_TRUE(BuildBackupInfoFromSet(m_pInfo, 2, 1, nullptr, nullptr));
    AddBackupSetFilename(m_pInfo, L"Differential", L"diff.bak");
    AddBackupSetFilename(m_pInfo, L"Diff", L"diff2.bak");
    ASSERT_TRUE(BuildBackupInfoFromSet(m_pInfo, 3, 1, nullptr, nullptr));
    AddBackupSetFilename(m_pInfo, L"Log", L"log1.trn");
    ASSERT_TRUE(BuildBackupInfoFromSet(m_pInfo, 3, 2, nullptr, nullptr));
    AddBackupSetFilename(m_pInfo, L"Log", L"log2a.trn");
    AddBackupSetFilename(m_pInfo, L"Log", L"log2b.trn");

    ZR_BackupInfo* pFull = m_pInfo->GetFull();
    ASSERT_NE(pFull, nullptr);
    EXPECT_EQ(pFull->m_eType, ZR_BACKUP_FULL);
    EXPECT_EQ(pFull->m_iDataSet, 3);
    ASSERT_EQ(pFull->GetNumFileNames(), 2);
    EXPECT_EQ(Text(pFull->GetFileName(0)), L"full1.bak");
    EXPECT_EQ(Text(pFull->GetFileName(1)), L"full2.bak");
    ASSERT_TRUE(GetDiff(m_pInfo));
    EXPECT_EQ(m_pInfo->GetDiff()->GetNumFileNames(), 2);
    ASSERT_EQ(GetNumberOfLogs(m_pInfo), 2);
    EXPECT_TRUE(GetLog(m_pInfo, 1));
    EXPECT_EQ(m_pInfo->GetLog(0)->GetNumFileNames(), 1);
    EXPECT_EQ(m_pInfo->GetLog(1)->GetNumFileNames(), 2);
    EXPECT_EQ(m_pInfo->GetLog(1)->m_iDataSet, 2);
    EXPECT_EQ(m_pInfo->GetLog(1)->m_eType, ZR_BACKUP_LOG);
}

// Full and differential exist once; other types are refused. The plain
// password key wins over the encrypted one.
TEST_F(MountRequest, RecordsAreMadeOnceOfTheTypesThereAreWithTheirKeys) {
    EXPECT_FALSE(GetDiff(m_pInfo));
    EXPECT_TRUE(BuildBackupInfoFromSet(m_pInfo, 1, 1, L"plain", L"secret"));
    EXPECT_FALSE(BuildBackupInfoFromSet(m_pInfo, 1, 7, nullptr, nullptr));
    EXPECT_EQ(m_pInfo->GetFull()->m_iDataSet, 1);
    EXPECT_TRUE(BuildBackupInfoFromSet(m_pInfo, 2, 1, nullptr, L"secret"));
    EXPECT_FALSE(BuildBackupInfoFromSet(m_pInfo, 2, 1, nullptr, nullptr));
    EXPECT_FALSE(BuildBackupInfoFromSet(m_pInfo, 0, 1, nullptr, nullptr));
    EXPECT_FALSE(BuildBackupInfoFromSet(m_pInfo, 4, 1, nullptr, nullptr));
    EXPECT_EQ(GetNumberOfLogs(m_pInfo), 0);
    ZR_BackupInfo* pFull = m_pInfo->GetFull();
    EXPECT_EQ(m_pInfo->NewFull(5), nullptr);
    EXPECT_EQ(m_pInfo->GetFull(), pFull);
    EXPECT_EQ(m_pInfo->NewDiff(5), nullptr);

    EXPECT_EQ(Text(pFull->m_wszPasswordKey), L"plain");
    EXPECT_FALSE(pFull->m_bPasswordKeyEncrypted);
    EXPECT_EQ(Text(m_pInfo->GetDiff()->m_wszPasswordKey), L"secret");
    EXPECT_TRUE(m_pInfo->GetDiff()->m_bPasswordKeyEncrypted);
    ASSERT_TRUE(BuildBackupInfoFromSet(m_pInfo, 3, 1, nullptr, nullptr));
    EXPECT_EQ(m_pInfo->GetLog(0)->m_wszPasswordKey, nullptr);
}

// Setters keep copies; the target instance is what follows the first
// backslash; an account setter keeps the half it is not given.
TEST_F(MountRequest, SettersKeepCopies) {
    std::wstring strKey = L"Sales";
    SetMountKey(m_pInfo, strKey.c_str());
    strKey[0] = L'X';
    EXPECT_EQ(Text(m_pInfo->GetMountKey()), L"Sales");
    for (auto [wszSet, wszKept] : {std::pair{L"SERVER\\INST", L"INST"}, {L"SERVER", L"SERVER"}, {L"A\\B\\C", L"B\\C"}}) {
        SetTargetInstance(m_pInfo, wszSet);
        EXPECT_EQ(Text(m_pInfo->GetTargetInstance()), wszKept);
    }
    SetFileAccessAccount(m_pInfo, L"user", L"pw");
    SetFileAccessAccount(m_pInfo, L"other", nullptr);
    EXPECT_EQ(Text(m_pInfo->GetFileAccessUser()), L"other");
    EXPECT_EQ(Text(m_pInfo->GetFileAccessPassword()), L"pw");
    SetFileAccessAccount(m_pInfo, nullptr, L"pw2");
    EXPECT_EQ(Text(m_pInfo->GetFileAccessUser()), L"other");
    EXPECT_EQ(Text(m_pInfo->GetFileAccessPassword()), L"pw2");
    EXPECT_FALSE(m_pInfo->GetRestart());
    SetRestart(m_pInfo);
    EXPECT_TRUE(m_pInfo->GetRestart());
    EXPECT_NE(SetGuid(m_pInfo, L"not a guid"), 0);
}

}  // namespace
