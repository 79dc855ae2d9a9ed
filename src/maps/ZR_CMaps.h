// ZR_CMaps: the content map of one data set of a backup. For each backup
// file of the stripe set (a row, m_iThread), the descriptor blocks in order
// (m_iDBLK); for each block its streams (m_iSTREAM); for each stream the
// segments that hold its data. A reader walks the backup by it, or jumps to
// any block, without reading what lies between. It also keeps the raw
// configuration records of the MSCI and MSLS streams, from which a mount
// learns the database's files.
//
// A map of a native backup is built by the full scan and written once; what a
// mount uses is always read back from the file. With the mapping plug, the
// segment arrays and records stay in the file's view.
//
// Threads: filled by one scanning thread; read-only and shared after the
// pool marks it created. The containers lock each single operation.
#pragma once

#include "backup/SQL_Records.h"
#include "foundation/A.h"
#include "foundation/AA.h"
#include "foundation/AP.h"
#include "maps/X_MapFile.h"

#pragma pack(push, 1)
// Where a thing lies, the same in memory and in the map file. For a native
// backup the stripe offset and the backup file offset are equal and the
// relative offset is 0.
struct ZR_StripeLocation {
    uint64_t iStripeOfs;
    uint64_t iLength;
    uint8_t iDevice;
    uint64_t iBkpFileOfs;
    uint32_t iRelativeOfs;

    uint64_t GetStripeOfs() const { return iStripeOfs; }
    uint64_t GetBkpFileOfs() const { return iBkpFileOfs; }
};
#pragma pack(pop)
static_assert(sizeof(ZR_StripeLocation) == 29);

// The configuration records are variable-size records led by a SQL_HEADER.
template <>
struct ZR_RecordTraits<SQL_CONFIG_INFO_V7> {
    static constexpr bool kIsRecord = true;
    static constexpr uint32_t kMinSize = sizeof(SQL_CONFIG_INFO_V7);
    static uint32_t Size(const SQL_CONFIG_INFO_V7& r) { return r.m_hdr.m_size; }
};
template <>
struct ZR_RecordTraits<SQL_FILEGROUP_INFO_V7> {
    static constexpr bool kIsRecord = true;
    static constexpr uint32_t kMinSize = sizeof(SQL_FILEGROUP_INFO_V7);
    static uint32_t Size(const SQL_FILEGROUP_INFO_V7& r) { return r.m_hdr.m_size; }
};
template <>
struct ZR_RecordTraits<SQL_FILE_INFO_V7> {
    static constexpr bool kIsRecord = true;
    static constexpr uint32_t kMinSize = sizeof(SQL_FILE_INFO_V7);
    static uint32_t Size(const SQL_FILE_INFO_V7& r) { return r.m_hdr.m_size; }
};

// One stream of a block: its data segments in order.
class ZR_STREAM_CMap : public A<ZR_StripeLocation> {
public:
    uint32_t m_iType = 0;  // four-character identifier
    uint64_t m_iLength = 0;  // m_length of the stream header
    ZR_StripeLocation m_Location{};  // of the stream header

    bool SerializeWrite(X_MapFile* pFile);
    bool SerializeRead(X_MapFile* pFile);
};

// One descriptor block: its streams in order.
class ZR_DBLK_CMap : public A<ZR_STREAM_CMap> {
public:
    uint32_t m_iType = 0;
    ZR_StripeLocation m_Location{};

    bool SerializeWrite(X_MapFile* pFile);
    bool SerializeRead(X_MapFile* pFile);
};

// One configuration stream: the SCIN record and the filegroup and file
// records behind it (dropped files left out). The records are the backup's
// bytes, of whatever version; the fields all versions share are read through
// the short layouts.
struct ZR_ConfigInfo {
    ZR_ConfigInfo() = default;
    ~ZR_ConfigInfo() { Clear(); }
    ZR_ConfigInfo(const ZR_ConfigInfo&) = delete;
    ZR_ConfigInfo& operator=(const ZR_ConfigInfo&) = delete;
    void Clear();
    // What the records say, read by the configuration walk of the backup
    // records (names, LSNs, files); false, with the reason recorded under
    // wszKey, when there is no configuration or it does not read.
    bool Describe(SQL_ConfigRecords* pOut, const wchar_t* wszKey);

