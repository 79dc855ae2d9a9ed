// The exported functions that build a mount request. Each takes the record
// as an opaque pointer; the records come first and their files after them.
#include <cwchar>

#include "mount/ZR_MountInfo.h"
#include "zirlane/zirlane.h"

namespace {

ZR_BackupInfo* NewBackupInfo(ZR_MountInfo* pInfo, int iType) {
    switch (iType) {
        case ZR_BACKUP_FULL: return pInfo->NewFull(0);
        case ZR_BACKUP_DIFF: return pInfo->NewDiff(0);
        case ZR_BACKUP_LOG: return pInfo->NewLog(0);
        default: return nullptr;
    }
}

// The record a file of this type name belongs to; names compare with case.
ZR_BackupInfo* BackupInfoOfTypeName(ZR_MountInfo* pInfo, const wchar_t* wszType) {
    if (wcscmp(wszType, L"Full") == 0) return pInfo->GetFull();
    if (wcscmp(wszType, L"Diff") == 0 || wcscmp(wszType, L"Differential") == 0) return pInfo->GetDiff();
    if (wcscmp(wszType, L"Log") == 0) {
        const int iLogs = pInfo->GetNumberOfLogs();
        return iLogs > 0 ? pInfo->GetLog(iLogs - 1) : nullptr;
    }
    return nullptr;
}

}  // namespace

ZR_API ZR_MountInfo* AllocateMountInfo(void) { return new ZR_MountInfo(); }

ZR_API void FreeMountInfo(ZR_MountInfo* pInfo) { delete pInfo; }

ZR_API bool BuildBackupInfoFromSet(ZR_MountInfo* pInfo, int iType, int iDataSet, const wchar_t* wszPasswordKey,
                                   const wchar_t* wszEncryptedPasswordKey) {
    ZR_BackupInfo* pBackupInfo = NewBackupInfo(pInfo, iType);
    if (!pBackupInfo) return false;
    pBackupInfo->m_iDataSet = iDataSet;
    if (wszPasswordKey) {
        pBackupInfo->SetPasswordKey(wszPasswordKey);
        pBackupInfo->SetPasswordKeyEncrypted(false);
    } else if (wszEncryptedPasswordKey) {
        pBackupInfo->SetPasswordKey(wszEncryptedPasswordKey);
        pBackupInfo->SetPasswordKeyEncrypted(true);
    }
    return true;
}

ZR_API void AddBackupSetFilename(ZR_MountInfo* pInfo, const wchar_t* wszType, const wchar_t* wszFileName) {
    if (!wszType) return;
    if (ZR_BackupInfo* pBackupInfo = BackupInfoOfTypeName(pInfo, wszType)) pBackupInfo->NewFileName(wszFileName);
}

ZR_API void SetMountKey(ZR_MountInfo* pInfo, const wchar_t* wszKey) { pInfo->SetMountKey(wszKey); }

ZR_API void SetTargetDatabase(ZR_MountInfo* pInfo, const wchar_t* wszDatabase) {
    pInfo->SetTargetDatabase(wszDatabase);
}

ZR_API void SetFilterDrive(ZR_MountInfo* pInfo, const wchar_t* wszDrive) { pInfo->SetFilterDrive(wszDrive); }

ZR_API void SetTargetInstance(ZR_MountInfo* pInfo, const wchar_t* wszInstance) {
    const wchar_t* pwszSlash = wszInstance ? wcschr(wszInstance, L'\\') : nullptr;
    pInfo->SetTargetInstance(pwszSlash ? pwszSlash + 1 : wszInstance);
}

ZR_API void SetFileAccessAccount(ZR_MountInfo* pInfo, const wchar_t* wszUser, const wchar_t* wszPassword) {
    pInfo->SetFileAccessAccount(wszUser, wszPassword);
}

ZR_API long SetGuid(ZR_MountInfo* pInfo, const wchar_t* wszGuid) {
    return UuidFromStringW(const_cast<RPC_WSTR>(wszGuid), &pInfo->m_Guid);
}

ZR_API void SetRestart(ZR_MountInfo* pInfo) { pInfo->SetRestart(); }

ZR_API bool SetStop(ZR_MountInfo* pInfo, const wchar_t* wszClause) {
    return wszClause ? pInfo->SetStop(wszClause) : false;
}

ZR_API bool GetDiff(ZR_MountInfo* pInfo) { return pInfo->GetDiff() != nullptr; }

ZR_API bool GetLog(ZR_MountInfo* pInfo, int i) { return pInfo->GetLog(i) != nullptr; }

ZR_API int GetNumberOfLogs(ZR_MountInfo* pInfo) { return pInfo->GetNumberOfLogs(); }
