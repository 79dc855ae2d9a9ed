// The chain check on the real chains: the unbroken ones hold, and every
// broken one is refused with a message that names the two files that do not
// fit. The LSNs in the messages are those of the test data's manifest.
#include "engine/ZR_ChainCheck.h"

#include "diag/ZR_Error.h"
#include "engine/ZR_Database.h"
#include "support/ErrorText.h"
#include "support/TestData.h"
#include "support/RealMaps.h"
#include "support/VirtualView.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::string kClean = "appveyor-lab/RestoreTimeClean/";
const std::string kClean16 = "appveyor-lab/restoretimeclean2016/";
const std::string kStripe1 = "appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe1/";
const std::string kStripe2 = "appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe2/";
const std::string kSql2008 = "appveyor-lab/sql2008-backups/";

// A chain by the first file of each backup (the configuration of a striped
// backup stands in its first stripe): the full backup, the differential or
// "" for none, then the logs.
struct Chain {
    const char* what;
    std::vector<std::string> files;
    const char* message;       // null: the chain holds together
    std::string fileA, fileB;  // the two files the message names
};

class ChainCheck : public ::testing::Test {
protected:
    void SetUp() override { ZR_REQUIRE_TESTDATA(); }
    void TearDown() override { ZR_ClearErrors(kKey); }

    // The chain's backups, each with the content map of its file (made once
    // for all cases); the error chain of the check.
    std::string Check(const Chain& c, bool* pbOk) {
        std::vector<ZR_Backup*> aChain;
        for (const std::string& f : c.files)
            aChain.push_back(f.empty() ? nullptr : Backup(f));
        *pbOk = ZR_CheckChain(aChain.data(), static_cast<int>(aChain.size()), kKey);
        return zrtest::ErrorTextNarrow(kKey);
    }

    ZR_Backup* Backup(const std::string& file) {
        std::unique_ptr<ZR_Backup>& p = m_backups[file];
        if (!p) {
            fs::path path = *zrtest::TestDataFile(file);
            p = std::make_unique<ZR_Backup>(kKey);
            p->AddFile(path.wstring().c_str(), nullptr, false);
            EXPECT_TRUE(zrtest::FillContentMap(*p->m_pCMaps, zrtest::ReadFileBytes(path))) << file;
        }
        return p.get();
    }

    std::map<std::string, std::unique_ptr<ZR_Backup>> m_backups;
    static constexpr const wchar_t* kKey = L"chain-test";
};

