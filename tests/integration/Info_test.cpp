// zirlane info against the manifest of the real backups: what every native
// backup of versions 9 and 10 holds, stripe sets given in either order, and
// the second data set of a file that holds two. (The refusals of later
// versions and lone stripes are the backup tests'.)
#include "support/CliRun.h"
#include "support/Manifest.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>

namespace {

// The value of a top-level key of the one-line JSON object.
std::string Value(const std::string& json, const std::string& key) {
    std::smatch m;
    std::regex re("\"" + key + "\": (\"(([^\"\\\\]|\\\\.)*)\"|[0-9]+)");
    if (!std::regex_search(json, m, re))
        return "<missing " + key + ">";
    return m[2].matched ? m[2].str() : m[1].str();
}

std::string Unescape(std::string s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i)
        out += (s[i] == '\\' && i + 1 < s.size()) ? s[++i] : s[i];
    return out;
}

const char* TypeWord(char c) { return c == 'D' ? "full" : c == 'I' ? "differential" : "log"; }

class InfoCommand : public ::testing::Test {
protected:
    void SetUp() override { ZR_REQUIRE_TESTDATA(); }
    zrtest::CliRun Info(const std::vector<std::string>& files, std::vector<std::string> args = {}) {
        args.insert(args.begin(), {"info", "--json", "--map-folder", (m_tmp / "maps").string()});
        for (auto& f : files)
            args.push_back(zrtest::TestDataFile(f)->string());
        return zrtest::RunZirlane(args, m_tmp.path());
    }
    zrtest::TempDir m_tmp;
};

TEST_F(InfoCommand, TellsTheTruthForEveryBackupOfVersionsNineAndTen) {
    // Stripe sets: the files of one set share the media set and their base
    // name; give them in reverse order to show the order does not matter.
    std::map<std::string, std::vector<zrtest::ManifestEntry>> sets;
    for (auto& e : zrtest::NativeBackups(9, 10))
        sets[e.stripes > 1 ? e.mediaset : e.file].push_back(e);
    int checked = 0;
    for (auto& [id, entries] : sets) {
        const zrtest::ManifestEntry& e = entries.front();
        SCOPED_TRACE(e.file);
        ASSERT_EQ(static_cast<int>(entries.size()), e.stripes);
        std::vector<std::string> files;
        for (auto it = entries.rbegin(); it != entries.rend(); ++it)
            files.push_back(it->file);
        zrtest::CliRun run = Info(files);
        ASSERT_EQ(run.iExit, 0) << run.sErr;
        const std::string& j = run.sOut;
        EXPECT_EQ(Value(j, "type"), TypeWord(e.type));
        EXPECT_EQ(Value(j, "version"), std::to_string(e.major));
        EXPECT_EQ(Value(j, "build"), e.version);
        EXPECT_EQ(Value(j, "database"), e.database);
        EXPECT_EQ(Unescape(Value(j, "server")), e.server);
        EXPECT_EQ(Value(j, "stripes"), std::to_string(e.stripes));
        EXPECT_EQ(Value(j, "data_set"), "1");
        if (e.sets == 1) {
            EXPECT_EQ(Value(j, "first_lsn"), e.firstLsn);
            EXPECT_EQ(Value(j, "last_lsn"), e.lastLsn);
            EXPECT_EQ(Value(j, "checkpoint_lsn"), e.checkpointLsn);
            // One field of the configuration, named as T-SQL names it:
            // the base of a differential, the last full backup's
            // checkpoint for the others.
            const char* szBase = e.type == 'I' ? "differential_base_lsn" : "database_backup_lsn";
            const char* szOther = e.type == 'I' ? "database_backup_lsn" : "differential_base_lsn";
            EXPECT_EQ(Value(j, szBase), e.baseLsn);
            EXPECT_EQ(j.find(szOther), std::string::npos) << j;
        }
        EXPECT_NE(j.find("\"type\": \"data\""), std::string::npos) << j;
        EXPECT_NE(j.find("\"file_id\": 1,"), std::string::npos) << j;
        ++checked;
    }
    EXPECT_GE(checked, 25);
}

TEST_F(InfoCommand, SecondDataSetOfAnAppendedFile) {
    const std::string file = "gabrujo-WebDevelopment/StDb2EFRP/StDb2Sql.bak";
    zrtest::CliRun second = Info({file}, {"--data-set", "2"});
    ASSERT_EQ(second.iExit, 0) << second.sErr;
    EXPECT_EQ(Value(second.sOut, "data_set"), "2");
    zrtest::CliRun first = Info({file});
    ASSERT_EQ(first.iExit, 0);
    EXPECT_NE(Value(first.sOut, "last_lsn"), Value(second.sOut, "last_lsn")) << "two different backups";
}

}  // namespace
