// ZR_EMap: one extent's location in a backup, the 64-bit word of the extent
// map, the same in memory and on disk: bits 0 to 51 the offset in the backup
// file, 52 to 57 a relative offset in units of 65,536 bytes, 58 to 63 the
// index of the backup file in the stripe set.
#pragma once

#include <cstdint>

#pragma pack(push, 1)
// One extent's location, the same word in memory and on disk. Packed so that
// the rows can be used in place in a mapped view, where a row starts at any
// byte. The offset leaves out the map's base offset; Fetch adds it.
struct ZR_EMap {
    static constexpr int kOffsetBits = 52;
    static constexpr int kRelativeBits = 6;
    static constexpr int kDeviceBits = 6;
    static constexpr uint64_t kOffsetMask = (uint64_t{1} << kOffsetBits) - 1;
    static constexpr uint64_t kFieldMask = (uint64_t{1} << kRelativeBits) - 1;
    static constexpr int kRelativeShift = kOffsetBits;
    static constexpr int kDeviceShift = kOffsetBits + kRelativeBits;
    // Neither value is a location: 0 because no extent lies at the start of
    // a backup file, all bits set because nothing real can have them.
    static constexpr uint64_t kNone = 0;
    static constexpr uint64_t kAllSet = ~uint64_t{0};

    uint64_t m_iEntry = kNone;

    // Values wider than a field are cut to the field.
    static ZR_EMap Make(int iDevice, uint64_t iOfs, uint32_t iRelative) {
        ZR_EMap e;
        e.SetOffset(iOfs);
        e.SetRelative(iRelative);
        e.SetDevice(iDevice);
        return e;
    }

    uint64_t GetOffset() const { return m_iEntry & kOffsetMask; }
    void SetOffset(uint64_t i) { m_iEntry = (m_iEntry & ~kOffsetMask) | (i & kOffsetMask); }
    // In units of 65,536 bytes.
    uint32_t GetRelative() const { return static_cast<uint32_t>((m_iEntry >> kRelativeShift) & kFieldMask); }
    void SetRelative(uint32_t i) { SetField(kRelativeShift, i); }
    int GetDevice() const { return static_cast<int>((m_iEntry >> kDeviceShift) & kFieldMask); }
    void SetDevice(int i) { SetField(kDeviceShift, static_cast<uint32_t>(i)); }

    bool IsNone() const { return m_iEntry == kNone; }
    bool IsAllSet() const { return m_iEntry == kAllSet; }
    // A real location: neither of the two values that mean no copy.
    bool HasCopy() const { return !IsNone() && !IsAllSet(); }

private:
    void SetField(int iShift, uint32_t i) {
        m_iEntry = (m_iEntry & ~(kFieldMask << iShift)) | ((uint64_t{i} & kFieldMask) << iShift);
    }
};
#pragma pack(pop)
static_assert(sizeof(ZR_EMap) == 8);
