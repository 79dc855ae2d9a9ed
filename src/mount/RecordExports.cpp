// The exported accessors of a backup set record: a packed record that the
// caller holds, made outside this library, read field by field at its fixed
// offsets. The pointer is not tested.
#include <cstring>

#include "foundation/Unaligned.h"
#include "foundation/Utf16.h"
#include "zirlane/zirlane.h"

namespace {

constexpr size_t kFamilyCount = 4;
constexpr size_t kFamilyIndex = 6;
constexpr size_t kMediaSetId = 8;
constexpr size_t kMissingConfigInfo = 24;
constexpr size_t kEncrypted = 28;
constexpr size_t kBackupType = 29;
constexpr size_t kDatabaseName = 30;
constexpr size_t kServerName = 550;
constexpr size_t kNameBytes = 520;  // 260 UTF-16 characters
constexpr size_t kServerVersion = 1072;
constexpr size_t kBackupStart = 1076;
constexpr size_t kBackupFinish = 1081;
constexpr size_t kFirstLsn = 1086;
constexpr size_t kLastLsn = 1096;
constexpr size_t kCheckpointLsn = 1106;
constexpr size_t kLastFullBaseLsn = 1116;
constexpr size_t kLastFullBaseGuid = 1126;
// Inside an LSN: SeqNo, blockOffset, slotId.
constexpr size_t kSeqNo = 0;
constexpr size_t kBlockOffset = 4;
constexpr size_t kSlotId = 8;

const uint8_t* At(const void* pRecord, size_t iOffset) { return static_cast<const uint8_t*>(pRecord) + iOffset; }

template <class T>
T Field(const void* pRecord, size_t iOffset) {
    return ZR_Load<T>(At(pRecord, iOffset));
}

// The caller's buffer holds 260 characters, the terminator among them.
void CopyName(const void* pRecord, size_t iOffset, wchar_t* wszOut) {
    Utf16Decode(At(pRecord, iOffset), kNameBytes, true, wszOut, kNameBytes / 2);
}

// Five bytes b0 to b4: year 14 bits, month 4, day 5, hour 5, minute 6,
// second 6, highest bit first.
void UnpackDate(const void* pRecord, size_t iOffset, unsigned* piMonth, unsigned* piDay, unsigned* piYear,
                unsigned* piHour, unsigned* piMinute, unsigned* piSecond) {
    const uint8_t* b = At(pRecord, iOffset);
    *piYear = b[0] * 64u + b[1] / 4u;
    *piMonth = (b[1] % 4u) * 4u + b[2] / 64u;
    *piDay = (b[2] % 64u) / 2u;
    *piHour = (b[2] % 2u) * 16u + b[3] / 16u;
    *piMinute = (b[3] % 16u) * 4u + b[4] / 64u;
    *piSecond = b[4] % 64u;
}

}  // namespace

ZR_API unsigned short familyCount(const void* pSet) { return Field<uint16_t>(pSet, kFamilyCount); }
ZR_API unsigned short familyIndex(const void* pSet) { return Field<uint16_t>(pSet, kFamilyIndex); }
ZR_API unsigned char backup_type(const void* pSet) { return Field<uint8_t>(pSet, kBackupType); }
ZR_API bool missingConfigInfo(const void* pSet) { return Field<uint32_t>(pSet, kMissingConfigInfo) != 0; }
ZR_API bool Encrypted(const void* pSet) { return Field<uint8_t>(pSet, kEncrypted) != 0; }
ZR_API unsigned int server_version(const void* pSet) { return Field<uint32_t>(pSet, kServerVersion); }

ZR_API void mediaSetId(GUID* pOut, const void* pSet) { std::memcpy(pOut, At(pSet, kMediaSetId), sizeof *pOut); }
ZR_API void last_full_base_guid(GUID* pOut, const void* pSet) {
    std::memcpy(pOut, At(pSet, kLastFullBaseGuid), sizeof *pOut);
}

ZR_API void database_name(const void* pSet, wchar_t* wszOut) { CopyName(pSet, kDatabaseName, wszOut); }
ZR_API void server_name(const void* pSet, wchar_t* wszOut) { CopyName(pSet, kServerName, wszOut); }

ZR_API void backup_start(const void* pSet, unsigned* piMonth, unsigned* piDay, unsigned* piYear, unsigned* piHour,
                         unsigned* piMinute, unsigned* piSecond) {
    UnpackDate(pSet, kBackupStart, piMonth, piDay, piYear, piHour, piMinute, piSecond);
}
ZR_API void backup_finish(const void* pSet, unsigned* piMonth, unsigned* piDay, unsigned* piYear, unsigned* piHour,
                          unsigned* piMinute, unsigned* piSecond) {
    UnpackDate(pSet, kBackupFinish, piMonth, piDay, piYear, piHour, piMinute, piSecond);
}

ZR_API unsigned int first_lsn_SeqNo(const void* p) { return Field<uint32_t>(p, kFirstLsn + kSeqNo); }
ZR_API unsigned int first_lsn_blockOffset(const void* p) { return Field<uint32_t>(p, kFirstLsn + kBlockOffset); }
ZR_API unsigned short first_lsn_slotId(const void* p) { return Field<uint16_t>(p, kFirstLsn + kSlotId); }
ZR_API unsigned int last_lsn_SeqNo(const void* p) { return Field<uint32_t>(p, kLastLsn + kSeqNo); }
ZR_API unsigned int last_lsn_blockOffset(const void* p) { return Field<uint32_t>(p, kLastLsn + kBlockOffset); }
ZR_API unsigned short last_lsn_slotId(const void* p) { return Field<uint16_t>(p, kLastLsn + kSlotId); }
ZR_API unsigned int checkpoint_lsn_SeqNo(const void* p) { return Field<uint32_t>(p, kCheckpointLsn + kSeqNo); }
ZR_API unsigned int checkpoint_lsn_blockOffset(const void* p) {
    return Field<uint32_t>(p, kCheckpointLsn + kBlockOffset);
}
ZR_API unsigned short checkpoint_lsn_slotId(const void* p) { return Field<uint16_t>(p, kCheckpointLsn + kSlotId); }
ZR_API unsigned int last_full_base_lsn_SeqNo(const void* p) { return Field<uint32_t>(p, kLastFullBaseLsn + kSeqNo); }
ZR_API unsigned int last_full_base_lsn_blockOffset(const void* p) {
    return Field<uint32_t>(p, kLastFullBaseLsn + kBlockOffset);
}
ZR_API unsigned short last_full_base_lsn_slotId(const void* p) {
    return Field<uint16_t>(p, kLastFullBaseLsn + kSlotId);
}
