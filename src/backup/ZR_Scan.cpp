#include "backup/ZR_Scan.h"
#include "foundation/Unaligned.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "backup/ZR_Backup.h"
#include "backup/ZR_ScanKelp.h"
#include "backupio/ZR_BackupFile.h"
#include "backupio/ZR_ReadAhead.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/BadAlloc.h"

namespace {

constexpr uint32_t KELP_ID = MTF_MakeId("KELP");
constexpr uint32_t SSET_DATA_SET_OFFSET = 62;  // m_data_set_number of an SSET

void TraceHeader(const char* szKind, const void* pId, int64_t iOffset, uint32_t iLength) {
    TraceLine("%s %.4s at %I64d, %d bytes\n", szKind, static_cast<const char*>(pId), iOffset,
              static_cast<int>(iLength));
}

}  // namespace

// ---------------------------------------------------------------------------
// Life
// ---------------------------------------------------------------------------
ZR_Scan::ZR_Scan(ZR_Backup* pB, int32_t iDataSet)
    : m_pB(pB), m_pAhead(ZR_ReadAhead::Alloc()), m_iDataSet(iDataSet), m_pDBLK(m_aDBLK) {
    if (!m_pAhead) throw BadAlloc(static_cast<unsigned>(ZR_ReadAhead::ms_iAllocSize));
    memset(m_aDBLK, 0, sizeof m_aDBLK);
    memset(&m_STREAM, 0, sizeof m_STREAM);
}

ZR_Scan::~ZR_Scan() {
    ZR_ReadAhead::Free(m_pAhead);
    delete[] m_pSFMB;
}

uint32_t ZR_Scan::Process_BackupDataHeader(BackupDataHeader* pRecord) {
    delete pRecord;
    return ZR_SCAN_CONTINUE;
}

const wchar_t* ZR_Scan::FileName() const { return m_pFile ? m_pFile->GetFileName() : L""; }

// ---------------------------------------------------------------------------
// The outer loop
// ---------------------------------------------------------------------------
bool ZR_Scan::ScanFiles() {
    if (g_iTraceMode) TraceLine("ScanFiles\n");
    Start();
    if (!m_pB->Open()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Failed to open backup file\n");
        return false;
    }
    for (m_iFile = 0; m_iFile < m_pB->GetNumFiles(); ++m_iFile) {
        if (!ScanFile()) {
            m_pB->Close();
            return false;
        }
    }
    bool bResult = Finish();
    m_pB->Close();
    return bResult;
}

// One file of the backup; false ends the scan (the caller closes).
bool ZR_Scan::ScanFile() {
    m_pFile = m_pB->GetFile(m_iFile);
    m_iOffset = 0;
    m_pAhead->Reset();  // the window describes the previous file
    uint8_t aHead[ms_iHeadBytes];
    if (!ReadAt(0, aHead, sizeof aHead)) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Unable to read from backup file '%S'.\n",
                 FileName());
        return false;
    }
    uint32_t iId = ZR_Load<uint32_t>(aHead);
    if (iId == MTF_ID_TAPE) return ScanNative(aHead);
    if (iId == KELP_ID) return ScanKelp();
    ZR_Warning(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "The %S file is not a supported backup.\n",
               FileName());
    return true;
}

bool ZR_Scan::ScanNative(const uint8_t* pHead) {
    if (g_iTraceMode) TraceLine("Process TAPE\n");
    m_pB->m_eBackend = ZR_BACKEND_MTF;
    m_pFile->SetBackend(ZR_BACKEND_MTF);
    m_iSoftFilemarkSize = MTF_SoftFilemarkSize(*reinterpret_cast<const MTF_TAPE*>(pHead));
    m_eResult = ZR_SCAN_CONTINUE;
    if (m_iDataSet > 1) {
        SeekNativeDataSet();
        // A seek that could not use the filemarks leaves the position behind
        // the opening streams; the walk then finds the data set on its own.
        if (m_eResult == ZR_SCAN_ERROR) m_eResult = ZR_SCAN_CONTINUE;
    }
    ScanNativeFile();
    switch (m_eResult) {
        case ZR_SCAN_DONE:
            break;
        case ZR_SCAN_ERROR:
            ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Error during scan of backup file #%d.\n",
                     m_iFile);
            return false;
        case ZR_SCAN_ABORT:
            ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Abort during scan of backup file #%d.\n",
                     m_iFile);
            return false;
        default:
            return false;
    }
    if (m_iDataSet >= 0 && !IsWantedDataSet()) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__, "Dataset #%d not found in backup.\n",
                 m_iDataSet);
        return false;
    }
    return true;
}

