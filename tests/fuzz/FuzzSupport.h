// What the fuzz targets and their seed tool share: where the map of the
// fuzzed input lies and the bytes in front of a content map's tables, which
// the targets write themselves, so that the fuzzer spends its time in the
// tables and configurations instead of guessing a name and two dates.
#pragma once

#include <cstddef>
#include <filesystem>

namespace zrfuzz {

// Bytes of a content map file in front of its configurations: preamble,
// backend, required files, primary name, family, both dates, data set.
constexpr std::size_t kContentMapHead = 8 + 8 + 520 + 14 + 4;

// The key the targets record their errors under, cleared after each input
// so that the error chain does not grow across a run.
inline constexpr wchar_t kErrorKey[] = L"fuzz";

// The backup name every map of the fuzzers is written and read under: a
// file in a fresh folder of this process, whose satellite map is the input.
const std::filesystem::path& BackupName();

}  // namespace zrfuzz
