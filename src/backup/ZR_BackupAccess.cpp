// The extent maps of a backup: where they come from (the pool, a map file,
// or a build that is then written and read back), the checks on what the
// backup says of its data files before that, and the rebuild of a map that
// the page reads found to disagree with the backup. The build itself is in
// ZR_ScanExtents.cpp, the reads in ZR_BackupReads.cpp.
#include "backup/ZR_Backup.h"

#include <atomic>

#include "backup/SQL_Records.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/ArrayCore.h"
#include "maps/ZR_BMaps.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"
#include "maps/ZR_MapPool.h"

bool ZR_Backup::PrepareAccess(int32_t iIndex) {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::PrepareAccess()\n");
    m_bProcessBMaps = g_bProcessBMaps && m_eBackend == ZR_BACKEND_MTF;
    if (IsLogBackup())
        return true;  // a log backup has no extent map
    m_iAccessIndex = iIndex;
    return CheckDataFileSizes() && ObtainExtentMaps(iIndex);
}

// A data file may be far larger than its backup, which holds only the
// allocated extents; but no data file is larger than SQL Server makes them,
// and a larger size is a damaged record, whatever a map file says.
bool ZR_Backup::CheckDataFileSizes() {
    for (ZR_ConfigInfo* pConfig : {&m_pCMaps->m_ConfigMSCI, &m_pCMaps->m_ConfigMSLS}) {
        for (int i = 0; i < static_cast<int>(pConfig->m_Files); ++i) {
            const SQL_FILE_INFO_V7* pFile = pConfig->m_Files(i);
            if (!pFile || pFile->m_file_type != SQL_FILE_DATABASE || pFile->m_file_size <= ZR_EMaps::ms_iMaxDataFileBytes)
                continue;
            ZR_Error(m_wszKey, __FILE__, "ZR_Backup::PrepareAccess", __LINE__,
                     "Backup file %S records a size of %I64d bytes for data file %d: a data file holds at most 16 TB.\n",
                     m_aFiles(0)->GetFileName(), static_cast<int64_t>(pFile->m_file_size),
                     static_cast<int>(pFile->m_file_number & 0xFFFF));
            return false;
        }
    }
    return true;
}

void ZR_Backup::ReleaseAccessMaps() {
    if (m_pEMaps)
        g_MapPool.Release(m_pEMaps);
    if (m_pBMaps)
        g_MapPool.Release(m_pBMaps);
    m_pEMaps = nullptr;
    m_pBMaps = nullptr;
    for (ZR_EMaps* pRetired : m_aRetiredEMaps)
        g_MapPool.Release(pRetired);
    m_aRetiredEMaps.clear();
}

namespace {

// Both maps fail together: neither stays in the pool half built, and the
// mounts waiting for them wake.
bool FailAccess(ZR_EMaps** ppEMaps, ZR_BMaps** ppBMaps) {
    if (*ppEMaps)
        g_MapPool.SetCreateFailure(*ppEMaps);
    if (*ppBMaps)
        g_MapPool.SetCreateFailure(*ppBMaps);
    *ppEMaps = nullptr;
    *ppBMaps = nullptr;
    return false;
}

}  // namespace

bool ZR_Backup::ObtainExtentMaps(int32_t iIndex) {
    return AcquireExtentMaps(iIndex, false, &m_pEMaps, &m_pBMaps);
}

bool ZR_Backup::AcquireExtentMaps(int32_t iIndex, bool bBuild, ZR_EMaps** ppEMaps, ZR_BMaps** ppBMaps) {
    if (m_eBackend != ZR_BACKEND_MTF) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ObtainExtentMaps", __LINE__,
                 "Extent maps of backup format %d are not supported in this build.\n", static_cast<int>(m_eBackend));
        return false;
    }
    ZR_EMaps* pEMaps = nullptr;
    ZR_BMaps* pBMaps = nullptr;
    {
        EnterCriticalSection(&g_MapPool.m_csPool);
        pEMaps = static_cast<ZR_EMaps*>(g_MapPool.RetrieveOrCreate(
            2, m_pCMaps->GetMediaFamilyId(), m_pCMaps->GetMediaDate(), m_pCMaps->GetMediaWriteDate()));
        if (pEMaps)
            pBMaps = static_cast<ZR_BMaps*>(g_MapPool.RetrieveOrCreate(
                3, m_pCMaps->GetMediaFamilyId(), m_pCMaps->GetMediaDate(), m_pCMaps->GetMediaWriteDate()));
        LeaveCriticalSection(&g_MapPool.m_csPool);
    }
    if (!pEMaps)
        return false;
    if (!pBMaps) {
        g_MapPool.Release(pEMaps);
        return false;
    }
    if (!pEMaps->GetIsCreated()) {
        // Whatever the build throws, the maps end failed, so that the mounts
        // waiting for them wake; the exception goes on.
        try {
            if (!FillExtentMaps(iIndex, bBuild, pEMaps, pBMaps))
                return FailAccess(&pEMaps, &pBMaps);
        } catch (...) {
            FailAccess(&pEMaps, &pBMaps);
            throw;
        }
        if (g_iTraceMode)
            TraceLine("SetCreateSuccess and return.\n");
        g_MapPool.SetCreateSuccess(pEMaps);
        g_MapPool.SetCreateSuccess(pBMaps);
    }
    *ppEMaps = pEMaps;
    *ppBMaps = pBMaps;
    return true;
}

