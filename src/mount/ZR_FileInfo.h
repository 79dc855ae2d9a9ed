// A parsed virtual file name: which mount it belongs to and which file of
// it. Made by the name parser, deleted by its caller.
#pragma once

#include <cstdint>

#include "foundation/AP.h"
#include "foundation/XString.h"
#include "foundation/ZR_Types.h"
#include "platform/win32.h"

enum ZR_FileScheme_e : int32_t {
    ZR_FILE_UNKNOWN = 0,
    ZR_FILE_BACKUPS = 1,
    ZR_FILE_DEBUG = 2,
    ZR_FILE_GUID = 3,
    ZR_FILE_VDB = 4,
    ZR_FILE_STOP = 5,
};

class ZR_FileInfo {
public:
    int32_t m_eFileKind = 0;  // by extension; 0 for an unknown one
    int32_t m_eScheme = ZR_FILE_UNKNOWN;
    GUID m_Guid = GUID_NULL;  // of a GUID name
    LSN m_lsn = {0, 0, 0};    // of a VDB name
    int32_t m_iDebugNumber = 0;
    int64_t m_iFileNumber = 0;  // virtual file id of a .bxk name, else the SQL Server file number
    XString<wchar_t> m_strMountKey;
    XString<wchar_t> m_strFolder;
    XString<wchar_t> m_strPart1;
    XString<wchar_t> m_strPart2;
    XString<wchar_t> m_strName;
    XString<wchar_t> m_strPart3;
    AP<wchar_t> m_aBackupFiles;  // the real files a Backups name stands for
};
