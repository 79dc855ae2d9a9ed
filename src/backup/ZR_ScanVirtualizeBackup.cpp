#include "backup/ZR_ScanVirtualizeBackup.h"
#include "foundation/Unaligned.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "backup/ZR_Backup.h"
#include "backup/ZR_Read.h"
#include "backup/ZR_VirtualBackupFile.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"

namespace {

// Offsets inside the configuration records that the view changes or tests.
constexpr uint32_t kScinFileCount = 12;     // m_database_file_count
constexpr uint32_t kScinServerVersion = 24; // m_server_version
constexpr uint32_t kScinFirstLsn = 32;      // m_first_lsn
constexpr uint32_t kScinLastLsn = 42;       // m_last_lsn
constexpr uint32_t kSfinPageCount = 24;     // m_backed_up_page_count
constexpr uint32_t kSfinFileType = 28;      // m_file_type
constexpr uint32_t kSfinFileSize = 40;      // m_file_size
constexpr uint32_t kSfinDiffBaseLsn = 158;  // m_differential_base_lsn
constexpr uint32_t kLsnBytes = 10;
constexpr uint32_t kStreamHeader = sizeof(MTF_STREAM_HDR);
// A configuration stream is a few kilobytes; more is a damaged map.
constexpr uint64_t kMaxConfigBytes = 16u << 20;
// The filemark value lies at 60 or 72; the block is read that far.
constexpr uint32_t kFilemarkHeadBytes = sizeof(MTF_SFMB_V10);

bool IsZeroLsn(const uint8_t* p) {
    return std::all_of(p, p + kLsnBytes, [](uint8_t b) { return b == 0; });
}

uint16_t XorWords(uint64_t v) {
    return static_cast<uint16_t>(v ^ (v >> 16) ^ (v >> 32) ^ (v >> 48));
}

}  // namespace

uint16_t ZR_ScanVirtualizeBackup::RecomputeStreamChecksum(const MTF_STREAM_HDR& hdr, uint64_t iNew) {
    uint8_t aWords[20];
    std::memcpy(aWords, &hdr, sizeof aWords);
    uint16_t iSum = 0;
    for (int i = 0; i < 20; i += 2)
        iSum ^= static_cast<uint16_t>(aWords[i] | aWords[i + 1] << 8);
    return static_cast<uint16_t>(iSum ^ XorWords(hdr.m_length) ^ XorWords(iNew));
}

bool ZR_ScanVirtualizeBackup::Run(ZR_Backup* pB) {
    const int iDataSet = pB->GetDataSetNumber();
    ZR_ScanVirtualizeBackup scan(pB, iDataSet);
    if (scan.ScanFiles(pB->m_bDiffFollows))
        return true;
    ZR_Error(pB->GetKey(), __FILE__, "ZR_Backup::PrepareContent", __LINE__,
             "File Backup Virtualize Scan failed for data set %d\n", iDataSet);
    return false;
}

bool ZR_ScanVirtualizeBackup::ScanFiles(bool bDiffFollows) {
    if (!m_pB->Open()) {
        ZR_Error(m_pB->GetKey(), __FILE__, "ZR_ScanVirtualizeBackup::ScanFiles", __LINE__,
                 "Failed to open backup file\n");
        return false;
    }
    if (g_iTraceMode)
        TraceLine("ZR_ScanVirtualizeBackup::ScanFiles\n");
    // A backup object prepared again (a second mount) gets fresh views.
    m_pB->m_aVirtualFiles.Clean();
    const bool bLog = m_pB->IsLogBackup();
    bool bOk = true;
    const int iRows = m_pB->m_pCMaps->GetNumFiles();
    for (m_iDevice = 0; m_iDevice < iRows && bOk; ++m_iDevice) {
        ZR_VirtualBackupFile* pVirtual = m_pB->m_aVirtualFiles.Append(new ZR_VirtualBackupFile());
        if (!bLog)
            bOk = VirtualizeFile(pVirtual, bDiffFollows);
    }
    bOk = bOk && Finish();
    m_pB->Close();
    return bOk;
}

