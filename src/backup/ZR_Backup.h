// One backup of a mount: the full backup, the differential or one log
// backup, in one or several striped files. It owns its ZR_BackupFile objects
// and holds references to the maps that tell what lies where (the maps
// belong to g_MapPool, which shares them between mounts of the same backup).
//
// The order of calls in a mount: constructor, SetDataSetNumber, AddFile for
// each file, PrepareContent, Open, PrepareAccess. PrepareContent and
// PrepareAccess run on the mount's thread; the reads hold no lock of this
// object. Every failure is recorded under m_wszKey, the mount key.
//
// The implementation is split by concern: ZR_Backup.cpp (life, files,
// content map), ZR_BackupAccess.cpp (extent maps), ZR_ScanExtents.cpp (their
// build), ZR_BackupReads.cpp (stripe and page reads), ZR_BackupVirtual.cpp
// (virtual views).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "backup/MTF_Records.h"
#include "backup/ZR_ScanIdentity.h"
#include "backup/ZR_VirtualBackupFile.h"
#include "backupio/ZR_BackupFile.h"
#include "foundation/AP.h"
#include "foundation/ZR_Types.h"
#include "platform/win32.h"

class ZR_CMaps;
class ZR_EMaps;
class ZR_BMaps;
struct ZR_EMap;             // maps/ZR_EMap.h
struct ZR_StripeLocation;   // maps/ZR_CMaps.h
struct ZR_PageFault;        // backup/ZR_BackupReads.cpp

// The backup maps are built only with this switch, which nothing sets.
constexpr bool g_bProcessBMaps = false;

// "SQL Server 7", "SQL Server 2000", "SQL Server 2005", "SQL Server 2008",
// or "" for another version.
const char* ZR_ServerVersionName(int iVersion);

class ZR_Backup {
public:
    // wszKey: the mount key (copied), or null for an object that belongs to
    // no mount.
    explicit ZR_Backup(const wchar_t* wszKey);
    ~ZR_Backup();
    ZR_Backup(const ZR_Backup&) = delete;
    ZR_Backup& operator=(const ZR_Backup&) = delete;

    // Appends a closed file that reads the data set the content map holds
    // at this moment.
    void AddFile(const wchar_t* wszFileName, const wchar_t* wszPasswordKey, bool bPasswordKeyEncrypted);
    int GetNumFiles() { return static_cast<int>(m_aFiles); }
    ZR_BackupFile* GetFile(int i) { return m_aFiles.Exists(i) ? m_aFiles(i) : nullptr; }
    // Lowers where the sequential reader of file iFile begins (see
    // ZR_BackupFile::SetNextRawOffset); nothing for a file that isn't there.
    void SetHydrationStart(int iFile, uint64_t iOffset) {
        if (ZR_BackupFile* pFile = GetFile(iFile)) pFile->SetNextRawOffset(iOffset);
    }

    // The data set lives in the content map; set it before adding files.
    void SetDataSetNumber(int iDataSet);
    int GetDataSetNumber();

    // Decides how the backup gets its content map: probe, pool, map file or
    // full scan, then the type and version tests. piVersion is the server
    // version shared by the backups of a mount (0 at the start).
    bool PrepareContent(int32_t* piVersion);
    // Gets the extent map; iIndex is the backup's place in the mount.
    bool PrepareAccess(int32_t iIndex);

    // Opens the files in order; at the first failure closes all of them.
    bool Open();
    void Close();

    // Type tests on the configuration of the content map, which must be
    // ready. The first two record an error when they fail; the log test
    // only traces, since every backup is asked.
    bool IsFullBackup();
    bool IsDiffBackup();
    bool IsLogBackup();
    bool IsSupportedType();

    const wchar_t* GetKey() { return m_wszKey; }

    ZR_Backend_e m_eBackend = static_cast<ZR_Backend_e>(0);  // 0 until a scan has seen a file
    int32_t m_iVersion = 0;          // major server version, 7 to 10
    AP<ZR_BackupFile> m_aFiles;      // owned, in stripe order once prepared

