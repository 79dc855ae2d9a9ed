#include "mount/ZR.h"

#include <cstdlib>
#include <memory>
#include <string>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "engine/OwnedString.h"
#include "driver/IoOperations.h"
#include "driver/ZR_DriverCommands.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "maps/X_MapFile.h"
#include "mount/ZR_MountSteps.h"

ZR* ZR::g_pZR = nullptr;
int ZR::g_iNumCPUs = 1;
std::atomic<unsigned> ZR::g_iDecompressedCacheSize{12};
wchar_t ZR::g_wszSparseFilesFolder[MAX_PATH] = {};
wchar_t (&ZR::g_wszMapFilesFolder)[MAX_PATH] = ::g_wszMapFilesFolder;

namespace {

const char* BackupRoleName(int i) { return i == 0 ? "Full" : i == 1 ? "Diff" : "Log"; }

// The request's record for slot i: 0 full, 1 differential, 2.. the logs.
ZR_BackupInfo* BackupInfoOfSlot(ZR_MountInfo* pInfo, int i) {
    if (i == 0) return pInfo->GetFull();
    if (i == 1) return pInfo->GetDiff();
    return pInfo->GetLog(i - 2);
}

ZR_Backup* NewBackupOfType(ZR_Database* pDB, ZR_BackupType_e eType) {
    switch (eType) {
        case ZR_BACKUP_FULL: return pDB->NewFull();
        case ZR_BACKUP_DIFF: return pDB->NewDiff();
        case ZR_BACKUP_LOG: return pDB->NewLog();
    }
    return nullptr;
}

bool IsKnownBackupType(ZR_BackupType_e eType) {
    return eType == ZR_BACKUP_FULL || eType == ZR_BACKUP_DIFF || eType == ZR_BACKUP_LOG;
}

bool ContainsMark(const wchar_t* wszUpper, const wchar_t* wszMark) { return wcsstr(wszUpper, wszMark) != nullptr; }

}  // namespace

ZR::ZR() : ZR(stdout) {}

ZR::ZR(FILE* pTraceFile) {
    TInit(pTraceFile);
    Init();
}

ZR::~ZR() {
    Fini();
    TFini();
}

void ZR::Init() {
    InitializeCriticalSection(&m_cs);
    m_wszFilterVolume = nullptr;
    // Not fatal: the driver may load later, and every mount tries again.
    if (!OpenControlCommunicationPort() && g_iTraceMode)
        TraceLine("ZR_Database::OpenControlCommunicationPort failed\n");
}

void ZR::Fini() {
    DeleteCriticalSection(&m_cs);
    free(m_wszFilterVolume);
    m_wszFilterVolume = nullptr;
}

void ZR::Initialize() {
    TraceSetup(0xFFFFFFFF, 0x100000, 0);
    // A process that calls InitializeZR can mount: without a driver of its
    // own, the embedded one serves the ports before the control port opens.
    ZR_FilterDriver::StartUnlessPresent(g_wszSparseFilesFolder);
    if (!g_pZR) g_pZR = new ZR();
}

bool ZR::Mount(ZR_MountInfo* pInfo, wchar_t** ppwszKey) {
    if (g_iTraceMode) TraceLine("Mount.\n");
    // Owned here until the mount stands: every failure below destroys it, so
    // nothing of a failed mount can be found by its key.
    std::unique_ptr<ZR_Database> pDB(new ZR_Database(g_wszSparseFilesFolder, pInfo->GetGuid()));

    std::wstring strKey = pInfo->GetMountKey() ? pInfo->GetMountKey() : L"";
    if (g_iTraceMode) TraceLine("if (MountKey.IsEmpty()) {\n");
    if (strKey.empty()) {
        // Known by its database's GUID, so a request without a GUID gets the
        // one the database has just made.
        strKey = L"GUID=" + ZR_GuidText(pDB->GetGuid());
        if (g_iTraceMode) TraceLine("ZR::Mount: Key = \"%S\"\n", strKey.c_str());
    }
    pDB->SetMountKey(strKey.c_str());
    pInfo->SetMountKey(strKey.c_str());
    if (ppwszKey) *ppwszKey = _wcsdup(strKey.c_str());

    if (!AddBackups(pDB.get(), pInfo)) return false;
    if (pInfo->GetDiff()) pDB->GetFull()->m_bDiffFollows = true;

    ZR_MountSteps& steps = CurrentMountSteps();
    if (!steps.PrepareContent(pDB.get())) {
        if (g_iTraceMode) TraceLine("Failed to prepare backup content\n");
        return false;
    }
    if (!steps.PrepareAccess(pDB.get(), pInfo->GetStop())) {
        ZR_Error(nullptr, __FILE__, "ZR::Mount", __LINE__, "Failed to prepare backup for access\n");
        return false;
    }
    if (g_iTraceMode) TraceLine("pDB->PrepareAccess returned. now pDB->OpenBackups\n");
    pDB->SetState(ZR_VDB_STATE_PREPARED);
    if (!steps.OpenBackups(pDB.get())) {
        ZR_Error(nullptr, __FILE__, "ZR::Mount", __LINE__, "Failed to open backup files\n");
        return false;
    }
    if (!FinishMount(pDB.get())) return false;

    g_DBs.Append(pDB.release());
    if (g_iTraceMode) TraceLine("ZR::Mount returning\n");
    return true;
}

