// The tape format records that SQL Server writes into a native backup: the
// descriptor blocks, the stream headers in front of their data, and the few
// records the blocks and streams carry. Every structure here is the exact
// byte image on the medium (little-endian, packed) so that a buffer read from
// a backup can be looked at in place; the layout checks below keep it so.
//
// Nothing here trusts a length: the helpers take the number of bytes at hand
// and refuse anything that would read past them. Callers that only look at a
// fixed-size header must make sure that many bytes were read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/ZR_Types.h"
#include "platform/win32.h"

// ---------------------------------------------------------------------------
// Identifiers: four ASCII characters compared as one little-endian u32.
// ---------------------------------------------------------------------------
constexpr uint32_t MTF_MakeId(const char (&sz)[5]) {
    return uint32_t(uint8_t(sz[0])) | uint32_t(uint8_t(sz[1])) << 8 | uint32_t(uint8_t(sz[2])) << 16 |
           uint32_t(uint8_t(sz[3])) << 24;
}

// Block types.
constexpr uint32_t MTF_ID_TAPE = MTF_MakeId("TAPE");
constexpr uint32_t MTF_ID_SSET = MTF_MakeId("SSET");
constexpr uint32_t MTF_ID_VOLB = MTF_MakeId("VOLB");
constexpr uint32_t MTF_ID_DIRB = MTF_MakeId("DIRB");
constexpr uint32_t MTF_ID_FILE = MTF_MakeId("FILE");
constexpr uint32_t MTF_ID_CFIL = MTF_MakeId("CFIL");
constexpr uint32_t MTF_ID_ESPB = MTF_MakeId("ESPB");
constexpr uint32_t MTF_ID_ESET = MTF_MakeId("ESET");
constexpr uint32_t MTF_ID_EOTM = MTF_MakeId("EOTM");
constexpr uint32_t MTF_ID_SFMB = MTF_MakeId("SFMB");
constexpr uint32_t MTF_ID_MSCI = MTF_MakeId("MSCI");
constexpr uint32_t MTF_ID_MSDA = MTF_MakeId("MSDA");
constexpr uint32_t MTF_ID_MSTL = MTF_MakeId("MSTL");
constexpr uint32_t MTF_ID_MSLS = MTF_MakeId("MSLS");
constexpr uint32_t MTF_ID_PH6S = MTF_MakeId("PH6S");

// Stream types that the library treats; the other stream identifiers are
// only recognised (MTF_IsStreamId) and stepped over.
constexpr uint32_t MTF_ID_RAID = MTF_MakeId("RAID");
constexpr uint32_t MTF_ID_MQCI = MTF_MakeId("MQCI");
constexpr uint32_t MTF_ID_MQLS = MTF_MakeId("MQLS");
constexpr uint32_t MTF_ID_MQDA = MTF_MakeId("MQDA");
constexpr uint32_t MTF_ID_MQTL = MTF_MakeId("MQTL");
constexpr uint32_t MTF_ID_SPAD = MTF_MakeId("SPAD");
constexpr uint32_t MTF_ID_APAD = MTF_MakeId("APAD");
// Made up by the content map for each data header behind a PH6S block; it is
// never found in a backup, so MTF_IsStreamId does not know it.
constexpr uint32_t MTF_ID_PQ6S = MTF_MakeId("PQ6S");

static_assert(MTF_ID_TAPE == 0x45504154 && MTF_ID_SSET == 0x54455353 && MTF_ID_VOLB == 0x424C4F56);
static_assert(MTF_ID_DIRB == 0x42524944 && MTF_ID_FILE == 0x454C4946 && MTF_ID_CFIL == 0x4C494643);
static_assert(MTF_ID_ESPB == 0x42505345 && MTF_ID_ESET == 0x54455345 && MTF_ID_EOTM == 0x4D544F45);
static_assert(MTF_ID_SFMB == 0x424D4653 && MTF_ID_MSCI == 0x4943534D && MTF_ID_MSDA == 0x4144534D);
static_assert(MTF_ID_MSTL == 0x4C54534D && MTF_ID_MSLS == 0x534C534D && MTF_ID_PH6S == 0x53364850);
static_assert(MTF_ID_RAID == 0x44494152 && MTF_ID_MQCI == 0x4943514D && MTF_ID_MQLS == 0x534C514D);
static_assert(MTF_ID_MQDA == 0x4144514D && MTF_ID_MQTL == 0x4C54514D && MTF_ID_SPAD == 0x44415053);
static_assert(MTF_ID_APAD == 0x44415041 && MTF_ID_PQ6S == 0x53365150);

