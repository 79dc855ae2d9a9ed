// Reads through a zirlane mount with plain tools: writes a synthetic backup
// of the size asked for (in GB, default 1), times its naive restore (every
// extent copied into plain data files), then mounts it with zirlane mount
// --restore --background and times how long until the mount is ready and
// until a page of its data file has been read, beside the naive restore.
// Then dd (bs=1M) under the mount point: every data file whole while its
// pages are still absent (each read held until live I/O brings its pages
// from the backup), the same again once the sparse files hold them, beside
// dd without the system cache of plain copies of the same files (written by
// zirlane extract) before and after: each figure as a ratio of bytes per
// second, with the peak resident memory of the serving process and of this
// one.
//
//     fuse_read_bench [GB] [folder]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"

namespace fs = std::filesystem;

namespace {

// The zirlane program of this build tree: <build>/bench/x beside <build>/tools/zirlane/zirlane.
fs::path Program() {
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "zirlane" / "zirlane";
}

// Runs a shell command; true when it exited 0.
bool Shell(const std::string& command) { return std::system(command.c_str()) == 0; }

bool Mounted(const fs::path& point) {
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);)
        if (line.find(" " + point.string() + " ") != std::string::npos) return true;
    return false;
}

// dd bs=1M of each file to /dev/null, with szFlags; its time, or a negative
// one when a dd failed.
double TimeDd(const std::vector<fs::path>& files, const char* szFlags = "") {
    const auto start = std::chrono::steady_clock::now();
    for (const fs::path& f : files)
        if (!Shell("dd if='" + f.string() + "' of=/dev/null bs=1M status=none " + szFlags)) return -1;
    return zrbench::Seconds(start);
}

uint64_t TotalSize(const std::vector<fs::path>& files) {
    uint64_t cb = 0;
    for (const fs::path& f : files) cb += fs::file_size(f);
    return cb;
}

// The files of a folder, views left out.
std::vector<fs::path> DataFiles(const fs::path& folder) {
    std::vector<fs::path> data;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.path().extension() != ".bxk") data.push_back(entry.path());
    std::sort(data.begin(), data.end());
    return data;
}

// One figure: MB/s and its ratio to the plain rate.
void PrintRate(const char* szWhat, uint64_t cb, double dSeconds, double dPlainRate) {
    const double dRate = double(cb) / dSeconds;
    std::printf("%-38s %8.1f MB/s  (%.2f GB in %.2f s)  ratio to plain: %.3f\n", szWhat, dRate / 1e6, double(cb) / 1e9,
                dSeconds, dRate / dPlainRate);
}

// The reads through the mount at point, between two reads of the plain
// copies without the system cache; false when one failed.
bool Measure(const fs::path& point, const std::vector<fs::path>& plain) {
    const std::vector<fs::path> data = DataFiles(point);
    const double dPlain = TimeDd(plain, "iflag=direct");
    const double dCold = TimeDd(data);
    const double dWarm = TimeDd(data);
    const double dPlainAgain = TimeDd(plain, "iflag=direct");
    if (dPlain < 0 || dPlainAgain < 0 || dCold < 0 || dWarm < 0 || TotalSize(plain) != TotalSize(data)) return false;
    const uint64_t cb = TotalSize(data);
    const double dPlainRate = 2 * double(cb) / (dPlain + dPlainAgain);
    std::printf("%zu data files under the mount, plain copies of the same size written by zirlane extract\n",
                data.size());
    PrintRate("dd of the plain copies", cb, dPlain, dPlainRate);
    PrintRate("dd of the plain copies again", cb, dPlainAgain, dPlainRate);
    PrintRate("dd through the mount, pages absent", cb, dCold, dPlainRate);
    PrintRate("dd through the mount, pages held", cb, dWarm, dPlainRate);
    return true;
}

// The plain data files of the backup, written into folder by zirlane
// extract (maps of their own, so that the mount still scans).
std::vector<fs::path> ExtractPlain(const fs::path& backup, const fs::path& folder) {
    if (!Shell("'" + Program().string() + "' extract --map-folder '" + (folder / "maps").string() + "' --full '" +
               backup.string() + "' -o '" + (folder / "data").string() + "' >/dev/null"))
        return {};
    return DataFiles(folder / "data");
}