bool ZR_ScanVirtualizeBackup::VirtualizeFile(ZR_VirtualBackupFile* pVirtual, bool bDiffFollows) {
    if (bDiffFollows)
        pVirtual->m_bDropLog = true;
    ZR_Read read(m_pB, m_iDevice);
    const MTF_DB_HDR* pSset = nullptr;
    if (!read.ReadRecord(nullptr, MTF_ID_SSET, sizeof(MTF_SSET), &pSset))
        return false;
    if (pSset && (reinterpret_cast<const MTF_SSET*>(pSset)->m_sset_attributes & ESET_NORMAL_BIT))
        pVirtual->m_bNormalBackup = true;
    if (!ReadTape(read, pVirtual))
        return false;
    if (g_iTraceMode)
        TraceLine("VirtualizeConfigBlock for both for device %d\n", m_iDevice);
    // The first configuration block also sets the backup's version, which
    // the filemark visits need.
    return VirtualizeConfigBlock(pVirtual, MTF_ID_MSCI) && VirtualizeConfigBlock(pVirtual, MTF_ID_MSLS) &&
           VirtualizeBlocks(pVirtual);
}

bool ZR_ScanVirtualizeBackup::ReadTape(ZR_Read& read, ZR_VirtualBackupFile* pVirtual) {
    const MTF_DB_HDR* pTape = nullptr;
    if (!read.ReadRecord(nullptr, MTF_ID_TAPE, sizeof(MTF_TAPE), &pTape) || !pTape) {
        ZR_Error(m_pB->GetKey(), __FILE__, "ZR_ScanVirtualizeBackup::ScanFiles", __LINE__,
                 "Could not read TAPE struct in backup. GetLastError: %d\n", static_cast<int>(GetLastError()));
        return false;
    }
    pVirtual->m_iBlockSize = MTF_SoftFilemarkSize(*reinterpret_cast<const MTF_TAPE*>(pTape));
    return true;
}

// The view changes the data files' sizes in both configuration blocks, and
// takes its kept bytes from the first: a block that cannot be read leaves
// no view to make.
bool ZR_ScanVirtualizeBackup::VirtualizeConfigBlock(ZR_VirtualBackupFile* pVirtual, uint32_t iBlockType) {
    ZR_Read read(m_pB, m_iDevice);
    bool bFound = read.Lookup(iBlockType, -1) && read.LookupSTREAM(MTF_ID_MQCI, -1);
    uint64_t iLength = bFound ? read.GetStreamLength() : 0;
    if (g_iTraceMode)
        TraceLine("VirtualizeConfigBlock iDBLkLen: %d bFound: %d\n", static_cast<int>(iLength), bFound ? 1 : 0);
    std::vector<uint8_t> aData;
    int64_t iStripeOffset = 0;
    if (bFound && iLength > 0 && iLength <= kMaxConfigBytes && read.SeekStreamOffset(0)) {
        iStripeOffset = static_cast<int64_t>(read.GetStripeOffset());
        aData.resize(iLength);
        if (!read.Read(nullptr, aData.data(), 0, static_cast<uint32_t>(iLength)))
            aData.clear();
    }
    if (aData.empty()) {
        ZR_Error(m_pB->GetKey(), __FILE__, "ZR_ScanVirtualizeBackup::VirtualizeConfigBlock", __LINE__,
                 "No configuration stream of %I64u bytes can be read in the %.4s block of backup file #%d.\n",
                 iLength, reinterpret_cast<const char*>(&iBlockType), m_iDevice);
        return false;
    }
    if (g_iTraceMode)
        TraceLine("xbread.GetStripeOffset(): %I64d\n", iStripeOffset);
    Virtualize_MQCI(aData.data(), pVirtual, iStripeOffset, static_cast<uint32_t>(iLength));
    return true;
}

void ZR_ScanVirtualizeBackup::Virtualize_MQCI(const uint8_t* pData, ZR_VirtualBackupFile* pVirtual, int64_t iOfs,
                                              uint32_t iLength) {
    if (g_iTraceMode)
        TraceLine("Process_MQCI - iStripeOffset: %I64d\n", iOfs);
    if (iLength < sizeof(SQL_HEADER) + kScinFileCount)
        return;
    // The kept bytes come from the first configuration block only.
    if (pVirtual->m_iKeptBytes == 0)
        pVirtual->m_iKeptBytes = static_cast<int32_t>(ZR_Load<uint32_t>(pData + kScinFileCount) << 16);
    uint32_t p = 0;
    while (p + sizeof(SQL_HEADER) <= iLength) {
        // Only the low 16 bits of the size count, as a signed number; a
        // size that does not move forward ends the walk.
        int16_t iSize = static_cast<int16_t>(ZR_Load<uint32_t>(pData + p + 4) & 0xFFFF);
        if (iSize <= 0)
            break;
        uint32_t iAvail = std::min<uint32_t>(static_cast<uint32_t>(iSize), iLength - p);
        VirtualizeConfigRecord(pData + p, iAvail, pVirtual, iOfs + p);
        p += static_cast<uint32_t>(iSize);
    }
}

