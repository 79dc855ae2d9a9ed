// A database over a full backup and optionally its differential, prepared
// as a mount prepares it (content, access, backups open) but without the
// library object or a driver, with its maps in a private folder; beside it
// the pages it must serve (ChainReference). And reads as the driver asks for them (a
// range and a bitmap of the pages it has), checked against those pages.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "engine/ZR_Database.h"
#include "support/ChainReference.h"
#include "support/PageFormat.h"
#include "support/TestData.h"

namespace zrtest {

class MountedChain {
public:
    // kThreads prepares the content through the database, which starts its
    // live I/O threads; kQueueOnly starts the queue without threads.
    enum class LiveIO { kThreads, kQueueOnly };

    MountedChain(const std::vector<std::filesystem::path>& full, const std::vector<std::filesystem::path>& diff,
                 LiveIO eLiveIO = LiveIO::kThreads);
    ~MountedChain();

    // Prepared and the reference built; else Error() tells why.
    bool Ready() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }
    ZR_Database& Database() { return *m_pDB; }
    // Destroys the database (its live I/O stops); the reference stays.
    void Unmount() { m_pDB.reset(); }

    // 0 the full backup, 1 the differential, -1 no backup holds the page.
    int HoldingBackup(std::uint16_t fileId, std::uint32_t page) const { return m_reference.HoldingBackup(fileId, page); }
    // The page that the mount serves; null when no backup holds it.
    const std::uint8_t* ExpectedPage(std::uint16_t fileId, std::uint32_t page) const {
        return m_reference.ExpectedPage(fileId, page);
    }
    // (file id, first page) of every extent that a backup holds.
    std::vector<std::pair<std::uint16_t, std::uint32_t>> HeldExtents() const { return m_reference.HeldExtents(); }
    const ChainReference& Reference() const { return m_reference; }

private:
    TempDir m_maps;
    ChainReference m_reference;
    std::unique_ptr<ZR_Database> m_pDB;
    std::string m_error;
};

// Page-aligned memory, as the driver maps a read's buffer.
class PageBuffer {
public:
    explicit PageBuffer(std::uint32_t iPages);
    ~PageBuffer();
    PageBuffer(const PageBuffer&) = delete;
    PageBuffer& operator=(const PageBuffer&) = delete;
    std::uint8_t* Page(std::uint32_t i) { return m_p + std::size_t{i} * kPageSize; }
    // Bytes that no page read produces (no page header in them is blank);
    // returns a copy of them.
    std::vector<std::uint8_t> Scribble(std::mt19937& rng);

private:
    std::size_t m_iBytes;
    std::uint8_t* m_p;
};

void SetBit(std::vector<std::uint8_t>& bitmap, std::uint32_t i);

// The pages of file fileId from firstPage on, and the bitmap of the read, in
// which bit 0 is the first page of the extent that holds firstPage.
struct PageRead {
    std::uint16_t fileId;
    std::uint32_t firstPage;
    std::uint32_t pages;
    std::vector<std::uint8_t> bitmap = std::vector<std::uint8_t>(128);

    std::uint32_t Bit(std::uint32_t i) const { return firstPage % kPagesPerExtent + i; }  // of page i of the read
    bool Wanted(std::uint32_t i) const { return (bitmap[Bit(i) >> 3] & (0x80 >> (Bit(i) & 7))) == 0; }
    std::uint64_t Offset() const { return std::uint64_t{firstPage} * kPageSize; }
    std::uint32_t Bytes() const { return pages * std::uint32_t{kPageSize}; }
};

// Up to 96 pages near a held extent (so that reads meet held pages, gaps
// and the ends of files), about a quarter of them not wanted.
PageRead RandomRead(const ChainReference& chain, std::mt19937& rng);
inline PageRead RandomRead(const MountedChain& chain, std::mt19937& rng) { return RandomRead(chain.Reference(), rng); }

// A wanted page is the chain's page or, where no backup holds it, what the
// buffer held before under a zeroed header; other pages are untouched.
void ExpectServed(const MountedChain& chain, const PageRead& r, PageBuffer& buffer,
                  const std::vector<std::uint8_t>& before);

}  // namespace zrtest
