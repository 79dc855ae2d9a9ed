#include "mount/ZR_BackupInfo.h"

#include <cstdlib>

#include "engine/OwnedString.h"

ZR_BackupInfo::ZR_BackupInfo(ZR_BackupType_e eType, int iDataSet) : m_eType(eType), m_iDataSet(iDataSet) {}

ZR_BackupInfo::~ZR_BackupInfo() { free(m_wszPasswordKey); }

void ZR_BackupInfo::NewFileName(const wchar_t* wszFileName) {
    if (wszFileName) m_aFileNames.Append(_wcsdup(wszFileName));
}

void ZR_BackupInfo::SetPasswordKey(const wchar_t* wszPasswordKey) {
    ReplaceOwnedString(&m_wszPasswordKey, wszPasswordKey);
}
