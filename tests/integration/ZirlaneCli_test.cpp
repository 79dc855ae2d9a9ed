// The zirlane program as a user runs it: output, errors and exit codes.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/CliRun.h"
#include "support/TestData.h"

namespace fs = std::filesystem;

namespace {

const char* const kStripes = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";

class ZirlaneCliTest : public ::testing::Test {
protected:
    zrtest::CliRun Zirlane(const std::vector<std::string>& aArgs) {
        EXPECT_TRUE(fs::exists(zrtest::ZirlaneProgram())) << zrtest::ZirlaneProgram();
        return zrtest::RunZirlane(aArgs, m_tmp.path());
    }
    std::string Data(const std::string& relative) { return zrtest::TestDataFile(relative)->string(); }

    zrtest::TempDir m_tmp;
};

}  // namespace

TEST_F(ZirlaneCliTest, ProbePrintsStripesInOrderWhateverOrderTheyAreGiven) {
    ZR_REQUIRE_TESTDATA();
    std::string first = Data(std::string(kStripes) + "Stripe1/RestoreTimeStripe.bak");
    std::string second = Data(std::string(kStripes) + "Stripe2/RestoreTimeStripe1.bak");
    zrtest::CliRun run = Zirlane({"probe", second, first});
    ASSERT_EQ(run.iExit, 0) << run.sErr;
    size_t iFirst = run.sOut.find("file 1 of 2: " + first + "\n");
    size_t iSecond = run.sOut.find("file 2 of 2: " + second + "\n");
    ASSERT_NE(iFirst, std::string::npos) << run.sOut;
    ASSERT_NE(iSecond, std::string::npos) << run.sOut;
    EXPECT_LT(iFirst, iSecond);
    EXPECT_NE(run.sOut.find("media family: 0x62f92839\n"), std::string::npos) << run.sOut;
    EXPECT_NE(run.sOut.find("media date: 20"), std::string::npos);
    EXPECT_NE(run.sOut.find("write date: 20"), std::string::npos);
    EXPECT_NE(run.sOut.find("data set: 1\n"), std::string::npos);
    EXPECT_NE(run.sOut.find("version: 10 (SQL Server 2008)\n"), std::string::npos);
    EXPECT_NE(run.sOut.find("type: D (Database)\n"), std::string::npos) << run.sOut;
}

TEST_F(ZirlaneCliTest, ProbeOfAppendedDataSet) {
    ZR_REQUIRE_TESTDATA();
    zrtest::CliRun run = Zirlane({"probe", "--data-set", "2", Data("gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak")});
    ASSERT_EQ(run.iExit, 0) << run.sErr;
    EXPECT_NE(run.sOut.find("data set: 2\n"), std::string::npos);
    EXPECT_NE(run.sOut.find("version: 9 (SQL Server 2005)\n"), std::string::npos) << run.sOut;
}

TEST_F(ZirlaneCliTest, ProbeFailuresPrintTheErrorChain) {
    ZR_REQUIRE_TESTDATA();
    zrtest::CliRun alone = Zirlane({"probe", Data(std::string(kStripes) + "Stripe1/RestoreTimeStripe.bak")});
    EXPECT_NE(alone.iExit, 0);
    EXPECT_NE(alone.sErr.find("Not all of the 2 required striped backup files are specified."), std::string::npos)
        << alone.sErr;
    EXPECT_TRUE(alone.sOut.empty());

    zrtest::CliRun missing = Zirlane({"probe", (m_tmp / "nothing.bak").string()});
    EXPECT_NE(missing.iExit, 0);
    EXPECT_NE(missing.sErr.find("nothing.bak"), std::string::npos) << missing.sErr;

    zrtest::CliRun badSet = Zirlane({"probe", "--data-set", "3", Data("gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak")});
    EXPECT_NE(badSet.iExit, 0);
    EXPECT_NE(badSet.sErr.find("Dataset #3 not found in backup."), std::string::npos) << badSet.sErr;
}

TEST_F(ZirlaneCliTest, EveryCommandHasHelp) {
    zrtest::CliRun top = Zirlane({"--help"});
    EXPECT_EQ(top.iExit, 0);
    EXPECT_NE(top.sOut.find("probe"), std::string::npos) << top.sOut;
    zrtest::CliRun probe = Zirlane({"probe", "--help"});
    EXPECT_EQ(probe.iExit, 0);
    EXPECT_NE(probe.sOut.find("--data-set"), std::string::npos) << probe.sOut;
    zrtest::CliRun none = Zirlane({"probe"});
    EXPECT_NE(none.iExit, 0);
}
