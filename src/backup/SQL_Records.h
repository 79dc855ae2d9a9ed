// SQL Server's own records inside a native backup: the configuration records
// of an MQCI stream, the data headers behind a PH6S block and the log header
// of an MSTL block. Versions 7 and 8 write the short layouts (suffix _V7),
// versions 9 and 10 the long ones (suffix _V9), which begin with the short
// layout as their first member; the Size functions pick by version.
//
// Records may be longer than their layout: SQL Server puts the strings that
// the tape addresses point to behind the fixed fields, so a reader follows
// m_size and never the layout's size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "backup/MTF_Records.h"

constexpr uint32_t SQL_ID_SCIN = MTF_MakeId("SCIN");
constexpr uint32_t SQL_ID_SFGI = MTF_MakeId("SFGI");
constexpr uint32_t SQL_ID_SFIN = MTF_MakeId("SFIN");
static_assert(SQL_ID_SFGI == 0x49474653 && SQL_ID_SFIN == 0x4E494653);

// m_backup_type of the configuration record, one ASCII letter.
constexpr uint8_t SQL_BTYPE_INVALID = 0;
constexpr uint8_t SQL_BTYPE_DATABASE = 'D';
constexpr uint8_t SQL_BTYPE_DIFFERENTIAL = 'I';
constexpr uint8_t SQL_BTYPE_LOG = 'L';
constexpr uint8_t SQL_BTYPE_FILE = 'F';
constexpr uint8_t SQL_BTYPE_FILE_DIFFERENTIAL = 'G';
constexpr uint8_t SQL_BTYPE_PARTIAL = 'P';
constexpr uint8_t SQL_BTYPE_PARTIAL_DIFFERENTIAL = 'Q';
constexpr uint8_t SQL_BTYPE_TABLE = 'T';

// SQL_CONFIG_FLAGS, m_flags of the configuration record.
constexpr uint32_t SQL_CF_BULK_LOGGED_DATA = 0x1;
constexpr uint32_t SQL_CF_SNAPSHOT = 0x2;
constexpr uint32_t SQL_CF_READONLY = 0x4;
constexpr uint32_t SQL_CF_SINGLE_USER = 0x8;
constexpr uint32_t SQL_CF_CHECKSUM = 0x10;
constexpr uint32_t SQL_CF_DAMAGED = 0x20;
constexpr uint32_t SQL_CF_TAIL_OF_LOG = 0x40;
constexpr uint32_t SQL_CF_TAIL_OFFLINE = 0x80;
constexpr uint32_t SQL_CF_FAILOVER = 0x100;
constexpr uint32_t SQL_CF_LOG_IN_BACKUP = 0x200;
constexpr uint32_t SQL_CF_COPY_ONLY = 0x400;
constexpr uint32_t SQL_CF_SINGLE_BASE_DIFF = 0x800;
constexpr uint32_t SQL_CF_CONTAINER_ID_UNCERTAIN = 0x1000;

// SQL_FILE_FLAG, m_flags of a file record.
constexpr uint32_t SQL_FILE_INDEPENDENT = 0x1;
constexpr uint32_t SQL_FILE_IMPLICIT = 0x2;
constexpr uint32_t SQL_FILE_PRESENT = 0x4;
constexpr uint32_t SQL_FILE_PERCENT_GROWTH = 0x8;
constexpr uint32_t SQL_FILE_DEFUNCT = 0x10;
constexpr uint32_t SQL_FILE_DROPPED = 0x20;

// SQL_FILE_TYPE, m_file_type of a file record.
constexpr uint32_t SQL_FILE_UNKNOWN = 0;
constexpr uint32_t SQL_FILE_DATABASE = 1;
constexpr uint32_t SQL_FILE_PHYSICAL_LOG = 2;
constexpr uint32_t SQL_FILE_LOGICAL_LOG = 3;
constexpr uint32_t SQL_FILE_FULLTEXT_ROOT = 6;
constexpr uint32_t SQL_FILE_FSTREAM_ROOT = 7;
constexpr uint32_t SQL_FILE_FSTREAM_LOG = 8;

// Page types that the backup code looks at in a page header.
constexpr uint8_t UNALLOCATED = 0;
constexpr uint8_t GAM_PAGE = 8;
constexpr uint8_t SGAM_PAGE = 9;
constexpr uint8_t IAM_PAGE = 10;
constexpr uint8_t PFS_PAGE = 11;
constexpr uint8_t BOOT_PAGE = 13;
constexpr uint8_t FILEHEADER_PAGE = 15;
constexpr uint8_t DUMP_HEADER_PAGE = 100;
constexpr uint8_t DUMP_TRAILER_PAGE = 101;
constexpr uint8_t UNDOFILE_HEADER_PAGE = 102;

