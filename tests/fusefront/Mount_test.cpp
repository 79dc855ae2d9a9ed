// zirlane mount end to end, driven as a user drives it: the program mounts
// a chain in the background, plain reads (std::ifstream, dd, cmp) go
// through the kernel, and zirlane umount removes the mount. Every data file
// is held against the test walker's naive restore (through ChainReference:
// zeros where no backup holds a page), every view against what zirlane
// view writes. Each test removes its mount whatever happens and checks
// /proc/self/mounts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliRun.h"
#include "support/ChainReference.h"
#include "support/ErrorText.h"
#include "support/RealChains.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"
#include "support/PosixFileIo.h"
#include "support/SqlServerEmulator.h"

namespace fs = std::filesystem;
using namespace zrtest;

namespace {

constexpr uint32_t kPage = 8192;
const std::string kClean = "appveyor-lab/RestoreTimeClean/";
const std::string kDiffs = "appveyor-lab/DoubleDiffing/";

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool IsMounted(const fs::path& point) {
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    while (std::getline(mounts, line))
        if (line.find(" " + point.string() + " ") != std::string::npos) return true;
    return false;
}

// Runs a bash script, for at most a minute; its exit code.
int Shell(const std::string& script) {
    TempDir folder;
    std::ofstream(folder / "script.sh") << script << "\n";
    const int iStatus = std::system(("timeout 60 bash " + (folder / "script.sh").string()).c_str());
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}

// Empty when this machine can mount.
std::string WhyNoMounts() {
    if (!std::fstream("/dev/fuse", std::ios::in | std::ios::out)) return "/dev/fuse cannot be opened";
    if (Shell("command -v fusermount3 >/dev/null") != 0) return "fusermount3 is missing (Debian package fuse3)";
    return "";
}

#define ZR_REQUIRE_MOUNTS()                                                          \
    do {                                                                             \
        ZR_REQUIRE_TESTDATA();                                                       \
        if (std::string why = WhyNoMounts(); !why.empty()) GTEST_SKIP() << why;      \
    } while (0)

// The chains that zirlane mount takes: the first data set of each file
// (the mount has no --data-set), WITH options left to the library's tests.
std::vector<RealChain> MountableChains() {
    std::vector<RealChain> chains;
    for (const RealChain& chain : RealChains())
        if (chain.request.iDataSet == 1) chains.push_back({chain.strName, InTestData(chain.request)});
    return chains;
}

// Statement k restores backup k: the full backup, the differential, each log.
std::vector<std::vector<fs::path>> Backups(const MountRequest& chain) {
    std::vector<std::vector<fs::path>> backups{chain.full};
    if (!chain.diff.empty()) backups.push_back(chain.diff);
    for (const fs::path& log : chain.logs) backups.push_back({log});
    return backups;
}

std::vector<std::string> Args(const MountRequest& chain) {
    std::vector<std::string> args;
    const auto backups = Backups(chain);
    for (size_t k = 0; k < backups.size(); ++k) {
        args.push_back(k == 0 ? "--full" : k == 1 && !chain.diff.empty() ? "--diff" : "--log");
        for (const fs::path& file : backups[k]) args.push_back(file.string());
    }
    if (chain.wszStop) args.insert(args.end(), {"--stop", Narrow(chain.wszStop)});
    return args;
}

// zirlane mount --background at scratch/mnt, removed by the destructor
// (zirlane umount, then fusermount3 -u if that left it), which waits until
// the serving process has ended: it holds the lock of its sparse files.
class BackgroundMount {
public:
    BackgroundMount(const TempDir& scratch, std::vector<std::string> args, const std::string& point = "mnt")
        : m_scratch(scratch), m_point(scratch / point) {
        fs::create_directories(m_point);
        args.insert(args.begin(), {"mount", "--background"});
        args.push_back(m_point.string());
        m_run = RunZirlane(args, scratch.path());
        std::smatch m;
        if (std::regex_search(m_run.sOut, m, std::regex("\\(key (GUID=[-0-9A-F]+)\\)"))) m_key = m[1];
        if (std::regex_search(m_run.sOut, m, std::regex("process ([0-9]+)"))) m_pid = m[1];
    }
    ~BackgroundMount() {
        if (IsMounted(m_point)) RunZirlane({"umount", m_point.string()}, m_scratch.path());
        if (IsMounted(m_point)) Shell("fusermount3 -u -z " + m_point.string());
        EXPECT_FALSE(IsMounted(m_point)) << m_point;
        EXPECT_EQ(WaitForServerEnd(), 0) << "the serving process is still there";
    }
    BackgroundMount(const BackgroundMount&) = delete;
    BackgroundMount& operator=(const BackgroundMount&) = delete;