// True for the 15 block types; anything else at a block position must be a
// stream identifier.
bool MTF_IsBlockId(uint32_t iId);
// True for the 31 stream identifiers; any other value where a block or stream
// is expected is a header the library does not support.
bool MTF_IsStreamId(uint32_t iId);

// ---------------------------------------------------------------------------
// Attribute bits and enumerations of the common header and the blocks.
// ---------------------------------------------------------------------------
constexpr uint32_t MTF_CONTINUATION = 0x1;
constexpr uint32_t MTF_COMPRESSION = 0x4;
constexpr uint32_t MTF_EOS_AT_EOM = 0x8;
constexpr uint32_t MTF_SET_MAP_EXISTS = 0x10000;  // TAPE
constexpr uint32_t MTF_FDD_ALLOWED = 0x20000;     // TAPE
constexpr uint32_t MTF_FDD_EXISTS = 0x10000;      // SSET
constexpr uint32_t MTF_ENCRYPTION = 0x20000;      // SSET
constexpr uint32_t MTF_FDD_ABORTED = 0x10000;     // ESET
constexpr uint32_t MTF_END_OF_FAMILY = 0x20000;   // ESET
constexpr uint32_t MTF_ABORTED_SET = 0x40000;     // ESET
constexpr uint32_t MTF_NO_ESET_PBA = 0x10000;     // EOTM
constexpr uint32_t MTF_INVALID_ESET_PBA = 0x20000;  // EOTM

constexpr uint8_t MTF_NOVELL_SMS = 13;
constexpr uint8_t MTF_WINDOWS_NT = 14;
constexpr uint8_t MTF_DOS_WINDOWS = 24;
constexpr uint8_t MTF_OS2 = 25;
constexpr uint8_t MTF_WINDOWS_95 = 26;
constexpr uint8_t MTF_MACINTOSH = 27;
constexpr uint8_t MTF_UNIX = 28;

constexpr uint8_t MTF_NO_STRINGS = 0;
constexpr uint8_t MTF_ANSI_STR = 1;
constexpr uint8_t MTF_UNICODE_STR = 2;

constexpr uint16_t MTF_NO_MBC = 0;
constexpr uint16_t MTF_MBC_LMO = 1;
constexpr uint16_t MTF_MBC_SLO = 2;
constexpr uint16_t MTF_MBC_3 = 3;

constexpr uint32_t TAPE_SOFT_FILEMARK_BIT = 1;
constexpr uint32_t TAPE_MEDIA_LABEL_BIT = 2;
constexpr uint32_t TAPE_RAID_FAMILY = 4;

constexpr uint32_t VOLB_NO_REDIRECT_RESTORE = 1;
constexpr uint32_t VOLB_NON_VOLUME = 2;
constexpr uint32_t VOLB_DEV_DRIVE = 4;
constexpr uint32_t VOLB_DEV_UNC = 8;
constexpr uint32_t VOLB_DEV_OS_SPEC = 16;
constexpr uint32_t VOLB_DEV_VEND_SPEC = 32;

// m_sset_attributes and m_eset_attributes.
constexpr uint32_t ESET_TRANSFER_BIT = 1;
constexpr uint32_t ESET_COPY_BIT = 2;
constexpr uint32_t ESET_NORMAL_BIT = 4;
constexpr uint32_t ESET_DIFFERENTIAL_BIT = 8;
constexpr uint32_t ESET_INCREMENTAL_BIT = 16;
constexpr uint32_t ESET_DAILY_BIT = 32;

constexpr uint16_t STREAM_MODIFIED_BY_READ = 1;
constexpr uint16_t STREAM_CONTAINS_SECURITY = 2;
constexpr uint16_t STREAM_IS_NON_PORTABLE = 4;
constexpr uint16_t STREAM_IS_SPARSE = 8;

constexpr uint16_t STREAM_CONTINUE = 1;
constexpr uint16_t STREAM_VARIABLE = 2;
constexpr uint16_t STREAM_VAR_END = 4;
constexpr uint16_t STREAM_ENCRYPTED = 8;
constexpr uint16_t STREAM_COMPRESSED = 16;
constexpr uint16_t STREAM_CHECKSUMED = 32;
constexpr uint16_t STREAM_EMBEDDED_LENGTH = 64;
constexpr uint16_t STREAM_VAR_PAD = 128;

constexpr uint32_t MTF_RAID_TYPE = 0xF00000AD;

