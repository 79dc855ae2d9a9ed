// One data file of a mount as the driver announced it. Owned by the
// database's table of data files, at the index of its file id.
#pragma once

#include <cstdint>

#include "driver/DriverMessages.h"
#include "platform/win32.h"

class ZR_File {
public:
    // Copies the path, and the uniquifier only when it is set.
    ZR_File(int iKind, uint16_t iFileId, int iSQLVersion, const wchar_t* wszPath, uint32_t iMountFileKey,
            const FileObjectUniquifier& uniquifier);
    ~ZR_File();
    ZR_File(const ZR_File&) = delete;
    ZR_File& operator=(const ZR_File&) = delete;

    // A later association with an unset uniquifier keeps the known one.
    void SetFileHandle(uint32_t iMountFileKey, const FileObjectUniquifier& uniquifier);

    uint32_t m_iMountFileKey = 0;        // 0: no association yet
    FileObjectUniquifier m_Uniquifier = {};
    uint16_t m_iFileId = 0;              // SQL Server's file id, and the index in the table
    uint8_t m_bClosed = 0;               // SQL Server deleted the file
    int32_t m_iKind = 1;
    wchar_t* m_pwszPath = nullptr;       // owned
    CRITICAL_SECTION m_cs;

private:
    void Fini();
};
