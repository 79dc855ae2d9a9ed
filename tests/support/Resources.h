// What a test can measure of the resources the library used: the disk a
// file really takes (a sparse file's holes take none) and the peak resident
// memory of the process since a chosen moment.
#pragma once

#include <cstdint>
#include <filesystem>

namespace zrtest {

// Bytes of the file that the file system has allocated.
std::uint64_t AllocatedBytes(const std::filesystem::path& path);

// Starts a new peak of resident memory: PeakResidentBytes tells the peak
// since the last call. False when the system does not let a process do so.
bool ResetPeakResident();
std::uint64_t PeakResidentBytes();

}  // namespace zrtest