bool ZR_Scan::ScanKelp() {
    if (g_iTraceMode) TraceLine("Process KELP\n");
    ZR_ScanKelp kelp(m_pFile, m_pAhead, m_wszKey);
    if (!kelp.ReadArchiveHeader()) return false;
    if (kelp.ArchiveVersion() >= ZR_ScanKelp::ms_iStripeGuidVersion || m_iFile == 0) {
        kelp.CopyStripeGuid(m_pB->m_aKelpGuid);
        if (m_iDataSet > 0 && !kelp.CopyBackupSetGuid(m_iDataSet, m_pB->m_aKlbsGuid)) return false;
    }
    m_pB->m_eBackend = ZR_BACKEND_KELP;
    m_pFile->SetBackend(ZR_BACKEND_KELP);
    // Reading the blocks of a compressed backup needs the decompressing
    // reader, which this build does not have: refuse here, where the file is
    // known to be compressed, rather than let a mount fail later on reads.
    ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanFiles", __LINE__,
             "The compressed backup file %S cannot be read by this build.\n", FileName());
    return false;
}

// ---------------------------------------------------------------------------
// The walk of one native file
// ---------------------------------------------------------------------------
void ZR_Scan::ScanNativeFile() {
    m_bEsetSeen = false;
    while (m_eResult == ZR_SCAN_CONTINUE) {
        uint8_t aId[4];
        // A position that cannot give four bytes is the end of the file.
        if (!ReadAt(aId, sizeof aId)) {
            m_eResult = ZR_SCAN_DONE;
            break;
        }
        uint32_t iId = ZR_Load<uint32_t>(aId);
        if (MTF_IsBlockId(iId)) {
            ReadBlock();
        } else if (!MTF_IsStreamId(iId)) {
            m_eResult = ZR_SCAN_ERROR;
            ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ScanNativeFile", __LINE__, "Header type %d is not supported\n",
                     static_cast<int>(iId));
        } else {
            ReadStream();
        }
        if (m_iDataSet < 0 && static_cast<uint64_t>(m_iOffset) + 4 >= m_pFile->GetFileSize())
            m_eResult = ZR_SCAN_DONE;
    }
}

void ZR_Scan::ReadBlock() {
    int64_t iStart = m_iOffset;
    uint32_t iLength = 0;
    uint32_t iAdvance = 0;
    if (!ReadNativeDBLK(m_pDBLK, &iLength, &iAdvance)) {
        m_eResult = ZR_SCAN_ERROR;
        return;
    }
    DispatchBlock(iLength);
    bool bHeaderRun = MTF_BlockId(*Block()) == MTF_ID_PH6S;
    m_iOffset = iStart + iAdvance;
    if (bHeaderRun) ProcessHeaderRun();
}

void ZR_Scan::DispatchBlock(uint32_t iLength) {
    const MTF_DB_HDR* pBlock = Block();
    uint32_t iId = MTF_BlockId(*pBlock);
    if (iId == MTF_ID_SSET) m_iCurrentDataSet = ZR_Load<uint16_t>(m_pDBLK + SSET_DATA_SET_OFFSET);
    bool bAlways = iId == MTF_ID_TAPE || iId == MTF_ID_SFMB;
    bool bWanted = IsWantedDataSet();
    if (bAlways || bWanted) Process_DBLK(pBlock, iLength);
    if (iId == MTF_ID_TAPE) {
        m_eResult = Process_TAPE(pBlock);
    } else if (iId == MTF_ID_SFMB) {
        m_eResult = Process_SFMB(pBlock);
        // The filemark behind the ESET of the wanted data set ends the walk.
        if (bWanted && m_bEsetSeen) m_eResult = ZR_SCAN_DONE;
    } else if (bWanted) {
        m_eResult = ProcessOtherBlock(iId);
    }
}

