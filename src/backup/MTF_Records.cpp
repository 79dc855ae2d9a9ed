#include "backup/MTF_Records.h"
#include "foundation/Unaligned.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

#include "diag/ZR_Error.h"
#include "foundation/Utf16.h"

namespace {

constexpr uint32_t kBlockIds[] = {MTF_ID_TAPE, MTF_ID_SSET, MTF_ID_VOLB, MTF_ID_DIRB, MTF_ID_FILE,
                                  MTF_ID_CFIL, MTF_ID_ESPB, MTF_ID_ESET, MTF_ID_EOTM, MTF_ID_SFMB,
                                  MTF_ID_MSCI, MTF_ID_MSDA, MTF_ID_MSTL, MTF_ID_MSLS, MTF_ID_PH6S};

constexpr uint32_t kStreamIds[] = {
    MTF_MakeId("ADAT"), MTF_MakeId("APAD"), MTF_MakeId("CRPT"), MTF_MakeId("CSUM"), MTF_MakeId("FDD2"),
    MTF_MakeId("FNAM"), MTF_MakeId("GERC"), MTF_MakeId("MAP2"), MTF_MakeId("MINF"), MTF_MakeId("MPRV"),
    MTF_MakeId("MQCI"), MTF_MakeId("MQDA"), MTF_MakeId("MQLS"), MTF_MakeId("MQSS"), MTF_MakeId("MQTL"),
    MTF_MakeId("MRSC"), MTF_MakeId("N286"), MTF_MakeId("N386"), MTF_MakeId("NACL"), MTF_MakeId("NTEA"),
    MTF_MakeId("O2EA"), MTF_MakeId("OACL"), MTF_MakeId("OTCP"), MTF_MakeId("PNAM"), MTF_MakeId("RAID"),
    MTF_MakeId("SCRC"), MTF_MakeId("SMSD"), MTF_MakeId("SPAD"), MTF_MakeId("STAN"), MTF_MakeId("TFDD"),
    MTF_MakeId("TSMP")};
static_assert(std::size(kBlockIds) == 15 && std::size(kStreamIds) == 31);

template <size_t N>
bool Contains(const uint32_t (&aIds)[N], uint32_t iId) {
    return std::find(std::begin(aIds), std::end(aIds), iId) != std::end(aIds);
}

constexpr size_t kBlockChecksumWords = offsetof(MTF_DB_HDR, m_header_checksum) / 2;
constexpr size_t kStreamChecksumWords = offsetof(MTF_STREAM_HDR, m_header_checksum) / 2;
static_assert(kBlockChecksumWords == 25 && kStreamChecksumWords == 10);

// Strings of ANSI blocks are taken byte for byte; the backups seen hold only
// UTF-16 strings, so no code page is applied.
std::wstring DecodeSingleByte(const uint8_t* pb, size_t iBytes) {
    std::wstring ws(pb, pb + iBytes);
    ws.resize(std::wcslen(ws.c_str()));
    return ws;
}

// Field widths of the packed date, from the top bit of the first byte down.
constexpr int kDateBits[] = {14, 4, 5, 5, 6, 6};

}  // namespace

bool MTF_IsBlockId(uint32_t iId) { return Contains(kBlockIds, iId); }
bool MTF_IsStreamId(uint32_t iId) { return Contains(kStreamIds, iId); }

uint32_t MTF_BlockId(const MTF_DB_HDR& hdr) { return ZR_Load<uint32_t>(hdr.m_dblk_type); }
uint32_t MTF_StreamId(const MTF_STREAM_HDR& hdr) { return ZR_Load<uint32_t>(hdr.m_id); }

uint16_t MTF_XorWords(const void* p, size_t iWords) {
    const uint8_t* pb = static_cast<const uint8_t*>(p);
    uint16_t iXor = 0;
    for (size_t i = 0; i < iWords; i++) iXor ^= uint16_t(pb[2 * i] | pb[2 * i + 1] << 8);
    return iXor;
}

uint16_t MTF_ComputeBlockChecksum(const MTF_DB_HDR& hdr) { return MTF_XorWords(&hdr, kBlockChecksumWords); }
bool MTF_IsBlockChecksumValid(const MTF_DB_HDR& hdr) {
    return hdr.m_header_checksum == MTF_ComputeBlockChecksum(hdr);
}
void MTF_SetBlockChecksum(MTF_DB_HDR& hdr) { hdr.m_header_checksum = MTF_ComputeBlockChecksum(hdr); }

uint16_t MTF_ComputeStreamChecksum(const MTF_STREAM_HDR& hdr) { return MTF_XorWords(&hdr, kStreamChecksumWords); }
bool MTF_IsStreamChecksumValid(const MTF_STREAM_HDR& hdr) {
    return hdr.m_header_checksum == MTF_ComputeStreamChecksum(hdr);
}
void MTF_SetStreamChecksum(MTF_STREAM_HDR& hdr) { hdr.m_header_checksum = MTF_ComputeStreamChecksum(hdr); }

uint32_t MTF_BlockLength(const void* pBlock, size_t iBytes) {
    if (pBlock == nullptr || iBytes < sizeof(MTF_DB_HDR)) return 0;
    const MTF_DB_HDR* pHdr = static_cast<const MTF_DB_HDR*>(pBlock);
    uint32_t iId = MTF_BlockId(*pHdr);
    if (iId == MTF_ID_PH6S) {
        if (iBytes < sizeof(MTF_PH6S)) return 0;
        uint32_t iLen = static_cast<const MTF_PH6S*>(pBlock)->m_ph6s_unknown3;
        // The run of data headers cannot start inside the block's own record.
        return iLen < sizeof(MTF_PH6S) ? 0 : iLen;
    }
    uint32_t iFirst = pHdr->m_first_event_offset;
    if (iFirst == 0) return iId == MTF_ID_SFMB ? MTF_SFMB_ZERO_LENGTH : 0;
    return (iFirst + 3u) & ~3u;
}

