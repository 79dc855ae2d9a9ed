// Reads of a mounted database through the whole road: writes a synthetic
// backup of the size asked for (in GB, default 2), mounts it as a service
// does (InitializeZR, the folders, the operation service, WrapMount), runs
// its RESTORE through the embedded driver's host side, then reads random
// 8 KiB pages of the data files as SQL Server does, each page one that no
// read has brought yet: the driver holds the read and sends operation 3, an
// operation thread maps its buffer (command 13) and queues it, a live I/O
// thread reads the page from the backup and completes it (command 14 and the
// completion record), and the driver keeps the page in the sparse file and
// gives it to the reader. From 1 and from 8 readers that each wait for their
// read. The same pages are read at the same concurrency with plain
// positioned reads of the backup file, opened the same way (unbuffered):
// the physical limit.
//
//     mount_read_bench [GB] [folder] [reads]
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <vector>

#include "BenchSupport.h"
#include "mount/ZR.h"

namespace fs = std::filesystem;
using zrbench::PageAt;

namespace {

constexpr int kDefaultReads = 2000;

// n distinct pages of the backup, none in the first extent of its file,
// which the restore wrote.
std::vector<PageAt> AbsentPages(ZR_Backup& full, size_t n) {
    std::vector<PageAt> pages;
    std::set<std::pair<uint16_t, uint32_t>> seen;
    for (const PageAt& p : zrbench::PickPages(full, static_cast<int>(2 * n)))
        if (p.id.m_iPage >= ZR_PAGES_PER_EXTENT && seen.insert({p.id.m_iFileId, p.id.m_iPage}).second &&
            pages.size() < n)
            pages.push_back(p);
    return pages;
}

bool Measure(zrtest::SqlServerEmulator& sql, const fs::path& backup, const std::vector<PageAt>& pages, int nReaders) {
    HANDLE h = zrbench::OpenPlain(backup);
    if (h == INVALID_HANDLE_VALUE) return false;
    const auto readPlain = [&](size_t i, size_t, void* pBuffer) {
        return zrbench::ReadPlainPage(h, pages[i].iFileOfs, pBuffer);
    };
    const auto readMounted = [&](size_t i, size_t, void* pBuffer) {
        uint32_t cbRead = 0;
        return sql.ReadData(pages[i].id.m_iFileId, uint64_t{pages[i].id.m_iPage} * ZR_PAGE_SIZE, pBuffer, ZR_PAGE_SIZE,
                            &cbRead) == 0 &&
               cbRead == ZR_PAGE_SIZE;
    };
    std::printf("\n%d reader%s, %zu random 8 KiB reads of absent pages:\n", nReaders, nReaders > 1 ? "s" : "",
                pages.size());
    const bool bOk = zrbench::MeasureAgainstPlain("mounted", pages.size(), nReaders, readPlain, readMounted);
    CloseHandle(h);
    return bOk;
}

}  // namespace

int main(int argc, char** argv) {
    const double dGigabytes = zrbench::Gigabytes(argc, argv);
    const int nReads = argc > 3 ? std::atoi(argv[3]) : kDefaultReads;
    if (dGigabytes <= 0 || nReads <= 0) {
        std::fprintf(stderr, "usage: mount_read_bench [GB] [folder] [reads]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    const fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    const fs::path backup = folder / "mount_read_bench.bak";
    if (!zrbench::WriteSyntheticBackup(backup, dGigabytes)) return 1;
    bool bOk = false;
    std::string strError;
    if (zrtest::StartService(folder / "service", &strError)) {
        zrbench::OnlineMount online;
        if (zrbench::BringOnline(backup, &online)) {
            ZR_Database* pDB = ZR::FindDatabase(online.mount.Key().c_str());
            const std::vector<PageAt> pages = AbsentPages(*pDB->GetFull(), 2 * size_t(nReads));
            std::printf("live I/O threads: %d\n", pDB->m_iNumLiveIOThreads);
            const size_t n = pages.size() / 2;
            bOk = n > 0 && Measure(*online.pSql, backup, {pages.begin(), pages.begin() + n}, 1) &&
                  Measure(*online.pSql, backup, {pages.begin() + n, pages.end()}, 8);
        }
    } else {
        std::fprintf(stderr, "%s\n", strError.c_str());
    }
    if (!bOk) zrbench::PrintErrors();
    zrtest::StopService();
    std::printf("\npeak RSS: %.1f MiB\n", zrbench::PeakRssMiB());
    fs::remove_all(folder / "service");
    fs::remove(backup);
    return bOk ? 0 : 1;
}
