#include "backup/ZR_ScanFull.h"

#include "backup/ZR_Backup.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"

#include <algorithm>
#include <memory>

namespace {

// The content of MQDA and MQTL starts behind a 2-byte prefix.
constexpr uint64_t kDataPrefix = 2;
constexpr uint64_t kDefaultHeaderRun = 512;

}  // namespace

ZR_StripeLocation ZR_ScanFull::At(uint64_t iOffset, uint64_t iLength) const {
    return ZR_StripeLocation{iOffset, iLength, static_cast<uint8_t>(m_iFile), iOffset, 0};
}

bool ZR_ScanFull::Finish() {
    const ZR_CMaps* pMap = m_pB->m_pCMaps;
    const char* szMissing = !pMap->m_ConfigMSCI.m_pConfig   ? "MSCI"
                            : !pMap->m_ConfigMSLS.m_pConfig ? "MSLS"
                                                            : nullptr;
    if (!szMissing)
        return true;
    ZR_Error(m_wszKey, __FILE__, "ZR_ScanFull::Finish", __LINE__,
             "No configuration was found in the %s block of data set %d of %S.\n", szMissing, m_iDataSet,
             m_pB->GetFile(0)->GetFileName());
    return false;
}

bool ZR_ScanFull::IsDumping() { return (GetTraceFlags() & 0x20000000) != 0; }

void ZR_ScanFull::Process_DBLK(const MTF_DB_HDR* pBlock, uint32_t iLength) {
    uint32_t iType = MTF_BlockId(*pBlock);
    m_pB->m_pCMaps->AddDBLK(iType, m_iFile, At(static_cast<uint64_t>(m_iOffset), iLength));
}

uint32_t ZR_ScanFull::Process_STREAM(const MTF_STREAM_HDR* pHeader) {
    uint32_t iId = MTF_StreamId(*pHeader);
    bool bPad = iId == MTF_ID_APAD || iId == MTF_ID_SPAD;
    // Pads leave no entry: a read that falls into one is served from the
    // entry in front of it.
    if (bPad)
        return ZR_SCAN_CONTINUE;
    ZR_CMaps* pMap = m_pB->m_pCMaps;
    uint64_t iHeader = static_cast<uint64_t>(m_iOffset);
    pMap->AddSTREAM(iId, m_iFile, At(iHeader, sizeof(MTF_STREAM_HDR)), pHeader->m_length);
    uint64_t iOfs = iHeader + sizeof(MTF_STREAM_HDR);
    uint64_t iLen = pHeader->m_length;
    if (iLen == 0)
        return ZR_SCAN_CONTINUE;
    if (iId == MTF_ID_MQDA || iId == MTF_ID_MQTL) {
        iOfs += kDataPrefix;
        iLen -= std::min(iLen, kDataPrefix);
    }
    pMap->AddSegment(m_iFile, At(iOfs, iLen));
    return ZR_SCAN_CONTINUE;
}

uint32_t ZR_ScanFull::Process_BackupDataHeader(BackupDataHeader* pRecord) {
    std::unique_ptr<BackupDataHeader> record(pRecord);
    uint64_t iHeader = static_cast<uint64_t>(m_iOffset);
    uint32_t iDataOffset = record->m_dataOffset;
    uint64_t iRun = iDataOffset ? iDataOffset : kDefaultHeaderRun;
    ZR_CMaps* pMap = m_pB->m_pCMaps;
    pMap->AddSTREAM(MTF_ID_PQ6S, m_iFile, At(iHeader, iRun), record->m_fileLength);
    if (iDataOffset > 0 && record->m_dataLength > 0)
        pMap->AddSegment(m_iFile, At(iHeader + iDataOffset, record->m_dataLength));
    return ZR_SCAN_CONTINUE;
}

uint32_t ZR_ScanFull::Process_MQCI(const uint8_t* pData, uint32_t iLength) {
    // Each stripe carries the configuration; the first one counts.
    if (m_iFile > 0)
        return ZR_SCAN_CONTINUE;
    ZR_CMaps* pMap = m_pB->m_pCMaps;
    uint32_t iBlock = pMap->GetType(m_iFile);
    ZR_ConfigInfo* pTarget = iBlock == MTF_ID_MSCI ? &pMap->m_ConfigMSCI
                             : iBlock == MTF_ID_MSLS ? &pMap->m_ConfigMSLS
                                                     : nullptr;
    if (!pTarget || !pMap->ParseConfig(*pTarget, pData, iLength))
        return ZR_SCAN_CONTINUE;
    if (!SQL_IsSupportedBackupType(pTarget->m_pConfig->m_backup_type))
        return ZR_SCAN_ABORT;
    m_pB->m_iVersion = SQL_MajorVersion(pTarget->m_pConfig->m_server_version);
    return ZR_SCAN_CONTINUE;
}