// Sizes on the medium that the walk and the arithmetic rely on.
constexpr uint32_t MTF_DB_HDR_SIZE = 52;
constexpr uint32_t MTF_STREAM_HDR_SIZE = 22;
constexpr uint32_t MTF_SFMB_ZERO_LENGTH = 0x10000;  // an SFMB whose m_first_event_offset is 0
constexpr uint32_t MTF_SOFT_FILEMARK_UNIT = 512;    // unit of m_soft_filemark_block_size
// The data of MQDA and MQTL streams starts behind a 2-byte prefix that
// m_length counts.
constexpr uint32_t MTF_SQL_DATA_PREFIX = 2;

#pragma pack(push, 1)

// ---------------------------------------------------------------------------
// Small value types.
// ---------------------------------------------------------------------------

// Where a string or variable data lies: its size in bytes and its offset from
// the start of the enclosing block or record.
struct MTF_TAPE_ADDRESS {
    uint16_t m_size;
    uint16_t m_offset;
};

// Five bytes of bit fields from the top bit of the first byte: year 14,
// month 4, day 5, hour 5, minute 6, second 6. All zero means no date.
struct MTF_DATE_TIME {
    uint8_t m_bytes[5];
};

struct MTF_UUID {
    uint8_t m_bytes[16];
};

// ---------------------------------------------------------------------------
// The common block header and the block records.
// ---------------------------------------------------------------------------
struct MTF_DB_HDR {
    char m_dblk_type[4];
    uint32_t m_attributes;
    uint16_t m_first_event_offset;
    uint8_t m_os_id;
    uint8_t m_os_version;
    uint64_t m_displayable_size;
    uint64_t m_format_logical_address;
    uint16_t m_reserved_for_mbc;
    uint8_t m_reserved1[6];
    uint32_t m_control_block_id;
    uint8_t m_reserved2[4];
    MTF_TAPE_ADDRESS m_os_specific_data;
    uint8_t m_string_type;
    uint8_t m_reserved3;
    uint16_t m_header_checksum;
};

struct MTF_TAPE {
    MTF_DB_HDR m_hdr;
    uint32_t m_media_family_id;
    uint32_t m_tape_attributes;
    uint16_t m_media_sequence_number;
    uint16_t m_password_encryption_algorithm;
    uint16_t m_soft_filemark_block_size;
    uint16_t m_mbc_type;
    MTF_TAPE_ADDRESS m_media_name;
    MTF_TAPE_ADDRESS m_media_description;
    MTF_TAPE_ADDRESS m_media_password;
    MTF_TAPE_ADDRESS m_software_name;
    uint16_t m_format_logical_block_size;
    uint16_t m_software_vendor_id;
    MTF_DATE_TIME m_media_date;
    uint8_t m_mtf_major_version;
};

struct MTF_SSET {
    MTF_DB_HDR m_hdr;
    uint32_t m_sset_attributes;
    uint16_t m_password_encryption_algorithm;
    uint16_t m_software_compression_algorithm;
    uint16_t m_software_vendor_id;
    uint16_t m_data_set_number;
    MTF_TAPE_ADDRESS m_data_set_name;
    MTF_TAPE_ADDRESS m_data_set_description;
    MTF_TAPE_ADDRESS m_data_set_password;
    MTF_TAPE_ADDRESS m_user_name;
    uint64_t m_physical_block_address;
    MTF_DATE_TIME m_media_write_date;
    uint8_t m_software_major_version;
    uint8_t m_software_minor_version;
    int8_t m_time_zone;
    uint8_t m_mtf_minor_version;
    uint8_t m_media_catalog_version;
};

struct MTF_VOLB {
    MTF_DB_HDR m_hdr;
    uint32_t m_volb_attributes;
    MTF_TAPE_ADDRESS m_device_name;
    MTF_TAPE_ADDRESS m_volume_name;
    MTF_TAPE_ADDRESS m_machine_name;
    MTF_DATE_TIME m_media_write_date;
};

struct MTF_ESET {
    MTF_DB_HDR m_hdr;
    uint32_t m_eset_attributes;
    uint32_t m_corrupt_file_count;
    uint64_t m_set_map_pba;
    uint64_t m_file_detail_pba;
    uint16_t m_fdd_media_sequence_number;
    uint16_t m_data_set_number;
    MTF_DATE_TIME m_media_write_date;
};

struct MTF_EOTM {
    MTF_DB_HDR m_hdr;
    uint64_t m_last_eset_pba;
};

struct MTF_ESPB {
    MTF_DB_HDR m_hdr;
};

