// The walk of a backup's files from the first byte, block by block and
// stream by stream, as a visitor framework: this class knows the tape format
// and every way a walk can fail, and hands what it finds to virtual
// operations that do nothing here. The probe, the full scan and the
// virtualizing scan derive from it.
//
// Life: a scan object lives for one ScanFiles call, on the thread of the
// mount. It does not own the backup; it opens the backup's files for the
// walk and closes them again on every way out.
//
// Results: ScanFiles returns false after recording the reason in the error
// chain. The visitor operations return a ZR_ScanResult_e as u32, which the
// walk stores in m_eResult and tests after each whole block or stream.
#pragma once

#include <cstdint>

#include "backup/MTF_Records.h"
#include "backup/SQL_Records.h"
#include "foundation/ZR_Types.h"

class ZR_Backup;
class ZR_BackupFile;
struct ZR_ReadAhead;

class ZR_Scan {
public:
    // iDataSet: the data set wanted; 0 takes whatever comes first. A
    // negative number walks each file to its end (the visitors then see only
    // what stands in front of the first SSET).
    ZR_Scan(ZR_Backup* pB, int32_t iDataSet);
    virtual ~ZR_Scan();
    ZR_Scan(const ZR_Scan&) = delete;
    ZR_Scan& operator=(const ZR_Scan&) = delete;

    bool ScanFiles();

    // Visitor operations, in the order of their slots. Block arguments point
    // to m_aDBLK, of which at most ms_iMaxBlockBytes are valid; stream data
    // arguments live for the call only.
    virtual void Start() {}
    virtual bool Finish() { return true; }
    virtual bool IsDumping() { return false; }
    virtual uint32_t Process_RAID(const uint8_t* pData, uint32_t iLength) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_STREAM(const MTF_STREAM_HDR* pHeader) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_SFMB(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_PH6S(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_MSLS(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_MSTL(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_MSDA(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_MSCI(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_ESPB(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_CFIL(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_FILE(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_DIRB(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_VOLB(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_EOTM(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_ESET(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_SSET(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_TAPE(const MTF_DB_HDR* pBlock) { return ZR_SCAN_CONTINUE; }
    // Any block, before its own operation; iLength is the bytes read.
    virtual void Process_DBLK(const MTF_DB_HDR* pBlock, uint32_t iLength) {}
    // One header of the run behind a PH6S, as read; takes over pRecord and
    // frees it with delete.
    virtual uint32_t Process_BackupDataHeader(BackupDataHeader* pRecord);
    virtual uint32_t Process_MQCI(const uint8_t* pData, uint32_t iLength) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_MQLS(const uint8_t* pData, uint32_t iLength) { return ZR_SCAN_CONTINUE; }
    // The data of these two streams is never read: m_iOffset stands at the
    // start of the data (behind the 2-byte prefix) during the call.
    virtual uint32_t Process_MQDA(const MTF_STREAM_HDR* pHeader) { return ZR_SCAN_CONTINUE; }
    virtual uint32_t Process_MQTL(const MTF_STREAM_HDR* pHeader) { return ZR_SCAN_CONTINUE; }

    static constexpr uint32_t ms_iMaxBlockBytes = 1024;
    static constexpr uint32_t ms_iHeadBytes = 96;

protected:
    // The walk; each leaves its outcome in m_eResult.
    void ScanNativeFile();
    void SeekNativeDataSet();

    // Checked reads at m_iOffset; false after recording the reason.
    bool ReadNativeDBLK(uint8_t* pBuffer, uint32_t* piLength, uint32_t* piAdvance);
    bool ReadNativeSTREAM(MTF_STREAM_HDR* pBuffer, uint64_t* piAdvance);
    bool ReadNativeSFMB(uint8_t* pBuffer);

    bool IsWantedDataSet() const {
        return m_iCurrentDataSet == 0 || m_iDataSet == 0 || m_iCurrentDataSet == m_iDataSet;
    }

    const MTF_DB_HDR* Block() const { return reinterpret_cast<const MTF_DB_HDR*>(m_pDBLK); }
    const wchar_t* FileName() const;

    ZR_BackupFile* m_pFile = nullptr;  // the file being walked
    int32_t m_iFile = 0;               // its index in the backup ("backup file #%d")
    int32_t m_iDevice = 0;             // the file the virtualizing scan treats
    int64_t m_iOffset = 0;             // the one cursor of the walk
    ZR_Backup* m_pB;                   // not owned
    ZR_ReadAhead* m_pAhead;            // owned, from VirtualAlloc
    const wchar_t* m_wszKey = nullptr; // context of the error chain; null in every scan
    int32_t m_iCurrentDataSet = 0;     // of the last SSET seen, 0 before the first
    int32_t m_iDataSet;                // wanted; 0 whatever comes, negative all
    bool m_bEsetSeen = false;          // the ESET of the wanted data set went by
    uint32_t m_eResult = ZR_SCAN_CONTINUE;
    uint32_t m_iSoftFilemarkSize = 0;  // bytes
    alignas(8) uint8_t m_aDBLK[ms_iMaxBlockBytes];
    uint8_t* m_pDBLK;                  // m_aDBLK
    MTF_STREAM_HDR m_STREAM;
    uint8_t* m_pSFMB = nullptr;        // m_iSoftFilemarkSize bytes, owned, made by the seek

private:
    bool ScanFile();
    bool ScanNative(const uint8_t* pHead);
    bool ScanKelp();
    bool ReadAt(int64_t iOffset, void* pDest, uint32_t iLen);
    bool ReadAt(void* pDest, uint32_t iLen) { return ReadAt(m_iOffset, pDest, iLen); }
    void ReadBlock();
    void DispatchBlock(uint32_t iLength);
    uint32_t ProcessOtherBlock(uint32_t iId);
    void ReadStream();
    void ProcessStream();
    void ProcessDataStream(uint32_t iId);
    void ProcessHeaderRun();
    void DumpHeader(const char* szKind, const void* pHeader, uint32_t iLength);
    void FailRead(const char* szFunction, int iLine, uint32_t iLen);

    // The soft filemark search.
    bool SeekToOldestBlock();
    bool SearchEntries();
    bool FindEntryDataSet(uint32_t iEntry, int32_t* piDataSet, bool* pbIsSset);
    uint32_t NumEntries() const;
    uint64_t Entry(uint32_t i) const;
    uint32_t EntryArrayOffset() const;
    bool CheckEntries() const;
    bool Fail(uint32_t eResult);
    bool NotFound();
};
