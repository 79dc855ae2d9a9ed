// The file operations on real backups: what BackupFileInfo tells without a
// mount, checked against the manifest that other tools wrote beside the
// backups, and what a handle of a mounted view tells: the view's size, and
// the position of the real file turned into the view's.
#include <gtest/gtest.h>

#include "platform/FileCallsTesting.h"
#include "support/LibraryTest.h"
#include "support/Manifest.h"
#include "zirlane/zirlane.h"

namespace {

using FileOperations = zrtest::LibraryTest;

TEST_F(FileOperations, BackupFileInfoTellsTheBackendAndTypeOfEachBackup) {
    ZR_REQUIRE_TESTDATA();
    int iChecked = 0;
    for (const zrtest::ManifestEntry& entry : zrtest::NativeBackups(9, 10)) {
        if (entry.file.rfind("appveyor-lab/RestoreTimeClean/", 0) != 0 || entry.stripes != 1) continue;
        ZR_BackupFileInfo info{0, 99, 1};
        ASSERT_TRUE(ZR::GetZR()->BackupFileInfo(zrtest::TestDataFile(entry.file)->wstring().c_str(), &info))
            << entry.file;
        EXPECT_EQ(info.m_eBackend, static_cast<uint32_t>(ZR_BACKEND_MTF)) << entry.file;
        EXPECT_EQ(info.m_iType, entry.type == 'D' ? 1u : entry.type == 'I' ? 2u : 3u) << entry.file;
        ++iChecked;
    }
    EXPECT_GT(iChecked, 2);
    ZR_BackupFileInfo missing{0, 0, 1};
    EXPECT_FALSE(ZR::GetZR()->BackupFileInfo(L"/nonexistent/backup.bak", &missing));
}

// The position the file calls give for any handle, in this test.
int64_t g_iFilePosition = 0;
DWORD PositionAt(HANDLE, LONG, PLONG plHigh, DWORD) {
    *plHigh = static_cast<LONG>(g_iFilePosition >> 32);
    return static_cast<DWORD>(g_iFilePosition);
}

// A full backup with a differential over it: its view cuts the data and the
// log part. A position in front of a cut stays; one behind it moves down.
TEST_F(FileOperations, AViewsHandleTellsItsSizeAndTheViewsPosition) {
    ZR_REQUIRE_TESTDATA();
    const std::string dir = "appveyor-lab/RestoreTimeClean/";
    ZR_Database* pDB = Mount(Request({*zrtest::TestDataFile(dir + "RestoreTimeClean.bak")},
                                     {*zrtest::TestDataFile(dir + "RestoreTimeClean2.bak")}));
    ASSERT_NE(pDB, nullptr);
    const ZR_VirtualBackupFile& v = *pDB->GetFull()->m_aVirtualFiles(0);
    ASSERT_GT(v.m_iHoleLength, 0);
    ASSERT_GT(v.LogCut(), 0);
    HANDLE h = pDB->GetFull()->GetNextHandle(0);
    FILE_STANDARD_INFO info{};
    ASSERT_TRUE(ZR::GetZR()->VirtualBackupStandardInfo(h, &info));
    EXPECT_EQ(info.EndOfFile.QuadPart, pDB->GetFull()->GetVirtualSize(0));
    EXPECT_EQ(info.AllocationSize.QuadPart, info.EndOfFile.QuadPart);
    EXPECT_EQ(pDB->GetState(), ZR_VDB_STATE_DATA_COPY) << "SQL Server restores from the mount";

    zr::platform::testing::ScopedFileCalls restore;
    zr::platform::testing::ReplaceFileCall(&FileCalls::SetFilePointer, &PositionAt);
    const int64_t iHoleEnd = v.m_iHoleStart + v.m_iHoleLength;
    const std::pair<int64_t, int64_t> cases[] = {
        {v.m_iHoleStart, v.m_iHoleStart},
        {iHoleEnd + 10, v.m_iHoleStart + 10},
        {v.m_iMSLS + 10, v.m_iMSLS + 10 - v.m_iHoleLength - v.LogCut()},
    };
    for (auto [iReal, iView] : cases) {
        g_iFilePosition = iReal;
        LONG iHigh = 0;
        const DWORD iLow = ZR::GetZR()->GetFilePointer(h, &iHigh);
        EXPECT_EQ(int64_t{iHigh} << 32 | iLow, iView) << iReal;
    }
}

}  // namespace
