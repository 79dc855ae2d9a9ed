// The backup object's refusals on the real backups, each with its reason in
// the error chain: versions it does not serve, versions that differ within a
// mount, a differential where a full backup is needed, a missing file, and
// types other than full, differential and log.
#include "backup/ZR_Backup.h"

#include "diag/ZR_Error.h"
#include "support/BackupFixture.h"
#include "support/ErrorText.h"
#include "support/FileBytes.h"
#include "support/Manifest.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

class BackupContent : public zrtest::BackupFixture {
protected:
    BackupContent() : BackupFixture(L"k") {}

    static fs::path Real(const std::string& relative) { return *zrtest::TestDataFile(relative); }
    // Whether the error chain of the key holds the text.
    bool Said(const std::string& text) const { return Errors().find(text) != std::string::npos; }
};

TEST_F(BackupContent, LaterServerVersionsAreRefusedAfterTheMapIsWritten) {
    ZR_REQUIRE_TESTDATA();
    for (auto& e : zrtest::NativeBackups(11, 99)) {
        if (e.stripes != 1)
            continue;
        SCOPED_TRACE(e.file);
        int32_t v = 0;
        EXPECT_FALSE(Named({Real(e.file)})->PrepareContent(&v));
        EXPECT_TRUE(Said("Microsoft SQL Server version " + std::to_string(e.major) + " not supported.")) << Errors();
        ZR_ClearErrors(m_wszKey);
    }
    EXPECT_GE(MapFiles(".xcm").size(), 5u);
}

TEST_F(BackupContent, BackupsThatDoNotFitTheMountSayWhy) {
    ZR_REQUIRE_TESTDATA();
    int32_t v = 9;  // as if the full backup of the mount had been version 9
    EXPECT_FALSE(Named({Real("appveyor-lab/DoubleDiffing/difftest-full.bak")})->PrepareContent(&v));
    EXPECT_TRUE(Said("Mismatched Microsoft SQL Server version between backups (10 versus 9).")) << Errors();
    v = 0;
    EXPECT_FALSE(Named({m_tmp / "none.bak"})->PrepareContent(&v));
    EXPECT_TRUE(Said("File probe failed for data set 1")) << Errors();
    auto diff = Named({Real("appveyor-lab/DoubleDiffing/difftest-diff1.bak")});
    v = 0;
    ASSERT_TRUE(diff->PrepareContent(&v)) << Errors();
    EXPECT_TRUE(diff->IsDiffBackup());
    EXPECT_FALSE(diff->IsLogBackup());
    EXPECT_FALSE(diff->IsFullBackup());
    EXPECT_TRUE(Said("This is not a Full Database backup.")) << Errors();
}

// Sets the backup type letter of every configuration record in a file.
void SetBackupTypeEverywhere(const fs::path& file, char type) {
    const std::vector<uint8_t> bytes = zrtest::ReadFileBytes(file);
    const std::string text(bytes.begin(), bytes.end());
    int n = 0;
    for (size_t at = text.find("SCIN"); at != std::string::npos; at = text.find("SCIN", at + 4), ++n)
        zrtest::PatchFile(file, at + 87, &type, 1);
    ASSERT_GE(n, 1) << file;
}

TEST_F(BackupContent, TypesOtherThanFullDifferentialAndLogAreRefused) {
    ZR_REQUIRE_TESTDATA();
    const fs::path copy = m_tmp / "typed.bak";
    fs::copy_file(Real("appveyor-lab/DoubleDiffing/difftest-diff1.bak"), copy);
    int32_t v = 0;
    ASSERT_TRUE(Named({copy})->PrepareContent(&v)) << Errors();
    // A map read from a file holds a file-level backup: the type test says so.
    const fs::path map = MapFiles(".xcm").at(0);
    SetBackupTypeEverywhere(map, 'F');
    EXPECT_FALSE(Named({copy})->PrepareContent(&v));
    EXPECT_TRUE(Said("Backups of type \"File level\" are not supported. Specify either a Full, Differential, or Log "
                     "backup."))
        << Errors();
    // Without a map, the full scan refuses the backup itself.
    fs::remove(map);
    SetBackupTypeEverywhere(copy, 'T');
    ZR_ClearErrors(m_wszKey);
    ZR_ClearErrors(nullptr);
    EXPECT_FALSE(Named({copy})->PrepareContent(&v));
    EXPECT_NE((Errors() + zrtest::ErrorTextNarrow()).find("Failed to build maps for dataset 1 of file"),
              std::string::npos)
        << Errors() << zrtest::ErrorTextNarrow();
    EXPECT_TRUE(MapFiles(".xcm").empty()) << "no map of a refused backup";
    ZR_ClearErrors(nullptr);
}

}  // namespace
