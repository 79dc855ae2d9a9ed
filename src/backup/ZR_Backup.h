// One backup of a mount: the full backup, the differential or one log
// backup, in one or several striped files. It owns its ZR_BackupFile objects.
//
// The order of calls in a mount: constructor, SetDataSetNumber, AddFile for
// each file, PrepareContent, Open, PrepareAccess. All of them run on the
// mount's thread. Every failure is recorded under m_wszKey, the mount key.
//
// The data set number stands here until the content map holds it: AddFile
// hands each file the number as it is at that moment.
#pragma once

#include <cstdint>
#include <memory>

#include "backup/MTF_Records.h"
#include "backup/ZR_ScanIdentity.h"
#include "backupio/ZR_BackupFile.h"
#include "foundation/AP.h"
#include "foundation/ZR_Types.h"

class ZR_Backup {
public:
    // wszKey: the mount key (copied), or null for an object that belongs to
    // no mount.
    explicit ZR_Backup(const wchar_t* wszKey);
    ~ZR_Backup();
    ZR_Backup(const ZR_Backup&) = delete;
    ZR_Backup& operator=(const ZR_Backup&) = delete;

    // Appends a closed file that reads data set GetDataSetNumber().
    void AddFile(const wchar_t* wszFileName, const wchar_t* wszPasswordKey, bool bPasswordKeyEncrypted);
    int GetNumFiles() { return static_cast<int>(m_aFiles); }
    ZR_BackupFile* GetFile(int i) { return m_aFiles.Exists(i) ? m_aFiles(i) : nullptr; }

    void SetDataSetNumber(int iDataSet) { m_iDataSet = iDataSet; }
    int GetDataSetNumber() { return m_iDataSet; }

    // Decides how the backup gets its content map. piVersion is the server
    // version shared by the backups of a mount (0 at the start).
    bool PrepareContent(int32_t* piVersion);
    // Gets the extent map; iIndex is the backup's place in the mount.
    bool PrepareAccess(int32_t iIndex);

    // Opens the files in order; at the first failure closes all of them.
    bool Open();
    void Close();

    const wchar_t* GetKey() { return m_wszKey; }

    ZR_Backend_e m_eBackend = static_cast<ZR_Backend_e>(0);  // 0 until a scan has seen a file
    int32_t m_iVersion = 0;          // major server version, 7 to 10
    AP<ZR_BackupFile> m_aFiles;      // owned, in stripe order once prepared
    bool m_bDiffFollows = false;     // set on the full backup when a differential is mounted with it
    wchar_t* m_wszKey = nullptr;     // owned; the context of every error recorded here

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

private:
    int32_t m_iDataSet = 0;
};
