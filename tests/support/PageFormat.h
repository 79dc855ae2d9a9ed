// Database page layout as the tests see it: the 96-byte header fields that the
// test tools read or write, the page checksum, and the synthetic page content
// that the writer produces. Deliberately independent of the library's own page
// code, so that a fault there cannot hide itself in a test.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zrtest {

inline constexpr std::size_t kPageSize = 8192;
inline constexpr std::size_t kExtentSize = 65536;
inline constexpr std::size_t kPagesPerExtent = 8;
inline constexpr std::size_t kPageHeaderSize = 96;

inline constexpr std::uint16_t kPageTearProof = 0x100;
inline constexpr std::uint16_t kPageHasChecksum = 0x200;

inline constexpr std::uint8_t kPageTypeData = 1;
inline constexpr std::uint8_t kPageTypeGam = 8;
inline constexpr std::uint8_t kPageTypeSgam = 9;
inline constexpr std::uint8_t kPageTypePfs = 11;
inline constexpr std::uint8_t kPageTypeFileHeader = 15;
inline constexpr std::uint8_t kPageTypeDumpTrailer = 101;

// The header fields that tell where a page belongs.
struct PageHeaderFields {
    std::uint8_t headerVersion = 0;
    std::uint8_t type = 0;
    std::uint16_t flagBits = 0;
    std::uint32_t pageNumber = 0;
    std::uint16_t fileId = 0;
};

PageHeaderFields ReadPageHeader(const std::uint8_t* page);

// True when the 96 header bytes are all zero: a page never written.
bool IsBlankPageHeader(const std::uint8_t* page);

// The checksum of a page as stored in its torn-bits word: every 512-byte
// sector rotates the sum left by one and XORs in its words, with the stored
// word itself counted as zero.
std::uint32_t PageChecksum(const std::uint8_t* page);

// True when the page carries no checksum or when the stored one holds.
bool PageChecksumHolds(const std::uint8_t* page);

// Stores the checksum and sets the flag that announces it.
void SealPageChecksum(std::uint8_t* page);

// The synthetic page of (seed, file id, page number): a valid header of the
// given type that names the page, a body drawn from the three values, and a
// checksum. Tests recompute a page with the same call to compare.
void FillSyntheticPage(std::uint8_t* page, std::uint32_t seed, std::uint16_t fileId,
                       std::uint32_t pageNumber);

// The page type the synthetic writer gives a page number, as SQL Server lays
// out the first pages of a file.
std::uint8_t SyntheticPageType(std::uint32_t pageNumber);

// A dump trailer extent's first page: marks the end of the data of a stripe.
void FillTrailerPage(std::uint8_t* page);

}  // namespace zrtest
