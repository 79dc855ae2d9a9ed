// ZR_ScanVirtualizeBackup works out the virtual view (.bxk) of each file of
// a backup: where the data cut and the log cut lie, where the first extents
// go, and the byte changes that keep the view a valid tape and a consistent
// backup (the first data stream's length and header checksum, the data
// files' page counts and sizes in both configuration blocks, the last LSN
// when a differential follows, one filemark value of each soft filemark
// block behind the cut, and the header of an alignment pad where the data
// cut would otherwise move the soft filemarks off their grid).
//
// It does not walk the files: it goes through the content map, which must
// exist, and reads only the configuration streams, the data streams' headers
// and the soft filemark blocks. The order matters: the configuration first
// (the kept bytes come from there), then the blocks in file order, so that
// the hole is known before the filemark blocks behind it.
//
// Runs on the mount's thread, once for each ZR_Backup on every mount; the
// views it makes belong to the backup object (m_aVirtualFiles), which it
// empties first. A log backup gets views with no cut and no change.
#pragma once

#include <cstdint>
#include <memory>

#include "backup/ZR_ScanProbe.h"

class ZR_Read;
struct ZR_StripeLocation;
class ZR_VirtualBackupFile;

class ZR_ScanVirtualizeBackup : public ZR_ScanProbe {
public:
    ZR_ScanVirtualizeBackup(ZR_Backup* pB, int32_t iDataSet) : ZR_ScanProbe(pB, iDataSet) {}

    // bDiffFollows: a differential is restored over this full backup, so its
    // log part is cut too and its last LSN made its first. False after
    // recording the reason: an open that fails, or a map that does not fit
    // the backup (a file without TAPE or a configuration stream, a header
    // that is not at the place the map gives, a data stream that runs past
    // the end of its file).
    bool ScanFiles(bool bDiffFollows);
    // What ZR_Backup::PrepareContent runs: the scan of pB's views with its
    // m_bDiffFollows; a failure adds "File Backup Virtualize Scan failed for
    // data set %d" to the error chain.
    static bool Run(ZR_Backup* pB);

    // The visits, in the order of their slots; iOfs is the stripe offset of
    // the thing visited.
    virtual void Virtualize_SFMB(const MTF_DB_HDR* pBlock, ZR_VirtualBackupFile* pVirtual, int64_t iOfs);
    virtual void Virtualize_MSLS(const MTF_DB_HDR* pBlock, ZR_VirtualBackupFile* pVirtual, int64_t iOfs);
    virtual void Virtualize_MSTL(const MTF_DB_HDR* pBlock, ZR_VirtualBackupFile* pVirtual, int64_t iOfs);
    virtual void Virtualize_MQCI(const uint8_t* pData, ZR_VirtualBackupFile* pVirtual, int64_t iOfs,
                                 uint32_t iLength);
    virtual void Virtualize_MSDA(const MTF_STREAM_HDR* pStream, ZR_VirtualBackupFile* pVirtual, int64_t iOfs);

    // The header checksum of a stream header whose m_length becomes iNew.
    static uint16_t RecomputeStreamChecksum(const MTF_STREAM_HDR& hdr, uint64_t iNew);

private:
    bool VirtualizeFile(ZR_VirtualBackupFile* pVirtual, bool bDiffFollows);
    bool ReadTape(ZR_Read& read, ZR_VirtualBackupFile* pVirtual);
    bool VirtualizeConfigBlock(ZR_VirtualBackupFile* pVirtual, uint32_t iBlockType);
    bool VirtualizeBlocks(ZR_VirtualBackupFile* pVirtual);
    bool VirtualizeDataBlock(ZR_VirtualBackupFile* pVirtual, int iDBLK);
    void AlignHole(ZR_VirtualBackupFile* pVirtual);
    bool VirtualizeStreamAt(ZR_VirtualBackupFile* pVirtual, int iDBLK, int iSTREAM);
    bool VirtualizeFilemarkAt(ZR_VirtualBackupFile* pVirtual, const ZR_StripeLocation& loc);
    void VirtualizeConfigRecord(const uint8_t* pRecord, uint32_t iSize, ZR_VirtualBackupFile* pVirtual,
                                int64_t iRecordOfs);
    // Reads iLen bytes (at most the buffer) at loc into m_pBuffer; false
    // when they cannot all be read.
    bool ReadLocation(const ZR_StripeLocation& loc, uint32_t iLen);
    void AddChange(ZR_VirtualBackupFile* pVirtual, int64_t iOffset, const void* pValue, uint16_t iLength,
                   bool bAdditive);

    static constexpr uint32_t ms_iBufferBytes = 0x10200;
    std::unique_ptr<uint8_t[]> m_pBuffer{new uint8_t[ms_iBufferBytes]()};
};
