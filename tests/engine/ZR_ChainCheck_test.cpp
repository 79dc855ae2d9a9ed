// The chain check on the real chains: the unbroken ones hold, and every
// broken one is refused with a message that names the two files that do not
// fit. The LSNs in the messages are those of the test data's manifest.
#include "engine/ZR_ChainCheck.h"

#include "backup/ZR_Backup.h"
#include "diag/ZR_Error.h"
#include "support/ErrorText.h"
#include "support/RealMaps.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr const wchar_t* kKey = L"chain-test";

// A chain by the first file of each backup (a striped backup's configuration
// stands in its first stripe): the full backup, the differential or "-",
// then the logs. C, N, S and D stand for folders of the test data.
struct Chain {
    const char* files;
    const char* message;  // null: the chain holds together
    const char* fileA;    // the two files the message names
    const char* fileB;
};

std::string Expand(const std::string& name) {
    static const std::map<char, std::string> folders = {
        {'C', "appveyor-lab/RestoreTimeClean/"},
        {'N', "appveyor-lab/restoretimeclean2016/"},
        {'S', "appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe1/"},
        {'D', "appveyor-lab/sql2008-backups/"}};
    return folders.at(name[0]) + name.substr(2);
}

TEST(ChainCheck, UnbrokenChainsHoldAndBrokenOnesNameTheTwoFiles) {
    ZR_REQUIRE_TESTDATA();
    const Chain chains[] = {
        {"C/RestoreTimeClean.bak - C/RestoreTimeClean_1.trn C/RestoreTimeClean_2.trn C/RestoreTimeClean_3.trn",
         nullptr, "", ""},
        {"C/RestoreTimeClean.bak C/RestoreTimeClean2.bak C/RestoreTimeClean2_1.trn C/RestoreTimeClean2_2.trn "
         "C/RestoreTimeClean2_3.trn", nullptr, "", ""},
        {"N/RestoreTimeClean.bak N/RestoreTimeClean2.bak N/RestoreTimeClean2_1.trn N/RestoreTimeClean2_2.trn "
         "N/RestoreTimeClean2_3.trn", nullptr, "", ""},
        {"S/RestoreTimeStripe.bak - S/RestoreTimeStripe_1.trn S/RestoreTimeStripe_2.trn S/RestoreTimeStripe_3.trn",
         nullptr, "", ""},
        // a differential of another database, then of a copy of the same one on another server
        {"D/db2/FULL/SQL2008_db2_FULL_20170518_041738.bak D/db1/DIFF/SQL2008_db1_DIFF_20170518_041819.bak",
         "is not of the database of", "SQL2008_db1_DIFF", "SQL2008_db2_FULL"},
        {"C/RestoreTimeClean.bak N/RestoreTimeClean2.bak", "is not of the database of",
         "restoretimeclean2016/RestoreTimeClean2.bak", "RestoreTimeClean/RestoreTimeClean.bak"},
        {"N/RestoreTimeClean.bak N/RestoreTimeClean.bak", "(base LSN 39:354:71) was not taken over the full backup",
         "RestoreTimeClean.bak", "(checkpoint LSN 39:488:71)"},
        // logs out of order, a gap between logs, a log older than the differential
        {"C/RestoreTimeClean.bak - C/RestoreTimeClean_1.trn C/RestoreTimeClean_3.trn C/RestoreTimeClean_2.trn",
         "begins at LSN 25:163:1, but the log backup", "RestoreTimeClean_3.trn",
         "RestoreTimeClean_1.trn before it ends at LSN 25:153:1"},
        {"S/RestoreTimeStripe.bak - S/RestoreTimeStripe_1.trn S/RestoreTimeStripe_2.trn S/RestoreTimeStripe_3.trn "
         "S/RestoreTimeStripe_22.trn", "begins at LSN 20:223:1, but the log backup", "RestoreTimeStripe_22.trn",
         "RestoreTimeStripe_3.trn before it ends at LSN 20:186:1"},
        {"C/RestoreTimeClean.bak C/RestoreTimeClean2.bak C/RestoreTimeClean_3.trn",
         "(LSN 25:163:1 to 25:173:1) does not go on from", "RestoreTimeClean_3.trn",
         "RestoreTimeClean2.bak, which ends at LSN 25:190:1"},
    };
    // Each backup once, with the content map of its file.
    std::map<std::string, std::unique_ptr<ZR_Backup>> backups;
    for (const Chain& c : chains) {
        SCOPED_TRACE(c.files);
        std::vector<ZR_Backup*> aChain;
        std::istringstream names(c.files);
        for (std::string name; names >> name;) {
            std::unique_ptr<ZR_Backup>& p = backups[name];
            if (!p && name != "-") {
                const std::filesystem::path path = *zrtest::TestDataFile(Expand(name));
                p = std::make_unique<ZR_Backup>(kKey);
                p->AddFile(path.wstring().c_str(), nullptr, false);
                ASSERT_TRUE(zrtest::FillContentMap(*p->m_pCMaps, zrtest::ReadFileBytes(path)));
            }
            aChain.push_back(p.get());
        }
        const bool bOk = ZR_CheckChain(aChain.data(), static_cast<int>(aChain.size()), kKey);
        const std::string errors = zrtest::ErrorTextNarrow(kKey);
        ZR_ClearErrors(kKey);
        EXPECT_EQ(bOk, c.message == nullptr) << errors;
        for (const char* szPart : {c.message, c.fileA, c.fileB})
            EXPECT_NE(errors.find(szPart ? szPart : ""), std::string::npos) << errors;
    }
}

}  // namespace
