#include "support/RealChains.h"

#include "support/TestData.h"

namespace zrtest {

namespace {

const std::string kDouble = "appveyor-lab/DoubleDiffing/";
const std::string kClean = "appveyor-lab/RestoreTimeClean/";
const std::string kStripe = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";
const std::string kDb2 = "appveyor-lab/sql2008-backups/db2/";
const std::string kStDb2 = "gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak";

}  // namespace

void PrintTo(const RealChain& chain, std::ostream* pOut) { *pOut << chain.strName; }

const std::vector<RealChain>& RealChains() {
    static const std::vector<RealChain> chains = {
        {"DoubleDiffingFullMoved",
         {.full = {kDouble + "difftest-full.bak"}, .wszWith = L"move 'DoubleDiff' to 'D:\\Moved\\double''diff.mdf'"}},
        {"DoubleDiffingFirstDiff", {.full = {kDouble + "difftest-full.bak"}, .diff = {kDouble + "difftest-diff1.bak"}}},
        {"DoubleDiffingSecondDiff", {.full = {kDouble + "difftest-full.bak"}, .diff = {kDouble + "difftest-diff2.bak"}}},
        {"RestoreTimeCleanFull", {.full = {kClean + "RestoreTimeClean.bak"}}},
        {"RestoreTimeCleanDiff", {.full = {kClean + "RestoreTimeClean.bak"}, .diff = {kClean + "RestoreTimeClean2.bak"}}},
        {"RestoreTimeCleanDiffLogsToAStop",
         {.full = {kClean + "RestoreTimeClean.bak"},
          .diff = {kClean + "RestoreTimeClean2.bak"},
          .logs = {kClean + "RestoreTimeClean2_1.trn", kClean + "RestoreTimeClean2_2.trn",
                   kClean + "RestoreTimeClean2_3.trn"},
          .wszStop = L"STOPAT='2017-06-01 13:25:00'"}},
        {"PasswordFull", {.full = {"appveyor-lab/backuppassword/passwd.bak"}}},
        {"StripedFullInReverseOrder",
         {.full = {kStripe + "Stripe2/RestoreTimeStripe1.bak", kStripe + "Stripe1/RestoreTimeStripe.bak"}}},
        {"StripedSecondFull",
         {.full = {kStripe + "Stripe1/RestoreTimeStripe2.bak", kStripe + "Stripe2/RestoreTimeStripe2a.bak"}}},
        {"Db2Full", {.full = {kDb2 + "FULL/SQL2008_db2_FULL_20170518_041738.bak"}}},
        {"Db2Diff",
         {.full = {kDb2 + "FULL/SQL2008_db2_FULL_20170518_041738.bak"},
          .diff = {kDb2 + "DIFF/SQL2008_db2_DIFF_20170518_041819.bak"}}},
        {"UserLoginFull", {.full = {"KhanhHoang123-Lap-trinh-web/backup.bak"}}},
        {"NorthwindFull", {.full = {"xandelima-MVCNorthwind/Northwind.bak"}}},
        {"StDb2SqlFirstSet", {.full = {kStDb2}}},
        {"StDb2SqlSecondSet", {.full = {kStDb2}, .iDataSet = 2, .wszWith = L"FILE = 2"}},
    };
    return chains;
}

MountRequest InTestData(MountRequest request) {
    for (auto* pFiles : {&request.full, &request.diff, &request.logs})
        for (std::filesystem::path& file : *pFiles) file = TestDataDir().value() / file;
    return request;
}

}  // namespace zrtest
