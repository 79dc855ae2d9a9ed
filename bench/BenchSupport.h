// What every benchmark does around its own figures: a synthetic backup of the
// size asked for in a temporary folder, the time of a plain sequential read
// of it (the physical limit to compare with), and the error chain on failure.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "support/TestData.h"

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

// Writes the error chain (no mount key) to stderr.
void PrintErrors();

}  // namespace zrbench
