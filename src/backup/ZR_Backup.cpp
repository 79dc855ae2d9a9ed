#include "backup/ZR_Backup.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "backup/SQL_Records.h"
#include "backup/ZR_ScanFull.h"
#include "backup/ZR_ScanProbe.h"
#include "backup/ZR_ScanVirtualizeBackup.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_MapPool.h"

const char* ZR_ServerVersionName(int iVersion) {
    switch (iVersion) {
    case 7: return "SQL Server 7";
    case 8: return "SQL Server 2000";
    case 9: return "SQL Server 2005";
    case 10: return "SQL Server 2008";
    default: return "";
    }
}

ZR_Backup::ZR_Backup(const wchar_t* wszKey)
    : m_pCMaps(new ZR_CMaps()), m_bOwnsCMaps(true), m_wszKey(wszKey ? _wcsdup(wszKey) : nullptr) {
    InitializeCriticalSection(&m_csNextFile);
    InitializeCriticalSection(&m_csExtentMap);
}

ZR_Backup::~ZR_Backup() {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::~ZR_Backup\n");
    m_aFiles.Clean();
    ReleaseAccessMaps();
    if (m_bOwnsCMaps)
        delete m_pCMaps;
    else
        g_MapPool.Release(m_pCMaps);
    m_pCMaps = nullptr;
    DeleteCriticalSection(&m_csNextFile);
    DeleteCriticalSection(&m_csExtentMap);
    free(m_wszKey);
}

void ZR_Backup::SetDataSetNumber(int iDataSet) { m_pCMaps->SetDataSetNumber(iDataSet); }

int ZR_Backup::GetDataSetNumber() { return m_pCMaps ? m_pCMaps->GetDataSetNumber() : 0; }

void ZR_Backup::AddFile(const wchar_t* wszFileName, const wchar_t* wszPasswordKey, bool bPasswordKeyEncrypted) {
    m_aFiles.Append(
        new ZR_BackupFile(m_wszKey, GetDataSetNumber(), wszFileName, wszPasswordKey, bPasswordKeyEncrypted));
}

bool ZR_Backup::Open() {
    for (int i = 0; i < GetNumFiles(); ++i) {
        ZR_BackupFile* pFile = m_aFiles(i);
        if (!pFile->Open()) {
            ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Open", __LINE__, "Unable to open backup file '%S'.\n",
                     pFile->GetFileName());
            Close();
            return false;
        }
    }
    return true;
}

void ZR_Backup::Close() {
    for (int i = 0; i < GetNumFiles(); ++i)
        m_aFiles(i)->Close();
}

// ---------------------------------------------------------------------------
// Type tests
// ---------------------------------------------------------------------------

char ZR_Backup::BackupType() {
    const SQL_CONFIG_INFO_V7* pConfig = m_pCMaps ? m_pCMaps->m_ConfigMSCI.m_pConfig : nullptr;
    return pConfig ? static_cast<char>(pConfig->m_backup_type) : 0;
}

bool ZR_Backup::IsFullBackup() {
    if (BackupType() == SQL_BTYPE_DATABASE)
        return true;
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::IsFullBackup", __LINE__, "This is not a Full Database backup.\n");
    return false;
}

bool ZR_Backup::IsDiffBackup() {
    if (BackupType() == SQL_BTYPE_DIFFERENTIAL)
        return true;
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::IsDiffBackup", __LINE__, "This is not a Differential backup.\n");
    return false;
}

bool ZR_Backup::IsLogBackup() {
    if (BackupType() == SQL_BTYPE_LOG)
        return true;
    if (g_iTraceMode)
        TraceLine("This is not a Transaction Log backup.\n");
    return false;
}

bool ZR_Backup::IsSupportedType() {
    if (!m_pCMaps || !m_pCMaps->m_ConfigMSCI.m_pConfig)
        return false;
    uint8_t iType = static_cast<uint8_t>(BackupType());
    if (SQL_IsSupportedBackupType(iType))
        return true;
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::IsSupportedType", __LINE__,
             "Backups of type \"%s\" are not supported. Specify either a Full, Differential, or Log backup.\n",
             SQL_BackupTypeLabel(iType));
    return false;
}

