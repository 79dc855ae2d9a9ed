// zirlane view [--data-set N] [--map-folder DIR] [--diff-follows] [--stripe I] -o OUT FILE...:
// writes the virtual backup file (.bxk) of one stripe of a backup: the bytes
// that SQL Server's RESTORE reads from offset 0 to the view's size, read in
// pieces of 64 KiB as RESTORE reads them. --diff-follows makes the view of a
// full backup over which a differential is restored (its log part cut out
// too).
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "backup/ZR_Backup.h"
#include "diag/ZR_Error.h"

namespace {

constexpr const wchar_t* kKey = nullptr;  // errors go to the chain without a mount key
constexpr uint32_t kPiece = 0x10000;      // RESTORE's read size

struct ViewOptions {
    int iDataSet = 1;
    std::string mapFolder;
    bool bDiffFollows = false;
    int iStripe = 1;
    std::string out;
    std::vector<std::string> aFiles;
};

// Records a failure about a file or folder name and an offset or number.
bool Fail(int iLine, const char* szFormat, const std::string& s, long long i) {
    ZR_Error(kKey, __FILE__, "ViewCommand", iLine, szFormat, s.c_str(), i);
    return false;
}

std::unique_ptr<ZR_Backup> PrepareBackup(const ViewOptions& options) {
    auto b = std::make_unique<ZR_Backup>(kKey);
    b->SetDataSetNumber(options.iDataSet);
    b->m_bDiffFollows = options.bDiffFollows;
    for (const std::string& f : options.aFiles) b->AddFile(ZirlaneWide(f).c_str(), nullptr, false);
    int32_t iVersion = 0;
    // The first extents of the view come through the extent map.
    if (!b->PrepareContent(&iVersion) || !b->Open() || !b->PrepareAccess(0)) return nullptr;
    if (options.bDiffFollows && !b->IsFullBackup()) return nullptr;
    return b;
}

bool WriteView(ZR_Backup& backup, const ViewOptions& options, int64_t* piSize) {
    const int iDevice = options.iStripe - 1;
    if (iDevice >= backup.GetNumFiles())
        return Fail(__LINE__, "The backup of %s has no stripe %I64d.\n", options.aFiles.front(), options.iStripe);
    *piSize = backup.GetVirtualSize(iDevice);
    if (*piSize < 0)
        return Fail(__LINE__, "The view of %s has no size (stripe %I64d).\n", options.aFiles.front(), options.iStripe);
    std::ofstream out(options.out, std::ios::binary | std::ios::trunc);
    if (!out) return Fail(__LINE__, "Unable to create %s (error %I64d).\n", options.out, errno);
    std::vector<uint8_t> aPiece(kPiece);
    for (int64_t iOfs = 0; iOfs < *piSize; iOfs += kPiece) {
        const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(kPiece, *piSize - iOfs));
        OVERLAPPED ov{};
        ov.Offset = static_cast<DWORD>(iOfs);
        ov.OffsetHigh = static_cast<DWORD>(static_cast<uint64_t>(iOfs) >> 32);
        if (!backup.ReadVirtual(iDevice, aPiece.data(), n, 0, &ov))
            return Fail(__LINE__, "Read of the view for %s failed at offset %I64d.\n", options.out, iOfs);
        out.write(reinterpret_cast<const char*>(aPiece.data()), n);
        if (!out) return Fail(__LINE__, "Unable to write %s at offset %I64d.\n", options.out, iOfs);
    }
    return true;
}

bool RunView(const ViewOptions& options) {
    if (!ZirlaneUseMapFolder(options.mapFolder))
        return Fail(__LINE__, "The map folder name is too long: %s (%I64d characters)\n", options.mapFolder,
                    static_cast<long long>(options.mapFolder.size()));
    std::unique_ptr<ZR_Backup> backup = PrepareBackup(options);
    if (!backup) return false;
    int64_t iSize = 0;
    if (!WriteView(*backup, options, &iSize)) return false;
    std::printf("%s: %lld bytes, the view of stripe %d of %d%s\n", options.out.c_str(),
                static_cast<long long>(iSize), options.iStripe, backup->GetNumFiles(),
                options.bDiffFollows ? ", a differential follows" : "");
    return true;
}

}  // namespace

void AddViewCommand(CLI::App& app, int* piExit) {
    auto options = std::make_shared<ViewOptions>();
    CLI::App* cmd = app.add_subcommand(
        "view", "Write the virtual backup file that RESTORE reads for one stripe of a backup");
    cmd->add_option("--data-set", options->iDataSet, "Data set of the backup in its files")
        ->default_val(1)
        ->check(CLI::PositiveNumber);
    ZirlaneAddMapFolderOption(*cmd, &options->mapFolder);
    cmd->add_flag("--diff-follows", options->bDiffFollows,
                  "The view of a full backup over which a differential is restored");
    cmd->add_option("--stripe", options->iStripe, "The stripe whose view is written, from 1")
        ->default_val(1)
        ->check(CLI::PositiveNumber);
    cmd->add_option("-o,--output", options->out, "The file to write")->required();
    cmd->add_option("files", options->aFiles, "The backup files, stripes in any order")
        ->required()
        ->check(CLI::ExistingFile);
    cmd->callback([options, piExit] {
        bool bOk = RunView(*options);
        if (!bOk) ZirlanePrintErrors();
        *piExit = bOk ? ZIRLANE_EXIT_OK : ZIRLANE_EXIT_FAILED;
    });
}
