// The zirlane program as a user runs it: output, errors and exit codes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/CliRun.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"

namespace fs = std::filesystem;

namespace {

const char* const kStripes = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";
const char* const kClean = "appveyor-lab/RestoreTimeClean/";
const char* const kDiffs = "appveyor-lab/DoubleDiffing/";

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class ZirlaneCliTest : public ::testing::Test {
protected:
    zrtest::CliRun Zirlane(const std::vector<std::string>& aArgs) {
        EXPECT_TRUE(fs::exists(zrtest::ZirlaneProgram())) << zrtest::ZirlaneProgram();
        return zrtest::RunZirlane(aArgs, m_tmp.path());
    }
    std::string Data(const std::string& relative) { return zrtest::TestDataFile(relative)->string(); }

    zrtest::TempDir m_tmp;
};

// One command line and what it must answer. In the arguments, "@x" is the
// file x of the test data and "%x" the file x of the test's own folder.
struct CliCase {
    std::vector<std::string> aArgs;
    int iExit;
    std::vector<std::string> aErr;  // words that stderr holds
    std::vector<std::string> aOut;  // words that stdout holds
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

    zrtest::CliRun json = Zirlane({"probe", "--json", second, first});
    ASSERT_EQ(json.iExit, 0) << json.sErr;
    EXPECT_NE(json.sOut.find("{\"files\": [{\"stripe\": 1, \"file\": \"" + first + "\"}, {\"stripe\": 2"),
              std::string::npos)
        << json.sOut;
    EXPECT_NE(json.sOut.find("\"media_family\": \"0x62f92839\""), std::string::npos);
    EXPECT_NE(json.sOut.find("\"version\": 10, \"version_name\": \"SQL Server 2008\", \"type\": \"D\""),
              std::string::npos);
}

// Every refusal says what is wrong in a few lines, with the exit code the
// README gives: 2 for the command line, 1 for the rest. Without --verbose
// no source places and no system text that explains nothing.
TEST_F(ZirlaneCliTest, RefusalsSayWhatIsWrongWithTheirExitCodes) {
    ZR_REQUIRE_TESTDATA();
    std::ofstream(m_tmp / "text.bak") << "This is a text file, not a backup.\n";
    std::ofstream(m_tmp / "empty.bak");
    fs::create_directory(m_tmp / "folder.bak");
    const std::string full = std::string("@") + kClean + "RestoreTimeClean.bak";
    const std::string log = std::string("@") + kClean + "RestoreTimeClean_1.trn";
    const std::vector<std::string> statements{"statements", "--database", "D", "--full", full};
    auto With = [&](std::vector<std::string> more) {
        std::vector<std::string> args = statements;
        args.insert(args.end(), more.begin(), more.end());
        return args;
    };
    const CliCase aCases[] = {
        {{"--version"}, 0, {}, {"zirlane 0.", "versions 9 and 10", "compressed backups"}},
        {{"bogus"}, 2, {"Unknown command 'bogus'", "probe, info, view, statements, extract"}, {}},
        {{}, 2, {"No command given"}, {}},
        {{"info", "%missing.bak"}, 1, {"Error 2 occurred on file open of", "cannot find the file"}, {}},
        {{"probe", "%text.bak"}, 1, {"text.bak is not a Microsoft Tape Format backup"}, {}},
        {{"info", "%empty.bak"}, 1, {"empty.bak is empty, not a Microsoft Tape Format backup"}, {}},
        {{"info", "%folder.bak"}, 1, {"folder.bak is a folder, not a backup file"}, {}},
        {{"probe", "@JoeyCheung-Databases/TSQLV4.bak"}, 1, {"TSQLV4.bak is a compressed SQL Server backup"}, {}},
        {{"info", "--data-set", "0", full}, 2, {"--data-set: must be a whole number from 1 to 65535, not '0'"}, {}},
        {{"probe", "--data-set", "abc", full}, 2, {"not 'abc'"}, {}},
        {{"view", "--stripe", "0", "-o", "%v.bxk", full}, 2, {"--stripe: must be a whole number from 1 to 64"}, {}},
        {{"probe", "--data-set", "3", "@gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak"},
         1, {"Dataset #3 not found in backup."}, {}},
        {{"statements", "--database", "D", "--full", std::string("@") + kStripes + "Stripe1/RestoreTimeStripe.bak"},
         1, {"RestoreTimeStripe.bak is one stripe of a backup written to 2 files",
             "Not all of the 2 required striped backup files are specified."}, {}},
        {With({"--diff", std::string("@") + kDiffs + "difftest-diff1.bak", std::string("@") + kDiffs +
               "difftest-diff2.bak"}),
         1, {"difftest-diff1.bak holds a backup written to 1 file, but 2 files were given"}, {}},
        {With({"--diff", "x.bak", "--diff", "y.bak"}), 2, {"--diff: a chain restores one differential backup"}, {}},
        {With({"--with", "2:replace"}), 2, {"--with: statement 2 does not exist: this chain has 1"}, {}},
        {With({"--with", "0:x"}), 2, {"--with: statement 0 does not exist"}, {}},
        {With({"--with", "1: "}), 2, {"--with: the option of statement 1 is empty"}, {}},
        {With({"--with", "replace"}), 2, {"--with: takes N:OPTION"}, {}},
        {{"statements", "--database", "", "--full", full}, 2, {"--database: the name must not be empty"}, {}},
        {{"statements", "--database", "a]b", "--full", full}, 2, {"holds a ']'"}, {}},
        {With({"--drive", "QQ"}), 2, {"--drive: takes a drive letter such as D:, not \"QQ\""}, {}},
        {With({"--stop", "2017-06-01"}), 2, {"--stop: \"2017-06-01\" is not understood: expected STOPAT="}, {}},
        {With({"--drive", "d", "--log", log, "--stop", "STOPAT=2017-06-01 13:02:00"}),
         0, {}, {"'D:\\GUID=", "STOPAT='2017-06-01 13:02:00.000'"}},
        {With({"--log", log, "--stop", "stopatmark = lsn:25:140:1 AFTER 2017-06-01 13:00:00"}),
         0, {}, {"STOPATMARK='LSN:25:140:1' AFTER '2017-06-01 13:00:00.000'"}},
        {With({"--log", log, "--stop", "STOPAT='2030-01-01 00:00:00'"}),
         0, {"Warning: the stop point lies after the end of the chain (2017-06-01 13:04:13)"}, {"STOPAT="}},
        {With({"--log", log, "--stop", "STOPAT='2001-01-01 00:00:00'"}),
         0, {"Warning: the stop point lies before the end of the full backup (2017-06-01 12:59:12)"}, {}},
        {With({"--log", log, "--stop", "STOPATMARK='lsn:25:900:1'"}),
         0, {"lies after the end of the chain (LSN 25:153:1)"}, {}},
        {{"statements", "--database", "D", "--full", "%missing.bak"}, 1, {"Unable to open backup file"}, {}},
        {{"view", "-o", "%no/such/folder/v.bxk", full}, 1, {"the folder", "no/such/folder does not exist"}, {}},
        {{"info", full}, 0, {}, {"Database backup LSN:   0:0:0\n"}},
        {{"info", std::string("@") + kDiffs + "difftest-diff1.bak"}, 0, {}, {"Differential base LSN: 24:68:99\n"}},
    };
    for (const CliCase& c : aCases) {
        std::vector<std::string> aArgs;
        std::string line;
        for (const std::string& a : c.aArgs) {
            aArgs.push_back(a.empty() || (a[0] != '@' && a[0] != '%') ? a
                            : a[0] == '@'                           ? Data(a.substr(1))
                                                                     : (m_tmp / a.substr(1)).string());
            line += " " + a;
        }
        SCOPED_TRACE("zirlane" + line);
        zrtest::CliRun run = Zirlane(aArgs);
        EXPECT_EQ(run.iExit, c.iExit) << run.sErr;
        for (const std::string& words : c.aErr) EXPECT_NE(run.sErr.find(words), std::string::npos) << run.sErr;
        for (const std::string& words : c.aOut) EXPECT_NE(run.sOut.find(words), std::string::npos) << run.sOut;
        for (const char* szNoise : {"File:", "Line:", "Overlapped", "Access is denied", "past end", "subcommand"})
            EXPECT_EQ(run.sErr.find(szNoise), std::string::npos) << run.sErr;
        if (c.iExit != 0) {
            EXPECT_TRUE(run.sOut.empty()) << run.sOut;
        }
        if (c.aErr.empty()) {
            EXPECT_EQ(run.sErr, "");
        }
    }
    EXPECT_FALSE(fs::exists(m_tmp / "no")) << "a refused view makes no folder";
    EXPECT_FALSE(fs::exists(m_tmp / "v.bxk")) << "nor a file";
}

// --verbose adds where each message comes from, named from the root of the
// source tree: the program carries no path of the machine that built it.
TEST_F(ZirlaneCliTest, VerboseShowsSourcePlacesRelativeToTheTree) {
    zrtest::CliRun run = Zirlane({"probe", "--verbose", (m_tmp / "missing.bak").string()});
    EXPECT_EQ(run.iExit, 1);
    EXPECT_NE(run.sErr.find("Error 2 occurred on file open of"), std::string::npos) << run.sErr;
    EXPECT_NE(run.sErr.find("  System:The system cannot find the file specified. (error 2)\n"), std::string::npos);
    EXPECT_NE(run.sErr.find("  File:src/backupio/ZR_BackupFile.cpp\n  Function:ZR_BackupFile::Open\n"),
              std::string::npos)
        << run.sErr;
    const char* szSource = std::getenv("ZR_SOURCE_DIR");
    ASSERT_TRUE(szSource);
    EXPECT_EQ(run.sErr.find(szSource), std::string::npos) << run.sErr;
}

TEST_F(ZirlaneCliTest, EveryCommandHasHelp) {
    zrtest::CliRun top = Zirlane({"--help"});
    EXPECT_EQ(top.iExit, 0);
    EXPECT_NE(top.sOut.find("probe"), std::string::npos) << top.sOut;
    for (const char* szCommand : {"probe", "info", "view", "statements", "extract"}) {
        zrtest::CliRun help = Zirlane({szCommand, "--help"});
        EXPECT_EQ(help.iExit, 0) << szCommand;
        EXPECT_NE(help.sOut.find("Usage:"), std::string::npos) << help.sOut;
    }
    EXPECT_EQ(Zirlane({"probe"}).iExit, 2);
}

// The view on standard output is the view written to a file, byte for
// byte; the file is whole or absent.
TEST_F(ZirlaneCliTest, ViewGoesToStandardOutputWithDash) {
    ZR_REQUIRE_TESTDATA();
    const std::string full = Data(std::string(kClean) + "RestoreTimeClean.bak");
    zrtest::CliRun toFile = Zirlane({"view", "-o", (m_tmp / "v.bxk").string(), full});
    ASSERT_EQ(toFile.iExit, 0) << toFile.sErr;
    zrtest::CliRun toStdout = Zirlane({"view", "-o", "-", full});
    ASSERT_EQ(toStdout.iExit, 0) << toStdout.sErr;
    const std::string view = Slurp(m_tmp / "v.bxk");
    EXPECT_GT(view.size(), 65536u);
    EXPECT_EQ(toStdout.sOut, view);
    EXPECT_NE(toStdout.sErr.find("standard output: " + std::to_string(view.size()) + " bytes"), std::string::npos);
    EXPECT_FALSE(fs::exists(m_tmp / "v.bxk.partial"));
}

// extract makes its folder with its parents. A backup whose data is damaged
// fails in the middle of a data file: neither the file, nor its temporary,
// nor the folders made for it stay behind.
TEST_F(ZirlaneCliTest, ExtractLeavesNothingBehindAFailure) {
    ZR_REQUIRE_TESTDATA();
    const fs::path full = Data(std::string(kClean) + "RestoreTimeClean.bak");
    const std::string maps = (m_tmp / "maps").string();
    zrtest::CliRun whole = Zirlane({"extract", "--map-folder", maps, "-o", (m_tmp / "a/b/c").string(), "--full",
                                    full.string()});
    ASSERT_EQ(whole.iExit, 0) << whole.sErr;
    EXPECT_TRUE(fs::exists(m_tmp / "a/b/c/RestoreTimeClean.mdf"));

    // The same backup with the id of a page inside its tenth extent changed:
    // the extent is mapped by its sound first page, and the read of it fails
    // once the rebuilt map gives the same place again.
    const zrtest::MtfWalk walk = zrtest::MtfWalker::WalkFile(full);
    ASSERT_TRUE(walk.ok && walk.DataSet(1) && !walk.DataSet(1)->data.empty()) << walk.fault;
    const uint64_t iPage = walk.DataSet(1)->data[0].offset + 9 * 65536 + 3 * 8192;
    std::string bytes = Slurp(full);
    ASSERT_LT(iPage + 40, bytes.size());
    bytes[iPage + 32] ^= 0x55;  // page number, low byte
    std::ofstream(m_tmp / "damaged.bak", std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    zrtest::CliRun bad = Zirlane({"extract", "--map-folder", maps, "-o", (m_tmp / "x/y").string(), "--full",
                                  (m_tmp / "damaged.bak").string()});
    EXPECT_EQ(bad.iExit, 1);
    EXPECT_NE(bad.sErr.find("RestoreTimeClean.mdf was not written whole and was removed."), std::string::npos)
        << bad.sErr;
    EXPECT_FALSE(fs::exists(m_tmp / "x")) << "no data file, no temporary, no empty folder";
}
