#include "mount/ZR_MountInfo.h"

#include <cstdlib>

#include "engine/OwnedString.h"
#include "mount/ZR_StopClause.h"

ZR_MountInfo::ZR_MountInfo() = default;

ZR_MountInfo::~ZR_MountInfo() {
    delete m_pFull;
    delete m_pDiff;
    free(m_wszMountKey);
    free(m_wszFilterDrive);
    free(m_wszTargetInstance);
    free(m_wszTargetDatabase);
    free(m_wszFileAccessUser);
    free(m_wszFileAccessPassword);
}

ZR_BackupInfo* ZR_MountInfo::NewFull(int iDataSet) {
    if (m_pFull) return nullptr;
    return m_pFull = new ZR_BackupInfo(ZR_BACKUP_FULL, iDataSet);
}

ZR_BackupInfo* ZR_MountInfo::NewDiff(int iDataSet) {
    if (m_pDiff) return nullptr;
    return m_pDiff = new ZR_BackupInfo(ZR_BACKUP_DIFF, iDataSet);
}

ZR_BackupInfo* ZR_MountInfo::NewLog(int iDataSet) {
    return m_aLogs.Append(new ZR_BackupInfo(ZR_BACKUP_LOG, iDataSet));
}

bool ZR_MountInfo::SetStop(const wchar_t* wszClause) { return ParseStopClause(wszClause, &m_Stop); }

void ZR_MountInfo::SetMountKey(const wchar_t* wszKey) { ReplaceOwnedString(&m_wszMountKey, wszKey); }

void ZR_MountInfo::SetTargetInstance(const wchar_t* wszInstance) {
    ReplaceOwnedString(&m_wszTargetInstance, wszInstance);
}

void ZR_MountInfo::SetTargetDatabase(const wchar_t* wszDatabase) {
    ReplaceOwnedString(&m_wszTargetDatabase, wszDatabase);
}

void ZR_MountInfo::SetFilterDrive(const wchar_t* wszDrive) { ReplaceOwnedString(&m_wszFilterDrive, wszDrive); }

void ZR_MountInfo::SetFileAccessAccount(const wchar_t* wszUser, const wchar_t* wszPassword) {
    if (wszUser) ReplaceOwnedString(&m_wszFileAccessUser, wszUser);
    if (wszPassword) ReplaceOwnedString(&m_wszFileAccessPassword, wszPassword);
}