// One record of iSize bytes (what the stream holds of it) at the stripe
// offset iRecordOfs. Fields that the record is too short to hold are left
// alone.
void ZR_ScanVirtualizeBackup::VirtualizeConfigRecord(const uint8_t* pRecord, uint32_t iSize,
                                                     ZR_VirtualBackupFile* pVirtual, int64_t iRecordOfs) {
    const uint32_t iType = ZR_Load<uint32_t>(pRecord);
    if (iType == SQL_ID_SCIN) {
        if (iSize >= kScinServerVersion + 4)
            m_pB->m_iVersion = SQL_MajorVersion(ZR_Load<uint32_t>(pRecord + kScinServerVersion));
        if (pVirtual->m_bDropLog && iSize >= kScinLastLsn + kLsnBytes)
            AddChange(pVirtual, iRecordOfs + kScinLastLsn, pRecord + kScinFirstLsn, kLsnBytes, false);
        return;
    }
    if (iType != SQL_ID_SFIN || iSize < kSfinFileSize + 8 || ZR_Load<uint32_t>(pRecord + kSfinFileType) != 1)
        return;
    const uint32_t iKept = static_cast<uint32_t>(pVirtual->m_iKeptBytes);
    const uint32_t iPages = iKept >> 13;
    if (g_iTraceMode)
        TraceLine("SFIN m_backed_up_page_count virtual change - start: %I64d iOfs: %I64d\n",
                  iRecordOfs + kSfinPageCount, iRecordOfs);
    AddChange(pVirtual, iRecordOfs + kSfinPageCount, &iPages, 4, false);
    bool bZeroBase = iSize >= kSfinDiffBaseLsn + kLsnBytes && IsZeroLsn(pRecord + kSfinDiffBaseLsn);
    if (pVirtual->m_bNormalBackup || bZeroBase) {
        uint64_t iSizeValue = iKept;
        AddChange(pVirtual, iRecordOfs + kSfinFileSize, &iSizeValue, 8, false);
    }
}

bool ZR_ScanVirtualizeBackup::VirtualizeBlocks(ZR_VirtualBackupFile* pVirtual) {
    ZR_CMaps* pMap = m_pB->m_pCMaps;
    const int n = pMap->GetNumDBLKs(m_iDevice);
    bool bOk = true;
    for (int i = 0; i < n && bOk; ++i) {
        const uint32_t iType = (*pMap)(m_iDevice, i).m_iType;
        const ZR_StripeLocation loc = pMap->GetLocation(m_iDevice, i);
        const int64_t iOfs = static_cast<int64_t>(loc.iStripeOfs);
        if (iType == MTF_ID_MSDA)
            bOk = VirtualizeDataBlock(pVirtual, i);
        else if (iType == MTF_ID_SFMB)
            bOk = VirtualizeFilemarkAt(pVirtual, loc);
        else if (iType == MTF_ID_MSTL)
            Virtualize_MSTL(nullptr, pVirtual, iOfs);
        else if (iType == MTF_ID_MSLS)
            Virtualize_MSLS(nullptr, pVirtual, iOfs);
    }
    return bOk;
}

// The first stream of the block, then the last one; a block with one stream
// is visited twice, and the second visit changes nothing.
bool ZR_ScanVirtualizeBackup::VirtualizeDataBlock(ZR_VirtualBackupFile* pVirtual, int iDBLK) {
    const int iStreams = m_pB->m_pCMaps->GetNumSTREAMs(m_iDevice, iDBLK);
    if (iStreams <= 0)
        return true;
    if (!VirtualizeStreamAt(pVirtual, iDBLK, 0) || !VirtualizeStreamAt(pVirtual, iDBLK, iStreams - 1))
        return false;
    AlignHole(pVirtual);
    return true;
}

