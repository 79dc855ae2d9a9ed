// Extent maps and reads of a backup: where the extent map comes from (the
// pool, a map file, or a build that is then written and read back), and the
// two forms of read that every consumer of backup bytes goes through. The
// build itself is in ZR_ScanExtents.cpp.
#include "backup/ZR_Backup.h"

#include "diag/Trace.h"
#include "foundation/BadAlloc.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_BMaps.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"
#include "maps/ZR_MapPool.h"

int ZR_Backup::ms_iExtentMapBuilds = 0;

namespace {

// A read-ahead for one call, for an unaligned request that came without
// one; freed with the object.
class PassingReadAhead {
public:
    ZR_ReadAhead* Get(ZR_ReadAhead* pGiven) {
        if (pGiven)
            return pGiven;
        if (!m_p)
            m_p = ZR_ReadAhead::Alloc();
        return m_p;
    }
    ~PassingReadAhead() {
        if (m_p)
            ZR_ReadAhead::Free(m_p);
    }

private:
    ZR_ReadAhead* m_p = nullptr;
};

bool IsSectorAligned(const ZR_BackupFile* pFile, uint64_t iValue) {
    const uint64_t iSector = pFile->GetSectorSize() ? pFile->GetSectorSize() : ZR_BackupFile::ms_iDefaultSectorSize;
    return (iValue & (iSector - 1)) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reads
// ---------------------------------------------------------------------------

bool ZR_Backup::Read(ZR_ReadAhead* pAhead, void* pDest, const ZR_StripeLocation& loc, uint64_t iExtraOfs,
                     uint32_t iLen, ZR_IO_e eIO, int /*iUnused*/, uint32_t* piRead, int /*iDevice*/,
                     ZR_StripeLocation* pNext, uint64_t iVirtualOfs) {
    if (pNext)
        *pNext = loc;
    ZR_BackupFile* pFile = GetFile(loc.iDevice);
    if (!pFile) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Read", __LINE__,
                 "No backup file %d for a read at offset %I64d (%d files).\n", static_cast<int>(loc.iDevice),
                 static_cast<int64_t>(iVirtualOfs), GetNumFiles());
        return false;
    }
    if (m_eBackend == ZR_BACKEND_KELP) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Read", __LINE__,
                 "Compressed backups are not supported in this build: %S\n", pFile->GetFileName());
        return false;
    }
    if (m_eBackend != ZR_BACKEND_MTF) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Read", __LINE__, "Unknown backup format %d of file %S\n",
                 static_cast<int>(m_eBackend), pFile->GetFileName());
        return false;
    }
    const uint64_t iOfs = loc.iBkpFileOfs + loc.iRelativeOfs + iExtraOfs;
    const bool bAligned = IsSectorAligned(pFile, iOfs) && IsSectorAligned(pFile, iLen) &&
                          (!ZR_IOMovesBytes(eIO) || IsSectorAligned(pFile, reinterpret_cast<uintptr_t>(pDest)));
    PassingReadAhead ahead;
    ZR_ReadAhead* pUse = bAligned ? pAhead : ahead.Get(pAhead);
    if (!bAligned && !pUse)
        throw BadAlloc(static_cast<unsigned>(ZR_ReadAhead::ms_iAllocSize));
    uint32_t iRead = 0;
    if (!pFile->Read(pUse, pDest, iOfs, iLen, eIO, &iRead))
        return false;
    if (piRead)
        *piRead = iRead;
    if (pNext) {
        pNext->iBkpFileOfs = iOfs + iRead;
        pNext->iRelativeOfs = 0;
        pNext->iStripeOfs = loc.iStripeOfs + iExtraOfs + iRead;
    }
    return true;
}

ZR_EMap ZR_Backup::LookupPage(PageId pageId) {
    if (!m_pEMaps)
        return ZR_EMap{};
    ZR_EMap entry = m_pEMaps->Fetch(pageId);
    if (entry.IsAllSet())
        entry = m_pEMaps->Fetch(pageId);
    return entry;
}

bool ZR_Backup::ReadPages(ZR_ReadAhead* pAhead, void* pDest, ZR_EMap entry, PageId pageId, uint32_t iLen,
                          ZR_IO_e eIO, uint32_t* piRead) {
    ZR_BackupFile* pFile = GetFile(entry.GetDevice());
    if (!pFile || !entry.HasCopy()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
                 "No backup file %d holds page %d:%u (%d files).\n", entry.GetDevice(),
                 static_cast<int>(pageId.m_iFileId), pageId.m_iPage, GetNumFiles());
        return false;
    }
    if (m_eBackend == ZR_BACKEND_MTF)
        return pFile->ReadNative(pAhead, pDest, entry.m_iEntry, pageId, iLen, eIO, piRead);
    if (m_eBackend == ZR_BACKEND_KELP)
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ReadPages", __LINE__,
                 "Compressed backups are not supported in this build: %S\n", pFile->GetFileName());
    return false;
}

