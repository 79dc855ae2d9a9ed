#include "support/LibraryTest.h"

#include <cstdlib>
#include <cwchar>

#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;

namespace zrtest {

void LibraryTest::SetUp() {
    InitializeZR(0);
    ZR::UninitializeForExit();
    ZR_ClearErrors(nullptr);
    fs::create_directories(Maps());
    std::wcsncpy(g_wszMapFilesFolder, Maps().wstring().c_str(), MAX_PATH - 1);
}

void LibraryTest::TearDown() {
    ZR::UninitializeForExit();
    g_wszMapFilesFolder[0] = 0;
    for (ZR_MountInfo* pInfo : m_aInfos) {
        if (pInfo->GetMountKey())
            ZR_ClearErrors(pInfo->GetMountKey());
        FreeMountInfo(pInfo);
    }
    ZR_ClearErrors(nullptr);
}

ZR_MountInfo* LibraryTest::NewRequest() {
    m_aInfos.push_back(AllocateMountInfo());
    return m_aInfos.back();
}

ZR_MountInfo* LibraryTest::Request(const std::vector<fs::path>& full, const std::vector<fs::path>& diff,
                                   const std::vector<std::vector<fs::path>>& logs, int iFullSet) {
    ZR_MountInfo* pInfo = NewRequest();
    auto add = [pInfo](int iType, int iSet, const wchar_t* wszType, const std::vector<fs::path>& files) {
        BuildBackupInfoFromSet(pInfo, iType, iSet, nullptr, nullptr);
        for (const fs::path& f : files)
            AddBackupSetFilename(pInfo, wszType, f.wstring().c_str());
    };
    add(1, iFullSet, L"Full", full);
    if (!diff.empty())
        add(2, 1, L"Diff", diff);
    for (const auto& log : logs)
        add(3, 1, L"Log", log);
    return pInfo;
}

ZR_Database* LibraryTest::Mount(ZR_MountInfo* pInfo, std::wstring* pstrKey) {
    wchar_t* wszKey = nullptr;
    const bool bMounted = ZR::GetZR()->Mount(pInfo, &wszKey);
    const std::wstring strKey = wszKey ? wszKey : L"";
    std::free(wszKey);
    if (pstrKey)
        *pstrKey = strKey;
    return bMounted ? ZR::FindDatabase(strKey.c_str()) : nullptr;
}

}  // namespace zrtest