// ---------------------------------------------------------------------------
// The content map
// ---------------------------------------------------------------------------

bool ZR_Backup::Probe() { return ZR_ScanProbe::Run(this, GetDataSetNumber()); }

// Puts the files in stripe order (the low 16 bits of the RAID sequence
// number), so that row i of the content map belongs to file i whatever order
// the caller named them in. A stable exchange sort: files without a RAID
// stream (0) keep their order. What the probe stored per file moves along.
void ZR_Backup::SortFiles() {
    if (!m_pRaids)
        return;
    auto key = [&](int i) { return m_pRaids[i].m_sequence_number & 0xFFFF; };
    int n = GetNumFiles();
    for (int pass = 0; pass < n; ++pass) {
        for (int i = 0; i + 1 < n - pass; ++i) {
            if (key(i) <= key(i + 1))
                continue;
            m_aFiles.Swap(i, i + 1);
            std::swap(m_pRaids[i], m_pRaids[i + 1]);
            if (m_pTapes)
                std::swap(m_pTapes[i], m_pTapes[i + 1]);
            if (m_pWriteDates)
                std::swap(m_pWriteDates[i], m_pWriteDates[i + 1]);
        }
    }
}

// Swaps the constructor's map for the pool's shared one of this backup.
bool ZR_Backup::TakeSharedContentMap() {
    const ZR_ScanIdentity& id = m_ProbeIdentity;
    X_MapFile* pShared = nullptr;
    if (m_eBackend == ZR_BACKEND_MTF) {
        pShared = g_MapPool.RetrieveOrCreate(1, id.m_iMediaFamilyId, id.m_MediaDate, id.m_MediaWriteDate);
    } else if (m_eBackend == ZR_BACKEND_KELP) {
        GUID guid;
        std::memcpy(&guid, id.m_aKlbsGuid, sizeof guid);
        pShared = g_MapPool.RetrieveOrCreate(1, guid);
    }
    if (!pShared)
        return false;
    auto* pMap = static_cast<ZR_CMaps*>(pShared);
    if (!pMap->GetIsCreated()) {
        pMap->SetDataSetNumber(m_pCMaps->GetDataSetNumber());
        pMap->SetRequiredFiles(id.m_iRequiredFiles);
        GUID kelp;
        std::memcpy(&kelp, id.m_aKelpGuid, sizeof kelp);
        pMap->SetKELP_Guid(kelp);
    }
    delete m_pCMaps;
    m_pCMaps = pMap;
    m_bOwnsCMaps = false;
    return true;
}

// A map read from a file, or shared, stands for the files as they were when
// it was made: a file cut short since then would have its view and its
// reads run past its end.
bool ZR_Backup::FilesHoldTheirMap() {
    for (int i = 0; i < GetNumFiles() && i < m_pCMaps->GetNumFiles(); ++i) {
        const uint64_t iEnd = m_pCMaps->GetRowEnd(i);
        const uint64_t iSize = m_aFiles(i)->GetFileSize();
        if (iSize >= iEnd)
            continue;
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                 "The backup file %S is %I64d bytes long, shorter than the %I64d bytes that its content map "
                 "records: the file has been cut short.\n",
                 m_aFiles(i)->GetFileName(), static_cast<int64_t>(iSize), static_cast<int64_t>(iEnd));
        return false;
    }
    return true;
}

