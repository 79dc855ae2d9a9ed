// The content step of a mounted database on real backups: each slot must
// hold the kind of backup it is for. (Chains in order are prepared by every
// mount of the real chains.)
#include "engine/ZR_Database.h"

#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"
#include "support/ErrorText.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <string>

namespace {

const char* const kDir = "appveyor-lab/RestoreTimeClean/";

class DatabaseContent : public ::testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        std::wstring maps = m_tmp.path().wstring();
        std::wcsncpy(g_wszMapFilesFolder, maps.c_str(), MAX_PATH - 1);
    }
    void TearDown() override {
        ZR_ClearErrors(L"db-test");
        g_wszMapFilesFolder[0] = 0;
    }
    static void Add(ZR_Backup* pBackup, const std::string& name) {
        ASSERT_NE(pBackup, nullptr);
        pBackup->SetDataSetNumber(1);
        pBackup->AddFile(zrtest::TestDataFile(kDir + name)->wstring().c_str(), nullptr, false);
    }
    std::wstring Errors() { return zrtest::ErrorText(L"db-test"); }

    zrtest::TempDir m_tmp;
};

TEST_F(DatabaseContent, EachSlotMustHoldItsKind) {
    struct Case {
        const char* full;
        const char* diff;
        const char* log;
        const wchar_t* message;
    } cases[] = {
        {"RestoreTimeClean2.bak", nullptr, nullptr, L"Missing Full backup based on backup id."},
        {"RestoreTimeClean.bak", "RestoreTimeClean_1.trn", nullptr,
         L"Missing Differential backup based on backup id."},
        {"RestoreTimeClean.bak", nullptr, "RestoreTimeClean2.bak", L"Missing Log backup based on backup id."},
    };
    for (const Case& c : cases) {
        ZR_Database db(L"/tmp", GUID_NULL);
        db.SetMountKey(L"db-test");
        Add(db.NewFull(), c.full);
        if (c.diff) Add(db.NewDiff(), c.diff);
        if (c.log) Add(db.NewLog(), c.log);
        EXPECT_FALSE(db.PrepareContent());
        EXPECT_NE(Errors().find(c.message), std::wstring::npos) << c.full;
        ZR_ClearErrors(L"db-test");
    }
}

}  // namespace