// The server versions whose layouts this library knows.
constexpr int SQL_VERSION_MIN = 7;
constexpr int SQL_VERSION_MAX = 10;

#pragma pack(push, 1)

struct SQL_HEADER {
    char m_type[4];   // SCIN, SFGI or SFIN
    uint32_t m_size;  // whole record, header included
};

struct SQL_RECOVERY_FORK_NAME {
    LSN m_lsn;
    uint16_t m_reserved;
    MTF_UUID m_guid;
};

struct SQL_RECOVERY_FORK_STACK {
    SQL_RECOVERY_FORK_NAME m_stack[2];
};

struct TDSCOLLATION {
    uint32_t dwWCID;
    uint8_t bSortid;
};

// The configuration record (SCIN), versions 7 and 8.
struct SQL_CONFIG_INFO_V7 {
    SQL_HEADER m_hdr;
    uint32_t m_flags;
    uint32_t m_database_file_count;
    uint32_t m_log_file_count;
    uint32_t m_next_id;
    uint32_t m_server_version;  // major version in the top 8 bits
    uint32_t m_processor;
    LSN m_first_lsn;
    LSN m_last_lsn;
    LSN m_checkpoint_lsn;
    LSN m_differential_base_lsn;
    MTF_DATE_TIME m_creation_date;
    MTF_DATE_TIME m_backup_start;
    MTF_DATE_TIME m_backup_finish;
    uint8_t m_backup_type;
    uint8_t m_sort_order;
    uint8_t m_sort_order_status;
    uint8_t m_code_page;
    uint8_t m_compatibility_level;
    uint16_t m_database_id;
    uint16_t m_database_version;
    uint64_t m_backup_size;
    MTF_TAPE_ADDRESS m_database_name;
    MTF_TAPE_ADDRESS m_server_name;
    uint32_t m_minimum_restart_page;
    uint32_t m_unicode_locale;
    uint32_t m_unicode_compare_flags;
    MTF_UUID m_binding_id;
    uint32_t m_file_generation;
    SQL_RECOVERY_FORK_STACK m_recovery_fork_name_stack;
    MTF_UUID m_differential_base_guid;
    TDSCOLLATION m_collation_id;
    uint8_t m_pad[3];
    MTF_UUID m_database_family_id;
};

// The configuration record, versions 9 and 10.
struct SQL_CONFIG_INFO_V9 {
    SQL_CONFIG_INFO_V7 m_base;
    uint32_t m_maxTransferSize;
    uint32_t m_database_status;
    LSN m_LogChainOrigin;
    uint16_t m_LogChainPad;
    LSN m_SingleDiffBaseLsn;
    uint16_t m_SingleBaseLsnPad;
    MTF_UUID m_SingleDiffBaseGuid;
    uint8_t m_Unused[16];
    SQL_RECOVERY_FORK_NAME m_RestorePathOrigin;
    LSN m_OldestActiveBackupLsn;
    uint16_t m_OABLSNPad;
};

// A filegroup record (SFGI), versions 7 and 8.
struct SQL_FILEGROUP_INFO_V7 {
    SQL_HEADER m_hdr;
    uint32_t m_status;
    uint16_t m_group_id;
    uint16_t m_allocation_policy;
    MTF_TAPE_ADDRESS m_group_name;
};

// A filegroup record, versions 9 and 10.
struct SQL_FILEGROUP_INFO_V9 {
    SQL_FILEGROUP_INFO_V7 m_base;
    uint8_t m_ContentType;
    uint8_t m_Pad[3];
    MTF_UUID m_Guid;
    uint32_t m_Flags;
    uint32_t m_LogGroupId;
};

// A file record (SFIN), versions 7 and 8.
struct SQL_FILE_INFO_V7 {
    SQL_HEADER m_hdr;
    uint32_t m_flags;  // SQL_FILE_FLAG
    uint32_t m_file_header_size;
    uint32_t m_page_size;
    uint32_t m_file_number;  // the file id of page ids
    uint32_t m_backed_up_page_count;
    uint32_t m_file_type;  // SQL_FILE_TYPE
    uint32_t m_source_file_block_size;
    uint16_t m_group_id;
    uint16_t m_reserved1;
    uint64_t m_file_size;  // bytes
    MTF_TAPE_ADDRESS m_logical_name;
    MTF_TAPE_ADDRESS m_physical_name;
    LSN m_first_create_index_lsn;
    LSN m_first_nonlogged_lsn;
    LSN m_first_update_lsn;
    uint64_t m_file_max_size;
    uint64_t m_file_growth;
    LSN m_backup_lsn;
    uint16_t m_reserved2;
    uint64_t m_file_min_size;
    uint64_t m_user_shrink_size;
    uint64_t m_actual_shrink_size;
    LSN m_create_lsn;
    LSN m_drop_lsn;
    LSN m_differential_base_lsn;
    uint8_t m_pad[2];
    MTF_UUID m_differential_base_guid;
};