// Soft filemark block as versions 7 to 9 write it: the array of earlier
// filemark offsets starts at block offset 60 and runs to the end of the
// block, newest first.
struct MTF_SFMB {
    MTF_DB_HDR m_hdr;
    uint32_t m_filemark_entry_count;
    uint32_t m_filemark_entries_used;
    uint64_t m_previous_filemarks;  // first entry of the array
};

// Soft filemark block as version 10 writes it: the word at offset 60 holds
// the offset of the array (72), the next eight bytes are zero, and the array
// starts at block offset 72. m_filemark_entry_count is sized for that start.
struct MTF_SFMB_V10 {
    MTF_DB_HDR m_hdr;
    uint32_t m_filemark_entry_count;
    uint32_t m_filemark_entries_used;
    uint32_t m_filemark_array_offset;
    uint8_t m_reserved[8];
    uint64_t m_previous_filemarks;  // first entry of the array
};

struct MTF_MSCI {
    MTF_DB_HDR m_hdr;
    uint32_t m_msci_attributes;
};

struct MTF_MSLS {
    MTF_DB_HDR m_hdr;
    uint32_t m_msls_attributes;
};

struct MTF_MSDA {
    MTF_DB_HDR m_hdr;
    uint32_t m_msda_attributes;
    uint32_t m_io_size;
};

struct MTF_MSTL {
    MTF_DB_HDR m_hdr;
    uint32_t m_mstl_attributes;
    uint32_t m_io_size;
    uint64_t m_starting_offset;
    uint64_t m_ending_offset;
    uint32_t m_file_number;
    MTF_TAPE_ADDRESS m_log_header;  // a BackupLogHdr inside this block
    MTF_DATE_TIME m_file_creation_time;
};

struct MTF_PH6S {
    MTF_DB_HDR m_hdr;
    uint32_t m_ph6s_unknown1;
    uint32_t m_ph6s_unknown2;
    // Distance from the start of this block to the first BackupDataHeader,
    // which stands in for the block's length on the medium.
    uint32_t m_ph6s_unknown3;
};

// ---------------------------------------------------------------------------
// Streams.
// ---------------------------------------------------------------------------
struct MTF_STREAM_HDR {
    char m_id[4];
    uint16_t m_file_system_attributes;
    uint16_t m_media_format_attributes;
    uint64_t m_length;
    uint16_t m_data_encryption_algorithm;
    uint16_t m_data_compression_algorithm;
    uint16_t m_header_checksum;
};

// The whole content of a RAID stream: this file's place in a stripe set.
struct MTF_RAID_EXTENSION {
    MTF_UUID m_family_id;
    uint32_t m_raid_type;  // MTF_RAID_TYPE
    // Low 16 bits: the number of files of the stripe set; the real backups
    // keep 1 in the high 16 bits. Read it through MTF_RaidFileCount.
    uint32_t m_device_count;
    uint32_t m_sequence_number;  // 1-based; the low 16 bits order the files
    uint32_t m_striping_size;
};

// ---------------------------------------------------------------------------
// Records that are only dumped.
// ---------------------------------------------------------------------------
struct MTF_SM_HDR {
    uint32_t m_media_family_id;
    uint16_t m_number_of_set_map_entries;
    uint8_t m_pad[2];
};

struct MTF_SM_ENTRY {
    uint16_t m_length;
    uint16_t m_media_sequence_number;
    uint32_t m_attributes;
    uint32_t m_sset_attributes;
    uint64_t m_sset_pba;
    uint64_t m_fdd_pba;
    uint16_t m_fdd_media_sequence_number;
    uint16_t m_data_set_number;
    uint64_t m_format_logical_address;
    uint32_t m_number_of_directories;
    uint32_t m_number_of_files;
    uint32_t m_number_of_corrupt_files;
    uint64_t m_displayable_size;
    uint16_t m_number_of_volumes;
    uint16_t m_password_encryption_algorithm;
    MTF_TAPE_ADDRESS m_data_set_name;
    MTF_TAPE_ADDRESS m_data_set_password;
    MTF_TAPE_ADDRESS m_data_set_description;
    MTF_TAPE_ADDRESS m_user_name;
    MTF_DATE_TIME m_media_write_date;
    int8_t m_time_zone;
    uint8_t m_os_id;
    uint8_t m_os_version;
    uint8_t m_string_type;
    uint8_t m_mtf_minor_version;
    uint8_t m_media_catalog_version;
};

