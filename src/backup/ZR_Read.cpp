#include "backup/ZR_Read.h"

#include <cstring>

#include "backup/ZR_Backup.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"

namespace {

bool Holds(const ZR_StripeLocation& loc, uint64_t iOffset) {
    return iOffset >= loc.iStripeOfs && iOffset - loc.iStripeOfs < loc.iLength;
}

}  // namespace

ZR_Read::ZR_Read(ZR_Backup* pB, int iThread) : m_pB(pB), m_iThread(iThread) {}

ZR_Read::~ZR_Read() = default;

ZR_CMaps* ZR_Read::Map() const { return m_pB->m_pCMaps; }

void ZR_Read::ClearStreamPositions() {
    m_iSTREAM = -1;
    m_iStream = -1;
    m_iStreamPrevious = 0;
    m_iStreamLength = 0;
    m_iStreamMarker = 0;
    m_iStreamCursor = 0;
}

void ZR_Read::Reset() {
    m_iDBLK = -1;
    ClearStreamPositions();
}

// ---------------------------------------------------------------------------
// Lookups
// ---------------------------------------------------------------------------

bool ZR_Read::Lookup(uint32_t iDBLKType, int iOccurrence) {
    ClearStreamPositions();
    m_iDBLKType = iDBLKType;
    ZR_CMaps* pMap = Map();
    const int n = pMap->GetNumDBLKs(m_iThread);
    int iMet = 0;
    for (int i = m_iDBLK + 1; i < n; ++i) {
        if ((*pMap)(m_iThread, i).m_iType != iDBLKType)
            continue;
        if (iOccurrence < 0 || iMet++ == iOccurrence) {
            m_iDBLK = i;
            return true;
        }
    }
    m_iDBLK = -1;
    return false;
}

bool ZR_Read::LookupSTREAM(uint32_t iSTREAMType, int iOccurrence) {
    m_iSTREAMType = iSTREAMType;
    m_iStream = -1;
    if (m_iDBLK < 0)
        return false;
    ZR_CMaps* pMap = Map();
    const int n = pMap->GetNumSTREAMs(m_iThread, m_iDBLK);
    int iMet = 0;
    for (int i = m_iSTREAM + 1; i < n; ++i) {
        const ZR_STREAM_CMap& stream = (*pMap)(m_iThread, m_iDBLK)(i);
        if (stream.m_iType != iSTREAMType || static_cast<int>(stream) == 0)
            continue;
        if (iOccurrence < 0 || iMet++ == iOccurrence) {
            m_iSTREAM = i;
            return true;
        }
    }
    m_iSTREAM = n;  // past the last: a further search finds nothing
    return false;
}

bool ZR_Read::Next() {
    if (m_iDBLK < 0 || m_iSTREAM < 0 || m_iStream < 0)
        return false;
    if (m_iStream + 1 < Map()->GetNumSegments(m_iThread, m_iDBLK, m_iSTREAM)) {
        ++m_iStream;
        return true;
    }
    m_iStream = -1;
    return false;
}

uint64_t ZR_Read::GetStreamLength() {
    if (m_iDBLK < 0 || m_iSTREAM < 0 || m_iSTREAM >= Map()->GetNumSTREAMs(m_iThread, m_iDBLK))
        return 0;
    return (*Map())(m_iThread, m_iDBLK)(m_iSTREAM).m_iLength;
}

ZR_StripeLocation ZR_Read::GetLocation() {
    if (m_iDBLK < 0 || m_iSTREAM < 0 || m_iStream < 0)
        return ZR_StripeLocation{};
    return Map()->GetLocation(m_iThread, m_iDBLK, m_iSTREAM, m_iStream);
}

// ---------------------------------------------------------------------------
// Seeks
// ---------------------------------------------------------------------------

