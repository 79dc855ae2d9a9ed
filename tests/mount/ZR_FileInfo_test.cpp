// The grammar of virtual file names, on the names the driver and SQL Server
// see: the folder, the scheme, the number and extension, and the mount key
// each scheme makes of its body.
#include "mount/ZR_FileInfo.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

struct NameCase {
    const wchar_t* wszName;
    int32_t iScheme;
    int32_t iKind;
    int64_t iNumber;
    const wchar_t* wszFolder;
    const wchar_t* wszKey;
};

TEST(FileNames, EachSchemeGivesItsKeyFolderNumberAndKind) {
    const NameCase cases[] = {
        {L"C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.bxk", ZR_FILE_GUID, 11, 7, L"C:",
         L"GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB"},
        // Small letters give the same key; the extension is known in any case.
        {L"c:\\guid=5a1c77e0-1234-4abc-9def-00112233aabb!7.BXK", ZR_FILE_GUID, 11, 7, L"c:",
         L"GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB"},
        {L"\\\\host\\share\\dir\\sub\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.bxk", ZR_FILE_GUID, 11, 7,
         L"\\\\host\\share\\dir\\sub", L"GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB"},
        {L"D:\\b\\Backups=Sales!FULL,DIFF,LOG1!1.bxk", ZR_FILE_BACKUPS, 11, 1, L"D:\\b",
         L"Backups=Sales!FULL,DIFF,LOG1"},
        {L"D:/b/Backups=p1!!!Sales!FULL!2.mxf", ZR_FILE_BACKUPS, 2, 2, L"D:\\b", L"Backups=Sales!FULL"},
        {L"C:\\Debug=case!12!3.ndf", ZR_FILE_DEBUG, 4, 3, L"C:", L"Debug=case!12"},
        {L"C:\\VDB=srv!inst!part3!Sales!LSN=25-62-170!1.mdf", ZR_FILE_VDB, 1, 1, L"C:",
         L"VDB=srv!inst!part3!Sales!LSN=25-62-170"},
        {L"C:\\VDB=srv!!!Sales!LSN=now!2.ldf", ZR_FILE_VDB, 7, 2, L"C:", L"VDB=srv!!!Sales!LSN=0-0-0"},
        // A body that does not fit its scheme leaves the key empty.
        {L"C:\\GUID=not-a-guid!7.bxk", ZR_FILE_GUID, 11, 7, L"C:", L""},
        {L"C:\\Stop=anything!4.kxlp", ZR_FILE_STOP, 13, 4, L"C:", L""},
        {L"C:\\Other=x!4.mcf", 0, 0, 4, L"C:", L""},
        {L"C:\\dir\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!4000000000.bxk", ZR_FILE_GUID, 11, 4000000000,
         L"C:\\dir", L"GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB"},
    };
    for (const NameCase& c : cases) {
        std::unique_ptr<ZR_FileInfo> pInfo(ParseFileName(c.wszName));
        ASSERT_NE(pInfo, nullptr) << testing::PrintToString(std::wstring(c.wszName));
        EXPECT_EQ(pInfo->m_eScheme, c.iScheme) << testing::PrintToString(std::wstring(c.wszName));
        EXPECT_EQ(pInfo->m_eFileKind, c.iKind) << testing::PrintToString(std::wstring(c.wszName));
        EXPECT_EQ(pInfo->m_iFileNumber, c.iNumber) << testing::PrintToString(std::wstring(c.wszName));
        EXPECT_EQ(std::wstring(pInfo->m_strFolder), c.wszFolder) << testing::PrintToString(std::wstring(c.wszName));
        EXPECT_EQ(std::wstring(pInfo->m_strMountKey), c.wszKey) << testing::PrintToString(std::wstring(c.wszName));
    }
}

TEST(FileNames, ThePartsOfTheLongFormsAndTheLsn) {
    std::unique_ptr<ZR_FileInfo> pVdb(ParseFileName(L"C:\\VDB=srv!inst!part3!Sales!LSN=25-62-170!1.mdf"));
    ASSERT_NE(pVdb, nullptr);
    EXPECT_EQ(std::wstring(pVdb->m_strPart1), L"srv");
    EXPECT_EQ(std::wstring(pVdb->m_strPart2), L"inst");
    EXPECT_EQ(std::wstring(pVdb->m_strPart3), L"part3");
    EXPECT_EQ(std::wstring(pVdb->m_strName), L"Sales");
    EXPECT_EQ(pVdb->m_lsn.SeqNo, 25u);
    EXPECT_EQ(pVdb->m_lsn.blockOffset, 62u);
    EXPECT_EQ(pVdb->m_lsn.slotId, 170);

    std::unique_ptr<ZR_FileInfo> pDebug(ParseFileName(L"C:\\Debug=case!12!3.ndf"));
    ASSERT_NE(pDebug, nullptr);
    EXPECT_EQ(pDebug->m_iDebugNumber, 12);
}

TEST(FileNames, ABackupsNameListsItsRealFiles) {
    std::unique_ptr<ZR_FileInfo> pInfo(ParseFileName(L"D:\\b\\Backups=Sales!FULL,DIFF,LOG1!1.bxk"));
    ASSERT_NE(pInfo, nullptr);
    std::vector<std::wstring> files;
    for (int i = 0; i < static_cast<int>(pInfo->m_aBackupFiles); ++i) files.push_back(pInfo->m_aBackupFiles(i));
    EXPECT_EQ(files, (std::vector<std::wstring>{L"D:\\b\\Sales!FULL.bak", L"D:\\b\\Sales!DIFF.bak",
                                                L"D:\\b\\Sales!LOG1.bak"}));
}

TEST(FileNames, NamesWithoutPathSchemeOrTailDoNotParse) {
    for (const wchar_t* wszName : {L"C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB.bxk",   // no !number
                                   L"C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7",     // no extension
                                   L"GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.bxk",     // no folder
                                   L"C:\\5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.bxk",      // no scheme
                                   L"\\\\host\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.bxk"})  // no share
        EXPECT_EQ(std::unique_ptr<ZR_FileInfo>(ParseFileName(wszName)), nullptr)
            << testing::PrintToString(std::wstring(wszName));
    EXPECT_EQ(ParseFileName(nullptr), nullptr);
}

}  // namespace
