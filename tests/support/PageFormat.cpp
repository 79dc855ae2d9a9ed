#include "support/PageFormat.h"

#include <algorithm>
#include <cstring>

namespace zrtest {

namespace {

constexpr std::size_t kSectorSize = 512;
constexpr std::size_t kTornBitsOffset = 60;

std::uint32_t Get32(const std::uint8_t* p) {
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
           std::uint32_t(p[3]) << 24;
}

void Put32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = std::uint8_t(v >> (8 * i));
}

void Put16(std::uint8_t* p, std::uint16_t v) {
    p[0] = std::uint8_t(v);
    p[1] = std::uint8_t(v >> 8);
}

std::uint64_t SplitMix(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

}  // namespace

PageHeaderFields ReadPageHeader(const std::uint8_t* page) {
    PageHeaderFields h;
    h.headerVersion = page[0];
    h.type = page[1];
    h.flagBits = std::uint16_t(page[4] | page[5] << 8);
    h.pageNumber = Get32(page + 32);
    h.fileId = std::uint16_t(page[36] | page[37] << 8);
    return h;
}

bool IsBlankPageHeader(const std::uint8_t* page) {
    return std::all_of(page, page + kPageHeaderSize, [](std::uint8_t b) { return b == 0; });
}

std::uint32_t PageChecksum(const std::uint8_t* page) {
    std::uint32_t sum = 0;
    for (std::size_t sector = 0; sector < kPageSize / kSectorSize; ++sector) {
        sum = (sum << 1) | (sum >> 31);
        const std::uint8_t* s = page + sector * kSectorSize;
        for (std::size_t w = 0; w < kSectorSize; w += 4) {
            if (sector == 0 && w == kTornBitsOffset) continue;
            sum ^= Get32(s + w);
        }
    }
    return sum;
}

bool PageChecksumHolds(const std::uint8_t* page) {
    if (!(ReadPageHeader(page).flagBits & kPageHasChecksum)) return true;
    return Get32(page + kTornBitsOffset) == PageChecksum(page);
}

void SealPageChecksum(std::uint8_t* page) {
    std::uint16_t flags = ReadPageHeader(page).flagBits;
    Put16(page + 4, std::uint16_t((flags & ~kPageTearProof) | kPageHasChecksum));
    Put32(page + kTornBitsOffset, PageChecksum(page));
}

std::uint8_t SyntheticPageType(std::uint32_t pageNumber) {
    switch (pageNumber) {
        case 0: return kPageTypeFileHeader;
        case 1: return kPageTypePfs;
        case 2: return kPageTypeGam;
        case 3: return kPageTypeSgam;
        default: return kPageTypeData;
    }
}

void FillSyntheticPage(std::uint8_t* page, std::uint32_t seed, std::uint16_t fileId,
                       std::uint32_t pageNumber) {
    std::uint64_t state = (std::uint64_t(seed) << 48) ^ (std::uint64_t(fileId) << 32) ^ pageNumber;
    SplitMix(state);
    for (std::size_t off = kPageHeaderSize; off < kPageSize; off += 8) {
        std::uint64_t v = SplitMix(state);
        std::memcpy(page + off, &v, 8);
    }
    std::memset(page, 0, kPageHeaderSize);
    page[0] = 1;
    page[1] = SyntheticPageType(pageNumber);
    Put32(page + 24, 0x1000 + fileId);                   // m_objId
    Put32(page + 32, pageNumber);
    Put16(page + 36, fileId);
    Put32(page + 40, seed);                              // m_lsn: the generation of the page
    Put32(page + 44, pageNumber);
    SealPageChecksum(page);
}

void FillTrailerPage(std::uint8_t* page) {
    std::memset(page, 0, kPageSize);
    page[0] = 1;
    page[1] = kPageTypeDumpTrailer;
    SealPageChecksum(page);
}

}  // namespace zrtest
