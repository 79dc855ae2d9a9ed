// A database over a full backup and optionally its differential, prepared
// as a mount prepares it (content, access, backups open) but without the
// library object or a driver, with its maps in a private folder; beside it
// the pages it must serve, from the test walker's naive restore of each
// backup.
//
// A page counts from the latest backup whose copy of its extent starts with
// an allocated page (the differential over the full backup); an extent whose
// first page is unallocated holds no page that a mount serves.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/ZR_Database.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"

namespace zrtest {

class MountedChain {
public:
    // kThreads prepares the content through the database, which starts its
    // live I/O threads; kQueueOnly prepares each backup itself and starts
    // the live I/O queue without threads, for tests that serve it.
    enum class LiveIO { kThreads, kQueueOnly };

    MountedChain(const std::vector<std::filesystem::path>& full, const std::vector<std::filesystem::path>& diff,
                 LiveIO eLiveIO = LiveIO::kThreads);
    ~MountedChain();
    MountedChain(const MountedChain&) = delete;
    MountedChain& operator=(const MountedChain&) = delete;

    // Prepared, and the reference built; else Error() tells why.
    bool Ready() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }
    ZR_Database& Database() { return *m_pDB; }
    // Destroys the database (its live I/O stops); the reference stays.
    void Unmount() { m_pDB.reset(); }

    // 0 full backup, 1 differential, -1 no backup holds the page.
    int HoldingBackup(std::uint16_t fileId, std::uint32_t page) const;
    // The page the mount serves; null when no backup holds it.
    const std::uint8_t* ExpectedPage(std::uint16_t fileId, std::uint32_t page) const;
    // (file id, first page) of every extent that some backup holds.
    std::vector<std::pair<std::uint16_t, std::uint32_t>> HeldExtents() const;

private:
    bool Prepare(LiveIO eLiveIO);

    TempDir m_maps;
    std::vector<NaiveRestore> m_layers;  // full, then differential
    std::unique_ptr<ZR_Database> m_pDB;
    std::string m_error;
};

}  // namespace zrtest
