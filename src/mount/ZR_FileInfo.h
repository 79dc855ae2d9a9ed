// A parsed virtual file name: which mount it belongs to and which file of
// it. Made by ParseFileName, deleted by its caller.
//
// A virtual file name is a folder (a drive or a UNC share, and any
// directories), a separator, then scheme=body!number.extension:
//
//   Backups=[part1!part2!part3!]name!tag,tag,...   the backups name!tag.bak
//                                                  in the folder
//   Debug=name!test                                a built-in test case
//   GUID=xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx      a mount by its GUID
//   VDB=part1!part2!part3!name!LSN=n-n-n           a mount made under that key
//   Stop=...                                       no mount
//
// The number is the id of a virtual backup file (.bxk) or the SQL Server
// file number of a data file. Parts 2 and 3 may be empty.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/AP.h"
#include "foundation/XString.h"
#include "foundation/ZR_Types.h"
#include "platform/win32.h"

// The kind of a virtual backup file's name (backupio/ZR_IOStats.h names
// all the kinds).
constexpr int32_t ZR_FILE_KIND_BXK = 11;

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
    int32_t m_eFileKind = 0;  // by the extension, any case; 0 for an unknown one or a sparse kind
    int32_t m_eScheme = ZR_FILE_UNKNOWN;
    GUID m_Guid = GUID_NULL;  // of a GUID name
    LSN m_lsn = {0, 0, 0};    // of a VDB name
    int32_t m_iDebugNumber = 0;
    // Virtual file id of a .bxk name (the low 32 bits of the view's handle,
    // so it may pass 2^31), else the SQL Server file number.
    int64_t m_iFileNumber = 0;
    XString<wchar_t> m_strMountKey;
    XString<wchar_t> m_strFolder;
    XString<wchar_t> m_strPart1;
    XString<wchar_t> m_strPart2;
    XString<wchar_t> m_strName;
    XString<wchar_t> m_strPart3;
    AP<wchar_t> m_aBackupFiles;  // the real files a Backups name stands for
};

// The parsed name, or null when the path, the scheme word or the
// "!number.extension" tail is missing. A body that does not fit its scheme
// leaves the record with an empty key; it is still returned. Thread-safe.
ZR_FileInfo* ParseFileName(const wchar_t* wszPath);

// A GUID as keys write it: "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", capitals.
std::wstring ZR_GuidText(const GUID& guid);

// What BackupFileInfo tells of a backup file without mounting it.
struct ZR_BackupFileInfo {
    uint32_t m_eBackend;  // out: ZR_Backend_e
    uint32_t m_iType;     // out: 0 unknown, 1 full, 2 differential, 3 log
    uint32_t m_iDataSet;  // in
};
