// Random page reads: writes a synthetic backup of the size asked for (in GB,
// default 2) into a temporary folder, gets its extent map, and reads the
// same random 8 KiB pages twice in one run: through the extent map
// (LookupPage and ReadPages, as live I/O reads a page) and with a plain
// positioned read of the backup file at the offsets the map gave, opened
// the same way (unbuffered). The plain read is the physical limit.
//
//     pages_bench [GB] [folder] [pages]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "backup/ZR_Backup.h"
#include "maps/X_MapFile.h"
#include "maps/ZR_EMaps.h"

namespace fs = std::filesystem;

namespace {

constexpr int kDefaultPages = 10000;

using zrbench::PageAt;

bool TimeMapReads(ZR_Backup& b, const std::vector<PageAt>& a, void* pBuffer, double* pdSeconds) {
    auto start = std::chrono::steady_clock::now();
    for (const PageAt& p : a) {
        uint32_t iRead = 0;
        if (!b.ReadPages(nullptr, pBuffer, b.LookupPage(p.id), p.id, ZR_PAGE_SIZE, IO_READ, &iRead))
            return false;
    }
    *pdSeconds = zrbench::Seconds(start);
    return true;
}

bool TimePlainReads(const fs::path& path, const std::vector<PageAt>& a, void* pBuffer, double* pdSeconds) {
    HANDLE h = zrbench::OpenPlain(path);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    bool bOk = true;
    auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; bOk && i < a.size(); ++i)
        bOk = zrbench::ReadPlainPage(h, a[i].iFileOfs, pBuffer);
    *pdSeconds = zrbench::Seconds(start);
    CloseHandle(h);
    return bOk;
}

}  // namespace

int main(int argc, char** argv) {
    double dGigabytes = zrbench::Gigabytes(argc, argv);
    const int nPages = argc > 3 ? std::atoi(argv[3]) : kDefaultPages;
    if (dGigabytes <= 0 || nPages <= 0) {
        std::fprintf(stderr, "usage: pages_bench [GB] [folder] [pages]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> pHolder;
    fs::path folder = zrbench::Folder(argc, argv, &pHolder);
    fs::path path = folder / "pages_bench.bak";
    fs::create_directories(folder / "maps");
    std::wcsncpy(g_wszMapFilesFolder, (folder / "maps").wstring().c_str(), MAX_PATH - 1);
    if (!zrbench::WriteSyntheticBackup(path, dGigabytes))
        return 1;
    void* pBuffer = VirtualAlloc(nullptr, ZR_PAGE_SIZE, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    bool bOk = false;
    {
        ZR_Backup b(nullptr);
        b.SetDataSetNumber(1);
        b.AddFile(path.wstring().c_str(), nullptr, false);
        int32_t iVersion = 0;
        if (b.PrepareContent(&iVersion) && b.Open() && b.PrepareAccess(0)) {
            std::vector<PageAt> a = zrbench::PickPages(b, nPages);
            double dMap = 0, dPlain = 0, dPlainAgain = 0;
            // Plain, map, plain again: the cache state of the device is the
            // same for the map's reads as for the mean of the plain ones.
            bOk = !a.empty() && TimePlainReads(path, a, pBuffer, &dPlain) && TimeMapReads(b, a, pBuffer, &dMap) &&
                  TimePlainReads(path, a, pBuffer, &dPlainAgain);
            if (bOk) {
                const double dLimit = (dPlain + dPlainAgain) / 2;
                std::printf("pages:            %zu random 8 KiB reads\n", a.size());
                std::printf("plain reads:      %.3f s (%.1f us a page; runs %.3f s and %.3f s)\n", dLimit,
                            dLimit / double(a.size()) * 1e6, dPlain, dPlainAgain);
                std::printf("ReadPages:        %.3f s (%.1f us a page)  ratio to the plain reads: %.3f\n", dMap,
                            dMap / double(a.size()) * 1e6, dMap / dLimit);
            }
        }
    }
    if (!bOk)
        zrbench::PrintErrors();
    VirtualFree(pBuffer, 0, MEM_RELEASE);
    fs::remove_all(folder / "maps");
    fs::remove(path);
    return bOk ? 0 : 1;
}
