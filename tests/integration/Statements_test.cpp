// zirlane statements on a real chain: the restore statements in order, each
// naming the view of its backup, then the attach statement, whose files are
// those the test walker (tests/support/MtfWalker.h) reads in the full
// backup's configuration; a chain that does not go on gives no statement.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/CliRun.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"

namespace fs = std::filesystem;

namespace {

const char kClean[] = "appveyor-lab/RestoreTimeClean/";
std::string Path(const std::string& relative) { return zrtest::TestDataFile(relative).value().string(); }

// The CREATE DATABASE text the walker's reading of the full backup calls for.
std::string ExpectedAttach(const std::string& database, const std::string& fullFile) {
    zrtest::MtfWalk walk = zrtest::MtfWalker::WalkFile(Path(fullFile));
    EXPECT_TRUE(walk.ok) << walk.fault;
    const zrtest::MtfDataSet* pSet = walk.DataSet(1);
    EXPECT_NE(pSet, nullptr);
    std::string text = "CREATE DATABASE [" + database + "] ON\n";
    bool bFirst = true;
    for (const zrtest::MtfSqlFile& f : pSet ? pSet->msci.files : std::vector<zrtest::MtfSqlFile>{}) {
        if (f.fileType != 1) continue;
        text += (bFirst ? "" : ",\n") + std::string("   (FILENAME = '") + f.physicalName + "')";
        bFirst = false;
    }
    return text + "\n   FOR ATTACH\n";
}

size_t Count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t i = text.find(part); i != std::string::npos; i = text.find(part, i + 1)) ++n;
    return n;
}

// A log older than the differential: no statement comes out, since SQL
// Server would refuse the chain only when it ran them.
TEST(ZirlaneStatements, ABrokenChainPrintsNoStatement) {
    ZR_REQUIRE_TESTDATA();
    zrtest::TempDir tmp;
    const std::string dir = std::string(kClean);
    zrtest::CliRun run = zrtest::RunZirlane({"statements", "--database", "Copy", "--map-folder", (tmp / "maps").string(), "--full",
                                  Path(dir + "RestoreTimeClean.bak"), "--diff", Path(dir + "RestoreTimeClean2.bak"),
                                  "--log", Path(dir + "RestoreTimeClean_3.trn")},
                                 tmp.path());
    EXPECT_EQ(run.iExit, 1);
    EXPECT_EQ(run.sOut.find("RESTORE"), std::string::npos) << run.sOut;
    EXPECT_NE((run.sOut + run.sErr).find("does not go on from"), std::string::npos) << run.sOut << run.sErr;
}

TEST(ZirlaneStatements, TheCleanChainComesOutInOrderThenTheAttach) {
    ZR_REQUIRE_TESTDATA();
    zrtest::TempDir tmp;
    const std::string dir = std::string(kClean);
    zrtest::CliRun run = zrtest::RunZirlane({"statements", "--database", "Copy", "--key", "K", "--map-folder", (tmp / "maps").string(),
                       "--full", Path(dir + "RestoreTimeClean.bak"), "--diff", Path(dir + "RestoreTimeClean2.bak"),
                       "--log", Path(dir + "RestoreTimeClean2_1.trn"), "--log", Path(dir + "RestoreTimeClean2_2.trn"),
                       "--log", Path(dir + "RestoreTimeClean2_3.trn"), "--stop", "STOPAT='2017-06-01 13:25:00'",
                       "--with", "1:move 'RestoreTimeClean' to 'D:\\x.mdf'"},
                      tmp.path());
    ASSERT_EQ(run.iExit, 0) << run.sErr;
    EXPECT_EQ(Count(run.sOut, "RESTORE DATABASE [Copy] FROM DISK=\n'C:\\K!"), 5u) << run.sOut;
    EXPECT_EQ(Count(run.sOut, "STOPAT='2017-06-01 13:25:00.000'"), 5u);
    EXPECT_EQ(Count(run.sOut, "\nnorecovery, \n\nSTOPAT="), 1u) << "the full backup";
    EXPECT_EQ(Count(run.sOut, "\nwith norecovery, \n\nSTOPAT="), 3u) << "the differential and two logs";
    EXPECT_EQ(Count(run.sOut, "\nwith recovery, \n\nSTOPAT="), 1u) << "the last log";
    EXPECT_NE(run.sOut.find("',\nmove 'RestoreTimeClean' to 'D:\\x.mdf'\n"), std::string::npos);
    const std::string attach = ExpectedAttach("Copy", dir + "RestoreTimeClean.bak");
    ASSERT_GE(run.sOut.size(), attach.size());
    EXPECT_EQ(run.sOut.substr(run.sOut.size() - attach.size()), attach);
}

}  // namespace