TEST_F(ChainCheck, UnbrokenChainsHoldAndBrokenOnesNameTheTwoFiles) {
    const std::string db1 = kSql2008 + "db1/", db2 = kSql2008 + "db2/";
    const std::vector<Chain> chains = {
        {"full and logs",
         {kClean + "RestoreTimeClean.bak", "", kClean + "RestoreTimeClean_1.trn", kClean + "RestoreTimeClean_2.trn",
          kClean + "RestoreTimeClean_3.trn"}, nullptr, "", ""},
        {"full, differential and logs",
         {kClean + "RestoreTimeClean.bak", kClean + "RestoreTimeClean2.bak", kClean + "RestoreTimeClean2_1.trn",
          kClean + "RestoreTimeClean2_2.trn", kClean + "RestoreTimeClean2_3.trn"}, nullptr, "", ""},
        {"the 2016 chain",
         {kClean16 + "RestoreTimeClean.bak", kClean16 + "RestoreTimeClean2.bak", kClean16 + "RestoreTimeClean2_1.trn",
          kClean16 + "RestoreTimeClean2_2.trn", kClean16 + "RestoreTimeClean2_3.trn"}, nullptr, "", ""},
        {"the 2016 logs without the differential",
         {kClean16 + "RestoreTimeClean.bak", "", kClean16 + "RestoreTimeClean_1.trn",
          kClean16 + "RestoreTimeClean_2.trn", kClean16 + "RestoreTimeClean_3.trn"}, nullptr, "", ""},
        {"striped full and logs",
         {kStripe1 + "RestoreTimeStripe.bak", "", kStripe1 + "RestoreTimeStripe_1.trn",
          kStripe1 + "RestoreTimeStripe_2.trn", kStripe1 + "RestoreTimeStripe_3.trn"}, nullptr, "", ""},
        {"a differential of another database",
         {db2 + "FULL/SQL2008_db2_FULL_20170518_041738.bak", db1 + "DIFF/SQL2008_db1_DIFF_20170518_041819.bak"},
         "is not of the database of", "SQL2008_db1_DIFF", "SQL2008_db2_FULL"},
        {"a copy of the database on another server",
         {kClean + "RestoreTimeClean.bak", kClean16 + "RestoreTimeClean2.bak"}, "is not of the database of",
         "restoretimeclean2016/RestoreTimeClean2.bak", "RestoreTimeClean/RestoreTimeClean.bak"},
        {"a base that is not the full backup's checkpoint",
         {kClean16 + "RestoreTimeClean.bak", kClean16 + "RestoreTimeClean.bak"},
         "(base LSN 39:354:71) was not taken over the full backup", "RestoreTimeClean.bak",
         "(checkpoint LSN 39:488:71)"},
        {"logs out of order",
         {kClean + "RestoreTimeClean.bak", "", kClean + "RestoreTimeClean_1.trn", kClean + "RestoreTimeClean_3.trn",
          kClean + "RestoreTimeClean_2.trn"},
         "begins at LSN 25:163:1, but the log backup", "RestoreTimeClean_3.trn",
         "RestoreTimeClean_1.trn before it ends at LSN 25:153:1"},
        {"a gap between logs",
         {kStripe1 + "RestoreTimeStripe.bak", "", kStripe1 + "RestoreTimeStripe_1.trn",
          kStripe1 + "RestoreTimeStripe_2.trn", kStripe1 + "RestoreTimeStripe_3.trn",
          kStripe1 + "RestoreTimeStripe_22.trn"},
         "begins at LSN 20:223:1, but the log backup", "RestoreTimeStripe_22.trn",
         "RestoreTimeStripe_3.trn before it ends at LSN 20:186:1"},
        {"a log older than the differential",
         {kClean + "RestoreTimeClean.bak", kClean + "RestoreTimeClean2.bak", kClean + "RestoreTimeClean_3.trn"},
         "(LSN 25:163:1 to 25:173:1) does not go on from", "RestoreTimeClean_3.trn",
         "RestoreTimeClean2.bak, which ends at LSN 25:190:1"},
        {"a log older than the full backup",
         {kStripe1 + "RestoreTimeStripe2.bak", "", kStripe1 + "RestoreTimeStripe_1.trn"},
         "(LSN 20:74:170 to 20:166:1) does not go on from", "RestoreTimeStripe_1.trn",
         "RestoreTimeStripe2.bak, which ends at LSN 20:206:1"},
        {"a first log that begins after the full backup ends",
         {kClean + "RestoreTimeClean.bak", "", kClean + "RestoreTimeClean_2.trn"},
         "(LSN 25:153:1 to 25:163:1) does not go on from", "RestoreTimeClean_2.trn",
         "RestoreTimeClean.bak, which ends at LSN 25:132:1"},
    };
    for (const Chain& c : chains) {
        SCOPED_TRACE(c.what);
        bool bOk = false;
        const std::string errors = Check(c, &bOk);
        EXPECT_EQ(bOk, c.message == nullptr) << errors;
        if (c.message) {
            EXPECT_NE(errors.find(c.message), std::string::npos) << errors;
            EXPECT_NE(errors.find(c.fileA), std::string::npos) << errors;
            EXPECT_NE(errors.find(c.fileB), std::string::npos) << errors;
        }
        ZR_ClearErrors(kKey);
    }
}

// The mount refuses a broken chain after every backup's content is ready,
// before it succeeds.
TEST_F(ChainCheck, TheMountRefusesABrokenChain) {
    zrtest::TempDir tmp;
    zrtest::MapFolderScope maps(tmp.path());
    ZR_Database db(L"/tmp", GUID_NULL);
    db.SetMountKey(kKey);
    for (ZR_Backup* pBackup : {db.NewFull(), db.NewDiff(), db.NewLog()}) {
        ASSERT_NE(pBackup, nullptr);
        pBackup->SetDataSetNumber(1);
    }
    const char* aFiles[] = {"RestoreTimeClean.bak", "RestoreTimeClean2.bak", "RestoreTimeClean_3.trn"};
    for (int i = 0; i < 3; ++i)
        db.GetBackup(i)->AddFile(zrtest::TestDataFile(kClean + aFiles[i])->wstring().c_str(), nullptr, false);
    EXPECT_FALSE(db.PrepareContent());
    EXPECT_NE(zrtest::ErrorTextNarrow(kKey).find("does not go on from"), std::string::npos);
    // Every backup was prepared first: the refusal is the chain's.
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(db.GetBackup(i)->m_pCMaps->m_ConfigMSCI.m_pConfig, nullptr) << aFiles[i];
}

}  // namespace