// The builder's road: read the map from a file, or scan the backup and
// write the map; either way what the mount uses comes from the file.
bool ZR_Backup::BuildContentMap(bool* pbMapped) {
    ZR_CMaps* pMap = m_pCMaps;
    const wchar_t* wszFirst = m_aFiles(0)->GetFileName();
    int iDataSet = pMap->GetDataSetNumber();
    pMap->SetBackend(m_eBackend);
    pMap->SetBackupName(wszFirst);
    pMap->SetPrimaryName(wszFirst);
    if (m_eBackend == ZR_BACKEND_KELP) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                 "Compressed backups are not supported in this build: %S\n", wszFirst);
        return false;
    }
    *pbMapped = pMap->Read();
    if (*pbMapped && pMap->GetRequiredFiles() != GetNumFiles()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                 "Not all of the %d required striped backup files are specified.\n", pMap->GetRequiredFiles());
        return false;
    }
    if (*pbMapped && !FilesHoldTheirMap())
        return false;
    if (!*pbMapped) {
        ZR_ScanFull scan(this, iDataSet);
        if (!scan.ScanFiles()) {
            ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                     "Failed to build maps for dataset %d of file %S.\n", iDataSet, wszFirst);
            return false;
        }
    }
    if (!ZR_ScanVirtualizeBackup::Run(this))
        return false;
    if (!IsSupportedType()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                 "Not a supported backup type in data set %d of file %S\n", iDataSet, wszFirst);
        return false;
    }
    if (*pbMapped)
        return true;
    pMap->SetRequiredFiles(GetNumFiles());
    if (!pMap->Write())
        return false;
    pMap->ClearContents();
    pMap->SetBackupName(wszFirst);
    if (pMap->Read())
        return true;
    ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
             "The content map just written for data set %d of file %S cannot be read back.\n", iDataSet, wszFirst);
    return false;
}

bool ZR_Backup::CheckVersion(int32_t* piVersion) {
    m_iVersion = SQL_MajorVersion(m_pCMaps->m_ConfigMSCI.m_pConfig->m_server_version);
    if (m_iVersion < SQL_VERSION_MIN || m_iVersion > SQL_VERSION_MAX) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                 "Microsoft SQL Server version %d not supported.\n", m_iVersion);
        return false;
    }
    if (*piVersion == 0)
        *piVersion = m_iVersion;
    if (*piVersion != m_iVersion) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                 "Mismatched Microsoft SQL Server version between backups (%d versus %d).\n", m_iVersion,
                 *piVersion);
        return false;
    }
    return true;
}

bool ZR_Backup::FailContent(bool bBuilder) {
    int iDataSet = m_pCMaps->GetDataSetNumber();
    if (bBuilder)
        g_MapPool.SetCreateFailure(m_pCMaps);
    else
        g_MapPool.Release(m_pCMaps);
    // The pool's reference is gone (and with it perhaps the map): keep an
    // empty map of our own so that the object stays usable and its data set
    // known.
    m_pCMaps = new ZR_CMaps();
    m_pCMaps->SetDataSetNumber(iDataSet);
    m_bOwnsCMaps = true;
    return false;
}

bool ZR_Backup::PrepareContent(int32_t* piVersion) {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::PrepareContent()\n");
    if (GetDataSetNumber() == 0)
        SetDataSetNumber(1);
    int iDataSet = GetDataSetNumber();
    if (GetNumFiles() == 0 || !Probe()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__, "File probe failed for data set %d\n",
                 iDataSet);
        return false;
    }
    SortFiles();
    if (!TakeSharedContentMap()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareContent", __LINE__,
                 "No file of data set %d is a backup of a supported format.\n", iDataSet);
        return false;
    }
    const bool bBuilder = !m_pCMaps->GetIsCreated();
    if (!bBuilder)
        return UseSharedContentMap(piVersion);
    // Whatever the build throws, the map ends failed, so that the mounts
    // waiting for it wake; the exception goes on.
    try {
        bool bMapped = false;
        if (!BuildContentMap(&bMapped) || !m_pCMaps->m_ConfigMSCI.m_pConfig || !CheckVersion(piVersion))
            return FailContent(true);
    } catch (...) {
        FailContent(true);
        throw;
    }
    g_MapPool.SetCreateSuccess(m_pCMaps);
    return true;
}

// Another object built the map: only the views are this object's own.
bool ZR_Backup::UseSharedContentMap(int32_t* piVersion) {
    if (!FilesHoldTheirMap() || !ZR_ScanVirtualizeBackup::Run(this))
        return false;
    if (!m_pCMaps->m_ConfigMSCI.m_pConfig || !CheckVersion(piVersion))
        return FailContent(false);
    return true;
}
