// A mount brought online as a service and SQL Server bring it (ServiceMount,
// the emulator's RESTORE through the embedded driver's host side, the data
// files open for the database's reads), for tests of hydration: what the
// driver holds of the data files, what the sparse files on disk hold, and
// pages read while hydration runs, against the test walker's naive restore
// (ChainReference).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/ChainReference.h"
#include "support/DriverHostFileIo.h"
#include "support/ServiceMount.h"
#include "support/SqlServerEmulator.h"
#include "support/TestData.h"

namespace zrtest {

// The service (StartService) over the folders sparse/ and maps/ of a folder,
// a temporary one unless given, until the object goes (StopService).
class RunningService {
public:
    explicit RunningService(const std::filesystem::path& folder = {});
    ~RunningService();
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;
    bool Up() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }
    const std::filesystem::path& Folder() const { return m_folder; }

private:
    std::unique_ptr<TempDir> m_pTemp;
    std::filesystem::path m_folder;
    std::string m_error;
};

class HydrationMount {
public:
    struct DataFile {
        std::uint16_t fileId = 0;
        std::uint64_t iSize = 0;
        std::filesystem::path sparse;  // the driver's sparse file
    };

    // Mounts the request's files (paths as they are), restores and opens
    // the data files; Ready() tells. Without bReference (benchmarks of large
    // backups) nothing may be checked against the reference.
    HydrationMount(const RunningService& service, const MountRequest& request, bool bReference = true);
    // Closes the data files, then removes the mount.
    ~HydrationMount();
    HydrationMount(const HydrationMount&) = delete;
    HydrationMount& operator=(const HydrationMount&) = delete;

    bool Ready() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }
    const wchar_t* Key() const { return m_mount.Key().c_str(); }
    const ChainReference& Reference() const { return *m_pReference; }
    const std::vector<DataFile>& DataFiles() const { return m_files; }
    SqlServerEmulator& Sql() { return m_sql; }

    // Reads a random stretch near a held extent as the database does and
    // checks it page by page; false, with the reason in *pstrWhy, on a
    // mismatch or a failed read.
    bool CheckRandomRead(std::mt19937& rng, std::string* pstrWhy);
    // Pages of the sparse files on disk that differ from the reference
    // (zeros where no backup holds a page), the first few named; empty when
    // none does.
    std::string CompareSparseFiles() const;
    // What the driver's bitmaps hold of the data files, in bytes.
    std::uint64_t PresentBytes();

private:
    bool CheckPages(std::uint16_t fileId, std::uint32_t firstPage, const std::uint8_t* pPages, std::uint32_t iPages,
                    std::string* pstrWhy) const;

    ServiceMount m_mount;
    DriverHostFileIo m_io;
    SqlServerEmulator m_sql{m_io};
    std::unique_ptr<ChainReference> m_pReference;
    std::vector<DataFile> m_files;
    std::string m_error;
};

}  // namespace zrtest