    bool Ready() const { return m_run.iExit == 0 && IsMounted(m_point); }
    const CliRun& Run() const { return m_run; }
    const fs::path& Point() const { return m_point; }
    const std::string& Pid() const { return m_pid; }
    // 0 once the server has let go of its lock, within 10 s.
    int WaitForServerEnd() const {
        if (m_key.empty()) return 0;
        return Shell("timeout 10 flock " + (m_scratch / "cache/zirlane/sparse").string() + "/" + m_key + ".lock true");
    }
    // The RESTORE statements as printed, each as its lines.
    std::vector<std::vector<std::string>> Statements() const {
        std::vector<std::vector<std::string>> statements;
        std::istringstream lines(m_run.sOut);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("CREATE DATABASE", 0) == 0) break;
            if (line.rfind("RESTORE DATABASE", 0) == 0) statements.emplace_back();
            if (!statements.empty()) statements.back().push_back(line);
        }
        return statements;
    }
    // The names of the views, statement by statement.
    std::vector<std::vector<std::string>> StatementViews() const {
        std::vector<std::vector<std::string>> views;
        for (const auto& statement : Statements()) {
            views.emplace_back();
            for (const std::string& line : statement)
                if (line.size() > 6 && line.rfind(".bxk'") == line.size() - 5)
                    views.back().push_back(line.substr(line.rfind('\\') + 1, line.size() - line.rfind('\\') - 2));
        }
        return views;
    }

private:
    const TempDir& m_scratch;
    fs::path m_point;
    CliRun m_run;
    std::string m_key, m_pid;
};

// The data files of the latest data backup of a chain, as the walker reads
// its configuration.
std::vector<MtfSqlFile> DataFiles(const std::vector<fs::path>& stripes) {
    std::vector<MtfSqlFile> files;
    for (const fs::path& stripe : stripes) {
        MtfWalk walk = MtfWalker::WalkFile(stripe);
        const MtfDataSet* pSet = walk.DataSet(1);
        if (!pSet || !pSet->msci.present) continue;
        for (const MtfSqlFile& f : pSet->msci.files)
            if (f.fileType == 1) files.push_back(f);
        break;
    }
    return files;
}

std::string LastComponent(const std::string& path) { return path.substr(path.find_last_of("\\/") + 1); }

// What a data file must read as: the chain's pages, zeros where no backup
// holds one.
std::string Reference(const ChainReference& reference, const MtfSqlFile& file) {
    std::string bytes(file.fileSize, '\0');
    for (uint32_t page = 0; uint64_t(page) * kPage < file.fileSize; ++page)
        if (const uint8_t* p = reference.ExpectedPage(static_cast<uint16_t>(file.fileId), page))
            std::memcpy(&bytes[uint64_t(page) * kPage], p, kPage);
    return bytes;
}

void ExpectSameBytes(const std::string& got, const std::string& want, const std::string& what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (size_t i = 0; i < want.size(); i += kPage)
        ASSERT_EQ(0, std::memcmp(got.data() + i, want.data() + i, std::min<size_t>(kPage, want.size() - i)))
            << what << ": page " << i / kPage;
}

// ---------------------------------------------------------------------------
// Every chain: the data files and the views through the mount
// ---------------------------------------------------------------------------

class MountedChains : public testing::TestWithParam<RealChain> {};

