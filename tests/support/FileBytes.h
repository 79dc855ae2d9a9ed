// Whole files as bytes, for tests that read real inputs and write damaged
// copies of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <vector>

namespace zrtest {

// Every byte of a file; empty when it cannot be read.
std::vector<std::uint8_t> ReadFileBytes(const std::filesystem::path& path);

// Puts the first iLength bytes (all when larger) in place of the file.
void WriteFileBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes,
                    std::size_t iLength = std::numeric_limits<std::size_t>::max());

// Overwrites n bytes at iOffset of an existing file.
void PatchFile(const std::filesystem::path& path, std::uint64_t iOffset, const void* p, std::size_t n);

}  // namespace zrtest
