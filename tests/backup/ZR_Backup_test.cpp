// The backup object's content road on the real backups: the probe, the pool,
// the map file or the full scan, and the type and version tests. The
// manifest beside the backups is the reference for what each one holds.
#include "backup/ZR_Backup.h"

#include "backup/ZR_ScanFull.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_MapPool.h"
#include "support/ErrorText.h"
#include "support/Manifest.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

namespace fs = std::filesystem;

namespace {

std::string LsnText(const LSN& l) {
    return std::to_string(l.SeqNo) + ":" + std::to_string(l.blockOffset) + ":" + std::to_string(l.slotId);
}

std::string Errors(const wchar_t* key = nullptr) { return zrtest::ErrorTextNarrow(key); }

class BackupContent : public ::testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        fs::create_directories(m_tmp / "maps");
        UseFolder(m_tmp / "maps");
        ZR_ClearErrors(nullptr);
    }
    void TearDown() override {
        g_wszMapFilesFolder[0] = 0;
        ZR_ClearErrors(nullptr);
        ZR_ClearErrors(L"k");
    }
    static void UseFolder(const fs::path& p) {
        std::wstring w = p.wstring();
        wcsncpy(g_wszMapFilesFolder, w.c_str(), MAX_PATH - 1);
    }

    // A backup object of the given files (relative to the test data).
    static std::unique_ptr<ZR_Backup> Make(const std::vector<std::string>& files, int iDataSet = 1) {
        auto b = std::make_unique<ZR_Backup>(L"k");
        b->SetDataSetNumber(iDataSet);
        for (auto& f : files) {
            std::wstring w = (*zrtest::TestDataDir() / f).wstring();
            b->AddFile(w.c_str(), nullptr, false);
        }
        return b;
    }

    int MapFiles() {
        int n = 0;
        for (auto& e : fs::directory_iterator(m_tmp.path() / "maps"))
            n += e.path().extension() == ".xcm";
        return n;
    }

    zrtest::TempDir m_tmp;
};

TEST_F(BackupContent, EveryNativeBackupOfVersionsNineAndTenTellsWhatTheManifestSays) {
    int checked = 0;
    for (auto& e : zrtest::NativeBackups(9, 10)) {
        if (e.stripes != 1)
            continue;  // striped sets have their own test
        SCOPED_TRACE(e.file);
        auto b = Make({e.file});
        int32_t iVersion = 0;
        ASSERT_TRUE(b->PrepareContent(&iVersion)) << Errors(L"k");
        EXPECT_EQ(iVersion, e.major);
        const SQL_CONFIG_INFO_V7* c = b->m_pCMaps->m_ConfigMSCI.m_pConfig;
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(static_cast<char>(c->m_backup_type), e.type);
        if (e.sets == 1) {  // the manifest describes the only data set
            EXPECT_EQ(LsnText(c->m_first_lsn), e.firstLsn);
            EXPECT_EQ(LsnText(c->m_last_lsn), e.lastLsn);
            EXPECT_EQ(LsnText(c->m_checkpoint_lsn), e.checkpointLsn);
        }
        EXPECT_GT(b->m_pCMaps->GetNumDBLKs(0), 5);
        ++checked;
    }
    EXPECT_GE(checked, 20);
}

TEST_F(BackupContent, SecondPrepareReadsTheMapFileOrSharesThePoolsAndScansNothing) {
    const std::string file = "appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak";
    int before = ZR_ScanFull::ms_iScansRun;
    {
        auto first = Make({file});
        int32_t v = 0;
        ASSERT_TRUE(first->PrepareContent(&v)) << Errors(L"k");
        EXPECT_EQ(ZR_ScanFull::ms_iScansRun, before + 1);
        EXPECT_EQ(MapFiles(), 1);

        auto shared = Make({file});  // while the first holds the map
        v = 0;
        ASSERT_TRUE(shared->PrepareContent(&v));
        EXPECT_EQ(shared->m_pCMaps, first->m_pCMaps);
        EXPECT_EQ(first->m_pCMaps->GetRefCount(), 2);
    }
    auto later = Make({file});  // the pool is empty: the file is read
    int32_t v = 0;
    ASSERT_TRUE(later->PrepareContent(&v));
    EXPECT_EQ(later->m_pCMaps->GetMapLocale(), X_MAPLOCALE_CACHED);
    EXPECT_EQ(ZR_ScanFull::ms_iScansRun, before + 1) << "no second scan";
}