// With --restore each data file reads whole through the mount as the naive
// restore has it, the folder lists the views of the statements and the
// data files, and each view read by dd in 64 KiB and 1 MiB blocks is what
// zirlane view writes.
TEST_P(MountedChains, DataFilesAndViewsReadAsTheReferenceAndZirlaneView) {
    ZR_REQUIRE_MOUNTS();
    const MountRequest& chain = GetParam().request;
    TempDir scratch;
    std::vector<std::string> args = Args(chain);
    args.push_back("--restore");
    BackgroundMount mount(scratch, args);
    ASSERT_TRUE(mount.Ready()) << mount.Run().sOut << mount.Run().sErr;

    ChainReference reference(chain.full, chain.diff);
    ASSERT_EQ(reference.Error(), "");
    std::set<std::string> listed, expected;
    for (const auto& entry : fs::directory_iterator(mount.Point())) listed.insert(entry.path().filename().string());
    for (const MtfSqlFile& file : DataFiles(chain.diff.empty() ? chain.full : chain.diff)) {
        const std::string name = LastComponent(file.physicalName);
        expected.insert(name);
        EXPECT_EQ(fs::file_size(mount.Point() / name), file.fileSize) << name;
        ExpectSameBytes(Slurp(mount.Point() / name), Reference(reference, file), name);
    }

    const auto views = mount.StatementViews();
    const auto backups = Backups(chain);
    ASSERT_EQ(views.size(), backups.size()) << mount.Run().sOut;
    for (size_t k = 0; k < backups.size(); ++k) {
        for (size_t i = 0; i < views[k].size(); ++i) {
            const std::string& name = views[k][i];
            expected.insert(name);
            std::vector<std::string> view{"view", "--stripe", std::to_string(i + 1), "-o", (scratch / "ref").string()};
            if (k == 0 && !chain.diff.empty()) view.push_back("--diff-follows");
            for (const fs::path& f : backups[k]) view.push_back(f.string());
            CliRun written = RunZirlane(view, scratch.path());
            ASSERT_EQ(written.iExit, 0) << written.sErr;
            const std::string want = Slurp(scratch / "ref");
            for (const char* szBlock : {"64K", "1M"}) {
                ASSERT_EQ(Shell("dd if=\"" + (mount.Point() / name).string() + "\" of=" + (scratch / "dd").string() +
                                " bs=" + szBlock + " status=none"),
                          0);
                ExpectSameBytes(Slurp(scratch / "dd"), want, name + " read with bs=" + szBlock);
            }
        }
    }
    EXPECT_EQ(listed, expected);
}

INSTANTIATE_TEST_SUITE_P(RealBackups, MountedChains, testing::ValuesIn(MountableChains()),
                         [](const testing::TestParamInfo<RealChain>& param) { return param.param.strName; });

// Without --restore, the SQL Server emulator runs the printed statements
// and reads the database with plain file calls (open, pread, pwrite,
// ftruncate) under the mount point, as SQL Server on Linux would: every
// page it reads is the reference's.
TEST_P(MountedChains, TheSqlServerEmulatorRestoresAndReadsThroughTheMount) {
    ZR_REQUIRE_MOUNTS();
    const MountRequest& chain = GetParam().request;
    TempDir scratch;
    BackgroundMount mount(scratch, Args(chain));
    ASSERT_TRUE(mount.Ready()) << mount.Run().sOut << mount.Run().sErr;
    PosixFileIo files("/");
    SqlServerEmulator server(files);
    for (const auto& statement : mount.Statements()) {
        std::string text;
        for (const std::string& line : statement) text += line + "\n";
        ASSERT_TRUE(server.Restore(std::wstring(text.begin(), text.end()))) << server.Error() << "\n" << text;
    }
    // Every view of the statements was read, and the data files landed under the mount point.
    size_t iViews = 0;
    for (const auto& views : mount.StatementViews()) iViews += views.size();
    EXPECT_EQ(server.ViewsRead().size(), iViews);
    ASSERT_FALSE(server.DataFiles().empty());
    for (const auto& [iFileId, file] : server.DataFiles())
        EXPECT_EQ(files.PathOf(file.strName).parent_path(), mount.Point()) << iFileId;
    ASSERT_TRUE(server.OpenDataFiles()) << server.Error();
    ChainReference reference(chain.full, chain.diff);
    ASSERT_EQ(reference.Error(), "");
    for (const MtfSqlFile& file : DataFiles(chain.diff.empty() ? chain.full : chain.diff)) {
        std::string bytes(file.fileSize, '\0');
        uint32_t cbRead = 0;
        ASSERT_EQ(server.ReadData(static_cast<uint16_t>(file.fileId), 0, bytes.data(),
                                  static_cast<uint32_t>(bytes.size()), &cbRead),
                  0);
        EXPECT_EQ(cbRead, file.fileSize);
        ExpectSameBytes(bytes, Reference(reference, file), LastComponent(file.physicalName) + " read by the emulator");
    }
}

