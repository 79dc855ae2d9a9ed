// Virtual view throughput: writes a synthetic full backup whose log part is
// as large as its data (about GB in all, default 1), reads the view of its
// file from offset 0 to its size in 64 KiB pieces as RESTORE does (the log
// part stays in the view, the data is cut to one extent per file), into a
// page-aligned buffer and into one that is not, and in the same run reads
// the same number of bytes of the file in plain 64 KiB reads (the limit at
// RESTORE's read size) and the whole file in 1 MiB reads. The view should
// move its bytes at about the rate of the plain 64 KiB reads.
//
//     view_bench [GB] [folder]
#include <chrono>
#include <cstdio>
#include <memory>

#include "BenchSupport.h"
#include "backup/ZR_Backup.h"
#include "backupio/ZR_BackupFile.h"
#include "maps/X_MapFile.h"
#include "support/SyntheticBackup.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kPiece = 0x10000;
constexpr uint32_t kDataFiles = 4;

bool WriteBackup(const fs::path& path, double dGigabytes) {
    const uint64_t iExtents = static_cast<uint64_t>(dGigabytes * (1ull << 30)) / kPiece / 2;
    zrtest::SyntheticOptions o;
    o.filePages.assign(kDataFiles, static_cast<uint32_t>(iExtents / kDataFiles * 8));
    o.logExtents = static_cast<uint32_t>(iExtents);
    o.transferExtents = 16;
    zrtest::SyntheticBackup backup(o);
    if (backup.Write(path))
        return true;
    std::fprintf(stderr, "cannot write the backup: %s\n", backup.Error().c_str());
    return false;
}

// Prepares the backup as a mount does and reads its whole view into a
// buffer at iMisalign bytes from a page start (0: page aligned, as the
// driver's mapped buffers are); the bytes read go to *piBytes.
bool TimeView(const fs::path& path, size_t iMisalign, double* pdSeconds, uint64_t* piBytes) {
    ZR_Backup backup(nullptr);
    backup.SetDataSetNumber(1);
    backup.AddFile(path.wstring().c_str(), nullptr, false);
    int32_t iVersion = 0;
    if (!backup.PrepareContent(&iVersion) || !backup.Open() || !backup.PrepareAccess(0))
        return false;
    const int64_t iSize = backup.GetVirtualSize(0);
    auto* pAlloc = static_cast<uint8_t*>(VirtualAlloc(nullptr, kPiece + 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    std::unique_ptr<uint8_t, void (*)(uint8_t*)> hold(pAlloc, [](uint8_t* p) { VirtualFree(p, 0, MEM_RELEASE); });
    uint8_t* pPiece = pAlloc + iMisalign;
    auto start = std::chrono::steady_clock::now();
    for (int64_t iOfs = 0; iOfs < iSize; iOfs += kPiece) {
        OVERLAPPED ov{};
        ov.Offset = static_cast<DWORD>(iOfs);
        ov.OffsetHigh = static_cast<DWORD>(static_cast<uint64_t>(iOfs) >> 32);
        const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(kPiece, iSize - iOfs));
        if (!backup.ReadVirtual(0, pPiece, n, 0, &ov))
            return false;
    }
    *pdSeconds = zrbench::Seconds(start);
    *piBytes = static_cast<uint64_t>(iSize);
    return true;
}

// The physical limit at RESTORE's read size: the same number of bytes of
// the backup file in 64 KiB aligned reads through the backup file reader.
bool TimePlainPieces(const fs::path& path, uint64_t iBytes, double* pdSeconds) {
    ZR_BackupFile file(nullptr, 1, path.wstring().c_str(), nullptr, false);
    if (!file.Open())
        return false;
    auto* p = static_cast<uint8_t*>(VirtualAlloc(nullptr, kPiece, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    std::unique_ptr<uint8_t, void (*)(uint8_t*)> hold(p, [](uint8_t* q) { VirtualFree(q, 0, MEM_RELEASE); });
    auto start = std::chrono::steady_clock::now();
    bool bOk = true;
    for (uint64_t iOfs = 0; iOfs < iBytes && bOk; iOfs += kPiece) {
        uint32_t iRead = 0;
        bOk = file.ReadA(p, iOfs, kPiece, IO_READ, &iRead);
    }
    *pdSeconds = zrbench::Seconds(start);
    file.Close();
    return bOk;
}

}  // namespace

int main(int argc, char** argv) {
    double dGigabytes = argc > 1 ? zrbench::Gigabytes(argc, argv) : 1.0;
    if (dGigabytes <= 0) {
        std::fprintf(stderr, "usage: view_bench [GB] [folder]\n");
        return 2;
    }
    std::unique_ptr<zrtest::TempDir> holder;
    fs::path folder = zrbench::Folder(argc, argv, &holder);
    fs::path file = folder / "view_bench.bak";
    fs::create_directories(folder / "maps");
    std::wstring wsMaps = (folder / "maps").wstring();
    wcsncpy(g_wszMapFilesFolder, wsMaps.c_str(), MAX_PATH - 1);
    if (!WriteBackup(file, dGigabytes))
        return 1;
    double dView = 0;
    double dViewU = 0;
    uint64_t iViewBytes = 0;
    if (!TimeView(file, 0, &dView, &iViewBytes) || !TimeView(file, 16, &dViewU, &iViewBytes)) {
        zrbench::PrintErrors();
        return 1;
    }
    double dPlain = 0;
    double dPieces = 0;
    if (!zrbench::TimeSequentialRead(file, &dPlain) || !TimePlainPieces(file, iViewBytes, &dPieces)) {
        zrbench::PrintErrors();
        return 1;
    }
    const double dFile = static_cast<double>(fs::file_size(file));
    const double dViewRate = static_cast<double>(iViewBytes) / dView / (1 << 20);
    const double dPlainRate = dFile / dPlain / (1 << 20);
    std::printf("backup file:      %.2f GB\n", dFile / (1 << 30));
    std::printf("view, 64 KiB:     %.2f GB in %.2f s, %.0f MB/s\n", static_cast<double>(iViewBytes) / (1 << 30), dView,
                dViewRate);
    const double dViewRateU = static_cast<double>(iViewBytes) / dViewU / (1 << 20);
    std::printf("view, unaligned:  %.0f MB/s\n", dViewRateU);
    const double dPiecesRate = static_cast<double>(iViewBytes) / dPieces / (1 << 20);
    std::printf("plain, 64 KiB:    %.0f MB/s\n", dPiecesRate);
    std::printf("plain, 1 MiB:     %.0f MB/s\n", dPlainRate);
    std::printf("view / plain 64 KiB: %.2f aligned, %.2f unaligned\n", dViewRate / dPiecesRate,
                dViewRateU / dPiecesRate);
    std::printf("view / plain 1 MiB:  %.2f aligned\n", dViewRate / dPlainRate);
    return 0;
}
