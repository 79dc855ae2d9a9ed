// What every benchmark does around its own figures: a synthetic backup of the
// size asked for in a temporary folder, the time of a plain sequential read
// of it (the physical limit to compare with), and the error chain on failure.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/ZR_Types.h"
#include "platform/win32.h"
#include "support/DriverHostFileIo.h"
#include "support/ServiceMount.h"
#include "support/SqlServerEmulator.h"
#include "support/TestData.h"

class ZR_Backup;

namespace zrbench {

double Seconds(std::chrono::steady_clock::time_point since);

// The folder for the benchmark's files: argv[2] when given, else a fresh
// temporary folder that lives as long as the returned holder.
std::filesystem::path Folder(int argc, char** argv, std::unique_ptr<zrtest::TempDir>* pHolder);

// The size in GB from argv[1] (default 2); 0 for an unusable argument.
double Gigabytes(int argc, char** argv);

// Writes a version 10 full backup of about dGigabytes with four data files.
bool WriteSyntheticBackup(const std::filesystem::path& path, double dGigabytes);

// Reads the whole file in 1 MiB sector-aligned reads through the backup file
// reader, as the library reads backups (without the system cache where the
// file system allows it).
bool TimeSequentialRead(const std::filesystem::path& path, double* pdSeconds);

// Writes the error chain of a mount key (none by default) to stderr.
void PrintErrors(const wchar_t* wszKey = nullptr);

// A page that the backup holds, and where its extent map says it lies.
struct PageAt {
    PageId id;
    uint64_t iFileOfs;
};

// n random pages (a fixed seed) of the data files that a prepared backup
// holds, from its configuration and extent map.
std::vector<PageAt> PickPages(ZR_Backup& b, int n);

// Opens a file for plain positioned reads, the way backup files are opened
// (unbuffered where the file system allows it).
HANDLE OpenPlain(const std::filesystem::path& path);
// Reads the page at iFileOfs into an aligned buffer.
bool ReadPlainPage(HANDLE h, uint64_t iFileOfs, void* pBuffer);

// The peak resident memory of a process ("self", or a process id) in MiB,
// 0 when unknown.
double PeakRssMiB(const std::string& process = "self");
// The resident memory of the process now, in MiB.
double RssMiB();
// Starts the peak of the process over from what it holds now (Linux 4.0
// and later), so that PeakRssMiB tells the peak of what follows.
void ResetPeakRss();

// The file as the test walker reads it, through the library's reader of
// backup files: without the system cache, as a RESTORE reads its backup.
std::unique_ptr<zrtest::MtfSource> UnbufferedSource(const std::filesystem::path& path);

// The naive restore of a backup into folder (removed after): every extent
// of its data streams copied into plain data files, as a full RESTORE
// writes them, the backup read without the system cache as the library
// reads it. False with the reason on stderr.
bool TimeNaiveRestore(const std::filesystem::path& backup, const std::filesystem::path& folder, double* pdSeconds);

// A backup mounted as a service mounts it (the exports, the embedded
// driver, which zrtest::StartService started) and its statements run by the
// SQL Server emulator through the driver's host side: the database is online.
struct OnlineMount {
    zrtest::ServiceMount mount;
    std::unique_ptr<zrtest::DriverHostFileIo> pIo;
    std::unique_ptr<zrtest::SqlServerEmulator> pSql;
};
// False with the reason on stderr.
bool BringOnline(const std::filesystem::path& backup, OnlineMount* pOnline);

// The timing of one run of reads: the whole, and each read.
struct Run {
    double dSeconds = 0;
    std::vector<double> aLatencies;  // microseconds, one per read
    bool bOk = true;
};

// The value below which the fraction p of the values lie.
double Percentile(std::vector<double> a, double p);

// Each of nSubmitters threads takes every nSubmitters-th of nReads reads and
// makes it with read(i, submitter, buffer), one after the other, as SQL
// Server's workers each wait for their read; buffer is a page-aligned
// 8 KiB of the thread's own.
template <class Read>
Run Submit(size_t nReads, int nSubmitters, Read read) {
    Run run;
    std::vector<std::vector<double>> latencies(nSubmitters);
    std::atomic<bool> bOk{true};
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int s = 0; s < nSubmitters; ++s)
        threads.emplace_back([&, s] {
            void* pBuffer = VirtualAlloc(nullptr, ZR_PAGE_SIZE, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
            for (size_t i = size_t(s); bOk && i < nReads; i += size_t(nSubmitters)) {
                const auto t0 = std::chrono::steady_clock::now();
                bOk = bOk && read(i, size_t(s), pBuffer);
                latencies[s].push_back(Seconds(t0) * 1e6);
            }
            VirtualFree(pBuffer, 0, MEM_RELEASE);
        });
    for (std::thread& t : threads) t.join();
    run.dSeconds = Seconds(start);
    run.bOk = bOk;
    for (auto& a : latencies) run.aLatencies.insert(run.aLatencies.end(), a.begin(), a.end());
    return run;
}

// One line: pages per second, p50 and p99 latency.
void PrintRun(const char* szWhat, const Run& run, size_t nPages);

// nReads reads of nThreads submitters (Submit) made plain, then as tested,
// then plain again, so that the device's state is the same for the tested
// reads as for the mean of the plain ones; prints the three and the ratio
// of tested to plain pages per second. False when a read failed.
template <class Plain, class Tested>
bool MeasureAgainstPlain(const char* szTested, size_t nReads, int nThreads, Plain readPlain, Tested readTested) {
    const Run plain = Submit(nReads, nThreads, readPlain);
    const Run tested = Submit(nReads, nThreads, readTested);
    const Run plainAgain = Submit(nReads, nThreads, readPlain);
    if (!tested.bOk || !plain.bOk || !plainAgain.bOk)
        return false;
    PrintRun("plain reads", plain, nReads);
    PrintRun("plain reads again", plainAgain, nReads);
    PrintRun((std::string(szTested) + " reads").c_str(), tested, nReads);
    std::printf("ratio of %s to plain pages/s: %.3f\n", szTested,
                (plain.dSeconds + plainAgain.dSeconds) / 2 / tested.dSeconds);
    return true;
}

}  // namespace zrbench