TEST_F(BackupContent, TwoMountsAtOnceBuildOneMap) {
    const std::string file = "appveyor-lab/RestoreTimeClean/RestoreTimeClean2.bak";
    int before = ZR_ScanFull::ms_iScansRun;
    auto a = Make({file});
    auto b = Make({file});
    bool okA = false, okB = false;
    std::thread ta([&] { int32_t v = 0; okA = a->PrepareContent(&v); });
    std::thread tb([&] { int32_t v = 0; okB = b->PrepareContent(&v); });
    ta.join();
    tb.join();
    EXPECT_TRUE(okA && okB) << Errors(L"k");
    EXPECT_EQ(a->m_pCMaps, b->m_pCMaps);
    EXPECT_EQ(ZR_ScanFull::ms_iScansRun, before + 1);
}

TEST_F(BackupContent, DamagedMapFilesAreBuiltAgain) {
    const std::string file = "appveyor-lab/DoubleDiffing/difftest-full.bak";
    {
        auto b = Make({file});
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v));
    }
    fs::path map = fs::directory_iterator(m_tmp.path() / "maps")->path();
    auto good = fs::file_size(map);
    int before = ZR_ScanFull::ms_iScansRun;
    fs::resize_file(map, good / 2);  // cut short
    {
        auto b = Make({file});
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v));
    }
    EXPECT_EQ(ZR_ScanFull::ms_iScansRun, before + 1);
    EXPECT_EQ(fs::file_size(map), good) << "written again whole";
    {
        std::fstream f(map, std::ios::in | std::ios::out | std::ios::binary);
        f.write("XCMF", 4);  // wrong magic
    }
    {
        auto b = Make({file});
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v));
    }
    EXPECT_EQ(ZR_ScanFull::ms_iScansRun, before + 2);
}

TEST_F(BackupContent, UnwritableMapFolderFallsBackToASatelliteBesideTheBackup) {
    // The satellite lies beside the backup, so the backup is copied to a
    // folder of the test's own.
    fs::path copy = m_tmp / "copy.bak";
    fs::copy_file(*zrtest::TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak"), copy);
    UseFolder(m_tmp / "missing-folder");
    auto b = std::make_unique<ZR_Backup>(L"k");
    b->SetDataSetNumber(1);
    b->AddFile(copy.wstring().c_str(), nullptr, false);
    int32_t v = 0;
    ASSERT_TRUE(b->PrepareContent(&v)) << Errors(L"k");
    EXPECT_TRUE(fs::exists(m_tmp / "copy.bak.1.xcm"));
    EXPECT_EQ(b->m_pCMaps->GetMapLocale(), X_MAPLOCALE_SATELLITE);
}

TEST_F(BackupContent, StripedSetIsSortedWhateverTheOrderGiven) {
    const std::string dir = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";
    int before = ZR_ScanFull::ms_iScansRun;
    for (bool reversed : {false, true}) {
        std::vector<std::string> files = {dir + "Stripe1/RestoreTimeStripe.bak", dir + "Stripe2/RestoreTimeStripe1.bak"};
        if (reversed)
            std::swap(files[0], files[1]);
        auto b = Make(files);
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v)) << Errors(L"k");
        EXPECT_NE(std::wstring(b->GetFile(0)->GetFileName()).find(L"Stripe1"), std::wstring::npos);
        EXPECT_EQ(b->m_pCMaps->GetRequiredFiles(), 2);
        EXPECT_EQ(b->m_pCMaps->GetNumFiles(), 2);
    }
    EXPECT_EQ(ZR_ScanFull::ms_iScansRun, before + 1) << "one identity, one map, whatever the order";
}

