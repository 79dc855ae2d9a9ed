// Chains of backups mounted as a service mounts them: through the library's
// exports, with the embedded driver serving the ports and the operation
// service running. The data files are opened through the driver's host side
// as SQL Server opens them once the restore has run, and the first extent
// of each is read, as the attach reads the file headers. Beside each chain
// the reference of what its data files must hold (ChainReference), and
// checks of what the host side reads and of the sparse files on disk.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "filterdriver/ZR_DriverHost.h"
#include "support/ChainReference.h"
#include "support/TestData.h"

namespace zrtest {

// The library with a fresh embedded driver over the folders sparse/ and
// maps/ of a folder (a temporary one unless given), and the operation
// service. One at a time; its end ends every mount.
class ServedLibrary {
public:
    // iBitmapStoreMs: how often the driver stores changed bitmaps.
    explicit ServedLibrary(const std::filesystem::path& folder = {}, std::uint32_t iBitmapStoreMs = 1000);
    ~ServedLibrary();
    ServedLibrary(const ServedLibrary&) = delete;
    ServedLibrary& operator=(const ServedLibrary&) = delete;
    const std::filesystem::path& Folder() const { return m_folder; }
    std::filesystem::path Sparse() const { return m_folder / "sparse"; }

private:
    std::unique_ptr<TempDir> m_pTemp;
    std::filesystem::path m_folder;
};

struct ChainFiles {
    std::vector<std::filesystem::path> full;       // stripes, in any order
    std::vector<std::filesystem::path> diff = {};
    std::vector<std::filesystem::path> logs = {};  // one file each
    std::wstring stop = {};                        // a stop clause, or empty
};

// The files of a chain of the test data, by their paths below it; empty
// when the test data is missing.
ChainFiles TestChain(const std::vector<std::string>& full, const std::vector<std::string>& diff = {},
                     const std::vector<std::string>& logs = {}, const std::wstring& stop = L"");

class ServedChain {
public:
    struct DataFile {
        std::uint16_t fileId = 0;
        ZR_HostHandle hFile = 0;
        std::filesystem::path sparse;
        std::uint64_t iSize = 0;
    };

    // Mounts with the GUID (its key is "GUID=" and the GUID in capitals, so
    // a later mount with the same GUID finds the same sparse files) and
    // opens the data files; Ready() tells. Without bReference (benchmarks of
    // large backups) nothing may be checked against the reference.
    ServedChain(const ServedLibrary& library, const ChainFiles& files, const wchar_t* wszGuid,
                bool bReference = true);
    // Closes the data files, then removes the mount.
    ~ServedChain();
    ServedChain(const ServedChain&) = delete;
    ServedChain& operator=(const ServedChain&) = delete;

    bool Ready() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }
    const wchar_t* Key() const { return m_key.c_str(); }
    const ChainReference& Reference() const { return m_reference; }
    const std::vector<DataFile>& DataFiles() const { return m_files; }
    ZR_DriverHost& Host() { return *m_pHost; }

    // Reads a random stretch near a held extent through the host side and
    // checks it page by page against the reference; false on a mismatch
    // or a failed read, with the reason in *pstrWhy.
    bool CheckRandomRead(std::mt19937& rng, std::string* pstrWhy);
    // Pages of every sparse file on disk that differ from the reference
    // (zeros where no backup holds a page), with the first few named.
    std::string CompareSparseFiles() const;
    // What the driver's bitmaps hold of the data files, in bytes.
    std::uint64_t PresentBytes();

private:
    bool CheckPages(std::uint16_t fileId, std::uint32_t firstPage, const std::uint8_t* pPages, std::uint32_t iPages,
                    std::string* pstrWhy) const;

    std::wstring m_key;
    ChainReference m_reference;
    std::shared_ptr<ZR_DriverHost> m_pHost;
    std::vector<DataFile> m_files;
    std::string m_error;
};

}  // namespace zrtest