bool ZR_Read::SeekStreamOffset(uint64_t iOffset) {
    m_iStream = -1;
    if (m_iDBLK < 0 || m_iSTREAM < 0)
        return false;
    ZR_CMaps* pMap = Map();
    const int n = pMap->GetNumSegments(m_iThread, m_iDBLK, m_iSTREAM);
    uint64_t iStart = 0;
    for (int i = 0; i < n; ++i) {
        const uint64_t iLength = pMap->GetLocation(m_iThread, m_iDBLK, m_iSTREAM, i).iLength;
        if (iOffset >= iStart && iOffset - iStart < iLength) {
            m_iStream = i;
            m_iStreamMarker = iStart;
            m_iStreamCursor = iOffset;
            m_iStreamPrevious = iOffset;
            return true;
        }
        iStart += iLength;
    }
    return false;
}

ZR_StripeLocation ZR_Read::Found(const ZR_StripeLocation& loc, uint64_t iOffset, int iStage) {
    if (g_iTraceMode)
        TraceLine("ZR_Read::SeekStripeOffset(%I64d) stage %d: m_iDBLK: %d m_iSTREAM: %d m_iStream: %d\n",
                  static_cast<int64_t>(iOffset), iStage, m_iDBLK, m_iSTREAM, m_iStream);
    m_iStreamPrevious = iOffset;
    m_iStreamCursor = iOffset;
    m_iStreamMarker = loc.iStripeOfs;
    return loc;
}

// The offset lies in a gap of the current block behind stream m_iSTREAM's
// header (a pad, a stream's 2-byte prefix, the alignment behind a stream):
// the entry in front is the last segment of an earlier stream that starts
// below the offset, else the block itself. In a native file the distance
// from that entry leads straight to the offset.
ZR_StripeLocation ZR_Read::EntryInFront(uint64_t iOffset) {
    ZR_CMaps* pMap = Map();
    for (int iStream = m_iSTREAM; iStream >= 0; --iStream) {
        const int nSegments = pMap->GetNumSegments(m_iThread, m_iDBLK, iStream);
        for (int i = nSegments - 1; i >= 0; --i) {
            ZR_StripeLocation seg = pMap->GetLocation(m_iThread, m_iDBLK, iStream, i);
            if (seg.iStripeOfs <= iOffset) {
                m_iSTREAM = iStream;
                m_iStream = i;
                return Found(seg, iOffset, 5);
            }
        }
    }
    m_iSTREAM = -1;
    m_iStream = -1;
    return Found(pMap->GetLocation(m_iThread, m_iDBLK), iOffset, 5);
}

// The offset lies behind the header of block m_iDBLK and below the next
// block: in a stream header, a segment, or a gap.
ZR_StripeLocation ZR_Read::SeekInBlock(uint64_t iOffset) {
    ZR_CMaps* pMap = Map();
    const int nStreams = pMap->GetNumSTREAMs(m_iThread, m_iDBLK);
    for (m_iSTREAM = 0; m_iSTREAM < nStreams; ++m_iSTREAM) {
        ZR_StripeLocation header = pMap->GetLocation(m_iThread, m_iDBLK, m_iSTREAM);
        if (Holds(header, iOffset))
            return Found(header, iOffset, 2);
        if (iOffset < header.iStripeOfs)
            break;
    }
    if (m_iSTREAM == 0) {
        m_iSTREAM = -1;
        return Found(pMap->GetLocation(m_iThread, m_iDBLK), iOffset, 3);
    }
    --m_iSTREAM;
    if (g_iTraceMode)
        TraceLine("search 4: m_iSTREAM: %d\n", m_iSTREAM);
    const int nSegments = pMap->GetNumSegments(m_iThread, m_iDBLK, m_iSTREAM);
    for (m_iStream = 0; m_iStream < nSegments; ++m_iStream) {
        ZR_StripeLocation seg = pMap->GetLocation(m_iThread, m_iDBLK, m_iSTREAM, m_iStream);
        if (Holds(seg, iOffset))
            return Found(seg, iOffset, 4);
    }
    m_iStream = -1;
    return EntryInFront(iOffset);
}