// ---------------------------------------------------------------------------
// Many readers, an interruption, and the mount after it
// ---------------------------------------------------------------------------

class MountLife : public testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_MOUNTS();
        m_chain = InTestData({.full = {kDiffs + "difftest-full.bak"}, .diff = {kDiffs + "difftest-diff1.bak"}});
        m_reference.emplace(m_chain.full, m_chain.diff);
        ASSERT_EQ(m_reference->Error(), "");
    }

    MountRequest m_chain;
    std::optional<ChainReference> m_reference;
    TempDir m_scratch;
};

// Four processes read random pages at once and get the reference's. Then
// kill -TERM of the server while reads are in flight: the mount goes and
// the process ends within seconds. The next mount of the chain reads its
// maps instead of scanning and finds every page that was read present.
TEST_F(MountLife, ReadersGetTheirPagesAndAnInterruptedMountLeavesThemForTheNext) {
    const MtfSqlFile file = DataFiles(m_chain.diff).at(0);
    const std::string name = LastComponent(file.physicalName);
    const uint64_t iPages = file.fileSize / kPage;
    std::ofstream(m_scratch / "ref", std::ios::binary) << Reference(*m_reference, file);
    {
        BackgroundMount mount(m_scratch, Args(m_chain));
        ASSERT_TRUE(mount.Ready()) << mount.Run().sErr;
        const std::string vars = "mnt=\"" + (mount.Point() / name).string() + "\"; ref=" + (m_scratch / "ref").string() +
                                 "; pages=" + std::to_string(iPages) + "\n";
        EXPECT_EQ(Shell(vars +
                        "page() { p=$((RANDOM % pages)); dd if=\"$mnt\" bs=8192 skip=$p count=1 status=none |"
                        " cmp -s -n 8192 - $ref 0 $((p * 8192)); }\n"
                        "for r in 1 2 3 4; do (for i in $(seq 40); do page || exit 1; done) & done\n"
                        "for r in 1 2 3 4; do wait -n || exit 1; done\n"),
                  0)
            << "a reader got a page that is not the reference's";
        ASSERT_EQ(Shell("cmp \"" + (mount.Point() / name).string() + "\" " + (m_scratch / "ref").string()), 0);

        // The first reader tells through a fifo that its reads have begun.
        const std::string fifo = (m_scratch / "begun").string();
        EXPECT_EQ(Shell(vars + "mkfifo " + fifo +
                        "\nfor r in 1 2 3 4; do (for i in $(seq 100000); do"
                        " dd if=\"$mnt\" bs=8192 skip=$((RANDOM % pages)) count=1 status=none >/dev/null 2>&1 || exit;"
                        " [ $r$i = 11 ] && echo >" + fifo + "; done) & done\n"
                        "read -r line <" + fifo + "\nkill -TERM " + mount.Pid() + "\nwait\n"),
                  0);
        EXPECT_EQ(mount.WaitForServerEnd(), 0) << "the server did not end within 10 s of kill -TERM";
        EXPECT_FALSE(IsMounted(mount.Point()));
    }
    BackgroundMount again(m_scratch, Args(m_chain));
    ASSERT_TRUE(again.Ready()) << again.Run().sErr;
    EXPECT_NE(again.Run().sOut.find("Maps: read from the map folder, no scan."), std::string::npos) << again.Run().sOut;
    const std::string present = std::to_string(iPages) + " of " + std::to_string(iPages) + " pages present";
    EXPECT_NE(again.Run().sOut.find(present), std::string::npos) << again.Run().sOut;
}

