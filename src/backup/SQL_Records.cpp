#include "backup/SQL_Records.h"
#include "foundation/Unaligned.h"

#include <cstring>

#include "diag/ZR_Error.h"

namespace {

constexpr bool IsLongLayout(int iVersion) { return iVersion >= 9; }

// Copies a record's fixed part out of the stream: the stream data has no
// alignment, and the caller has checked that iSize bytes are there.
template <typename T>
T LoadRecord(const uint8_t* p) {
    T rec;
    std::memcpy(&rec, p, sizeof(T));
    return rec;
}

bool CheckRecordSize(uint32_t iSize, uint32_t iNeeded, const char* szType, uint32_t iOffset,
                     const wchar_t* wszKey) {
    if (iSize >= iNeeded) return true;
    ZR_Error(wszKey, __FILE__, "SQL_ConfigRecords::Parse", __LINE__,
             "%hs record at offset %d is %d bytes long, shorter than its %d fixed bytes.\n", szType, int(iOffset),
             int(iSize), int(iNeeded));
    return false;
}

// Strings of the configuration records are always UTF-16.
bool ReadName(const uint8_t* pRecord, uint32_t iSize, const MTF_TAPE_ADDRESS& ta, std::wstring* pws,
              const wchar_t* wszKey) {
    return MTF_ReadString(pRecord, iSize, ta, MTF_UNICODE_STR, pws, wszKey);
}

}  // namespace

uint32_t SQL_ConfigInfoSize(int iVersion) {
    if (iVersion < SQL_VERSION_MIN) return 0;
    return IsLongLayout(iVersion) ? sizeof(SQL_CONFIG_INFO_V9) : sizeof(SQL_CONFIG_INFO_V7);
}

uint32_t SQL_FilegroupInfoSize(int iVersion) {
    if (iVersion < SQL_VERSION_MIN) return 0;
    return IsLongLayout(iVersion) ? sizeof(SQL_FILEGROUP_INFO_V9) : sizeof(SQL_FILEGROUP_INFO_V7);
}

uint32_t SQL_FileInfoSize(int iVersion) {
    if (iVersion < SQL_VERSION_MIN) return 0;
    return IsLongLayout(iVersion) ? sizeof(SQL_FILE_INFO_V9) : sizeof(SQL_FILE_INFO_V7);
}

uint32_t SQL_BackupLogHdrSize(int iVersion) {
    if (iVersion < SQL_VERSION_MIN) return 0;
    return iVersion == 7 ? sizeof(BackupLogHdr_V7) : sizeof(BackupLogHdr_V8);
}

bool SQL_IsSupportedBackupType(uint8_t iType) {
    return iType == SQL_BTYPE_DATABASE || iType == SQL_BTYPE_DIFFERENTIAL || iType == SQL_BTYPE_LOG;
}

const char* SQL_BackupTypeLabel(uint8_t iType) {
    switch (iType) {
        case SQL_BTYPE_INVALID: return "Invalid";
        case SQL_BTYPE_DATABASE: return "Database";
        case SQL_BTYPE_DIFFERENTIAL: return "Differential";
        case SQL_BTYPE_LOG: return "Log";
        case SQL_BTYPE_FILE: return "File level";
        case SQL_BTYPE_FILE_DIFFERENTIAL: return "File level differential";
        case SQL_BTYPE_PARTIAL: return "Partial";
        case SQL_BTYPE_PARTIAL_DIFFERENTIAL: return "Partial differential";
        case SQL_BTYPE_TABLE: return "Table level";
        default: return "Unknown";
    }
}

bool SQL_ConfigRecords::Parse(const void* p, size_t iBytes, const wchar_t* wszKey) {
    m_aFilegroups.clear();
    m_aFiles.clear();
    const uint8_t* pb = static_cast<const uint8_t*>(p);
    size_t iPos = 0;
    bool bFirst = true;
    while (iPos < iBytes) {
        size_t iLeft = iBytes - iPos;
        if (iLeft < sizeof(SQL_HEADER)) {
            ZR_Error(wszKey, __FILE__, "SQL_ConfigRecords::Parse", __LINE__,
                     "Configuration stream ends in a record header at offset %d.\n", int(iPos));
            return false;
        }
        const uint8_t* pRec = pb + iPos;
        uint32_t iType = ZR_Load<uint32_t>(pRec);
        uint32_t iSize = ZR_Load<uint32_t>(pRec + offsetof(SQL_HEADER, m_size));
        if (iSize == 0 && !bFirst) break;
        if (iSize < sizeof(SQL_HEADER) || iSize > iLeft) {
            ZR_Error(wszKey, __FILE__, "SQL_ConfigRecords::Parse", __LINE__,
                     "Configuration record at offset %d has a size of %u; %d bytes are left.\n", int(iPos), iSize,
                     int(iLeft));
            return false;
        }
        bool bOk = true;
        if (bFirst) {
            bOk = ParseConfig(pRec, iSize, wszKey);
        } else if (iType == SQL_ID_SFGI) {
            bOk = ParseFilegroup(pRec, uint32_t(iPos), iSize, wszKey);
        } else if (iType == SQL_ID_SFIN) {
            bOk = ParseFile(pRec, uint32_t(iPos), iSize, wszKey);
        }
        if (!bOk) return false;
        bFirst = false;
        iPos += iSize;
    }
    if (bFirst) {
        ZR_Error(wszKey, __FILE__, "SQL_ConfigRecords::Parse", __LINE__, "Configuration stream is empty.\n");
        return false;
    }
    return true;
}