uint32_t ZR_Scan::ProcessOtherBlock(uint32_t iId) {
    const MTF_DB_HDR* pBlock = Block();
    switch (iId) {
        case MTF_ID_ESET:
            m_bEsetSeen = true;
            return Process_ESET(pBlock);
        case MTF_ID_PH6S: return Process_PH6S(pBlock);
        case MTF_ID_MSLS: return Process_MSLS(pBlock);
        case MTF_ID_MSTL: return Process_MSTL(pBlock);
        case MTF_ID_MSDA: return Process_MSDA(pBlock);
        case MTF_ID_MSCI: return Process_MSCI(pBlock);
        case MTF_ID_ESPB: return Process_ESPB(pBlock);
        case MTF_ID_CFIL: return Process_CFIL(pBlock);
        case MTF_ID_FILE: return Process_FILE(pBlock);
        case MTF_ID_DIRB: return Process_DIRB(pBlock);
        case MTF_ID_VOLB: return Process_VOLB(pBlock);
        case MTF_ID_EOTM: return Process_EOTM(pBlock);
        case MTF_ID_SSET: return Process_SSET(pBlock);
        default: return ZR_SCAN_CONTINUE;
    }
}

void ZR_Scan::ReadStream() {
    int64_t iStart = m_iOffset;
    uint64_t iAdvance = 0;
    if (!ReadNativeSTREAM(&m_STREAM, &iAdvance)) {
        m_eResult = ZR_SCAN_ERROR;
        return;
    }
    if (IsWantedDataSet()) ProcessStream();
    // A length that reaches past the end of the file (a file cut short, or
    // a damaged length) takes the walk to the end, where it stops.
    const uint64_t iLeft = m_pFile->GetFileSize() - static_cast<uint64_t>(iStart);
    m_iOffset = iStart + static_cast<int64_t>(std::min(iAdvance, iLeft));
}

void ZR_Scan::ProcessStream() {
    m_eResult = Process_STREAM(&m_STREAM);
    m_iOffset += MTF_STREAM_HDR_SIZE;
    uint32_t iId = MTF_StreamId(m_STREAM);
    if (iId == MTF_ID_MQDA) {
        m_iOffset += MTF_SQL_DATA_PREFIX;
        m_eResult = Process_MQDA(&m_STREAM);
    } else if (iId == MTF_ID_MQTL) {
        if (m_STREAM.m_length == 0) return;
        m_iOffset += MTF_SQL_DATA_PREFIX;
        m_eResult = Process_MQTL(&m_STREAM);
    } else if (iId == MTF_ID_RAID || iId == MTF_ID_MQCI || iId == MTF_ID_MQLS) {
        ProcessDataStream(iId);
    }
}

// A stream whose whole content goes to its visitor.
void ZR_Scan::ProcessDataStream(uint32_t iId) {
    uint32_t iLength = static_cast<uint32_t>(m_STREAM.m_length);
    // A length that reaches past the file is a damaged header: refuse it
    // before allocating what it asks for.
    if (static_cast<uint64_t>(m_iOffset) + iLength > m_pFile->GetFileSize()) {
        FailRead("ZR_Scan::ProcessStream", __LINE__, iLength);
        m_eResult = ZR_SCAN_ERROR;
        return;
    }
    std::unique_ptr<uint8_t[]> pData(new uint8_t[iLength ? iLength : 1]);
    if (iLength && !ReadAt(pData.get(), iLength)) {
        m_eResult = ZR_SCAN_ERROR;
        return;
    }
    if (iId == MTF_ID_RAID)
        m_eResult = Process_RAID(pData.get(), iLength);
    else if (iId == MTF_ID_MQCI)
        m_eResult = Process_MQCI(pData.get(), iLength);
    else
        m_eResult = Process_MQLS(pData.get(), iLength);
}

// The run of BackupDataHeader records behind a PH6S block.
void ZR_Scan::ProcessHeaderRun() {
    for (;;) {
        auto pRecord = std::make_unique<BackupDataHeader>();
        if (!ReadAt(pRecord.get(), sizeof(BackupDataHeader))) {
            m_eResult = ZR_SCAN_ERROR;
            return;
        }
        if (IsDumping()) DumpHeader("BackupDataHeader", pRecord.get(), sizeof(BackupDataHeader));
        uint32_t iDataOffset = pRecord->m_dataOffset;
        uint32_t iDataLength = pRecord->m_dataLength;
        uint32_t iRootId = pRecord->m_rootId;
        m_eResult = Process_BackupDataHeader(pRecord.release());
        if (iDataOffset == 0) {
            m_iOffset += iRootId;
            return;
        }
        m_iOffset += static_cast<int64_t>(iDataOffset) + iDataLength;
    }
}