ZR_StripeLocation ZR_Read::SeekStripeOffset(uint64_t iOffset) {
    Reset();
    ZR_CMaps* pMap = Map();
    const int nBlocks = pMap->GetNumDBLKs(m_iThread);
    for (int i = 0; i < nBlocks; ++i) {
        ZR_StripeLocation block = pMap->GetLocation(m_iThread, i);
        if (Holds(block, iOffset)) {
            m_iDBLK = i;
            return Found(block, iOffset, 1);
        }
        if (iOffset < block.iStripeOfs) {
            if (i == 0)
                break;  // in front of the first block: nothing maps it
            m_iDBLK = i - 1;
            return SeekInBlock(iOffset);
        }
    }
    Reset();
    return ZR_StripeLocation{};
}

// ---------------------------------------------------------------------------
// Reads
// ---------------------------------------------------------------------------

bool ZR_Read::ReadAt(ZR_ReadAhead* pAhead, void* pDest, const ZR_StripeLocation& loc, uint32_t iLen) {
    uint32_t iRead = 0;
    return m_pB->Read(pAhead, pDest, loc, 0, iLen, IO_READ, 0, &iRead, m_iThread, nullptr, loc.iStripeOfs) &&
           iRead == iLen;
}

const MTF_DB_HDR* ZR_Read::Read(ZR_ReadAhead* pAhead, uint32_t iDBLKType, int iOccurrence) {
    if (!Lookup(iDBLKType, iOccurrence))
        return nullptr;
    ZR_StripeLocation loc = Map()->GetLocation(m_iThread, m_iDBLK);
    MTF_DB_HDR probe;
    if (!ReadAt(pAhead, &probe, loc, ms_iBlockProbe))
        return nullptr;
    const uint32_t iSize = probe.m_first_event_offset < ms_iBlockProbe ? ms_iBlockProbe : probe.m_first_event_offset;
    m_pDBLK.reset(new uint8_t[iSize]);
    if (!ReadAt(pAhead, m_pDBLK.get(), loc, iSize)) {
        m_pDBLK.reset();
        return nullptr;
    }
    return GetDBLK();
}

bool ZR_Read::ReadRecord(ZR_ReadAhead* pAhead, uint32_t iDBLKType, uint32_t iRecordSize,
                         const MTF_DB_HDR** ppBlock) {
    Reset();
    const MTF_DB_HDR* pBlock = Read(pAhead, iDBLKType, -1);
    *ppBlock = nullptr;
    if (m_iDBLK < 0)
        return true;  // the row has no such block
    if (pBlock && MTF_BlockId(*pBlock) == iDBLKType && MTF_IsBlockChecksumValid(*pBlock) &&
        pBlock->m_first_event_offset >= iRecordSize) {
        *ppBlock = pBlock;
        return true;
    }
    ZR_Error(m_pB->GetKey(), __FILE__, "ZR_Read::ReadRecord", __LINE__,
             "The content map places a %.4s block of %d bytes or more at offset %I64d of backup file #%d, where the "
             "backup holds none.\n",
             reinterpret_cast<const char*>(&iDBLKType), static_cast<int>(iRecordSize),
             static_cast<int64_t>(Map()->GetLocation(m_iThread, m_iDBLK).iStripeOfs), m_iThread);
    return false;
}

const MTF_STREAM_HDR* ZR_Read::Read(ZR_ReadAhead* pAhead, uint32_t iSTREAMType) {
    if (g_iTraceMode)
        TraceLine("ZR_Read::Read MTF_STREAM_HDR::MTF_STREAM_ID\n");
    if (m_iDBLK < 0 || !LookupSTREAM(iSTREAMType, -1))
        return nullptr;
    ZR_StripeLocation loc = Map()->GetLocation(m_iThread, m_iDBLK, m_iSTREAM);
    auto pHeader = std::make_unique<MTF_STREAM_HDR>();
    if (!ReadAt(pAhead, pHeader.get(), loc, MTF_STREAM_HDR_SIZE))
        return nullptr;
    m_pSTREAM = std::move(pHeader);
    m_iStreamLength = m_pSTREAM->m_length;
    const bool bPrefixed = iSTREAMType == MTF_ID_MQDA || iSTREAMType == MTF_ID_MQTL;
    if (bPrefixed && m_iStreamLength >= MTF_SQL_DATA_PREFIX)
        m_iStreamLength -= MTF_SQL_DATA_PREFIX;
    return m_pSTREAM.get();
}

