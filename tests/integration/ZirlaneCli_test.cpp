// The zirlane program as a user runs it: output, errors and exit codes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/TestData.h"

namespace fs = std::filesystem;

namespace {

const char* const kStripes = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";

// The program lies in the build tree beside this test's own folder.
fs::path ProgramPath() {
    fs::path self = fs::read_symlink("/proc/self/exe");
    return self.parent_path().parent_path().parent_path() / "tools" / "zirlane" / "zirlane";
}

std::string ReadAll(const fs::path& p) {
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string Quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

struct CliRun {
    int iExit = -1;
    std::string sOut;
    std::string sErr;
};

class ZirlaneCliTest : public ::testing::Test {
protected:
    CliRun Zirlane(const std::vector<std::string>& aArgs) {
        fs::path program = ProgramPath();
        EXPECT_TRUE(fs::exists(program)) << program;
        std::string command = Quote(program.string());
        for (const auto& a : aArgs) command += " " + Quote(a);
        fs::path out = m_tmp / "out.txt", err = m_tmp / "err.txt";
        command += " >" + Quote(out.string()) + " 2>" + Quote(err.string());
        CliRun run;
        int iStatus = std::system(command.c_str());
        run.iExit = (iStatus >> 8) & 0xFF;  // the wait status holds the exit code in its second byte
        run.sOut = ReadAll(out);
        run.sErr = ReadAll(err);
        return run;
    }
    std::string Data(const std::string& relative) { return zrtest::TestDataFile(relative)->string(); }

    zrtest::TempDir m_tmp;
};

}  // namespace

TEST_F(ZirlaneCliTest, ProbePrintsStripesInOrderWhateverOrderTheyAreGiven) {
    ZR_REQUIRE_TESTDATA();
    std::string first = Data(std::string(kStripes) + "Stripe1/RestoreTimeStripe.bak");
    std::string second = Data(std::string(kStripes) + "Stripe2/RestoreTimeStripe1.bak");
    CliRun run = Zirlane({"probe", second, first});
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
    CliRun run = Zirlane({"probe", "--data-set", "2", Data("gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak")});
    ASSERT_EQ(run.iExit, 0) << run.sErr;
    EXPECT_NE(run.sOut.find("data set: 2\n"), std::string::npos);
    EXPECT_NE(run.sOut.find("version: 9 (SQL Server 2005)\n"), std::string::npos) << run.sOut;
}

TEST_F(ZirlaneCliTest, ProbeFailuresPrintTheErrorChain) {
    ZR_REQUIRE_TESTDATA();
    CliRun alone = Zirlane({"probe", Data(std::string(kStripes) + "Stripe1/RestoreTimeStripe.bak")});
    EXPECT_NE(alone.iExit, 0);
    EXPECT_NE(alone.sErr.find("Not all of the 2 required striped backup files are specified."), std::string::npos)
        << alone.sErr;
    EXPECT_TRUE(alone.sOut.empty());

    CliRun missing = Zirlane({"probe", (m_tmp / "nothing.bak").string()});
    EXPECT_NE(missing.iExit, 0);
    EXPECT_NE(missing.sErr.find("nothing.bak"), std::string::npos) << missing.sErr;

    CliRun badSet = Zirlane({"probe", "--data-set", "3", Data("gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak")});
    EXPECT_NE(badSet.iExit, 0);
    EXPECT_NE(badSet.sErr.find("Dataset #3 not found in backup."), std::string::npos) << badSet.sErr;
}

TEST_F(ZirlaneCliTest, EveryCommandHasHelp) {
    CliRun top = Zirlane({"--help"});
    EXPECT_EQ(top.iExit, 0);
    EXPECT_NE(top.sOut.find("probe"), std::string::npos) << top.sOut;
    CliRun probe = Zirlane({"probe", "--help"});
    EXPECT_EQ(probe.iExit, 0);
    EXPECT_NE(probe.sOut.find("--data-set"), std::string::npos) << probe.sOut;
    CliRun none = Zirlane({"probe"});
    EXPECT_NE(none.iExit, 0);
}
