// The jump to an appended data set through the soft filemarks at the end of
// a native file, without reading the data sets in front of it.
//
// Each soft filemark block lists the offsets of the earlier filemarks, newest
// first; behind each filemark stands the SSET or ESET of a data set, so the
// data set numbers fall as the index rises. The search takes the last block
// of the file, steps back through older blocks while the wanted data set lies
// before the oldest entry, then searches the entries of one block by halves.
//
// Any read or check that fails sends the walk back to where it stood behind
// the opening streams, from where it finds the data set block by block: the
// seek is only a shortcut.
#include <cstring>

#include "backup/ZR_Scan.h"
#include "backupio/ZR_BackupFile.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"

namespace {

constexpr uint32_t SSET_DATA_SET_OFFSET = 62;
constexpr uint32_t ESET_DATA_SET_OFFSET = 78;
constexpr uint32_t SFMB_USED_OFFSET = 56;  // m_filemark_entries_used
constexpr uint32_t SFMB_ARRAY_OFFSET = 60;  // the array as versions 7 to 9 keep it
constexpr uint32_t MIN_SFMB_SIZE = 72;

void TraceSfmb(int64_t iOffset) { TraceLine("SFMB %I64d:\n", iOffset); }
void TraceSfmbEntry(int i, uint64_t iEntry) { TraceLine("  %3d: %I64d\n", i, static_cast<int64_t>(iEntry)); }

}  // namespace

void ZR_Scan::SeekNativeDataSet() {
    m_eResult = ZR_SCAN_CONTINUE;
    // The TAPE and the streams up to the SPAD: the visitors see them here.
    ReadBlock();
    while (m_eResult == ZR_SCAN_CONTINUE) {
        ReadStream();
        if (MTF_StreamId(m_STREAM) == MTF_ID_SPAD) break;
    }
    if (m_eResult != ZR_SCAN_CONTINUE) return;

    int64_t iFallback = m_iOffset;
    uint64_t iFileSize = m_pFile->GetFileSize();
    if (m_iSoftFilemarkSize < MIN_SFMB_SIZE || iFileSize < m_iSoftFilemarkSize) {
        m_eResult = ZR_SCAN_ERROR;
        return;
    }
    if (!m_pSFMB) m_pSFMB = new uint8_t[m_iSoftFilemarkSize];
    m_iOffset = static_cast<int64_t>(iFileSize - m_iSoftFilemarkSize);

    if (!SeekToOldestBlock() || !SearchEntries()) {
        if (m_eResult == ZR_SCAN_ERROR) m_iOffset = iFallback;
    }
}

// Steps back through the filemark blocks until the wanted data set is not
// older than the oldest entry of the block in m_pSFMB. False with m_eResult
// set when the search ends.
bool ZR_Scan::SeekToOldestBlock() {
    for (;;) {
        int64_t iBlock = m_iOffset;
        if (!ReadNativeSFMB(m_pSFMB)) return Fail(ZR_SCAN_ERROR);
        uint32_t n = NumEntries();
        if (n == 0) return NotFound();
        int32_t iDataSet = 0;
        bool bSset = false;
        if (!FindEntryDataSet(n - 1, &iDataSet, &bSset)) return Fail(ZR_SCAN_ERROR);
        if (m_iDataSet > iDataSet || (m_iDataSet == iDataSet && bSset)) return true;
        // An older block must stand in front of this one, or the entries
        // would lead the search in a circle.
        int64_t iOlder = static_cast<int64_t>(Entry(n - 1));
        if (iOlder >= iBlock) return Fail(ZR_SCAN_ERROR);
        m_iOffset = iOlder;
    }
}

// Searches the entries of the block in m_pSFMB by halves.
bool ZR_Scan::SearchEntries() {
    int32_t iNewest = 0;
    bool bSset = false;
    if (!FindEntryDataSet(0, &iNewest, &bSset)) return Fail(ZR_SCAN_ERROR);
    if (m_iDataSet > iNewest) return NotFound();
    int32_t iLow = 0;
    int32_t iHigh = static_cast<int32_t>(NumEntries()) - 1;
    while (iLow <= iHigh) {
        int32_t iMid = (iLow + iHigh) / 2;
        int32_t iDataSet = 0;
        if (!FindEntryDataSet(static_cast<uint32_t>(iMid), &iDataSet, &bSset)) return Fail(ZR_SCAN_ERROR);
        if (iDataSet == m_iDataSet && bSset) {
            m_iOffset = static_cast<int64_t>(Entry(static_cast<uint32_t>(iMid)) + m_iSoftFilemarkSize);
            m_eResult = ZR_SCAN_CONTINUE;
            return true;
        }
        // Newer entries have lower indices: an ESET of the wanted data set
        // sends the search towards the older entries, where its SSET lies.
        if (m_iDataSet <= iDataSet)
            iLow = iMid + 1;
        else
            iHigh = iMid - 1;
    }
    return NotFound();
}