// A file record, versions 9 and 10. The three 6-byte pads behind the LSNs
// and the one at 356 all carry the name m_pad in the format; they are
// numbered here because a structure cannot repeat a name.
struct SQL_FILE_INFO_V9 {
    SQL_FILE_INFO_V7 m_base;
    MTF_UUID m_unique_id;
    LSN m_firstLsn;
    uint8_t m_pad1[6];
    LSN m_lastLsn;
    uint8_t m_pad2[6];
    LSN m_checkpointLsn;
    uint8_t m_pad3[6];
    uint64_t m_backed_up_byte_count;
    uint32_t m_logGroupId;
    uint8_t m_undescribed[2];
    uint64_t m_DifferentialBaseTime;
    uint32_t m_ContainerState;
    LSN m_ReadOnlyLsn;
    LSN m_ReadWriteLsn;
    LSN m_ReadOnlyBaseLsn;
    LSN m_LastUpdateLsn;
    LSN m_RedoStartLsn;
    LSN m_RedoTargetLsn;
    LSN m_ForkLsn;
    LSN m_SecondaryBaseLsn;
    uint8_t m_pad4[6];
    uint64_t m_ForkVC;
    GUID m_RedoStartGuid;
    GUID m_RedoTargetGuid;
};

// One of the run of headers behind a PH6S block, each describing a file.
struct BackupDataHeader {
    uint8_t m_headerVersion;
    uint8_t m_type;
    uint16_t m_flags;
    uint32_t m_rootId;  // in the closing header: bytes to step over to leave the run
    uint64_t m_fileLength;
    uint64_t m_fileOffset;
    uint64_t m_creationTime;
    uint64_t m_modificationTime;
    uint32_t m_fileAttributes;
    uint32_t m_metaDataOffset;
    uint32_t m_metaDataLength;
    uint32_t m_dataLength;
    uint32_t m_dataOffset;  // 0 closes the run
    uint16_t m_fileName[226];  // UTF-16 units
};

// The fields that every version's log header starts with.
struct BackupLogHdrHead {
    uint32_t blfh_fSeqNo;
    uint64_t blfh_fileSize;
    uint64_t blfh_startOffset;
    uint16_t blfh_dbfileid;
    uint8_t blfh_parity;
    uint8_t blfh_pad;
};

// The log header of an MSTL block, version 7.
struct BackupLogHdr_V7 {
    BackupLogHdrHead m_head;
    uint8_t blfh_createTime[8];  // SQL Server datetime
};

// The log header of an MSTL block, versions 8 to 10.
struct BackupLogHdr_V8 {
    BackupLogHdrHead m_head;
    LSN blfh_createLSN;
    uint16_t blfh_versionNo;
};

#pragma pack(pop)

static_assert(sizeof(SQL_HEADER) == 8);
ZR_CHECK_FIELD(SQL_HEADER, m_size, 4);

static_assert(sizeof(SQL_RECOVERY_FORK_NAME) == 28 && sizeof(SQL_RECOVERY_FORK_STACK) == 56);
ZR_CHECK_FIELD(SQL_RECOVERY_FORK_NAME, m_reserved, 10);
ZR_CHECK_FIELD(SQL_RECOVERY_FORK_NAME, m_guid, 12);
static_assert(sizeof(TDSCOLLATION) == 5);
ZR_CHECK_FIELD(TDSCOLLATION, bSortid, 4);

static_assert(sizeof(SQL_CONFIG_INFO_V7) == 240);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_flags, 8);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_database_file_count, 12);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_log_file_count, 16);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_next_id, 20);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_server_version, 24);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_processor, 28);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_first_lsn, 32);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_last_lsn, 42);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_checkpoint_lsn, 52);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_differential_base_lsn, 62);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_creation_date, 72);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_backup_start, 77);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_backup_finish, 82);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_backup_type, 87);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_sort_order, 88);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_sort_order_status, 89);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_code_page, 90);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_compatibility_level, 91);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_database_id, 92);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_database_version, 94);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_backup_size, 96);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_database_name, 104);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_server_name, 108);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_minimum_restart_page, 112);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_unicode_locale, 116);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_unicode_compare_flags, 120);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_binding_id, 124);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_file_generation, 140);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_recovery_fork_name_stack, 144);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_differential_base_guid, 200);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_collation_id, 216);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_pad, 221);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V7, m_database_family_id, 224);

