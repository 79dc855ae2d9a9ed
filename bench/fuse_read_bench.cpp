// Reads through a zirlane mount with plain tools: writes a synthetic backup
// of the size asked for (in GB, default 1), mounts it with zirlane mount
// --restore --background, and reads with dd (bs=1M) under the mount point:
// every data file whole while its pages are still absent (each read held
// until live I/O brings its pages from the backup), the same again once the
// sparse files hold them. (The views of a full backup without a log part
// are a few extents: view_bench measures views.) In the same run the
// backup file is read whole in 1 MiB reads without the system cache, before
// and after (the physical limit): each figure is printed beside it as a
// ratio of bytes per second, with the peak resident memory of the serving
// process and of this one.
//
//     fuse_read_bench [GB] [folder]
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

// dd bs=1M of each file to /dev/null; its time, or a negative one when a dd failed.
double TimeDd(const std::vector<fs::path>& files) {
    const auto start = std::chrono::steady_clock::now();
    for (const fs::path& f : files)
        if (!Shell("dd if='" + f.string() + "' of=/dev/null bs=1M status=none")) return -1;
    return zrbench::Seconds(start);
}

uint64_t TotalSize(const std::vector<fs::path>& files) {
    uint64_t cb = 0;
    for (const fs::path& f : files) cb += fs::file_size(f);
    return cb;
}

// One figure: MB/s and its ratio to the plain rate.
void PrintRate(const char* szWhat, uint64_t cb, double dSeconds, double dPlainRate) {
    const double dRate = double(cb) / dSeconds;
    std::printf("%-34s %8.1f MB/s  (%.2f GB in %.2f s)  ratio to plain: %.3f\n", szWhat, dRate / 1e6, double(cb) / 1e9,
                dSeconds, dRate / dPlainRate);
}

// The reads through the mount at point; false when one failed.
bool Measure(const fs::path& point, const fs::path& backup) {
    std::vector<fs::path> data;
    for (const auto& entry : fs::directory_iterator(point))
        if (entry.path().extension() != ".bxk") data.push_back(entry.path());
    double dPlain = 0, dPlainAgain = 0;
    if (!zrbench::TimeSequentialRead(backup, &dPlain)) return false;
    const double dCold = TimeDd(data);
    const double dWarm = TimeDd(data);
    if (!zrbench::TimeSequentialRead(backup, &dPlainAgain) || dCold < 0 || dWarm < 0) return false;
    const uint64_t cbBackup = fs::file_size(backup);
    const double dPlainRate = 2 * double(cbBackup) / (dPlain + dPlainAgain);
    std::printf("%zu data files under the mount\n", data.size());
    PrintRate("plain read of the backup", cbBackup, dPlain, dPlainRate);
    PrintRate("plain read of the backup again", cbBackup, dPlainAgain, dPlainRate);
    PrintRate("dd of the data files, pages absent", TotalSize(data), dCold, dPlainRate);
    PrintRate("dd of the data files, pages held", TotalSize(data), dWarm, dPlainRate);
    return true;
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
    std::printf("mounted with --restore in %.2f s\n", zrbench::Seconds(start));
    std::smatch m;
    const std::string pid = std::regex_search(text, m, std::regex("process ([0-9]+)")) ? m[1].str() : "";
    const bool bOk = Measure(point, backup);
    const double dServerRss = pid.empty() ? 0 : zrbench::PeakRssMiB(pid);
    if (!Shell("'" + Program().string() + "' umount '" + point.string() + "'") && Mounted(point))
        Shell("fusermount3 -u -z '" + point.string() + "'");
    if (!pid.empty()) WaitForEnd(pid);
    std::printf("\npeak RSS: serving process %.1f MiB, this one %.1f MiB\n", dServerRss, zrbench::PeakRssMiB());
    fs::remove_all(folder / "sparse");
    fs::remove_all(folder / "maps");
    fs::remove(backup);
    if (!bOk) std::fprintf(stderr, "a read failed\n");
    return bOk ? 0 : 1;
}