TEST_F(BackupContent, LaterServerVersionsAreRefusedAfterTheMapIsWritten) {
    for (auto& e : zrtest::NativeBackups(11, 99)) {
        if (e.stripes != 1)
            continue;
        SCOPED_TRACE(e.file);
        ZR_ClearErrors(L"k");
        auto b = Make({e.file});
        int32_t v = 0;
        EXPECT_FALSE(b->PrepareContent(&v));
        EXPECT_NE(Errors(L"k").find("Microsoft SQL Server version " + std::to_string(e.major) + " not supported."),
                  std::string::npos)
            << Errors(L"k");
    }
    EXPECT_GE(MapFiles(), 5);
}

TEST_F(BackupContent, VersionsOfOneMountMustAgree) {
    auto b = Make({"appveyor-lab/DoubleDiffing/difftest-full.bak"});
    int32_t v = 9;  // as if the full backup of the mount had been version 9
    EXPECT_FALSE(b->PrepareContent(&v));
    EXPECT_NE(Errors(L"k").find("Mismatched Microsoft SQL Server version between backups (10 versus 9)."),
              std::string::npos);
}

TEST_F(BackupContent, TypeTestsSayWhatTheBackupIs) {
    auto diff = Make({"appveyor-lab/DoubleDiffing/difftest-diff1.bak"});
    int32_t v = 0;
    ASSERT_TRUE(diff->PrepareContent(&v));
    EXPECT_TRUE(diff->IsDiffBackup());
    EXPECT_FALSE(diff->IsLogBackup());
    EXPECT_FALSE(diff->IsFullBackup());
    EXPECT_NE(Errors(L"k").find("This is not a Full Database backup."), std::string::npos);
}

TEST_F(BackupContent, AMissingFileFailsTheProbe) {
    auto b = std::make_unique<ZR_Backup>(L"k");
    b->AddFile((m_tmp / "none.bak").wstring().c_str(), nullptr, false);
    int32_t v = 0;
    EXPECT_FALSE(b->PrepareContent(&v));
    EXPECT_NE(Errors(L"k").find("File probe failed for data set 1"), std::string::npos);
}

}  // namespace

namespace {

// Sets the backup type letter of every configuration record in a file.
void SetBackupTypeEverywhere(const fs::path& file, char type) {
    std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(f)), {});
    int n = 0;
    for (size_t at = bytes.find("SCIN"); at != std::string::npos; at = bytes.find("SCIN", at + 4), ++n) {
        f.seekp(static_cast<std::streamoff>(at + 87));
        f.put(type);
    }
    ASSERT_GE(n, 1) << file;
}

TEST_F(BackupContent, TypesOtherThanFullDifferentialAndLogAreRefused) {
    fs::path copy = m_tmp / "typed.bak";
    fs::copy_file(*zrtest::TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak"), copy);
    auto make = [&] {
        auto b = std::make_unique<ZR_Backup>(L"k");
        b->SetDataSetNumber(1);
        b->AddFile(copy.wstring().c_str(), nullptr, false);
        return b;
    };
    // A map read from a file holds a file-level backup: the type test says so.
    {
        auto b = make();
        int32_t v = 0;
        ASSERT_TRUE(b->PrepareContent(&v));
    }
    fs::path map = fs::directory_iterator(m_tmp.path() / "maps")->path();
    SetBackupTypeEverywhere(map, 'F');
    {
        auto b = make();
        int32_t v = 0;
        EXPECT_FALSE(b->PrepareContent(&v));
        EXPECT_NE(Errors(L"k").find("Backups of type \"File level\" are not supported. Specify either a Full, "
                                    "Differential, or Log backup."),
                  std::string::npos)
            << Errors(L"k");
    }
    // Without a map, the full scan refuses the backup itself.
    fs::remove(map);
    SetBackupTypeEverywhere(copy, 'T');
    ZR_ClearErrors(L"k");
    ZR_ClearErrors(nullptr);
    auto b = make();
    int32_t v = 0;
    EXPECT_FALSE(b->PrepareContent(&v));
    std::string errors = Errors(L"k") + Errors(nullptr);
    EXPECT_NE(errors.find("Failed to build maps for dataset 1 of file"), std::string::npos) << errors;
    EXPECT_EQ(MapFiles(), 0) << "no map of a refused backup";
}

}  // namespace