// dd of one page in the middle of the first data file; false when it failed.
bool ReadOnePage(const fs::path& point) {
    const std::vector<fs::path> data = DataFiles(point);
    if (data.empty()) return false;
    const uint64_t iPage = fs::file_size(data[0]) / 8192 / 2;
    return Shell("dd if='" + data[0].string() + "' of=/dev/null bs=8192 count=1 status=none skip=" +
                 std::to_string(iPage));
}

// Waits, at most 10 s, until the process has ended.
void WaitForEnd(const std::string& pid) {
    for (int i = 0; i < 200 && fs::exists("/proc/" + pid); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

}  // namespace

int main(int argc, char** argv) {
    const double dGigabytes = argc > 1 ? zrbench::Gigabytes(argc, argv) : 1;
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: fuse_read_bench [GB] [folder]\n");
        return 2;
    }
    if (!Shell("[ -r /dev/fuse ] && [ -w /dev/fuse ] && command -v fusermount3 >/dev/null")) {
        std::printf("skipped: /dev/fuse or fusermount3 is not usable here\n");
        return 0;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    const fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    const fs::path backup = folder / "fuse_read_bench.bak", point = folder / "mnt";
    fs::create_directories(point);
    if (!zrbench::WriteSyntheticBackup(backup, dGigabytes)) return 1;
    double dNaive = 0;
    if (!zrbench::TimeNaiveRestore(backup, folder / "naive", &dNaive)) return 1;
    const std::vector<fs::path> plain = ExtractPlain(backup, folder / "plain");
    if (plain.empty()) {
        std::fprintf(stderr, "zirlane extract failed\n");
        return 1;
    }
    const std::string out = (folder / "mount.out").string();
    const auto start = std::chrono::steady_clock::now();
    const bool bMounted = Shell("'" + Program().string() + "' mount --restore --background --map-folder '" +
                                (folder / "maps").string() + "' --sparse-folder '" + (folder / "sparse").string() +
                                "' --full '" + backup.string() + "' '" + point.string() + "' >'" + out + "' 2>&1");
    std::ifstream said(out);
    const std::string text((std::istreambuf_iterator<char>(said)), std::istreambuf_iterator<char>());
    if (!bMounted) {
        std::printf("%s\nzirlane mount failed (a build without the FUSE front says so above)\n", text.c_str());
        return text.find("not available") != std::string::npos ? 0 : 1;
    }
    const double dMounted = zrbench::Seconds(start);
    bool bOk = ReadOnePage(point);
    const double dFirstPage = zrbench::Seconds(start);
    std::printf("naive restore:                        %8.2f s\n", dNaive);
    std::printf("mount --restore until ready:          %8.2f s   ratio to the naive restore %.4f\n", dMounted,
                dMounted / dNaive);
    std::printf("mount --restore until a page is read: %8.2f s   ratio to the naive restore %.4f\n\n", dFirstPage,
                dFirstPage / dNaive);
    std::smatch m;
    const std::string pid = std::regex_search(text, m, std::regex("process ([0-9]+)")) ? m[1].str() : "";
    bOk = bOk && Measure(point, plain);
    const double dServerRss = pid.empty() ? 0 : zrbench::PeakRssMiB(pid);
    if (!Shell("'" + Program().string() + "' umount '" + point.string() + "'") && Mounted(point))
        Shell("fusermount3 -u -z '" + point.string() + "'");
    if (!pid.empty()) WaitForEnd(pid);
    std::printf("\npeak RSS: serving process %.1f MiB, this one %.1f MiB\n", dServerRss, zrbench::PeakRssMiB());
    fs::remove_all(folder / "sparse");
    fs::remove_all(folder / "maps");
    fs::remove_all(folder / "plain");
    fs::remove(backup);
    if (!bOk) std::fprintf(stderr, "a read failed\n");
    return bOk ? 0 : 1;
}
