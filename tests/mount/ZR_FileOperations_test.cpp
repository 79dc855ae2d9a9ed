// What BackupFileInfo tells of real backups without mounting them, checked
// against the manifest that other tools wrote beside the backups.
#include <gtest/gtest.h>

#include <cwchar>

#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"
#include "mount/ZR.h"
#include "support/Manifest.h"
#include "support/TestData.h"
#include "zirlane/zirlane.h"

namespace {

TEST(BackupFileInfo, TellsTheBackendAndTypeOfEachBackup) {
    ZR_REQUIRE_TESTDATA();
    zrtest::TempDir maps;
    std::wcsncpy(g_wszMapFilesFolder, maps.path().wstring().c_str(), MAX_PATH - 1);
    InitializeZR(0);
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
    ZR_ClearErrors(nullptr);
    g_wszMapFilesFolder[0] = 0;
}

}  // namespace
