// A test of the library object: a fresh library with no mount, the error
// chain cleared around the test, a temporary folder whose "maps" folder
// holds the map files, and the requests that the test makes freed at its
// end with the errors recorded under their keys.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "mount/ZR.h"
#include "support/TestData.h"

namespace zrtest {

class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::filesystem::path Maps() const { return m_tmp / "maps"; }
    // A new empty request, freed with the test.
    ZR_MountInfo* NewRequest();
    // A request of the files of a full backup (its data set iFullSet), of a
    // differential when diff names any, and of one log for each entry of logs.
    ZR_MountInfo* Request(const std::vector<std::filesystem::path>& full,
                          const std::vector<std::filesystem::path>& diff = {},
                          const std::vector<std::vector<std::filesystem::path>>& logs = {}, int iFullSet = 1);
    // ZR::Mount of the request: the database, or null when it failed. The
    // key that came out goes to *pstrKey.
    ZR_Database* Mount(ZR_MountInfo* pInfo, std::wstring* pstrKey = nullptr);

    TempDir m_tmp;

private:
    std::vector<ZR_MountInfo*> m_aInfos;
};

}  // namespace zrtest