struct MTF_FDD_HDR {
    uint16_t m_length;
    int32_t m_fdd_type;
    uint16_t m_media_sequence_number;
    uint32_t m_attributes;
    uint64_t m_format_logical_address;
    uint64_t m_displayable_size;
    uint32_t m_link;
    uint8_t m_os_id;
    uint8_t m_os_version;
    uint8_t m_string_type;
    uint8_t m_pad;
};

struct MTF_FDD_VOLB {
    MTF_FDD_HDR m_hdr;
    uint32_t m_volb_attributes;
    MTF_TAPE_ADDRESS m_device_name;
    MTF_TAPE_ADDRESS m_volume_name;
    MTF_TAPE_ADDRESS m_machine_name;
    MTF_TAPE_ADDRESS m_os_specific_data;
    MTF_DATE_TIME m_media_write_date;
};

struct MTF_MD5_PASSWORD {
    uint8_t m_reserved[4];  // not described
    int32_t m_IsNull;
    uint8_t m_hash[16];
};

struct MTF_SQL_OS_INFO {
    MTF_UUID m_binding_id;
    MTF_DATE_TIME m_expiration_time;
};

#pragma pack(pop)

// ---------------------------------------------------------------------------
// Layout checks: every record must match the bytes on the medium.
// ---------------------------------------------------------------------------
#define ZR_CHECK_FIELD(type, field, offset) static_assert(offsetof(type, field) == (offset), #type "::" #field)

static_assert(sizeof(MTF_TAPE_ADDRESS) == 4 && sizeof(MTF_DATE_TIME) == 5 && sizeof(MTF_UUID) == 16);
static_assert(sizeof(GUID) == 16);

static_assert(sizeof(MTF_DB_HDR) == MTF_DB_HDR_SIZE);
ZR_CHECK_FIELD(MTF_DB_HDR, m_attributes, 4);
ZR_CHECK_FIELD(MTF_DB_HDR, m_first_event_offset, 8);
ZR_CHECK_FIELD(MTF_DB_HDR, m_os_id, 10);
ZR_CHECK_FIELD(MTF_DB_HDR, m_os_version, 11);
ZR_CHECK_FIELD(MTF_DB_HDR, m_displayable_size, 12);
ZR_CHECK_FIELD(MTF_DB_HDR, m_format_logical_address, 20);
ZR_CHECK_FIELD(MTF_DB_HDR, m_reserved_for_mbc, 28);
ZR_CHECK_FIELD(MTF_DB_HDR, m_reserved1, 30);
ZR_CHECK_FIELD(MTF_DB_HDR, m_control_block_id, 36);
ZR_CHECK_FIELD(MTF_DB_HDR, m_reserved2, 40);
ZR_CHECK_FIELD(MTF_DB_HDR, m_os_specific_data, 44);
ZR_CHECK_FIELD(MTF_DB_HDR, m_string_type, 48);
ZR_CHECK_FIELD(MTF_DB_HDR, m_reserved3, 49);
ZR_CHECK_FIELD(MTF_DB_HDR, m_header_checksum, 50);

static_assert(sizeof(MTF_TAPE) == 94);
ZR_CHECK_FIELD(MTF_TAPE, m_media_family_id, 52);
ZR_CHECK_FIELD(MTF_TAPE, m_tape_attributes, 56);
ZR_CHECK_FIELD(MTF_TAPE, m_media_sequence_number, 60);
ZR_CHECK_FIELD(MTF_TAPE, m_password_encryption_algorithm, 62);
ZR_CHECK_FIELD(MTF_TAPE, m_soft_filemark_block_size, 64);
ZR_CHECK_FIELD(MTF_TAPE, m_mbc_type, 66);
ZR_CHECK_FIELD(MTF_TAPE, m_media_name, 68);
ZR_CHECK_FIELD(MTF_TAPE, m_media_description, 72);
ZR_CHECK_FIELD(MTF_TAPE, m_media_password, 76);
ZR_CHECK_FIELD(MTF_TAPE, m_software_name, 80);
ZR_CHECK_FIELD(MTF_TAPE, m_format_logical_block_size, 84);
ZR_CHECK_FIELD(MTF_TAPE, m_software_vendor_id, 86);
ZR_CHECK_FIELD(MTF_TAPE, m_media_date, 88);
ZR_CHECK_FIELD(MTF_TAPE, m_mtf_major_version, 93);