// ---------------------------------------------------------------------------
// Checked reads
// ---------------------------------------------------------------------------
bool ZR_Scan::ReadAt(int64_t iOffset, void* pDest, uint32_t iLen) {
    uint32_t iRead = 0;
    if (iOffset < 0) return false;
    return m_pFile->Read(m_pAhead, pDest, static_cast<uint64_t>(iOffset), iLen, IO_READ, &iRead) && iRead == iLen;
}

void ZR_Scan::FailRead(const char* szFunction, int iLine, uint32_t iLen) {
    ZR_Error(m_wszKey, __FILE__, szFunction, iLine, "Failed to read %d bytes from %S at offset %d.\n",
             static_cast<int>(iLen), FileName(), static_cast<int>(m_iOffset));
}

void ZR_Scan::DumpHeader(const char* szKind, const void* pHeader, uint32_t iLength) {
    if (g_iTraceMode) TraceHeader(szKind, pHeader, m_iOffset, iLength);
}

bool ZR_Scan::ReadNativeDBLK(uint8_t* pBuffer, uint32_t* piLength, uint32_t* piAdvance) {
    if (!ReadAt(pBuffer, MTF_DB_HDR_SIZE)) {
        FailRead("ZR_Scan::ReadNativeDBLK", __LINE__, MTF_DB_HDR_SIZE);
        return false;
    }
    const MTF_DB_HDR* pHdr = reinterpret_cast<const MTF_DB_HDR*>(pBuffer);
    if (!MTF_IsBlockChecksumValid(*pHdr)) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ReadNativeDBLK", __LINE__,
                 "DBLK Corruption detected in \"%S\" at offset %I64d.\n", FileName(), m_iOffset);
        return false;
    }
    uint32_t iLength = pHdr->m_first_event_offset;
    if (iLength == 0 && MTF_BlockId(*pHdr) == MTF_ID_SFMB) iLength = MTF_SFMB_ZERO_LENGTH;
    uint32_t iWanted = iLength < ms_iMaxBlockBytes ? iLength : ms_iMaxBlockBytes;
    if (iWanted > MTF_DB_HDR_SIZE && !ReadAt(pBuffer, iWanted)) {
        FailRead("ZR_Scan::ReadNativeDBLK", __LINE__, iWanted);
        return false;
    }
    if (IsDumping()) DumpHeader("DBLK", pBuffer, iWanted);
    // A length that does not move the walk forward would walk this block
    // for ever: the header is sound by its checksum but not usable.
    uint32_t iAdvance = MTF_BlockLength(pBuffer, iWanted > MTF_DB_HDR_SIZE ? iWanted : MTF_DB_HDR_SIZE);
    if (iAdvance == 0) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ReadNativeDBLK", __LINE__,
                 "DBLK Corruption detected in \"%S\" at offset %I64d.\n", FileName(), m_iOffset);
        return false;
    }
    *piLength = iWanted;
    *piAdvance = iAdvance;
    return true;
}

bool ZR_Scan::ReadNativeSTREAM(MTF_STREAM_HDR* pBuffer, uint64_t* piAdvance) {
    if (!ReadAt(pBuffer, MTF_STREAM_HDR_SIZE)) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ReadNativeSTREAM", __LINE__,
                 "Failed to read %d bytes from %S at offset %d\n", static_cast<int>(MTF_STREAM_HDR_SIZE), FileName(),
                 static_cast<int>(m_iOffset));
        return false;
    }
    uint64_t iAdvance = MTF_StreamLength(*pBuffer);
    if (!MTF_IsStreamChecksumValid(*pBuffer) || iAdvance == 0) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ReadNativeSTREAM", __LINE__,
                 "STREAM Corruption detected in \"%S\" at offset %I64d.\n", FileName(), m_iOffset);
        return false;
    }
    if (IsDumping()) DumpHeader("STREAM", pBuffer, MTF_STREAM_HDR_SIZE);
    *piAdvance = iAdvance;
    return true;
}