bool ZR_Scan::Fail(uint32_t eResult) {
    m_eResult = eResult;
    return false;
}

bool ZR_Scan::NotFound() {
    ZR_Error(m_wszKey, __FILE__, "ZR_Scan::SeekNativeDataSet", __LINE__, "Dataset #%d not found in backup.\n",
             m_iDataSet);
    return Fail(ZR_SCAN_ABORT);
}

// The data set of the SSET or ESET behind the filemark of entry i; -1 for
// any other block. Leaves m_iOffset at that block.
bool ZR_Scan::FindEntryDataSet(uint32_t iEntry, int32_t* piDataSet, bool* pbIsSset) {
    m_iOffset = static_cast<int64_t>(Entry(iEntry) + m_iSoftFilemarkSize);
    uint32_t iLength = 0;
    uint32_t iAdvance = 0;
    if (!ReadNativeDBLK(m_pDBLK, &iLength, &iAdvance)) return false;
    uint32_t iId = MTF_BlockId(*Block());
    uint16_t iNumber = 0;
    *pbIsSset = iId == MTF_ID_SSET;
    if (iId == MTF_ID_SSET || iId == MTF_ID_ESET) {
        memcpy(&iNumber, m_pDBLK + (*pbIsSset ? SSET_DATA_SET_OFFSET : ESET_DATA_SET_OFFSET), sizeof iNumber);
        *piDataSet = iNumber;
    } else {
        *piDataSet = -1;
    }
    return true;
}

// Where the entries start: version 10 keeps the array's offset in the word
// where the older layout has its first entry. An entry is a multiple of the
// filemark size and can never be that small, so the word tells the two apart.
uint32_t ZR_Scan::EntryArrayOffset() const {
    uint32_t iOffset = MTF_SfmbFindArrayOffset(m_pSFMB, m_iSoftFilemarkSize);
    return iOffset ? iOffset : SFMB_ARRAY_OFFSET;
}

uint32_t ZR_Scan::NumEntries() const {
    uint32_t n;
    memcpy(&n, m_pSFMB + SFMB_USED_OFFSET, sizeof n);
    return n;
}

uint64_t ZR_Scan::Entry(uint32_t i) const {
    uint64_t iEntry;
    memcpy(&iEntry, m_pSFMB + EntryArrayOffset() + 8 * static_cast<uint64_t>(i), sizeof iEntry);
    return iEntry;
}

// Every used entry must fit the block and name a filemark inside the file.
bool ZR_Scan::CheckEntries() const {
    uint64_t n = NumEntries();
    if (EntryArrayOffset() + 8 * n > m_iSoftFilemarkSize) return false;
    for (uint32_t i = 0; i < n; ++i) {
        uint64_t iEntry = Entry(i);
        if (iEntry >= m_pFile->GetFileSize() || iEntry % m_iSoftFilemarkSize != 0) return false;
    }
    return true;
}

bool ZR_Scan::ReadNativeSFMB(uint8_t* pBuffer) {
    uint32_t iRead = 0;
    if (!m_pFile->Read(m_pAhead, pBuffer, static_cast<uint64_t>(m_iOffset), m_iSoftFilemarkSize, IO_READ, &iRead) ||
        iRead != m_iSoftFilemarkSize) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ReadNativeSFMB", __LINE__,
                 "Failed to read %d bytes from %S at offset %d.\n", static_cast<int>(m_iSoftFilemarkSize), FileName(),
                 static_cast<int>(m_iOffset));
        return false;
    }
    if (MTF_BlockId(*reinterpret_cast<const MTF_DB_HDR*>(pBuffer)) != MTF_ID_SFMB ||
        !MTF_IsBlockChecksumValid(*reinterpret_cast<const MTF_DB_HDR*>(pBuffer))) {
        ZR_Error(m_wszKey, __FILE__, "ZR_Scan::ReadNativeSFMB", __LINE__,
                 "SFMB Corruption detected in \"%S\" at offset %I64d.\n", FileName(), m_iOffset);
        return false;
    }
    if (!CheckEntries()) return false;
    if (g_iTraceMode) {
        TraceSfmb(m_iOffset);
        for (uint32_t i = 0; i < NumEntries(); ++i) TraceSfmbEntry(static_cast<int>(i), Entry(i));
    }
    return true;
}