    bool m_bMapped = false;  // m_pConfig lies in the map's view
    SQL_CONFIG_INFO_V7* m_pConfig = nullptr;
    AP<SQL_FILEGROUP_INFO_V7> m_FileGroups;
    AP<SQL_FILE_INFO_V7> m_Files;
};

class ZR_CMaps : public X_MapFile, public AA<ZR_DBLK_CMap> {
public:
    ZR_CMaps() = default;
    ~ZR_CMaps() override;

    int GetMapType() const override { return 1; }
    const char* GetFileExtension() const override { return "xcm"; }
    const char* GetMagic() const override { return "ICMF"; }
    const char* GetMapName() const override { return "ContentMap"; }
    int GetVersion() const override { return 3; }
    uint32_t GetContentSize() override { return 0; }
    bool ReadContent(bool bUpdate) override;
    bool WriteContent() override;

    // Building, always at the end of the file's row.
    void AddDBLK(uint32_t iType, int iFile, const ZR_StripeLocation& loc);
    // False when the row has no block yet.
    bool AddSTREAM(uint32_t iType, int iFile, const ZR_StripeLocation& loc, uint64_t iLength);
    // False when the row's last block has no stream yet.
    bool AddSegment(int iFile, const ZR_StripeLocation& loc);
    // Copies the records of one configuration stream of iLen bytes: the SCIN
    // first, then the records behind it while inside the stream and their
    // size is not 0. False when the stream holds no sound SCIN or a record
    // runs past the stream.
    bool ParseConfig(ZR_ConfigInfo& config, const void* pBlock, uint32_t iLen);
    void SetRequiredFiles(int n) { m_iRequiredFiles = n; }
    int GetRequiredFiles() const { return m_iRequiredFiles; }

    // Locations, with the map's base offset added to the backup file offset.
    ZR_StripeLocation GetLocation(int iFile, int iDBLK);
    ZR_StripeLocation GetLocation(int iFile, int iDBLK, int iSTREAM);
    ZR_StripeLocation GetLocation(int iFile, int iDBLK, int iSTREAM, int iSegment);
    int GetNumFiles() const { return m_i; }
    int GetNumDBLKs(int iFile) { return Count(iFile); }
    int GetNumSTREAMs(int iFile, int iDBLK) { return static_cast<int>((*this)(iFile, iDBLK)); }
    int GetNumSegments(int iFile, int iDBLK, int iSTREAM) {
        return static_cast<int>((*this)(iFile, iDBLK)(iSTREAM));
    }
    // Type of the row's last block, 0 for an empty row.
    uint32_t GetType(int iFile);
    // The backup file offset behind the furthest thing that row iFile
    // locates; 0 for an empty row, and the largest offset when a location
    // reaches past it.
    uint64_t GetRowEnd(int iFile);

    // Forgets the configurations and the block table (after a write, so that
    // what the mount uses is read back from the file).
    void ClearContents();

    int m_iRequiredFiles = 0;
    ZR_ConfigInfo m_ConfigMSCI;
    ZR_ConfigInfo m_ConfigMSLS;

private:
    bool ReadIdentity();
    bool WriteIdentity();
    bool ReadConfig(ZR_ConfigInfo& config);
    bool WriteConfig(ZR_ConfigInfo& config);
    ZR_StripeLocation Based(ZR_StripeLocation loc) const;
    // Calls f on each location of row iFile as the file holds it (every
    // block, its streams, their segments) until f gives false.
    template <class F>
    bool EveryLocation(int iFile, F f);
    bool LocationsFit();
};