static_assert(sizeof(SQL_CONFIG_INFO_V9) == 344);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_maxTransferSize, 240);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_database_status, 244);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_LogChainOrigin, 248);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_LogChainPad, 258);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_SingleDiffBaseLsn, 260);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_SingleBaseLsnPad, 270);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_SingleDiffBaseGuid, 272);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_Unused, 288);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_RestorePathOrigin, 304);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_OldestActiveBackupLsn, 332);
ZR_CHECK_FIELD(SQL_CONFIG_INFO_V9, m_OABLSNPad, 342);

static_assert(sizeof(SQL_FILEGROUP_INFO_V7) == 20 && sizeof(SQL_FILEGROUP_INFO_V9) == 48);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V7, m_status, 8);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V7, m_group_id, 12);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V7, m_allocation_policy, 14);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V7, m_group_name, 16);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V9, m_ContentType, 20);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V9, m_Pad, 21);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V9, m_Guid, 24);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V9, m_Flags, 40);
ZR_CHECK_FIELD(SQL_FILEGROUP_INFO_V9, m_LogGroupId, 44);

static_assert(sizeof(SQL_FILE_INFO_V7) == 186);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_flags, 8);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_file_header_size, 12);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_page_size, 16);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_file_number, 20);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_backed_up_page_count, 24);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_file_type, 28);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_source_file_block_size, 32);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_group_id, 36);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_reserved1, 38);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_file_size, 40);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_logical_name, 48);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_physical_name, 52);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_first_create_index_lsn, 56);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_first_nonlogged_lsn, 66);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_first_update_lsn, 76);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_file_max_size, 86);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_file_growth, 94);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_backup_lsn, 102);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_reserved2, 112);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_file_min_size, 114);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_user_shrink_size, 122);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_actual_shrink_size, 130);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_create_lsn, 138);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_drop_lsn, 148);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_differential_base_lsn, 158);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_pad, 168);
ZR_CHECK_FIELD(SQL_FILE_INFO_V7, m_differential_base_guid, 170);

static_assert(sizeof(SQL_FILE_INFO_V9) == 402);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_unique_id, 186);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_firstLsn, 202);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_pad1, 212);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_lastLsn, 218);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_pad2, 228);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_checkpointLsn, 234);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_pad3, 244);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_backed_up_byte_count, 250);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_logGroupId, 258);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_undescribed, 262);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_DifferentialBaseTime, 264);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_ContainerState, 272);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_ReadOnlyLsn, 276);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_ReadWriteLsn, 286);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_ReadOnlyBaseLsn, 296);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_LastUpdateLsn, 306);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_RedoStartLsn, 316);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_RedoTargetLsn, 326);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_ForkLsn, 336);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_SecondaryBaseLsn, 346);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_pad4, 356);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_ForkVC, 362);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_RedoStartGuid, 370);
ZR_CHECK_FIELD(SQL_FILE_INFO_V9, m_RedoTargetGuid, 386);

static_assert(sizeof(BackupDataHeader) == 512);
ZR_CHECK_FIELD(BackupDataHeader, m_type, 1);
ZR_CHECK_FIELD(BackupDataHeader, m_flags, 2);
ZR_CHECK_FIELD(BackupDataHeader, m_rootId, 4);
ZR_CHECK_FIELD(BackupDataHeader, m_fileLength, 8);
ZR_CHECK_FIELD(BackupDataHeader, m_fileOffset, 16);
ZR_CHECK_FIELD(BackupDataHeader, m_creationTime, 24);
ZR_CHECK_FIELD(BackupDataHeader, m_modificationTime, 32);
ZR_CHECK_FIELD(BackupDataHeader, m_fileAttributes, 40);
ZR_CHECK_FIELD(BackupDataHeader, m_metaDataOffset, 44);
ZR_CHECK_FIELD(BackupDataHeader, m_metaDataLength, 48);
ZR_CHECK_FIELD(BackupDataHeader, m_dataLength, 52);
ZR_CHECK_FIELD(BackupDataHeader, m_dataOffset, 56);
ZR_CHECK_FIELD(BackupDataHeader, m_fileName, 60);