// --restore --hydrate --json in the foreground: the restore step writes the
// first extent, hydration the rest, and the sparse file ends as the
// reference while the progress rises to 100; the marker is renamed, SIGTERM
// (as Ctrl-C: a background job of a script ignores SIGINT) ends the
// process, and the next mount finds every page present.
TEST_F(MountLife, HydrateFillsTheSparseFilesAndShowsItsProgress) {
    const MtfSqlFile file = DataFiles(m_chain.diff).at(0);
    std::string command = "XDG_CACHE_HOME=" + (m_scratch / "cache").string() + " " + ZirlaneProgram().string() +
                          " mount --restore --hydrate --json";
    for (const std::string& arg : Args(m_chain)) command += " '" + arg + "'";
    const fs::path out = m_scratch / "out", point = m_scratch / "mnt";
    fs::create_directories(point);
    ASSERT_EQ(Shell(command + " " + point.string() + " >" + out.string() + " 2>" + (m_scratch / "err").string() +
                    " &\npid=$!\nfor i in $(seq 300); do grep -q '\"state\":\"complete\"' " + out.string() +
                    " && break; sleep 0.1; done\nkill -TERM $pid\nwait $pid\n"),
              0)
        << Slurp(m_scratch / "err");
    EXPECT_FALSE(IsMounted(point));

    const std::string output = Slurp(out);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(output, m, std::regex("\\(key (GUID=[-0-9A-F]+)\\)"))) << output;
    const fs::path sparse = m_scratch / "cache/zirlane/sparse" / m[1].str();
    std::vector<double> percents;
    std::string state;
    const std::regex line("\\{\"state\":\"([a-z]+)\",\"percent\":([0-9.]+),");
    for (auto it = std::sregex_iterator(output.begin(), output.end(), line); it != std::sregex_iterator(); ++it) {
        state = (*it)[1];
        percents.push_back(std::stod((*it)[2]));
    }
    ASSERT_FALSE(percents.empty()) << output;
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end())) << output;
    EXPECT_EQ(state, "complete");
    EXPECT_EQ(percents.back(), 100.0);
    EXPECT_TRUE(fs::exists(sparse.string() + ".hydrating.completed"));
    ExpectSameBytes(Slurp(sparse.string() + "!" + std::to_string(file.fileId) + ".mcf"), Reference(*m_reference, file),
                    "the sparse file");

    BackgroundMount again(m_scratch, Args(m_chain));
    ASSERT_TRUE(again.Ready()) << again.Run().sErr;
    const std::string iPages = std::to_string(file.fileSize / kPage);
    EXPECT_NE(again.Run().sOut.find(iPages + " of " + iPages + " pages present"), std::string::npos)
        << again.Run().sOut;
}

// Writes stay, as SQL Server's do: a page written and a file grown are
// there after the next mount too; an unlinked data file goes at its last
// close, and the next mount serves the backup's pages again. statfs is the
// sparse folder's.
TEST_F(MountLife, WritesStayUntilTheDataFileIsDeleted) {
    const MtfSqlFile file = DataFiles(m_chain.diff).at(0);
    const std::string name = LastComponent(file.physicalName);
    const std::string original = Reference(*m_reference, file);
    std::string written = original;
    std::memset(&written[5 * kPage + 100], 'Z', kPage);  // across pages 5 and 6
    written.append(kPage, '\0');
    {
        BackgroundMount mount(m_scratch, Args(m_chain));
        ASSERT_TRUE(mount.Ready()) << mount.Run().sErr;
        EXPECT_EQ(fs::space(mount.Point()).capacity, fs::space(m_scratch / "cache/zirlane/sparse").capacity);
        {
            std::fstream data(mount.Point() / name, std::ios::in | std::ios::out | std::ios::binary);
            data.seekp(5 * kPage + 100);
            data.write(&written[5 * kPage + 100], kPage);
            ASSERT_TRUE(data.flush()) << "write";
        }
        fs::resize_file(mount.Point() / name, written.size());
        ExpectSameBytes(Slurp(mount.Point() / name), written, "after the writes");
    }
    {
        BackgroundMount mount(m_scratch, Args(m_chain));
        ASSERT_TRUE(mount.Ready()) << mount.Run().sErr;
        ExpectSameBytes(Slurp(mount.Point() / name), written, "on the next mount");
        EXPECT_TRUE(fs::remove(mount.Point() / name));
    }
    BackgroundMount mount(m_scratch, Args(m_chain));
    ASSERT_TRUE(mount.Ready()) << mount.Run().sErr;
    ExpectSameBytes(Slurp(mount.Point() / name), original, "after the delete");
}

