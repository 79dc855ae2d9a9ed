// Helpers of the record tests: the real backups one by one with the
// independent walker's view of them, typed loads from their bytes, and the
// error chain of a key.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "backup/MTF_Records.h"
#include "diag/ZR_Error.h"
#include "support/Manifest.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"

namespace mtftest {

template <typename T>
T Load(const std::vector<uint8_t>& a, uint64_t iOffset) {
    T v;
    std::memcpy(&v, a.data() + iOffset, sizeof(T));
    return v;
}

inline std::vector<uint8_t> ReadWhole(const std::filesystem::path& path) {
    std::vector<uint8_t> a(std::filesystem::file_size(path));
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(a.data()), std::streamsize(a.size()));
    return a;
}

inline std::wstring Widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

// Calls fn with the manifest row, the bytes and the walk of every backup in
// tape format; the walk must be clean. At least 40 files are expected.
inline void ForEachRealBackup(
    const std::function<void(const zrtest::ManifestEntry&, const std::vector<uint8_t>&, const zrtest::MtfWalk&)>& fn) {
    const auto aRows = zrtest::NativeBackups(0, 99);
    ASSERT_GT(aRows.size(), 40u);
    for (const zrtest::ManifestEntry& row : aRows) {
        SCOPED_TRACE(row.file);
        const std::vector<uint8_t> a = ReadWhole(*zrtest::TestDataFile(row.file));
        const zrtest::MtfWalk walk = zrtest::MtfWalker::WalkBytes(a);
        ASSERT_TRUE(walk.ok) << walk.fault << " at " << walk.faultOffset;
        fn(row, a, walk);
    }
}

// The data of the configuration stream that the walker found.
inline std::vector<uint8_t> ConfigData(const std::vector<uint8_t>& a, const zrtest::MtfSqlConfig& config) {
    const uint64_t iLength = Load<MTF_STREAM_HDR>(a, config.streamOffset).m_length;
    const auto it = a.begin() + std::ptrdiff_t(config.streamOffset + MTF_STREAM_HDR_SIZE);
    return std::vector<uint8_t>(it, it + std::ptrdiff_t(iLength));
}

// Whether an error was recorded under the key; clears the key's records.
inline bool TakeError(const wchar_t* wszKey) {
    wchar_t* wsz = ZR_ReadErrors(wszKey);
    bool bAny = wsz != nullptr && wsz[0] != 0;
    free(wsz);
    ZR_ClearErrors(wszKey);
    return bAny;
}

}  // namespace mtftest
