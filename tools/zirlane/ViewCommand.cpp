// zirlane view [--data-set N] [--map-folder DIR] [--diff-follows] [--stripe I] -o OUT FILE...:
// writes the virtual backup file (.bxk) of one stripe of a backup: the bytes
// that SQL Server's RESTORE reads from offset 0 to the view's size, read in
// pieces of 64 KiB as RESTORE reads them. --diff-follows makes the view of a
// full backup over which a differential is restored (its log part cut out
// too). OUT "-" is standard output.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "OutputFile.h"
#include "Progress.h"
#include "backup/ZR_Backup.h"

namespace {

constexpr uint32_t kPiece = 0x10000;  // RESTORE's read size

struct ViewOptions {
    int iDataSet = 1;
    std::string mapFolder;
    bool bDiffFollows = false;
    int iStripe = 1;
    std::string out;
    std::vector<std::string> aFiles;

    bool ToStdout() const { return out == "-"; }
};

// Writes one piece at its offset; false after recording why.
using PieceWriter = std::function<bool(uint64_t iOfs, const uint8_t* p, uint32_t iLen)>;

std::unique_ptr<ZR_Backup> PrepareBackup(const ViewOptions& options) {
    std::unique_ptr<ZR_Backup> b = ZirlaneNewBackup(options.aFiles, options.iDataSet);
    b->m_bDiffFollows = options.bDiffFollows;
    int32_t iVersion = 0;
    // The first extents of the view come through the extent map.
    if (!b->PrepareContent(&iVersion) || !b->Open() || !b->PrepareAccess(0)) return nullptr;
    if (options.bDiffFollows && !b->IsFullBackup()) return nullptr;
    ZirlaneStepSucceeded();
    return b;
}

bool CopyView(ZR_Backup& backup, int iDevice, int64_t iSize, const std::string& label, const PieceWriter& write) {
    std::vector<uint8_t> aPiece(kPiece);
    ZirlaneProgress progress(label, static_cast<uint64_t>(iSize));
    for (int64_t iOfs = 0; iOfs < iSize; iOfs += kPiece) {
        if (ZirlaneStopRequested()) return false;
        const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(kPiece, iSize - iOfs));
        OVERLAPPED ov{};
        ov.Offset = static_cast<DWORD>(iOfs);
        ov.OffsetHigh = static_cast<DWORD>(static_cast<uint64_t>(iOfs) >> 32);
        if (!backup.ReadVirtual(iDevice, aPiece.data(), n, 0, &ov))
            return ZirlaneFail(__FILE__, __LINE__, "Read of the view for %s failed at offset %I64d.\n", label.c_str(), iOfs);
        if (!write(static_cast<uint64_t>(iOfs), aPiece.data(), n)) return false;
        progress.Update(static_cast<uint64_t>(iOfs) + n);
    }
    return true;
}

bool WriteToStdout(uint64_t iOfs, const uint8_t* p, uint32_t iLen) {
    if (std::fwrite(p, 1, iLen, stdout) == iLen) return true;
    return ZirlaneFail(__FILE__, __LINE__, "Unable to write to standard output at offset %I64d.\n", iOfs);
}

bool WriteView(ZR_Backup& backup, const ViewOptions& options, int64_t* piSize) {
    const int iDevice = options.iStripe - 1;
    if (iDevice >= backup.GetNumFiles())
        return ZirlaneFail(__FILE__, __LINE__, "The backup of %s has no stripe %d.\n", options.aFiles.front().c_str(),
                           options.iStripe);
    *piSize = backup.GetVirtualSize(iDevice);
    if (*piSize < 0)
        return ZirlaneFail(__FILE__, __LINE__, "The view of %s has no size (stripe %d).\n",
                           options.aFiles.front().c_str(), options.iStripe);
    ZirlaneCatchInterrupts();
    if (options.ToStdout()) return CopyView(backup, iDevice, *piSize, "view", WriteToStdout) && std::fflush(stdout) == 0;
    ZirlaneOutputFile out;
    if (!out.Create(options.out, static_cast<uint64_t>(*piSize))) return false;
    auto write = [&out](uint64_t iOfs, const uint8_t* p, uint32_t iLen) { return out.WriteAt(iOfs, p, iLen); };
    if (CopyView(backup, iDevice, *piSize, options.out, write) && out.Commit()) return true;
    return ZirlaneFail(__FILE__, __LINE__, "%s was not written whole and was removed.\n", options.out.c_str());
}

bool RunView(const ViewOptions& options) {
    if (!ZirlaneUseMapFolder(options.mapFolder)) return false;
    std::unique_ptr<ZR_Backup> backup = PrepareBackup(options);
    if (!backup) return false;
    int64_t iSize = 0;
    if (!WriteView(*backup, options, &iSize)) return false;
    // With the view on standard output, what is said about it goes to stderr.
    std::fprintf(options.ToStdout() ? stderr : stdout, "%s: %lld bytes, the view of stripe %d of %d%s\n",
                 options.ToStdout() ? "standard output" : options.out.c_str(), static_cast<long long>(iSize),
                 options.iStripe, backup->GetNumFiles(), options.bDiffFollows ? ", a differential follows" : "");
    return true;
}

}  // namespace

void AddViewCommand(CLI::App& app, int* piExit) {
    auto options = std::make_shared<ViewOptions>();
    CLI::App* cmd = app.add_subcommand(
        "view", "Write the virtual backup file that RESTORE reads for one stripe of a backup");
    ZirlaneAddDataSetOption(*cmd, &options->iDataSet, "Data set of the backup in its files");
    ZirlaneAddMapFolderOption(*cmd, &options->mapFolder);
    cmd->add_flag("--diff-follows", options->bDiffFollows,
                  "The view of a full backup over which a differential is restored");
    cmd->add_option("--stripe", options->iStripe, "The stripe whose view is written, from 1")
        ->default_val(1)
        ->check(ZirlaneWholeNumber(64));
    cmd->add_option("-o,--output", options->out, "The file to write; - for standard output")->required();
    cmd->add_option("files", options->aFiles, "The backup files, stripes in any order")->required();
    cmd->callback([options, piExit] { *piExit = ZirlaneFinish(RunView(*options)); });
}
