// Small value types shared by every subsystem.
#pragma once

#include <cstdint>

#pragma pack(push, 1)

// A log sequence number: compared field by field; all zero is the zero LSN.
struct LSN {
    uint32_t SeqNo;
    uint32_t blockOffset;
    uint16_t slotId;
};
static_assert(sizeof(LSN) == 10);

// A page of a data file: page number, then file id.
struct PageId {
    uint32_t m_iPage;
    uint16_t m_iFileId;
};
static_assert(sizeof(PageId) == 6);

#pragma pack(pop)

inline int CompareLSN(const LSN& a, const LSN& b) {
    if (a.SeqNo != b.SeqNo) return a.SeqNo < b.SeqNo ? -1 : 1;
    if (a.blockOffset != b.blockOffset) return a.blockOffset < b.blockOffset ? -1 : 1;
    if (a.slotId != b.slotId) return a.slotId < b.slotId ? -1 : 1;
    return 0;
}
inline bool operator==(const LSN& a, const LSN& b) { return CompareLSN(a, b) == 0; }
inline bool operator<(const LSN& a, const LSN& b) { return CompareLSN(a, b) < 0; }
inline bool IsZeroLSN(const LSN& a) { return a.SeqNo == 0 && a.blockOffset == 0 && a.slotId == 0; }

constexpr uint32_t ZR_PAGE_SIZE = 8192;
constexpr uint32_t ZR_PAGES_PER_EXTENT = 8;
constexpr uint32_t ZR_EXTENT_SIZE = 65536;
constexpr uint32_t ZR_PAGE_HEADER_SIZE = 96;

enum ZR_BackupType_e : int32_t { ZR_BACKUP_FULL = 1, ZR_BACKUP_DIFF = 2, ZR_BACKUP_LOG = 3 };
enum ZR_Backend_e : int32_t { ZR_BACKEND_MTF = 1, ZR_BACKEND_KELP = 2 };
enum ZR_ScanResult_e : int32_t { ZR_SCAN_CONTINUE = 0, ZR_SCAN_ERROR = 1, ZR_SCAN_ABORT = 2, ZR_SCAN_DONE = 3 };