// Everything behind the hole moves down by its length, and the soft
// filemarks behind it must stay on their grid (the soft filemark block
// size). When the data cut is not a whole number of filemark blocks (a last
// stream of length 0 pulls the hole over a checksum stream, or the data does
// not end on a block), the hole ends E bytes earlier and those E real bytes,
// now the first ones behind the kept data, are overwritten with the header
// of an alignment pad that covers them.
void ZR_ScanVirtualizeBackup::AlignHole(ZR_VirtualBackupFile* pVirtual) {
    const int64_t G = pVirtual->m_iBlockSize;
    if (G == 0 || !pVirtual->m_bHoleSet || pVirtual->m_iHoleLength <= 0)
        return;
    int64_t E = pVirtual->m_iHoleLength % G;
    if (E == 0)
        return;
    if (E < static_cast<int64_t>(kStreamHeader))
        E += G;
    if (E > pVirtual->m_iHoleLength || E % 4 != 0)
        return;
    pVirtual->m_iHoleLength -= E;
    MTF_STREAM_HDR pad{};
    std::memcpy(pad.m_id, &MTF_ID_APAD, sizeof pad.m_id);
    pad.m_length = static_cast<uint64_t>(E) - kStreamHeader;
    MTF_SetStreamChecksum(pad);
    const int64_t iAt = pVirtual->m_iHoleStart + pVirtual->m_iHoleLength;
    const auto* pBytes = reinterpret_cast<const uint8_t*>(&pad);
    for (uint32_t i = 0; i < kStreamHeader; i += sizeof(ZR_VirtualChange::m_aValue)) {
        uint16_t n = static_cast<uint16_t>(std::min<size_t>(sizeof(ZR_VirtualChange::m_aValue), kStreamHeader - i));
        AddChange(pVirtual, iAt + i, pBytes + i, n, false);
    }
}

// The header at the map's location must be the stream the map says, and
// the data it announces must lie in the file: the cuts are worked out from
// its length.
bool ZR_ScanVirtualizeBackup::VirtualizeStreamAt(ZR_VirtualBackupFile* pVirtual, int iDBLK, int iSTREAM) {
    ZR_CMaps* pMap = m_pB->m_pCMaps;
    const ZR_StripeLocation loc = pMap->GetLocation(m_iDevice, iDBLK, iSTREAM);
    const uint32_t iType = (*pMap)(m_iDevice, iDBLK)(iSTREAM).m_iType;
    MTF_STREAM_HDR hdr;
    const bool bRead = ReadLocation(loc, kStreamHeader);
    std::memcpy(&hdr, m_pBuffer.get(), sizeof hdr);
    const uint64_t iEnd = m_pB->GetFile(m_iDevice)->GetFileSize();
    const uint64_t iData = loc.iStripeOfs + kStreamHeader;
    if (!bRead || MTF_StreamId(hdr) != iType || !MTF_IsStreamChecksumValid(hdr) || iData > iEnd ||
        hdr.m_length > iEnd - iData) {
        ZR_Error(m_pB->GetKey(), __FILE__, "ZR_ScanVirtualizeBackup::Virtualize_MSDA", __LINE__,
                 "The %.4s stream header that the content map places at offset %I64d of backup file #%d is not "
                 "there, or its %I64u bytes run past the end of the file (%I64u bytes).\n",
                 reinterpret_cast<const char*>(&iType), static_cast<int64_t>(loc.iStripeOfs), m_iDevice,
                 hdr.m_length, iEnd);
        return false;
    }
    m_iFile = m_iDevice;
    Virtualize_MSDA(&hdr, pVirtual, static_cast<int64_t>(loc.iStripeOfs));
    return true;
}

bool ZR_ScanVirtualizeBackup::VirtualizeFilemarkAt(ZR_VirtualBackupFile* pVirtual, const ZR_StripeLocation& loc) {
    const auto* pBlock = reinterpret_cast<const MTF_DB_HDR*>(m_pBuffer.get());
    if (!ReadLocation(loc, kFilemarkHeadBytes) || MTF_BlockId(*pBlock) != MTF_ID_SFMB ||
        !MTF_IsBlockChecksumValid(*pBlock)) {
        ZR_Error(m_pB->GetKey(), __FILE__, "ZR_ScanVirtualizeBackup::Virtualize_SFMB", __LINE__,
                 "The soft filemark block that the content map places at offset %I64d of backup file #%d is not "
                 "there.\n",
                 static_cast<int64_t>(loc.iStripeOfs), m_iDevice);
        return false;
    }
    Virtualize_SFMB(pBlock, pVirtual, static_cast<int64_t>(loc.iStripeOfs));
    return true;
}

// A compressed backup can deliver the bytes in more than one read, each
// going on from the location behind the one before.
bool ZR_ScanVirtualizeBackup::ReadLocation(const ZR_StripeLocation& loc, uint32_t iLen) {
    iLen = std::min(iLen, ms_iBufferBytes);
    ZR_StripeLocation cur = loc;
    uint32_t iDone = 0;
    while (iDone < iLen) {
        ZR_StripeLocation next{};
        uint32_t iRead = 0;
        if (!m_pB->Read(nullptr, m_pBuffer.get() + iDone, cur, 0, iLen - iDone, IO_READ, 0, &iRead, m_iDevice,
                        &next, cur.iStripeOfs) ||
            iRead == 0)
            return false;
        iDone += iRead;
        cur = next;
    }
    return true;
}

