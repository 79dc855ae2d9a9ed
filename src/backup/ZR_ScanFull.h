// ZR_ScanFull: builds the content map of a native backup in one pass over
// every file. Each block and each stream of the wanted data set (and the TAPE
// and SFMB blocks of the whole file) leaves an entry in the backup's
// ZR_CMaps; the two configuration streams are parsed into it. No data is
// read: the walk jumps over the streams.
//
// Runs on the mount's thread, over the files in stripe order, so that row i
// of the map belongs to file i. Nobody reads the map before the pool marks
// it created.
#pragma once

#include "backup/ZR_Scan.h"

#include <atomic>

struct ZR_StripeLocation;

class ZR_ScanFull : public ZR_Scan {
public:
    ZR_ScanFull(ZR_Backup* pB, int32_t iDataSet) : ZR_Scan(pB, iDataSet) {}

    void Start() override { ++ms_iScansRun; }
    // False, with the reason recorded, when the walk found no configuration
    // in the MSCI or the MSLS block: such a map could never be read back.
    bool Finish() override;
    bool IsDumping() override;
    void Process_DBLK(const MTF_DB_HDR* pBlock, uint32_t iLength) override;
    uint32_t Process_STREAM(const MTF_STREAM_HDR* pHeader) override;
    uint32_t Process_BackupDataHeader(BackupDataHeader* pRecord) override;
    uint32_t Process_MQCI(const uint8_t* pData, uint32_t iLength) override;

    // Full scans started in this process: the proof that a map read from a
    // file or shared in the pool spared the pass over the backup.
    static inline std::atomic<int> ms_iScansRun{0};

private:
    // A native location: the stripe offset is the file offset.
    ZR_StripeLocation At(uint64_t iOffset, uint64_t iLength) const;
};
