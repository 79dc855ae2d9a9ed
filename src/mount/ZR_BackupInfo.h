// One backup of a mount request: its kind, the data set inside its files,
// its password key and its files in stripe order. Plain data, filled and read
// by one thread at a time.
#pragma once

#include <cstdint>

#include "foundation/AP.h"
#include "foundation/ZR_Types.h"

class ZR_BackupInfo {
public:
    ZR_BackupInfo(ZR_BackupType_e eType, int iDataSet);
    ~ZR_BackupInfo();
    ZR_BackupInfo(const ZR_BackupInfo&) = delete;
    ZR_BackupInfo& operator=(const ZR_BackupInfo&) = delete;

    int GetNumFileNames() { return static_cast<int>(m_aFileNames); }
    // An index outside the files is the array's bound failure.
    wchar_t* GetFileName(int i) { return m_aFileNames(i); }
    // Each keeps a heap copy of its argument.
    void NewFileName(const wchar_t* wszFileName);
    void SetPasswordKey(const wchar_t* wszPasswordKey);
    void SetPasswordKeyEncrypted(bool bEncrypted) { m_bPasswordKeyEncrypted = bEncrypted; }

    ZR_BackupType_e m_eType;
    int32_t m_iDataSet;
    wchar_t* m_wszPasswordKey = nullptr;  // owned; null: no password
    bool m_bPasswordKeyEncrypted = false;  // the key is encrypted, not the key itself
    AP<wchar_t> m_aFileNames;              // owned copies
};
