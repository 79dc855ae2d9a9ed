// Where the real SQL Server backups are: $ZR_TESTDATA, or ../shared/testdata
// beside the project. Tests that need them skip with a message when neither
// exists, so that a fresh clone builds and passes on its own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

namespace zrtest {

// The folder of the real backups, if there is one.
std::optional<std::filesystem::path> TestDataDir();

// The path of one file of the test data, or nullopt when it is missing.
std::optional<std::filesystem::path> TestDataFile(const std::string& relative);

// A fresh, empty temporary folder that is removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

}  // namespace zrtest

// Skips the current test when the real backups are not there.
#define ZR_REQUIRE_TESTDATA()                                                      \
    do {                                                                           \
        if (!zrtest::TestDataDir())                                                \
            GTEST_SKIP() << "real backups not found: set ZR_TESTDATA or put them " \
                            "in ../shared/testdata";                               \
    } while (0)