// Makes a ZR_Backup for each backup of the request, with its data set and
// its files. The full backup is required: the rest of the mount stands on it.
bool ZR::AddBackups(ZR_Database* pDB, ZR_MountInfo* pInfo) {
    if (!pInfo->GetFull()) {
        ZR_Error(nullptr, __FILE__, "ZR::Mount", __LINE__, "A mount needs a full backup\n");
        return false;
    }
    const int iSlots = pInfo->GetNumberOfLogs() + 2;
    for (int i = 0; i < iSlots; ++i) {
        ZR_BackupInfo* pBackupInfo = BackupInfoOfSlot(pInfo, i);
        if (!pBackupInfo) continue;
        if (g_iTraceMode)
            TraceLine("ZR::Mount: %s backup, data set %d, %d backup files(s)\n", BackupRoleName(i),
                      pBackupInfo->m_iDataSet, pBackupInfo->GetNumFileNames());
        if (!IsKnownBackupType(pBackupInfo->m_eType)) {
            ZR_Error(nullptr, __FILE__, "ZR::Mount", __LINE__, "Not a supported backup type (%d)\n",
                     static_cast<int>(pBackupInfo->m_eType));
            return false;
        }
        ZR_Backup* pBackup = NewBackupOfType(pDB, pBackupInfo->m_eType);
        if (!pBackup) {
            // A record whose type names a slot that another record took.
            ZR_Error(nullptr, __FILE__, "ZR::Mount", __LINE__, "A second backup of type %d in one mount\n",
                     static_cast<int>(pBackupInfo->m_eType));
            return false;
        }
        pBackup->SetDataSetNumber(pBackupInfo->m_iDataSet);
        for (int iFile = 0; iFile < pBackupInfo->GetNumFileNames(); ++iFile)
            pBackup->AddFile(pBackupInfo->GetFileName(iFile), pBackupInfo->m_wszPasswordKey,
                             pBackupInfo->m_bPasswordKeyEncrypted);
    }
    return true;
}

// Where the backups came from, the filter volume and the time of the mount.
bool ZR::FinishMount(ZR_Database* pDB) {
    std::wstring strServer, strDatabase;
    if (!CurrentMountSteps().ReadSourceNames(pDB, &strServer, &strDatabase)) return false;
    const size_t iSlash = strServer.find(L'\\');
    const std::wstring strMachine = iSlash == std::wstring::npos ? strServer : strServer.substr(0, iSlash);
    const std::wstring strInstance = iSlash == std::wstring::npos ? L"" : strServer.substr(iSlash + 1);
    pDB->SetSourceMachine(strMachine.c_str());
    pDB->SetSourceInstance(strInstance.c_str());
    pDB->SetSourceDatabase(strDatabase.c_str());
    if (m_wszFilterVolume) pDB->SetFilterVolume(m_wszFilterVolume);
    pDB->StampMountTime();
    return true;
}

ZR_Database* ZR::Mount(ZR_FileInfo* pFileInfo) {
    switch (pFileInfo->m_eScheme) {
        case ZR_FILE_BACKUPS: {
            ZR_Database* pDB = FindDatabase(pFileInfo->m_strMountKey);
            return pDB ? pDB : MountImplicit(pFileInfo);
        }
        // The built-in test cases of Debug names are not part of this
        // library: such a name finds a mount and never makes one.
        case ZR_FILE_DEBUG:
        case ZR_FILE_VDB: return FindDatabase(pFileInfo->m_strMountKey);
        case ZR_FILE_GUID: return g_DBs.FindByGuid(pFileInfo->m_Guid);
        default: return nullptr;
    }
}

