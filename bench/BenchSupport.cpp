#include "BenchSupport.h"

#include <cstdio>
#include <cstdlib>

#include "backupio/ZR_BackupFile.h"
#include "diag/ZR_Error.h"
#include "foundation/ZR_Types.h"
#include "support/SyntheticBackup.h"

namespace zrbench {

namespace fs = std::filesystem;

namespace {
constexpr uint32_t kReadSize = 1 << 20;
constexpr uint64_t kDataFiles = 4;
}  // namespace

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

fs::path Folder(int argc, char** argv, std::unique_ptr<zrtest::TempDir>* pHolder) {
    if (argc > 2)
        return argv[2];
    *pHolder = std::make_unique<zrtest::TempDir>();
    return (*pHolder)->path();
}

double Gigabytes(int argc, char** argv) {
    double d = argc > 1 ? std::atof(argv[1]) : 2.0;
    return d > 0 ? d : 0;
}

bool WriteSyntheticBackup(const fs::path& path, double dGigabytes) {
    uint64_t iPages = static_cast<uint64_t>(dGigabytes * (1ull << 30)) / ZR_PAGE_SIZE;
    zrtest::SyntheticOptions options;
    options.version = 10;
    options.filePages.assign(kDataFiles, static_cast<uint32_t>(iPages / kDataFiles / 8 * 8));
    options.transferExtents = 16;
    zrtest::SyntheticBackup backup(options);
    auto start = std::chrono::steady_clock::now();
    if (!backup.Write(path)) {
        std::fprintf(stderr, "cannot write the backup: %s\n", backup.Error().c_str());
        return false;
    }
    std::printf("written:          %.2f GB in %.2f s\n", double(fs::file_size(path)) / (1 << 30), Seconds(start));
    return true;
}

bool TimeSequentialRead(const fs::path& path, double* pdSeconds) {
    ZR_BackupFile file(nullptr, 1, path.wstring().c_str(), nullptr, false);
    if (!file.Open())
        return false;
    void* pBuffer = VirtualAlloc(nullptr, kReadSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    auto start = std::chrono::steady_clock::now();
    bool bOk = true;
    for (uint64_t iOfs = 0; bOk && iOfs < file.GetFileSize(); iOfs += kReadSize) {
        uint32_t iRead = 0;
        bOk = file.ReadA(pBuffer, iOfs, kReadSize, IO_READ, &iRead);
    }
    *pdSeconds = Seconds(start);
    VirtualFree(pBuffer, 0, MEM_RELEASE);
    file.Close();
    return bOk;
}

void PrintErrors() {
    wchar_t* wsz = ZR_ReadErrors(nullptr);
    if (wsz)
        std::fprintf(stderr, "%ls", wsz);
    free(wsz);
}

}  // namespace zrbench