// ---------------------------------------------------------------------------
// Refusals
// ---------------------------------------------------------------------------

// Bad input ends with a message and exit code, and leaves no mount.
TEST_F(MountLife, RefusalsSayWhyAndLeaveNoMount) {
    const std::string full = TestDataFile(kDiffs + "difftest-full.bak")->string();
    const std::string clean = TestDataFile(kClean + "RestoreTimeClean.bak")->string();
    fs::create_directories(m_scratch / "full");
    std::ofstream(m_scratch / "full/file") << "x";
    fs::create_directories(m_scratch / "empty");
    BackgroundMount standing(m_scratch, Args(m_chain), "standing");
    ASSERT_TRUE(standing.Ready()) << standing.Run().sErr;
    struct Case {
        std::vector<std::string> args;
        std::string point;
        int iExit;
        std::string words;
    } cases[] = {
        {{"--full", full}, "missing", 1, "does not exist"},
        {{"--full", full}, "full", 1, "is not empty"},
        {{"--full", full}, "standing", 1, "is a mount already"},
        {{"--full", full}, "a\\b", 2, "must not hold a backslash"},
        {{"--full", full, "--diff", TestDataFile(kClean + "RestoreTimeClean2.bak")->string()}, "empty", 1,
         "is not of the database of"},
        {{"--full", clean, "--log", TestDataFile(kClean + "RestoreTimeClean_2.trn")->string()}, "empty", 1,
         "does not go on from"},
        {{"--full", (m_scratch / "full/file").string()}, "empty", 1, "not a Microsoft Tape Format backup"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args{"mount"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        args.push_back((m_scratch / c.point).string());
        CliRun run = RunZirlane(args, m_scratch.path());
        EXPECT_EQ(run.iExit, c.iExit) << c.words << ": " << run.sErr;
        EXPECT_NE(run.sErr.find(c.words), std::string::npos) << run.sErr;
        EXPECT_EQ(run.sErr.find("no reason"), std::string::npos) << run.sErr;
        EXPECT_FALSE(IsMounted(m_scratch / "empty"));
    }
    CliRun umount = RunZirlane({"umount", (m_scratch / "empty").string()}, m_scratch.path());
    EXPECT_EQ(umount.iExit, 1);
    EXPECT_NE(umount.sErr.find("is not mounted"), std::string::npos) << umount.sErr;
}

// A user who may not open /dev/fuse hears so (run as nobody when the test
// is root, which may open it).
TEST_F(MountLife, NoPermissionForTheFuseDeviceIsSaid) {
    if (Shell("[ $(id -u) = 0 ] && command -v setpriv >/dev/null && [ $(stat -c %a /dev/fuse) = 600 ]") != 0)
        GTEST_SKIP() << "every user may use /dev/fuse here";
    fs::create_directories(m_scratch / "mnt");
    fs::permissions(m_scratch.path(), fs::perms::all);
    const std::string command = "setpriv --reuid=65534 --regid=65534 --clear-groups " + ZirlaneProgram().string() +
                                " mount --full " + TestDataFile(kDiffs + "difftest-full.bak")->string() +
                                " " + (m_scratch / "mnt").string() + " 2>" + (m_scratch / "err").string();
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1);
    EXPECT_NE(Slurp(m_scratch / "err").find("No permission to use /dev/fuse"), std::string::npos)
        << Slurp(m_scratch / "err");
    EXPECT_FALSE(IsMounted(m_scratch / "mnt"));
}

}  // namespace