static_assert(sizeof(MTF_SSET) == 98);
ZR_CHECK_FIELD(MTF_SSET, m_sset_attributes, 52);
ZR_CHECK_FIELD(MTF_SSET, m_password_encryption_algorithm, 56);
ZR_CHECK_FIELD(MTF_SSET, m_software_compression_algorithm, 58);
ZR_CHECK_FIELD(MTF_SSET, m_software_vendor_id, 60);
ZR_CHECK_FIELD(MTF_SSET, m_data_set_number, 62);
ZR_CHECK_FIELD(MTF_SSET, m_data_set_name, 64);
ZR_CHECK_FIELD(MTF_SSET, m_data_set_description, 68);
ZR_CHECK_FIELD(MTF_SSET, m_data_set_password, 72);
ZR_CHECK_FIELD(MTF_SSET, m_user_name, 76);
ZR_CHECK_FIELD(MTF_SSET, m_physical_block_address, 80);
ZR_CHECK_FIELD(MTF_SSET, m_media_write_date, 88);
ZR_CHECK_FIELD(MTF_SSET, m_software_major_version, 93);
ZR_CHECK_FIELD(MTF_SSET, m_software_minor_version, 94);
ZR_CHECK_FIELD(MTF_SSET, m_time_zone, 95);
ZR_CHECK_FIELD(MTF_SSET, m_mtf_minor_version, 96);
ZR_CHECK_FIELD(MTF_SSET, m_media_catalog_version, 97);

static_assert(sizeof(MTF_VOLB) == 73);
ZR_CHECK_FIELD(MTF_VOLB, m_volb_attributes, 52);
ZR_CHECK_FIELD(MTF_VOLB, m_device_name, 56);
ZR_CHECK_FIELD(MTF_VOLB, m_volume_name, 60);
ZR_CHECK_FIELD(MTF_VOLB, m_machine_name, 64);
ZR_CHECK_FIELD(MTF_VOLB, m_media_write_date, 68);

static_assert(sizeof(MTF_ESET) == 85);
ZR_CHECK_FIELD(MTF_ESET, m_eset_attributes, 52);
ZR_CHECK_FIELD(MTF_ESET, m_corrupt_file_count, 56);
ZR_CHECK_FIELD(MTF_ESET, m_set_map_pba, 60);
ZR_CHECK_FIELD(MTF_ESET, m_file_detail_pba, 68);
ZR_CHECK_FIELD(MTF_ESET, m_fdd_media_sequence_number, 76);
ZR_CHECK_FIELD(MTF_ESET, m_data_set_number, 78);
ZR_CHECK_FIELD(MTF_ESET, m_media_write_date, 80);

static_assert(sizeof(MTF_EOTM) == 60);
ZR_CHECK_FIELD(MTF_EOTM, m_last_eset_pba, 52);
static_assert(sizeof(MTF_ESPB) == 52);

static_assert(sizeof(MTF_SFMB) == 68);
ZR_CHECK_FIELD(MTF_SFMB, m_filemark_entry_count, 52);
ZR_CHECK_FIELD(MTF_SFMB, m_filemark_entries_used, 56);
ZR_CHECK_FIELD(MTF_SFMB, m_previous_filemarks, 60);
static_assert(sizeof(MTF_SFMB_V10) == 80);
ZR_CHECK_FIELD(MTF_SFMB_V10, m_filemark_entry_count, 52);
ZR_CHECK_FIELD(MTF_SFMB_V10, m_filemark_entries_used, 56);
ZR_CHECK_FIELD(MTF_SFMB_V10, m_filemark_array_offset, 60);
ZR_CHECK_FIELD(MTF_SFMB_V10, m_reserved, 64);
ZR_CHECK_FIELD(MTF_SFMB_V10, m_previous_filemarks, 72);

static_assert(sizeof(MTF_MSCI) == 56 && sizeof(MTF_MSLS) == 56);
ZR_CHECK_FIELD(MTF_MSCI, m_msci_attributes, 52);
ZR_CHECK_FIELD(MTF_MSLS, m_msls_attributes, 52);

static_assert(sizeof(MTF_MSDA) == 60);
ZR_CHECK_FIELD(MTF_MSDA, m_msda_attributes, 52);
ZR_CHECK_FIELD(MTF_MSDA, m_io_size, 56);

static_assert(sizeof(MTF_MSTL) == 89);
ZR_CHECK_FIELD(MTF_MSTL, m_mstl_attributes, 52);
ZR_CHECK_FIELD(MTF_MSTL, m_io_size, 56);
ZR_CHECK_FIELD(MTF_MSTL, m_starting_offset, 60);
ZR_CHECK_FIELD(MTF_MSTL, m_ending_offset, 68);
ZR_CHECK_FIELD(MTF_MSTL, m_file_number, 76);
ZR_CHECK_FIELD(MTF_MSTL, m_log_header, 80);
ZR_CHECK_FIELD(MTF_MSTL, m_file_creation_time, 84);