// The creator's work: read the map file, or (bBuild, or no file) build the
// map from the backup, write it and read it back.
bool ZR_Backup::FillExtentMaps(int32_t iIndex, bool bBuild, ZR_EMaps* pEMaps, ZR_BMaps* pBMaps) {
    pEMaps->SetInfo(*m_pCMaps);
    pBMaps->SetInfo(*m_pCMaps);
    bool bRead = !bBuild && pEMaps->Read();
    // A map whose file says it is still being filled lies in a writable
    // view. Nothing here writes such a file (nor any backup map to go with
    // it): a flag that will not open is damage, and the map is built.
    if (bRead && pEMaps->GetIsIncremental()) {
        pEMaps->Close();
        bRead = pEMaps->OpenForUpdate() && pBMaps->OpenForUpdate();
    }
    if (!bRead) {
        // A damaged file may have left part of a table behind, some of it
        // in a view that is gone: the build starts from nothing.
        pEMaps->Close();
        pEMaps->Clean();
        pEMaps->AllocFromFileList(m_pCMaps->m_ConfigMSLS);
        pBMaps->SetIsIncremental(true);
        if (!ConstructBMaps() || !ConstructEMaps(pEMaps))
            return false;
        if (g_iTraceMode)
            TraceLine("ConstructEMaps returned. Now write.\n");
        if (g_bProcessBMaps && m_eBackend == ZR_BACKEND_MTF)
            pBMaps->Dump(iIndex);
        if (!pEMaps->Write())
            return false;
        if (g_iTraceMode)
            TraceLine("m_pEMaps->Write() returned\n");
        // What serves the mount is the file, in a mapped view, rather than
        // the table built in memory.
        pEMaps->Clean();
        if (g_iTraceMode)
            TraceLine("m_pEMaps->Read()\n");
        if (!pEMaps->Read())
            return false;
        if (g_iTraceMode)
            TraceLine("m_pEMaps->Read() returned\n");
        ++ms_iExtentMapBuilds;
    }
    pEMaps->Dump(iIndex);
    return true;
}

ZR_EMaps* ZR_Backup::ServingEMaps() { return std::atomic_ref<ZR_EMaps*>(m_pEMaps).load(std::memory_order_acquire); }

bool ZR_Backup::RebuildExtentMap(ZR_EMaps* pBad, const char* szWhy) {
    zr_array::ScopedLock lock(&m_csExtentMap, true);
    if (ServingEMaps() != pBad)
        return true;  // another read has done it
    ZR_Warning(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
               "The extent map \"%S\" disagrees with the backup at %s. It is no longer used and is built again from "
               "the backup.\n",
               pBad->GetMapFileName(), szWhy);
    // No later mount gets the map, nor reads its file.
    if (g_MapPool.Retire(pBad))
        DeleteFileW(pBad->GetMapFileName());
    m_aRetiredEMaps.reserve(m_aRetiredEMaps.size() + 1);
    ZR_EMaps* pNew = nullptr;
    ZR_BMaps* pBMaps = nullptr;
    if (!AcquireExtentMaps(m_iAccessIndex, true, &pNew, &pBMaps))
        return false;  // the old map serves on; the next disagreement tries again
    // Reads that run through the old map now keep it until this object ends.
    m_aRetiredEMaps.push_back(pBad);
    g_MapPool.Release(m_pBMaps);
    m_pBMaps = pBMaps;
    std::atomic_ref<ZR_EMaps*>(m_pEMaps).store(pNew, std::memory_order_release);
    return true;
}

bool ZR_Backup::ConstructBMaps() {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::ConstructBMaps()\n");
    return AllocBMaps();
}

// The backup map is filled only behind g_bProcessBMaps, which nothing sets;
// with it off there is nothing to size.
bool ZR_Backup::AllocBMaps() { return true; }
