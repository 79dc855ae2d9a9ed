// The file operations that the driver's requests come down to. The identity
// of a virtual file lives in its name: a .bxk name carries the id of its
// view, a data file's virtual name its mount and file number. A read then
// goes to the ZR_Backup that owns the view, or to the ZR_Database that owns
// the data file.
#include <memory>

#include "backup/SQL_Records.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "driver/ZR_ReadCompletion.h"
#include "maps/ZR_CMaps.h"
#include "mount/ZR.h"

namespace {

constexpr unsigned kStatusNotFound = 6;                 // ERROR_INVALID_HANDLE: no such mount or file
constexpr unsigned kStatusNotQueued = 0x8007000E;       // E_OUTOFMEMORY
constexpr unsigned kStatusReadFailed = 0xC0000420;

// What the driver is told of a read.
unsigned DriverStatus(unsigned iStatus) {
    switch (iStatus) {
        case 0: return 0;
        case kStatusNotFound: return static_cast<unsigned>(kStatusInvalidHandle);
        case kStatusNotQueued: return static_cast<unsigned>(kStatusNoMemory);
        default: return static_cast<unsigned>(kStatusAssertionFailure);
    }
}

// A virtual backup file is read on the calling thread, and the driver told
// at once that the read is complete.
unsigned ReadVirtualBackup(void* hFile, void* pBuffer, unsigned iLength, OVERLAPPED* pOverlapped, void* pOpId,
                           void* iBufferKey) {
    int iFile = -1;
    ZR_Backup* pBackup = nullptr;
    ZR_PinnedDatabase pDB = g_DBs.PinByBackupFileHandle(hFile, &pBackup, &iFile);
    if (!pBackup) {
        if (g_iTraceMode) TraceLine("Failed to find virtual backup for hFileId: %p\n", hFile);
        ZR_Error(nullptr, __FILE__, "ZR::ReadFile", __LINE__, "Failed to find virtual backup for hFileId: %p\n",
                 hFile);
        return kStatusNotFound;
    }
    if (!pBackup->ReadVirtual(iFile, pBuffer, iLength, 2, pOverlapped)) {
        if (g_iTraceMode) TraceLine("ReadVirtual failed, rc: %08x\n", kStatusReadFailed);
        return kStatusReadFailed;
    }
    sendReadCompletion(pOpId, iBufferKey, pBuffer, 0);
    return 0;
}

// A data file is read on a live I/O thread, which completes the read.
unsigned QueueDataFileRead(FILEINFO Info, void* hFile, void* pBuffer, unsigned iLength, unsigned char* pBitmap,
                           OVERLAPPED* pOverlapped, void* pOpId, void* iBufferKey) {
    const auto iFileId = static_cast<uint16_t>(reinterpret_cast<uintptr_t>(hFile));
    ZR_PinnedDatabase pDB = g_DBs.PinByMountFileKey(Info.iFileKey, iFileId);
    if (!pDB) {
        if (g_iTraceMode)
            TraceLine("Failed to find virtual database for iMountFileKey %d FileID: %d\n", Info.iFileKey, iFileId);
        ZR_Error(nullptr, __FILE__, "ZR::ReadFile", __LINE__,
                 "Failed to find virtual database for iMountFileKey %d FileID: %d\n", Info.iFileKey, iFileId);
        return kStatusNotFound;
    }
    const uint64_t iOffset = static_cast<uint64_t>(pOverlapped->OffsetHigh) << 32 | pOverlapped->Offset;
    if (!pDB->AddLiveIOEntry(pOpId, pBuffer, iFileId, iOffset, iLength, pBitmap, iBufferKey)) {
        ZR_Error(nullptr, __FILE__, "ZR::ReadFile", __LINE__, "Failed to post to async live io queue\n");
        return kStatusNotQueued;
    }
    return 0;
}

}  // namespace

HANDLE ZR::CreateFileW(const wchar_t* wszName) {
    HANDLE hFile = INVALID_HANDLE_VALUE;
    Lock();
    std::unique_ptr<ZR_FileInfo> pInfo(ParseFileName(wszName));
    if (pInfo && pInfo->m_eFileKind == ZR_FILE_KIND_BXK)
        hFile = reinterpret_cast<HANDLE>(static_cast<intptr_t>(pInfo->m_iFileNumber));
    Unlock();
    // The driver's create fails with this status.
    if (hFile == INVALID_HANDLE_VALUE) SetLastError(ERROR_FILE_NOT_FOUND);
    return hFile;
}