static_assert(sizeof(MTF_PH6S) == 64);
ZR_CHECK_FIELD(MTF_PH6S, m_ph6s_unknown1, 52);
ZR_CHECK_FIELD(MTF_PH6S, m_ph6s_unknown2, 56);
ZR_CHECK_FIELD(MTF_PH6S, m_ph6s_unknown3, 60);

static_assert(sizeof(MTF_STREAM_HDR) == MTF_STREAM_HDR_SIZE);
ZR_CHECK_FIELD(MTF_STREAM_HDR, m_file_system_attributes, 4);
ZR_CHECK_FIELD(MTF_STREAM_HDR, m_media_format_attributes, 6);
ZR_CHECK_FIELD(MTF_STREAM_HDR, m_length, 8);
ZR_CHECK_FIELD(MTF_STREAM_HDR, m_data_encryption_algorithm, 16);
ZR_CHECK_FIELD(MTF_STREAM_HDR, m_data_compression_algorithm, 18);
ZR_CHECK_FIELD(MTF_STREAM_HDR, m_header_checksum, 20);

static_assert(sizeof(MTF_RAID_EXTENSION) == 32);
ZR_CHECK_FIELD(MTF_RAID_EXTENSION, m_raid_type, 16);
ZR_CHECK_FIELD(MTF_RAID_EXTENSION, m_device_count, 20);
ZR_CHECK_FIELD(MTF_RAID_EXTENSION, m_sequence_number, 24);
ZR_CHECK_FIELD(MTF_RAID_EXTENSION, m_striping_size, 28);

static_assert(sizeof(MTF_SM_HDR) == 8);
ZR_CHECK_FIELD(MTF_SM_HDR, m_number_of_set_map_entries, 4);
ZR_CHECK_FIELD(MTF_SM_HDR, m_pad, 6);

static_assert(sizeof(MTF_SM_ENTRY) == 91);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_media_sequence_number, 2);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_attributes, 4);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_sset_attributes, 8);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_sset_pba, 12);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_fdd_pba, 20);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_fdd_media_sequence_number, 28);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_data_set_number, 30);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_format_logical_address, 32);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_number_of_directories, 40);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_number_of_files, 44);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_number_of_corrupt_files, 48);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_displayable_size, 52);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_number_of_volumes, 60);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_password_encryption_algorithm, 62);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_data_set_name, 64);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_data_set_password, 68);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_data_set_description, 72);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_user_name, 76);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_media_write_date, 80);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_time_zone, 85);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_os_id, 86);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_os_version, 87);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_string_type, 88);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_mtf_minor_version, 89);
ZR_CHECK_FIELD(MTF_SM_ENTRY, m_media_catalog_version, 90);

static_assert(sizeof(MTF_FDD_HDR) == 36);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_fdd_type, 2);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_media_sequence_number, 6);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_attributes, 8);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_format_logical_address, 12);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_displayable_size, 20);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_link, 28);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_os_id, 32);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_os_version, 33);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_string_type, 34);
ZR_CHECK_FIELD(MTF_FDD_HDR, m_pad, 35);

static_assert(sizeof(MTF_FDD_VOLB) == 61);
ZR_CHECK_FIELD(MTF_FDD_VOLB, m_volb_attributes, 36);
ZR_CHECK_FIELD(MTF_FDD_VOLB, m_device_name, 40);
ZR_CHECK_FIELD(MTF_FDD_VOLB, m_volume_name, 44);
ZR_CHECK_FIELD(MTF_FDD_VOLB, m_machine_name, 48);
ZR_CHECK_FIELD(MTF_FDD_VOLB, m_os_specific_data, 52);
ZR_CHECK_FIELD(MTF_FDD_VOLB, m_media_write_date, 56);

static_assert(sizeof(MTF_MD5_PASSWORD) == 24);
ZR_CHECK_FIELD(MTF_MD5_PASSWORD, m_IsNull, 4);
ZR_CHECK_FIELD(MTF_MD5_PASSWORD, m_hash, 8);

static_assert(sizeof(MTF_SQL_OS_INFO) == 21);
ZR_CHECK_FIELD(MTF_SQL_OS_INFO, m_expiration_time, 16);

// ---------------------------------------------------------------------------
// Helpers. None of them keeps state; all may be called from any thread.
// ---------------------------------------------------------------------------