bool ZR_Read::Read(ZR_ReadAhead* pAhead, void* pDest, uint64_t iOffset, uint32_t iLen) {
    if (m_iDBLK < 0 || m_iSTREAM < 0 || !SeekStreamOffset(iOffset))
        return false;
    uint8_t* p = static_cast<uint8_t*>(pDest);
    uint32_t iLeft = iLen;
    while (iLeft > 0) {
        ZR_StripeLocation seg = GetLocation();
        uint64_t d = m_iStreamCursor - m_iStreamMarker;
        if (d >= seg.iLength) {
            m_iStreamMarker += seg.iLength;
            if (!Next())
                return false;
            seg = GetLocation();
            d = 0;
        }
        const uint64_t iRest = seg.iLength - d;
        const uint32_t n = iRest < iLeft ? static_cast<uint32_t>(iRest) : iLeft;
        uint32_t iRead = 0;
        if (!m_pB->Read(pAhead, p, seg, d, n, IO_READ, 0, &iRead, m_iThread, nullptr, seg.iStripeOfs + d) ||
            iRead != n)
            return false;
        m_iStreamPrevious = m_iStreamCursor;
        m_iStreamCursor += n;
        p += n;
        iLeft -= n;
    }
    return true;
}

bool ZR_Read::Read(void* pDest, uint64_t iOffset, uint32_t iLen, uint32_t* piRead) {
    ZR_StripeLocation loc = *m_pNextLocation;
    if (g_iTraceMode)
        TraceLine("iNextOffset GetStripeOfs: %I64d GetBkpFileOfs: %I64d\n", static_cast<int64_t>(loc.iStripeOfs),
                  static_cast<int64_t>(loc.iBkpFileOfs));
    ZR_IO_e eIO = IO_READ_DEVICE_SEQUENTIAL;
    uint64_t iExtra = 0;
    // Offset 0 never takes the short cut: an unused next location has
    // stripe offset 0 too.
    if (loc.iStripeOfs != iOffset || iOffset == 0) {
        loc = SeekStripeOffset(iOffset);
        eIO = IO_READ;
        iExtra = m_iStreamCursor - m_iStreamMarker;
        if (g_iTraceMode)
            TraceLine("m_iStreamCursor: %I64d m_iStreamMarker: %I64d cmap GetStripeOfs: %I64d GetBkpFileOfs: %I64d\n",
                      static_cast<int64_t>(m_iStreamCursor), static_cast<int64_t>(m_iStreamMarker),
                      static_cast<int64_t>(loc.iStripeOfs), static_cast<int64_t>(loc.iBkpFileOfs));
    }
    uint8_t* p = static_cast<uint8_t*>(pDest);
    uint32_t iLeft = iLen;
    ZR_StripeLocation next{};
    while (iLeft > 0) {
        uint32_t iRead = iLeft;
        if (loc.iLength > 0) {
            if (!m_pB->Read(nullptr, p, loc, iExtra, iLeft, eIO, 0, &iRead, m_iThread, &next,
                            iOffset + (iLen - iLeft)))
                break;
            if (iRead == 0)
                break;  // the end of the file: nothing more to come
        }
        iLeft -= iRead < iLeft ? iRead : iLeft;
        p += iRead;
        loc = next;
        eIO = IO_READ_DEVICE_SEQUENTIAL;
        iExtra = 0;
    }
    if (piRead)
        *piRead = iLen - iLeft;
    if (iLeft == iLen)
        return false;
    *m_pNextLocation = next;
    return true;
}