BOOL ZR::AssociateFileW(const wchar_t* wszFileName, const wchar_t* wszVirtualName, DWORD iMountFileKey,
                        FileObjectUniquifier Uniquifier, DWORD& iFileId) {
    std::unique_ptr<ZR_FileInfo> pInfo(ParseFileName(wszVirtualName));
    ZR_PinnedDatabase pDB = g_DBs.PinIfListed(pInfo ? Mount(pInfo.get()) : nullptr);
    if (pDB) {
        iFileId = static_cast<DWORD>(pInfo->m_iFileNumber);
        pDB->AssociateDataFile(static_cast<uint16_t>(iFileId), iMountFileKey, Uniquifier, wszFileName);
    } else {
        SetLastError(ERROR_FILE_NOT_FOUND);
    }
    return TRUE;
}

unsigned int ZR::ReadFile(FILEINFO Info, void* hFile, void* pBuffer, unsigned int iLength, unsigned char* pBitmap,
                          unsigned int* piRead, OVERLAPPED* pOverlapped, void* pOpId, void* iBufferKey) {
    const unsigned iStatus =
        Info.bVirtualBackup ? ReadVirtualBackup(hFile, pBuffer, iLength, pOverlapped, pOpId, iBufferKey)
                            : QueueDataFileRead(Info, hFile, pBuffer, iLength, pBitmap, pOverlapped, pOpId, iBufferKey);
    SetLastError(iStatus);
    return DriverStatus(iStatus);
}

BOOL ZR::DeleteFileW(const wchar_t* wszName, DWORD iMountFileKey, DWORD iFileId) {
    Lock();
    const auto iId = static_cast<uint16_t>(iFileId);
    if (ZR_Database* pDB = g_DBs.FindByMountFileKey(iMountFileKey, iId)) pDB->DeleteFileW(iId);
    Unlock();
    return TRUE;
}

DWORD ZR::GetFileAttributesW(const wchar_t* wszName) { return FILE_ATTRIBUTE_ARCHIVE; }

BOOL ZR::FlushFileBuffers(void* hFile) { return ::FlushFileBuffers(hFile); }

// The real file's position p lies behind the log cut and the data cut of
// the view, where the view has none of those bytes.
DWORD ZR::GetFilePointer(void* hFile, LONG* plHigh) {
    *plHigh = 0;
    const DWORD iLow = ::SetFilePointer(hFile, 0, plHigh, FILE_CURRENT);
    int iFile = -1;
    ZR_Backup* pBackup = nullptr;
    ZR_PinnedDatabase pDB =
        iLow != INVALID_SET_FILE_POINTER ? g_DBs.PinByBackupFileHandle(hFile, &pBackup, &iFile) : ZR_PinnedDatabase();
    if (!pBackup) return iLow;
    const ZR_VirtualBackupFile* pView = pBackup->m_aVirtualFiles(iFile);
    int64_t iPosition = static_cast<int64_t>(static_cast<uint64_t>(static_cast<uint32_t>(*plHigh)) << 32 | iLow);
    if (iPosition > pView->m_iFirstMSTL) iPosition -= pView->LogCut();
    if (iPosition > pView->m_iHoleStart) iPosition -= pView->m_iHoleLength;
    *plHigh = static_cast<LONG>(static_cast<uint64_t>(iPosition) >> 32);
    return static_cast<DWORD>(iPosition);
}

bool ZR::VirtualBackupStandardInfo(void* hFile, FILE_STANDARD_INFO* pInfo) {
    int iFile = -1;
    ZR_Backup* pBackup = nullptr;
    ZR_PinnedDatabase pDB = g_DBs.PinByBackupFileHandle(hFile, &pBackup, &iFile);
    const int64_t iSize = pBackup ? pBackup->GetVirtualSize(iFile) : -1;
    if (iSize < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    pInfo->AllocationSize.QuadPart = iSize;
    pInfo->EndOfFile.QuadPart = iSize;
    return true;
}

bool ZR::BackupFileInfo(const wchar_t* wszName, ZR_BackupFileInfo* pInfo) {
    ZR_Backup backup(nullptr);
    // The data set is the content map's, and a file reads the one set
    // before it is added.
    backup.SetDataSetNumber(static_cast<int>(pInfo->m_iDataSet));
    backup.AddFile(wszName, nullptr, false);
    int32_t iVersion = 0;
    if (!backup.PrepareContent(&iVersion)) return false;
    pInfo->m_eBackend = static_cast<uint32_t>(backup.m_eBackend);
    const SQL_CONFIG_INFO_V7* pConfig = backup.m_pCMaps ? backup.m_pCMaps->m_ConfigMSCI.m_pConfig : nullptr;
    switch (pConfig ? pConfig->m_backup_type : 0) {
        case SQL_BTYPE_DATABASE: pInfo->m_iType = ZR_BACKUP_FULL; break;
        case SQL_BTYPE_DIFFERENTIAL: pInfo->m_iType = ZR_BACKUP_DIFF; break;
        case SQL_BTYPE_LOG: pInfo->m_iType = ZR_BACKUP_LOG; break;
        default: pInfo->m_iType = 0;
    }
    return true;
}
