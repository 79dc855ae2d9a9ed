// The first look of a scan at a compressed backup file: its archive header,
// and the header of one data set that the archive's pointer table names.
// Only the stripe and backup-set GUIDs are taken; the blocks themselves need
// the decompressing reader.
//
// Used by ZR_Scan on the scan's thread; it borrows the file and the scan's
// read-ahead and owns the header buffer for its own life.
#pragma once

#include <cstdint>
#include <memory>

class ZR_BackupFile;
struct ZR_ReadAhead;

class ZR_ScanKelp {
public:
    static constexpr uint32_t ms_iArchiveHeaderSize = 32767;
    // Archives older than this keep no stripe GUID of their own in files
    // other than the first.
    static constexpr uint8_t ms_iStripeGuidVersion = 96;
    static constexpr uint32_t ms_iGuidSize = 16;

    ZR_ScanKelp(ZR_BackupFile* pFile, ZR_ReadAhead* pAhead, const wchar_t* wszKey);

    // False after recording why.
    bool ReadArchiveHeader();
    uint8_t ArchiveVersion() const;
    void CopyStripeGuid(uint8_t* pGuid) const;
    // Reads the header of data set iDataSet (from 1) and copies its GUID.
    bool CopyBackupSetGuid(int32_t iDataSet, uint8_t* pGuid);

private:
    bool ReadAt(uint64_t iOffset, void* pDest, uint32_t iLen);

    ZR_BackupFile* m_pFile;
    ZR_ReadAhead* m_pAhead;
    const wchar_t* m_wszKey;
    std::unique_ptr<uint8_t[]> m_pHeader;
};