// ---------------------------------------------------------------------------
// Extent and backup maps
// ---------------------------------------------------------------------------

bool ZR_Backup::PrepareAccess(int32_t iIndex) {
    if (g_iTraceMode)
        TraceLine("ZR_Backup::PrepareAccess()\n");
    m_bProcessBMaps = g_bProcessBMaps && m_eBackend == ZR_BACKEND_MTF;
    if (IsLogBackup())
        return true;  // a log backup has no extent map
    return ObtainExtentMaps(iIndex);
}

void ZR_Backup::ReleaseAccessMaps() {
    if (m_pEMaps)
        g_MapPool.Release(m_pEMaps);
    if (m_pBMaps)
        g_MapPool.Release(m_pBMaps);
    m_pEMaps = nullptr;
    m_pBMaps = nullptr;
}

namespace {

// Both maps fail together: neither stays in the pool half built.
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
    if (m_eBackend != ZR_BACKEND_MTF) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Backup::ObtainExtentMaps", __LINE__,
                 "Extent maps of backup format %d are not supported in this build.\n", static_cast<int>(m_eBackend));
        return false;
    }
    {
        EnterCriticalSection(&g_MapPool.m_csPool);
        m_pEMaps = static_cast<ZR_EMaps*>(g_MapPool.RetrieveOrCreate(
            2, m_pCMaps->GetMediaFamilyId(), m_pCMaps->GetMediaDate(), m_pCMaps->GetMediaWriteDate()));
        if (m_pEMaps)
            m_pBMaps = static_cast<ZR_BMaps*>(g_MapPool.RetrieveOrCreate(
                3, m_pCMaps->GetMediaFamilyId(), m_pCMaps->GetMediaDate(), m_pCMaps->GetMediaWriteDate()));
        LeaveCriticalSection(&g_MapPool.m_csPool);
    }
    if (!m_pEMaps)
        return false;
    if (!m_pBMaps) {
        ReleaseAccessMaps();
        return false;
    }
    if (m_pEMaps->GetIsCreated())
        return true;  // another backup object has done the work
    m_pEMaps->SetInfo(*m_pCMaps);
    m_pBMaps->SetInfo(*m_pCMaps);
    if (m_pEMaps->Read()) {
        if (m_pEMaps->GetIsIncremental()) {
            m_pEMaps->Close();
            if (!m_pEMaps->OpenForUpdate() || !m_pBMaps->OpenForUpdate())
                return FailAccess(&m_pEMaps, &m_pBMaps);
        }
    } else {
        // A damaged file may have left part of a table behind, some of it
        // in a view that is gone: the build starts from nothing.
        m_pEMaps->Close();
        m_pEMaps->Clean();
        m_pEMaps->AllocFromFileList(m_pCMaps->m_ConfigMSLS);
        m_pBMaps->SetIsIncremental(true);
        if (!ConstructBMaps() || !ConstructEMaps())
            return FailAccess(&m_pEMaps, &m_pBMaps);
        if (g_iTraceMode)
            TraceLine("ConstructEMaps returned. Now write.\n");
        if (g_bProcessBMaps && m_eBackend == ZR_BACKEND_MTF)
            m_pBMaps->Dump(iIndex);
        if (!m_pEMaps->Write())
            return FailAccess(&m_pEMaps, &m_pBMaps);
        if (g_iTraceMode)
            TraceLine("m_pEMaps->Write() returned\n");
        // What serves the mount is the file, in a mapped view, rather than
        // the table built in memory.
        m_pEMaps->Clean();
        if (g_iTraceMode)
            TraceLine("m_pEMaps->Read()\n");
        if (!m_pEMaps->Read())
            return FailAccess(&m_pEMaps, &m_pBMaps);
        if (g_iTraceMode)
            TraceLine("m_pEMaps->Read() returned\n");
        ++ms_iExtentMapBuilds;
    }
    if (g_iTraceMode)
        TraceLine("SetCreateSuccess and return.\n");
    m_pEMaps->Dump(iIndex);
    g_MapPool.SetCreateSuccess(m_pEMaps);
    g_MapPool.SetCreateSuccess(m_pBMaps);
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