bool SQL_ConfigRecords::ParseConfig(const uint8_t* p, uint32_t iSize, const wchar_t* wszKey) {
    if (ZR_Load<uint32_t>(p) != SQL_ID_SCIN) {
        ZR_Error(wszKey, __FILE__, "SQL_ConfigRecords::Parse", __LINE__,
                 "Configuration stream does not start with an SCIN record.\n");
        return false;
    }
    // The short layout holds the version, which tells whether the long one applies.
    if (!CheckRecordSize(iSize, sizeof(SQL_CONFIG_INFO_V7), "SCIN", 0, wszKey)) return false;
    const SQL_CONFIG_INFO_V7 ci = LoadRecord<SQL_CONFIG_INFO_V7>(p);
    int iVersion = SQL_MajorVersion(ci.m_server_version);
    if (iVersion < SQL_VERSION_MIN) {
        ZR_Error(wszKey, __FILE__, "SQL_ConfigRecords::Parse", __LINE__,
                 "Backup of server version %d is not supported.\n", iVersion);
        return false;
    }
    if (!CheckRecordSize(iSize, SQL_ConfigInfoSize(iVersion), "SCIN", 0, wszKey)) return false;
    if (!ReadName(p, iSize, ci.m_database_name, &m_wsDatabaseName, wszKey)) return false;
    if (!ReadName(p, iSize, ci.m_server_name, &m_wsServerName, wszKey)) return false;
    m_iConfigOffset = 0;
    m_iConfigSize = iSize;
    m_iFlags = ci.m_flags;
    m_iDatabaseFileCount = ci.m_database_file_count;
    m_iLogFileCount = ci.m_log_file_count;
    m_iServerVersion = ci.m_server_version;
    m_iVersion = iVersion;
    m_iBackupType = ci.m_backup_type;
    m_firstLsn = ci.m_first_lsn;
    m_lastLsn = ci.m_last_lsn;
    m_checkpointLsn = ci.m_checkpoint_lsn;
    m_differentialBaseLsn = ci.m_differential_base_lsn;
    m_backupStart = ci.m_backup_start;
    m_backupFinish = ci.m_backup_finish;
    return true;
}

bool SQL_ConfigRecords::ParseFilegroup(const uint8_t* p, uint32_t iOffset, uint32_t iSize, const wchar_t* wszKey) {
    if (!CheckRecordSize(iSize, SQL_FilegroupInfoSize(m_iVersion), "SFGI", iOffset, wszKey)) return false;
    const SQL_FILEGROUP_INFO_V7 gi = LoadRecord<SQL_FILEGROUP_INFO_V7>(p);
    SQL_FilegroupEntry entry{iOffset, gi.m_group_id, {}};
    if (!ReadName(p, iSize, gi.m_group_name, &entry.m_wsName, wszKey)) return false;
    m_aFilegroups.push_back(std::move(entry));
    return true;
}

bool SQL_ConfigRecords::ParseFile(const uint8_t* p, uint32_t iOffset, uint32_t iSize, const wchar_t* wszKey) {
    if (!CheckRecordSize(iSize, SQL_FileInfoSize(m_iVersion), "SFIN", iOffset, wszKey)) return false;
    const SQL_FILE_INFO_V7 fi = LoadRecord<SQL_FILE_INFO_V7>(p);
    // Dropped files are gone from the database: nothing is restored for them.
    if (fi.m_flags & SQL_FILE_DROPPED) return true;
    SQL_FileEntry entry{};
    entry.m_iOffset = iOffset;
    entry.m_iFlags = fi.m_flags;
    entry.m_iFileId = fi.m_file_number;
    entry.m_iType = fi.m_file_type;
    entry.m_iBackedUpPages = fi.m_backed_up_page_count;
    entry.m_iGroupId = fi.m_group_id;
    entry.m_iSize = fi.m_file_size;
    entry.m_differentialBaseLsn = fi.m_differential_base_lsn;
    if (!ReadName(p, iSize, fi.m_logical_name, &entry.m_wsLogicalName, wszKey)) return false;
    if (!ReadName(p, iSize, fi.m_physical_name, &entry.m_wsPhysicalName, wszKey)) return false;
    m_aFiles.push_back(std::move(entry));
    return true;
}