// The identifier of a block or stream header as one u32.
uint32_t MTF_BlockId(const MTF_DB_HDR& hdr);
uint32_t MTF_StreamId(const MTF_STREAM_HDR& hdr);

// 16-bit XOR of the first iWords little-endian words at p.
uint16_t MTF_XorWords(const void* p, size_t iWords);

// Block headers: the checksum covers the 25 words in front of it.
uint16_t MTF_ComputeBlockChecksum(const MTF_DB_HDR& hdr);
bool MTF_IsBlockChecksumValid(const MTF_DB_HDR& hdr);
void MTF_SetBlockChecksum(MTF_DB_HDR& hdr);

// Stream headers: the checksum covers the 10 words in front of it.
uint16_t MTF_ComputeStreamChecksum(const MTF_STREAM_HDR& hdr);
bool MTF_IsStreamChecksumValid(const MTF_STREAM_HDR& hdr);
void MTF_SetStreamChecksum(MTF_STREAM_HDR& hdr);

// Length of the block at pBlock on the medium, up to its first stream:
// m_first_event_offset rounded up to 4, 0x10000 for an SFMB that says 0,
// m_ph6s_unknown3 for a PH6S. iBytes is what the caller holds of the block;
// 0 comes back when that is too little to tell (52 bytes, 64 for a PH6S) or
// when the block gives no usable length (0 outside an SFMB, PH6S below 64).
uint32_t MTF_BlockLength(const void* pBlock, size_t iBytes);

// Length of a stream on the medium, header included: 22 + m_length rounded
// up to 4; 0 when that does not fit in 64 bits.
uint64_t MTF_StreamLength(const MTF_STREAM_HDR& hdr);

// The number of files of the stripe set, from the low 16 bits of
// m_device_count, and this file's place in it, from the low 16 bits of
// m_sequence_number.
inline uint16_t MTF_RaidFileCount(const MTF_RAID_EXTENSION& raid) { return uint16_t(raid.m_device_count & 0xFFFF); }
inline uint16_t MTF_RaidSequence(const MTF_RAID_EXTENSION& raid) { return uint16_t(raid.m_sequence_number & 0xFFFF); }

// Soft filemark size in bytes as the TAPE block gives it.
inline uint32_t MTF_SoftFilemarkSize(const MTF_TAPE& tape) {
    return uint32_t(tape.m_soft_filemark_block_size) * MTF_SOFT_FILEMARK_UNIT;
}

// Reads the string that ta points to inside a record of iRecordSize bytes at
// pRecord, as UTF-16LE (MTF_UNICODE_STR) or as single bytes (MTF_ANSI_STR).
// A zero size gives an empty string; a trailing zero unit ends the string.
// A tape address that reaches past the record, an odd size for UTF-16, or an
// unknown string type records an error under wszKey and returns false
// without touching *pws.
bool MTF_ReadString(const void* pRecord, size_t iRecordSize, const MTF_TAPE_ADDRESS& ta, uint8_t iStringType,
                    std::wstring* pws, const wchar_t* wszKey);

// True when the 5 bytes are all zero, the format's "no date".
bool MTF_IsNoDate(const MTF_DATE_TIME& dt);
// Decodes the bit fields into *pst (day of week and milliseconds 0). A no-date
// value gives false and a zeroed *pst.
bool MTF_DecodeDateTime(const MTF_DATE_TIME& dt, SYSTEMTIME* pst);
// Packs the fields of st; fields wider than their bits are cut to their bits.
MTF_DATE_TIME MTF_EncodeDateTime(const SYSTEMTIME& st);

// Where the array of earlier filemark offsets starts in a soft filemark block
// of a backup of this server version: 72 for version 10, 60 for 7 to 9.
uint32_t MTF_SfmbArrayOffset(int iVersion);
// The same, told from the block itself: version 10 keeps the array's offset
// (72) in the word at 60, where the older layout has the low half of the
// first entry, always a multiple of 512. iBytes is what the caller holds;
// 0 comes back when that is less than the 64 bytes needed to tell.
uint32_t MTF_SfmbFindArrayOffset(const void* pBlock, size_t iBytes);
// Reads the m_filemark_entries_used entries of the soft filemark block of
// iBytes bytes at pBlock, its array found as MTF_SfmbFindArrayOffset finds
// it. A count that reaches past the block records an error and gives false.
bool MTF_ReadSfmbEntries(const void* pBlock, size_t iBytes, std::vector<uint64_t>* paEntries,
                         const wchar_t* wszKey);