    // --- Filled by ZR_ScanProbe (backup/ZR_ScanProbe.h), one entry per file
    // in the order of m_aFiles at the time of the probe. ---
    std::unique_ptr<MTF_TAPE[]> m_pTapes;             // the TAPE block of each file
    std::unique_ptr<MTF_RAID_EXTENSION[]> m_pRaids;   // its RAID stream; zero without one
    std::unique_ptr<MTF_DATE_TIME[]> m_pWriteDates;   // write date of the last SSET of the data set
    uint8_t m_aStripeSeen[64] = {};                   // bit per stripe sequence number, top bit first
    uint8_t m_aKelpGuid[16] = {};                     // stripe GUID of a compressed backup
    uint8_t m_aKlbsGuid[16] = {};                     // backup-set GUID of a compressed backup
    ZR_ScanIdentity m_ProbeIdentity;                  // what the content map takes over from the probe
    // --- end of the probe's fields ---

    bool m_bProcessBMaps = false;    // set by PrepareAccess
    bool m_bDiffFollows = false;     // set on the full backup when a differential is mounted with it
    ZR_BMaps* m_pBMaps = nullptr;    // from g_MapPool
    // The content map: the constructor's own object until PrepareContent
    // puts the pool's shared one in its place.
    ZR_CMaps* m_pCMaps = nullptr;
    bool m_bOwnsCMaps = false;
    // The extent map that serves the reads, from g_MapPool. Set by
    // PrepareAccess; a read that finds it disagreeing with the backup puts
    // a rebuilt map in its place (an atomic store, see ReadPages).
    ZR_EMaps* m_pEMaps = nullptr;
    CRITICAL_SECTION m_csNextFile;   // guards m_iNextFile
    int32_t m_iNextFile = 0;
    wchar_t* m_wszKey = nullptr;     // owned; the context of every error recorded here

    // --- Virtual views (ZR_BackupVirtual.cpp) ---
    // One view for each file, with the index of m_aFiles, made by
    // ZR_ScanVirtualizeBackup in PrepareContent and kept until the object
    // goes.
    AP<ZR_VirtualBackupFile> m_aVirtualFiles;
    // A new id for the view of file iFile (see ZR_VirtualBackupFile), or 0
    // when the file has no view.
    HANDLE GetNextHandle(int iFile);
    // Index of the view whose current handle is hFile, under the lock of
    // m_aVirtualFiles; -1 if none. Handles compare by the number that a
    // .bxk name carries (ZR_VirtualBackupFile::HandleId).
    int FindVirtualFile(HANDLE hFile);
    // Bytes of the view of file iDevice, as its end of file and allocation
    // size; -1 when there is no such view or row.
    int64_t GetVirtualSize(int iDevice);
    // Reads iLength bytes of the view of file iDevice at the 64-bit offset
    // of pOverlapped. iMode has no effect. The first extents region needs
    // the extent map (after PrepareAccess). False when nothing was read.
    bool ReadVirtual(int iDevice, void* pBuffer, DWORD iLength, int iMode, LPOVERLAPPED pOverlapped);
    // --- end of virtual views ---

