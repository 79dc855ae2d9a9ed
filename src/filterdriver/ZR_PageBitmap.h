// The pages of one data file that the sparse file holds: bit i is byte
// i >> 3, mask 0x80 >> (i & 7), set when page i is present. So byte e is
// extent e, highest bit first, which is the form of the driver's wire.
//
// A plain value: the owner (ZR_DataFile) guards it with its lock.
#pragma once

#include <cstdint>
#include <vector>

// Bit i of a bitmap in this layout, as the wire's bitmaps are read too.
inline bool ZR_TestBit(const uint8_t* pBitmap, uint64_t i) { return pBitmap[i >> 3] & (0x80u >> (i & 7)); }

class ZR_PageBitmap {
public:
    static constexpr uint32_t kPageSize = 8192;
    static constexpr uint32_t kPagesPerExtent = 8;

    // iPages pages, none present.
    explicit ZR_PageBitmap(uint64_t iPages = 0);
    // Takes bytes as they were persisted for iPages pages; bits past the
    // last page are cleared, missing bytes count as absent pages.
    void Assign(std::vector<uint8_t> aBytes, uint64_t iPages);

    uint64_t Pages() const { return m_iPages; }
    uint64_t Extents() const { return (m_iPages + kPagesPerExtent - 1) / kPagesPerExtent; }
    uint64_t CountPresent() const { return m_iPresent; }
    const std::vector<uint8_t>& Bytes() const { return m_aBytes; }

    // Pages at or past the end count as absent.
    bool Test(uint64_t iPage) const { return iPage < m_iPages && ZR_TestBit(m_aBytes.data(), iPage); }
    void Set(uint64_t iPage);
    void SetRange(uint64_t iFirst, uint64_t iCount);
    // The first absent page in [iFirst, iEnd), or iEnd.
    uint64_t FirstAbsent(uint64_t iFirst, uint64_t iEnd) const;
    // The byte of extent iExtent, with the bits of pages past the end set:
    // what a reader of the bitmap must not ask for.
    uint8_t ExtentByte(uint64_t iExtent) const;
    // Grows or shrinks to iPages; pages that grow in are present when
    // bNewPresent (a file extended with zeros holds them), else absent.
    void Resize(uint64_t iPages, bool bNewPresent);

private:
    void ClearTail();
    void Recount();

    std::vector<uint8_t> m_aBytes;
    uint64_t m_iPages = 0;
    uint64_t m_iPresent = 0;
};
