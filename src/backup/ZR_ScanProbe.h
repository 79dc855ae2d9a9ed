// The first, cheap scan of every backup: it reads the heads of the files
// given for one backup, tells what kind of files they are and whether they
// belong together, and learns what identifies the backup in the map pool.
// For a native backup it walks the wanted data set to its end, so that the
// write date is that of the data set asked for.
//
// What it learns goes into the ZR_Backup: m_pTapes, m_pRaids, m_pWriteDates,
// m_aStripeSeen, m_eBackend and m_iVersion, and the identity for the content
// map in m_ProbeIdentity. It does not reorder the files: the caller sorts
// them by the stripe sequence numbers of m_pRaids (StripeOrder helps).
#pragma once

#include <vector>

#include "backup/ZR_Scan.h"

class ZR_ScanProbe : public ZR_Scan {
public:
    ZR_ScanProbe(ZR_Backup* pB, int32_t iDataSet) : ZR_Scan(pB, iDataSet) {}

    // The probe of a backup: refuses every file that is no backup this
    // library reads (CheckHeads), then scans. False after recording why.
    static bool Run(ZR_Backup* pB, int32_t iDataSet);
    // Opens the files, looks at their first bytes and closes them again.
    // A file must start with a tape-format TAPE block, or be a compressed
    // backup of the library's own format; an empty file, any other file,
    // and SQL Server's own compressed backups are refused by name.
    bool CheckHeads();

    void Start() override;
    bool Finish() override;
    bool IsDumping() override;
    uint32_t Process_RAID(const uint8_t* pData, uint32_t iLength) override;
    uint32_t Process_SSET(const MTF_DB_HDR* pBlock) override;
    uint32_t Process_TAPE(const MTF_DB_HDR* pBlock) override;
    // The configuration of the data set gives the server version and the
    // kind of backup.
    uint32_t Process_MQCI(const uint8_t* pData, uint32_t iLength) override;

    // Indices of the backup's files ascending by the low 16 bits of their
    // stripe sequence number; files without a RAID stream keep their order.
    static std::vector<int> StripeOrder(ZR_Backup* pB);

    static constexpr uint32_t ms_iDumpCategory = 0x8000000;

private:
    bool CheckHead(ZR_BackupFile* pFile);
    void FailStripeCount(int32_t iRequired);
    bool FinishNative();
    bool IsStripeSeen(uint32_t iSequence) const;
    void SetStripeSeen(uint32_t iSequence);
};