static_assert(sizeof(BackupLogHdrHead) == 24);
ZR_CHECK_FIELD(BackupLogHdrHead, blfh_fileSize, 4);
ZR_CHECK_FIELD(BackupLogHdrHead, blfh_startOffset, 12);
ZR_CHECK_FIELD(BackupLogHdrHead, blfh_dbfileid, 20);
ZR_CHECK_FIELD(BackupLogHdrHead, blfh_parity, 22);
ZR_CHECK_FIELD(BackupLogHdrHead, blfh_pad, 23);
static_assert(sizeof(BackupLogHdr_V7) == 32 && sizeof(BackupLogHdr_V8) == 36);
ZR_CHECK_FIELD(BackupLogHdr_V7, blfh_createTime, 24);
ZR_CHECK_FIELD(BackupLogHdr_V8, blfh_createLSN, 24);
ZR_CHECK_FIELD(BackupLogHdr_V8, blfh_versionNo, 34);

// ---------------------------------------------------------------------------
// Picking a layout by server version (7 to 10; later versions keep the long
// layouts). 0 for a version before 7.
// ---------------------------------------------------------------------------
uint32_t SQL_ConfigInfoSize(int iVersion);
uint32_t SQL_FilegroupInfoSize(int iVersion);
uint32_t SQL_FileInfoSize(int iVersion);
uint32_t SQL_BackupLogHdrSize(int iVersion);

// The server's major version, the top 8 bits of m_server_version.
inline int SQL_MajorVersion(uint32_t iServerVersion) { return int(iServerVersion >> 24); }

// D, I and L are the kinds of backup the library serves.
bool SQL_IsSupportedBackupType(uint8_t iType);
// The label of a backup type in messages: "Invalid", "File level",
// "File level differential", "Partial", "Partial differential",
// "Table level", "Unknown"; the served kinds give "Database",
// "Differential" and "Log".
const char* SQL_BackupTypeLabel(uint8_t iType);

// ---------------------------------------------------------------------------
// The walk of an MQCI stream.
// ---------------------------------------------------------------------------

// What the library reads of a filegroup record.
struct SQL_FilegroupEntry {
    uint32_t m_iOffset;  // of the record from the start of the stream data
    uint16_t m_iGroupId;
    std::wstring m_wsName;
};

// What the library reads of a file record that is not dropped.
struct SQL_FileEntry {
    uint32_t m_iOffset;  // of the record from the start of the stream data
    uint32_t m_iFlags;
    uint32_t m_iFileId;  // m_file_number
    uint32_t m_iType;    // SQL_FILE_TYPE
    uint32_t m_iBackedUpPages;
    uint16_t m_iGroupId;
    uint64_t m_iSize;  // bytes
    LSN m_differentialBaseLsn;
    std::wstring m_wsLogicalName;
    std::wstring m_wsPhysicalName;
};

// The configuration of one MQCI stream (of an MSCI or an MSLS block), read
// once and then only looked at; one object per stream, not shared.
class SQL_ConfigRecords {
public:
    // Walks the iBytes of stream data at p by the m_size of each record: the
    // SCIN first, then the filegroup and file records. Every size is checked
    // against what is left; a record too short for its layout, a tape address
    // outside its record, or a first record that is no SCIN records an error
    // under wszKey and gives false. A zero m_size ends the sequence, as the
    // format has it, except in the first record. Records of other types are
    // stepped over.
    bool Parse(const void* p, size_t iBytes, const wchar_t* wszKey);

    uint32_t m_iConfigOffset = 0;  // of the SCIN in the stream data (always 0)
    uint32_t m_iConfigSize = 0;    // its m_size
    uint32_t m_iFlags = 0;         // SQL_CONFIG_FLAGS
    uint32_t m_iDatabaseFileCount = 0;
    uint32_t m_iLogFileCount = 0;
    uint32_t m_iServerVersion = 0;  // as written; m_iVersion is its top byte
    int m_iVersion = 0;
    uint8_t m_iBackupType = SQL_BTYPE_INVALID;
    LSN m_firstLsn{};
    LSN m_lastLsn{};
    LSN m_checkpointLsn{};
    LSN m_differentialBaseLsn{};
    MTF_DATE_TIME m_backupStart{};
    MTF_DATE_TIME m_backupFinish{};
    std::wstring m_wsDatabaseName;
    std::wstring m_wsServerName;
    std::vector<SQL_FilegroupEntry> m_aFilegroups;
    std::vector<SQL_FileEntry> m_aFiles;

private:
    bool ParseConfig(const uint8_t* p, uint32_t iSize, const wchar_t* wszKey);
    bool ParseFilegroup(const uint8_t* p, uint32_t iOffset, uint32_t iSize, const wchar_t* wszKey);
    bool ParseFile(const uint8_t* p, uint32_t iOffset, uint32_t iSize, const wchar_t* wszKey);
};
