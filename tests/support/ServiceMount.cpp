#include "support/ServiceMount.h"

#include "filterdriver/ZR_FilterDriver.h"
#include "mount/ZR.h"
#include "support/ErrorText.h"

namespace fs = std::filesystem;

namespace zrtest {

bool StartService(const fs::path& folder, std::string* pError) {
    std::error_code ec;
    for (const char* szFolder : {"sparse", "maps"}) fs::create_directories(folder / szFolder, ec);
    if (!InitializeZR(0) || !ZR_FilterDriver::IsRunning()) {
        *pError = "InitializeZR started no driver";
        return false;
    }
    if (!ZR::SetVDBFolders((folder / "sparse").wstring().c_str(), (folder / "maps").wstring().c_str())) {
        *pError = "SetVDBFolders: " + ErrorTextNarrow(nullptr);
        return false;
    }
    InitializeIOOperations(folder.wstring().c_str());
    return true;
}

void StopService() {
    ZR::UninitializeForExit();
    ZR_FilterDriver::Stop();
    ZR::SetVDBFolders(L"", L"");
}

ServiceMount::~ServiceMount() {
    if (m_pInfo) FreeMountInfo(m_pInfo);
}

bool ServiceMount::Fail(const std::string& strWhy) {
    m_strError = strWhy;
    return false;
}

bool ServiceMount::Mount(const MountRequest& request) {
    m_pInfo = AllocateMountInfo();
    BuildBackupInfoFromSet(m_pInfo, 1, request.iDataSet, nullptr, nullptr);
    for (const fs::path& f : request.full) AddBackupSetFilename(m_pInfo, L"Full", f.wstring().c_str());
    if (!request.diff.empty()) BuildBackupInfoFromSet(m_pInfo, 2, 1, nullptr, nullptr);
    for (const fs::path& f : request.diff) AddBackupSetFilename(m_pInfo, L"Diff", f.wstring().c_str());
    for (const fs::path& f : request.logs) {
        BuildBackupInfoFromSet(m_pInfo, 3, 1, nullptr, nullptr);
        AddBackupSetFilename(m_pInfo, L"Log", f.wstring().c_str());
    }
    SetTargetDatabase(m_pInfo, L"Copy");
    SetFilterDrive(m_pInfo, L"C:\\");
    if (request.wszStop && !SetStop(m_pInfo, request.wszStop))
        return Fail("SetStop refuses " + Narrow(request.wszStop));
    if (request.wszWith) AddWith(m_pInfo, 1, request.wszWith);
    if (request.wszGuid && SetGuid(m_pInfo, request.wszGuid) != 0) return Fail("SetGuid refuses the GUID");
    wchar_t wszKey[300] = {};
    const bool bMounted = WrapMount(m_pInfo, wszKey, 299);
    m_strKey = wszKey;
    return bMounted || Fail("WrapMount: " + ErrorTextNarrow(wszKey) + ErrorTextNarrow(nullptr));
}

bool ServiceMount::Restore(SqlServerEmulator& sql) {
    for (int i = 0; i < GetNumSQL(m_pInfo); ++i) {
        std::vector<wchar_t> text(static_cast<size_t>(GetSQLSize(m_pInfo, i)) + 64, L'\0');
        GetSQL(m_pInfo, i, text.data(), static_cast<unsigned>(text.size() - 1));
        if (!sql.Restore(text.data()))
            return Fail("statement " + std::to_string(i) + ": " + sql.Error() + "\n" + Narrow(text.data()));
    }
    return sql.OpenDataFiles() || Fail(sql.Error());
}

}  // namespace zrtest