uint64_t MTF_StreamLength(const MTF_STREAM_HDR& hdr) {
    constexpr uint64_t kMax = UINT64_MAX - MTF_STREAM_HDR_SIZE - 3;
    if (hdr.m_length > kMax) return 0;
    return (hdr.m_length + MTF_STREAM_HDR_SIZE + 3) & ~uint64_t(3);
}

bool MTF_ReadString(const void* pRecord, size_t iRecordSize, const MTF_TAPE_ADDRESS& ta, uint8_t iStringType,
                    std::wstring* pws, const wchar_t* wszKey) {
    if (ta.m_size == 0) {
        pws->clear();
        return true;
    }
    if (size_t(ta.m_offset) + ta.m_size > iRecordSize) {
        ZR_Error(wszKey, __FILE__, "MTF_ReadString", __LINE__,
                 "String at offset %d, %d bytes long, lies outside its record of %d bytes.\n", int(ta.m_offset),
                 int(ta.m_size), int(iRecordSize));
        return false;
    }
    const uint8_t* pb = static_cast<const uint8_t*>(pRecord) + ta.m_offset;
    if (iStringType == MTF_ANSI_STR) {
        *pws = DecodeSingleByte(pb, ta.m_size);
        return true;
    }
    if (iStringType != MTF_UNICODE_STR) {
        ZR_Error(wszKey, __FILE__, "MTF_ReadString", __LINE__, "Unsupported string type %d.\n", int(iStringType));
        return false;
    }
    if (ta.m_size % 2 != 0) {
        ZR_Error(wszKey, __FILE__, "MTF_ReadString", __LINE__,
                 "Unicode string at offset %d has an odd length of %d bytes.\n", int(ta.m_offset), int(ta.m_size));
        return false;
    }
    *pws = Utf16Decode(pb, ta.m_size);
    return true;
}

bool MTF_IsNoDate(const MTF_DATE_TIME& dt) {
    return std::all_of(std::begin(dt.m_bytes), std::end(dt.m_bytes), [](uint8_t b) { return b == 0; });
}

bool MTF_DecodeDateTime(const MTF_DATE_TIME& dt, SYSTEMTIME* pst) {
    *pst = SYSTEMTIME{};
    if (MTF_IsNoDate(dt)) return false;
    uint64_t iBits = 0;
    for (uint8_t b : dt.m_bytes) iBits = iBits << 8 | b;
    WORD* apFields[] = {&pst->wYear, &pst->wMonth, &pst->wDay, &pst->wHour, &pst->wMinute, &pst->wSecond};
    int iShift = 40;
    for (size_t i = 0; i < std::size(kDateBits); i++) {
        iShift -= kDateBits[i];
        *apFields[i] = WORD((iBits >> iShift) & ((1u << kDateBits[i]) - 1));
    }
    return true;
}

MTF_DATE_TIME MTF_EncodeDateTime(const SYSTEMTIME& st) {
    const WORD aFields[] = {st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond};
    uint64_t iBits = 0;
    for (size_t i = 0; i < std::size(kDateBits); i++)
        iBits = iBits << kDateBits[i] | (aFields[i] & ((1u << kDateBits[i]) - 1));
    MTF_DATE_TIME dt;
    for (int i = 4; i >= 0; i--, iBits >>= 8) dt.m_bytes[i] = uint8_t(iBits);
    return dt;
}

uint32_t MTF_SfmbArrayOffset(int iVersion) {
    return iVersion >= 10 ? offsetof(MTF_SFMB_V10, m_previous_filemarks) : offsetof(MTF_SFMB, m_previous_filemarks);
}

uint32_t MTF_SfmbFindArrayOffset(const void* pBlock, size_t iBytes) {
    constexpr uint32_t kV10 = offsetof(MTF_SFMB_V10, m_previous_filemarks);
    if (pBlock == nullptr || iBytes < offsetof(MTF_SFMB_V10, m_reserved)) return 0;
    const MTF_SFMB_V10* pSfmb = static_cast<const MTF_SFMB_V10*>(pBlock);
    return pSfmb->m_filemark_array_offset == kV10 ? kV10 : offsetof(MTF_SFMB, m_previous_filemarks);
}

bool MTF_ReadSfmbEntries(const void* pBlock, size_t iBytes, std::vector<uint64_t>* paEntries,
                         const wchar_t* wszKey) {
    uint32_t iArray = MTF_SfmbFindArrayOffset(pBlock, iBytes);
    if (iArray == 0) {
        ZR_Error(wszKey, __FILE__, "MTF_ReadSfmbEntries", __LINE__,
                 "Soft filemark block of %d bytes is too short.\n", int(iBytes));
        return false;
    }
    const uint8_t* pb = static_cast<const uint8_t*>(pBlock);
    uint64_t iUsed = static_cast<const MTF_SFMB*>(pBlock)->m_filemark_entries_used;
    if (iBytes < iArray || iUsed > (iBytes - iArray) / sizeof(uint64_t)) {
        ZR_Error(wszKey, __FILE__, "MTF_ReadSfmbEntries", __LINE__,
                 "Soft filemark block claims %I64u entries; %d bytes hold only %d.\n", iUsed, int(iBytes),
                 int(iBytes < iArray ? 0 : (iBytes - iArray) / sizeof(uint64_t)));
        return false;
    }
    paEntries->resize(size_t(iUsed));
    // An empty vector may have no storage at all, and memcpy takes no null.
    if (iUsed != 0) std::memcpy(paEntries->data(), pb + iArray, size_t(iUsed) * sizeof(uint64_t));
    return true;
}