// A file name that lists backups is a request of its own: each file carries
// a mark of its role, "!FULL", "!DIFF" or "!LOG" (any case).
ZR_Database* ZR::MountImplicit(ZR_FileInfo* pFileInfo) {
    ZR_MountInfo info;
    for (int i = 0; i < static_cast<int>(pFileInfo->m_aBackupFiles); ++i) {
        const wchar_t* wszFile = pFileInfo->m_aBackupFiles(i);
        if (!wszFile) continue;
        std::wstring strUpper = wszFile;
        _wcsupr(strUpper.data());
        ZR_BackupInfo* pBackupInfo = nullptr;
        if (ContainsMark(strUpper.c_str(), L"!FULL"))
            pBackupInfo = info.GetFull() ? info.GetFull() : info.NewFull(0);
        else if (ContainsMark(strUpper.c_str(), L"!DIFF"))
            pBackupInfo = info.GetDiff() ? info.GetDiff() : info.NewDiff(0);
        else if (ContainsMark(strUpper.c_str(), L"!LOG"))
            pBackupInfo = info.NewLog(0);
        if (!pBackupInfo) continue;
        pBackupInfo->m_iDataSet = 1;
        pBackupInfo->SetPasswordKey(nullptr);
        pBackupInfo->NewFileName(wszFile);
    }
    info.SetMountKey(pFileInfo->m_strMountKey);

    wchar_t* wszKey = nullptr;
    ZR_Database* pDB = Mount(&info, &wszKey) ? FindDatabase(wszKey) : nullptr;
    if (pDB) pDB->SetFilterVolume(pFileInfo->m_strFolder);
    free(wszKey);
    return pDB;
}

void ZR::Remove(const wchar_t* wszKey) {
    Lock();
    if (ZR_Database* pDB = FindDatabase(wszKey)) {
        g_DBs.Remove(g_DBs.IndexOf(pDB), false);
        pDB->WaitUnpinned();
        // Hydration ends, and the live reads still queued are served, before
        // the files and backups go under them; the destructor finds both
        // stopped.
        pDB->CancelHydration(false);
        pDB->StopLiveIORead();
        for (int iFileId = pDB->GetNumDataFileSlots() - 1; iFileId >= 1; --iFileId)
            pDB->RemoveDataFile(static_cast<uint16_t>(iFileId));
        pDB->CloseBackups();
        delete pDB;
    }
    ZR_ClearErrors(wszKey);
    Unlock();
}

void ZR::UninitializeForExit() {
    // The mounts' live I/O ends first: the reads still queued are served
    // and completed on the driver's ports, which the operation service
    // holds; later reads are refused. Then the service, without the library
    // lock, which a request in service may be waiting for: no request may
    // reach a database destroyed below.
    g_DBs.Lock();
    for (int i = 0; i < static_cast<int>(g_DBs); ++i)
        if (ZR_Database* pDB = g_DBs(i)) pDB->StopLiveIORead();
    g_DBs.Unlock();
    IoOperations::Stop();
    if (g_pZR) g_pZR->Lock();
    for (int i = 0; i < static_cast<int>(g_DBs);) {
        if (g_iTraceMode) TraceLine("ZR::UninitializeForExit remove DB index %d from g_DBs\n", i);
        ZR_Database* pDB = g_DBs(i);
        if (!pDB) {
            ++i;
            continue;
        }
        g_DBs.Remove(i, false);
        pDB->WaitUnpinned();
        delete pDB;
        i = 0;
    }
    // The end of the service: a later mount connects to whichever driver
    // serves the port then.
    if (g_hControlPort != INVALID_HANDLE_VALUE) SendFileNamesDone(8);
    CloseControlCommunicationPort();
    if (g_pZR) g_pZR->Unlock();
}

ZR_Database* ZR::FindDatabase(const wchar_t* wszKey) { return g_DBs.FindByKey(wszKey); }

void ZR::SetFilterVolume(const wchar_t* wszVolume) {
    if (!wszVolume) return;
    ReplaceOwnedString(&m_wszFilterVolume, wszVolume);
    const size_t iLength = wcslen(m_wszFilterVolume);
    if (iLength > 0 && m_wszFilterVolume[iLength - 1] == L'\\') m_wszFilterVolume[iLength - 1] = 0;
}