void ZR_ScanVirtualizeBackup::Virtualize_MSDA(const MTF_STREAM_HDR* pStream, ZR_VirtualBackupFile* pVirtual,
                                              int64_t iOfs) {
    const int64_t L = static_cast<int64_t>(pStream->m_length);
    const int64_t iPrefix = L & 15;  // bytes in front of the first page (2 in an MQDA)
    int64_t iNew = pVirtual->m_iKeptBytes + iPrefix;
    if (pVirtual->m_iHoleLength == 0 && !pVirtual->m_bHoleSet) {
        if (m_iFile == 0)
            pVirtual->m_iExtentsStart = iOfs + kStreamHeader + iPrefix;
        else
            iNew %= 16;  // the other stripes keep an empty stream
        uint64_t iNewLength = static_cast<uint64_t>(iNew);
        AddChange(pVirtual, iOfs + offsetof(MTF_STREAM_HDR, m_length), &iNewLength, 8, false);
        pVirtual->m_iHoleStart = iOfs + kStreamHeader + iPrefix + (iNew & ~int64_t{15});
        uint16_t iChecksum = RecomputeStreamChecksum(*pStream, iNewLength);
        AddChange(pVirtual, iOfs + offsetof(MTF_STREAM_HDR, m_header_checksum), &iChecksum, 2, false);
        // The view offset m_iHoleStart stands for the real end of the stream.
        pVirtual->m_iHoleLength = (L & ~int64_t{15}) - (iNew & ~int64_t{15});
        pVirtual->m_bHoleSet = true;
        return;
    }
    // A last stream of length 0: the hole grows up to it, so that it stands
    // right behind the cut-down first stream.
    if (L != 0)
        return;
    int64_t iNewHole = iOfs - pVirtual->m_iHoleStart;
    if (iNewHole > pVirtual->m_iHoleLength) {
        pVirtual->m_iHoleLength = iNewHole;
        pVirtual->m_bHoleSet = true;
    }
}

void ZR_ScanVirtualizeBackup::Virtualize_MSTL(const MTF_DB_HDR*, ZR_VirtualBackupFile* pVirtual, int64_t iOfs) {
    if (pVirtual->m_iFirstMSTL == 0 || iOfs < pVirtual->m_iFirstMSTL)
        pVirtual->m_iFirstMSTL = iOfs;
}

void ZR_ScanVirtualizeBackup::Virtualize_MSLS(const MTF_DB_HDR*, ZR_VirtualBackupFile* pVirtual, int64_t iOfs) {
    pVirtual->m_iMSLS = iOfs;
}

// The first entry of the block's filemark array (at 72 in the layout that
// keeps the array's offset in the word at 60, otherwise at 60) moves down
// by the cuts in front of the filemark it names. Blocks in front of the
// data are met before the hole is known and stay as they are.
void ZR_ScanVirtualizeBackup::Virtualize_SFMB(const MTF_DB_HDR* pBlock, ZR_VirtualBackupFile* pVirtual,
                                              int64_t iOfs) {
    uint32_t k = MTF_SfmbFindArrayOffset(pBlock, kFilemarkHeadBytes);
    if (k == 0)
        k = MTF_SfmbArrayOffset(m_pB->m_iVersion);
    const int64_t F = static_cast<int64_t>(ZR_Load<uint64_t>(reinterpret_cast<const uint8_t*>(pBlock) + k));
    if (F <= pVirtual->m_iHoleStart || pVirtual->m_iHoleStart < 1)
        return;
    // The log cut lies in front of F only when F is at or behind the MSLS.
    int64_t iCut = pVirtual->m_iHoleLength;
    if (pVirtual->m_iMSLS > 0 && F >= pVirtual->m_iMSLS)
        iCut += pVirtual->LogCut();
    uint64_t iSubtract = static_cast<uint64_t>(iCut);
    AddChange(pVirtual, iOfs + k, &iSubtract, 8, true);
}

void ZR_ScanVirtualizeBackup::AddChange(ZR_VirtualBackupFile* pVirtual, int64_t iOffset, const void* pValue,
                                        uint16_t iLength, bool bAdditive) {
    ZR_VirtualChange change{};
    change.m_iOffset = static_cast<uint64_t>(iOffset);
    change.m_iLength = iLength;
    std::memcpy(change.m_aValue, pValue, std::min<size_t>(iLength, sizeof change.m_aValue));
    change.m_bAdditive = bAdditive;
    pVirtual->AddVirtualChange(change);
}
