// Reads of data file pages as the driver asks for them (a range and a
// bitmap of the pages it has already), and the check of what a mounted chain
// put in the buffer against the pages it must serve (MountedChain).
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "support/MountedChain.h"
#include "support/PageFormat.h"

namespace zrtest {

inline constexpr std::uint32_t kLiveBitmapPages = 1024;

// Page-aligned memory, as the driver maps a read's buffer.
class PageBuffer {
public:
    explicit PageBuffer(std::uint32_t iPages);
    ~PageBuffer();
    PageBuffer(const PageBuffer&) = delete;
    PageBuffer& operator=(const PageBuffer&) = delete;
    std::uint8_t* Data() { return m_p; }
    std::uint8_t* Page(std::uint32_t i) { return m_p + std::size_t{i} * kPageSize; }
    // Fills the buffer with bytes that no page read produces: no page
    // header in them is blank.
    void Scribble(std::mt19937& rng);
    std::vector<std::uint8_t> Copy() const { return {m_p, m_p + m_iBytes}; }

private:
    std::size_t m_iBytes;
    std::uint8_t* m_p;
};

void SetBit(std::vector<std::uint8_t>& bitmap, std::uint32_t i);

// One read: the pages of file fileId from firstPage on, and its bitmap, in
// which bit 0 is the first page of the extent that holds firstPage.
struct PageRead {
    std::uint16_t fileId;
    std::uint32_t firstPage;
    std::uint32_t pages;
    std::vector<std::uint8_t> bitmap = std::vector<std::uint8_t>(kLiveBitmapPages / 8);

    std::uint32_t Bit(std::uint32_t i) const { return firstPage % kPagesPerExtent + i; }  // of the read's page i
    bool Wanted(std::uint32_t i) const;
    std::uint64_t Offset() const { return std::uint64_t{firstPage} * kPageSize; }
    std::uint32_t Bytes() const { return pages * static_cast<std::uint32_t>(kPageSize); }
};

// A read near a held extent of the chain (so that reads meet held pages,
// gaps and the ends of files), of up to 96 pages, with about a quarter of
// its bits set.
PageRead RandomRead(const MountedChain& chain, std::mt19937& rng);

// Every page of the read: a wanted page is the page the chain serves or,
// when no backup holds it, the bytes the buffer held before under a zeroed
// header; a page that is not wanted is untouched.
void ExpectServed(const MountedChain& chain, const PageRead& r, PageBuffer& buffer,
                  const std::vector<std::uint8_t>& before);

}  // namespace zrtest
