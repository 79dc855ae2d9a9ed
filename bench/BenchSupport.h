// What every benchmark does around its own figures: a synthetic backup of the
// size asked for in a temporary folder, the time of a plain sequential read
// of it (the physical limit to compare with), and the error chain on failure.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "foundation/ZR_Types.h"
#include "platform/win32.h"
#include "support/TestData.h"

class ZR_Backup;

namespace zrbench {

double Seconds(std::chrono::steady_clock::time_point since);

// The folder for the benchmark's files: argv[2] when given, else a fresh
// temporary folder that lives as long as the returned holder.
std::filesystem::path Folder(int argc, char** argv, std::unique_ptr<zrtest::TempDir>* pHolder);

// The size in GB from argv[1] (default 2); 0 for an unusable argument.
double Gigabytes(int argc, char** argv);

// Writes a version 10 full backup of about dGigabytes with four data files.
bool WriteSyntheticBackup(const std::filesystem::path& path, double dGigabytes);

// Reads the whole file in 1 MiB sector-aligned reads through the backup file
// reader, as the library reads backups (without the system cache where the
// file system allows it).
bool TimeSequentialRead(const std::filesystem::path& path, double* pdSeconds);

// Writes the error chain of a mount key (none by default) to stderr.
void PrintErrors(const wchar_t* wszKey = nullptr);

// A page that the backup holds, and where its extent map says it lies.
struct PageAt {
    PageId id;
    uint64_t iFileOfs;
};

// n random pages (a fixed seed) of the data files that a prepared backup
// holds, from its configuration and extent map.
std::vector<PageAt> PickPages(ZR_Backup& b, int n);

// Opens a file for plain positioned reads, the way backup files are opened
// (unbuffered where the file system allows it).
HANDLE OpenPlain(const std::filesystem::path& path);
// Reads the page at iFileOfs into an aligned buffer.
bool ReadPlainPage(HANDLE h, uint64_t iFileOfs, void* pBuffer);

// The peak resident memory of the process in MiB, 0 when unknown.
double PeakRssMiB();
// The resident memory of the process now, in MiB.
double RssMiB();
// Starts the peak over from what the process holds now (Linux 4.0 and
// later), so that PeakRssMiB tells the peak of what follows.
void ResetPeakRss();

}  // namespace zrbench
