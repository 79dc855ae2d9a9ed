#include "backup/ZR_ScanKelp.h"

#include <cstring>

#include "backupio/ZR_BackupFile.h"
#include "diag/ZR_Error.h"

namespace {

constexpr uint32_t ARCHIVE_VERSION_OFFSET = 8;    // iArchiveVersion
constexpr uint32_t STRIPE_GUID_OFFSET = 12;       // StripeGuid
constexpr uint32_t POINTER_TABLE_OFFSET = 6799;   // aiPointerTable
constexpr uint32_t POINTER_TABLE_ENTRIES = 3246;
constexpr uint32_t SET_HEADER_PREFIX = 8;         // the SQL_HEADER: type, then the whole size
constexpr uint32_t SET_GUID_OFFSET = 40;          // BackupSetGUID

}  // namespace

ZR_ScanKelp::ZR_ScanKelp(ZR_BackupFile* pFile, ZR_ReadAhead* pAhead, const wchar_t* wszKey)
    : m_pFile(pFile), m_pAhead(pAhead), m_wszKey(wszKey) {}

bool ZR_ScanKelp::ReadAt(uint64_t iOffset, void* pDest, uint32_t iLen) {
    uint32_t iRead = 0;
    if (m_pFile->Read(m_pAhead, pDest, iOffset, iLen, IO_READ, &iRead) && iRead == iLen) return true;
    ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Unable to read from backup file '%S'.\n",
             m_pFile->GetFileName());
    return false;
}

bool ZR_ScanKelp::ReadArchiveHeader() {
    m_pHeader.reset(new uint8_t[ms_iArchiveHeaderSize]);
    return ReadAt(0, m_pHeader.get(), ms_iArchiveHeaderSize);
}

uint8_t ZR_ScanKelp::ArchiveVersion() const { return m_pHeader[ARCHIVE_VERSION_OFFSET]; }

void ZR_ScanKelp::CopyStripeGuid(uint8_t* pGuid) const {
    memcpy(pGuid, m_pHeader.get() + STRIPE_GUID_OFFSET, ms_iGuidSize);
}

bool ZR_ScanKelp::CopyBackupSetGuid(int32_t iDataSet, uint8_t* pGuid) {
    if (iDataSet < 1 || static_cast<uint32_t>(iDataSet) > POINTER_TABLE_ENTRIES) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Dataset #%d not found in backup.\n", iDataSet);
        return false;
    }
    uint64_t iPosition;
    memcpy(&iPosition, m_pHeader.get() + POINTER_TABLE_OFFSET + 8 * (iDataSet - 1), sizeof iPosition);
    uint8_t aPrefix[SET_HEADER_PREFIX];
    if (!ReadAt(iPosition, aPrefix, sizeof aPrefix)) return false;
    uint32_t iSize;
    memcpy(&iSize, aPrefix + 4, sizeof iSize);
    // The GUID must lie inside the header, and the header inside the file.
    if (iSize < SET_GUID_OFFSET + ms_iGuidSize || iPosition + iSize > m_pFile->GetFileSize()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Dataset #%d not found in backup.\n", iDataSet);
        return false;
    }
    std::unique_ptr<uint8_t[]> pSet(new uint8_t[iSize]);
    if (!ReadAt(iPosition, pSet.get(), iSize)) return false;
    memcpy(pGuid, pSet.get() + SET_GUID_OFFSET, ms_iGuidSize);
    return true;
}