    // --- Extent maps and reads (ZR_BackupAccess.cpp, ZR_ScanExtents.cpp) ---
    // A read in stripe form: iLen bytes at the location's backup file offset
    // + its relative offset + iExtraOfs, in the file iDevice of the
    // location. pNext, if not null, first receives a copy of the location
    // and then the location right behind the bytes read. Native backups read
    // the file directly (an unaligned read without pAhead gets a passing
    // read-ahead); the compressed backend is refused with an error.
    bool Read(ZR_ReadAhead* pAhead, void* pDest, const ZR_StripeLocation& loc, uint64_t iExtraOfs, uint32_t iLen,
              ZR_IO_e eIO, int iUnused, uint32_t* piRead, int iDevice, ZR_StripeLocation* pNext,
              uint64_t iVirtualOfs);
    // The extent map entry of the page in this backup; 0 when it holds no
    // copy. An all-ones entry is fetched once more and the second answer
    // stands. Any thread.
    ZR_EMap LookupPage(PageId pageId);
    // iLen bytes of pages from the extent of entry (from LookupPage),
    // starting at pageId's place in it, from the file in bits 58 to 63 of
    // the entry; the read may run on through the extents behind it in the
    // same file. What is read is checked against what the map promised:
    // every page header that carries an id carries the one asked for, and
    // the first page of each extent is one the build enters an extent by.
    // On a disagreement the map is recorded as damaged (a warning), taken
    // out of the pool, built again from the backup, and the read repeated
    // through the new map, extent by extent; if that disagrees too, or the
    // new map holds no copy of a page, the read fails with an error. The
    // caller never gets bytes the map named wrongly. Any thread; the old
    // map lives on until this object ends, for reads still running in it.
    bool ReadPages(ZR_ReadAhead* pAhead, void* pDest, ZR_EMap entry, PageId pageId, uint32_t iLen, ZR_IO_e eIO,
                   uint32_t* piRead);
    // Gets the extent map from the pool, a map file, or by building it.
    bool ObtainExtentMaps(int32_t iIndex);
    bool ConstructBMaps();
    bool AllocBMaps();
    // One pass over the first page header of every extent of the data
    // streams of every file; fills pEMaps.
    bool ConstructEMaps(ZR_EMaps* pEMaps);
    // Extent maps built (not read from a file or shared) in this process.
    static inline std::atomic<int> ms_iExtentMapBuilds{0};

    // --- end of extent maps and reads ---

private:
    bool Probe();
    void SortFiles();
    bool TakeSharedContentMap();
    bool FilesHoldTheirMap();
    bool BuildContentMap(bool* pbMapped);
    bool UseSharedContentMap(int32_t* piVersion);
    bool CheckVersion(int32_t* piVersion);
    bool FailContent(bool bBuilder);
    // Hands the extent and backup maps back to the pool, retired ones too.
    void ReleaseAccessMaps();
    bool CheckDataFileSizes();
    // The extent and backup maps from the pool; a creator reads the map
    // file or, with bBuild or without one, builds the map. Whatever is
    // thrown, a map created here ends created or failed.
    bool AcquireExtentMaps(int32_t iIndex, bool bBuild, ZR_EMaps** ppEMaps, ZR_BMaps** ppBMaps);
    bool FillExtentMaps(int32_t iIndex, bool bBuild, ZR_EMaps* pEMaps, ZR_BMaps* pBMaps);
    ZR_EMaps* ServingEMaps();
    // Retires pBad (szWhy says where it disagreed) and puts a map built
    // from the backup in its place, unless another read has done so.
    bool RebuildExtentMap(ZR_EMaps* pBad, const char* szWhy);

    enum class ReadVerdict { Sound, Disagrees, Failed };
    ReadVerdict ReadThroughEntry(ZR_ReadAhead* pAhead, void* pDest, ZR_EMap entry, PageId pageId, uint32_t iLen,
                                 ZR_IO_e eIO, uint32_t* piRead, ZR_PageFault* pFault);
    ReadVerdict CheckPagesRead(ZR_EMap entry, PageId first, const uint8_t* p, uint32_t iRead, ZR_PageFault* pFault);
    ReadVerdict CheckExtentStart(ZR_EMap extent, PageId start, ZR_PageFault* pFault);
    bool ReadPagesAfterFault(ZR_ReadAhead* pAhead, void* pDest, PageId pageId, uint32_t iLen, ZR_IO_e eIO,
                             uint32_t* piRead, ZR_PageFault fault);
    ReadVerdict RereadByExtent(ZR_ReadAhead* pAhead, void* pDest, PageId pageId, uint32_t iLen, ZR_IO_e eIO,
                               uint32_t* piRead, ZR_PageFault* pFault);
    char BackupType();

    int32_t m_iAccessIndex = 0;               // the backup's place in the mount, from PrepareAccess
    CRITICAL_SECTION m_csExtentMap;           // one rebuild of the extent map at a time
    std::vector<ZR_EMaps*> m_aRetiredEMaps;   // references to maps replaced, under m_csExtentMap
};
