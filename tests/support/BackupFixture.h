// A test of backups and their maps: a fresh map folder, the error chain of
// one key cleared around the test, a read-ahead for reads, and backups named
// and prepared as a mount prepares them.
#pragma once

#include "backup/ZR_Backup.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace zrtest {

class BackupFixture : public ::testing::Test {
protected:
    // wszKey: the mount key of the backups, under which their errors go.
    explicit BackupFixture(const wchar_t* wszKey) : m_wszKey(wszKey) {}

    void SetUp() override;
    void TearDown() override;

    std::filesystem::path Maps() const { return m_tmp / "maps"; }
    // The map files of the folder with this extension (".xdm").
    std::vector<std::filesystem::path> MapFiles(const char* szExt) const;
    std::string Errors() const;

    // A backup of the given files, not yet prepared.
    std::unique_ptr<ZR_Backup> Named(const std::vector<std::filesystem::path>& files) const;
    // A backup of the given files, prepared and opened, with its extent map.
    std::unique_ptr<ZR_Backup> Access(const std::vector<std::filesystem::path>& files, int iIndex = 0) const;

    const wchar_t* m_wszKey;
    TempDir m_tmp;
    ZR_ReadAhead* m_pAhead = nullptr;
};

}  // namespace zrtest
