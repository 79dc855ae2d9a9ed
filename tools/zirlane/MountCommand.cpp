// zirlane mount [--map-folder DIR] [--sparse-folder DIR] [--database NAME] --full FILE... [--diff FILE...]
//               [--log FILE...]... [--stop CLAUSE] [--restore] [--hydrate [--json]] [-d|--background]
//               [--allow-other] MOUNTPOINT
// zirlane umount MOUNTPOINT
#include <memory>

#include "Mount.h"

void AddMountCommand(CLI::App& app, int* piExit) {
    auto pOptions = std::make_shared<ZirlaneMountOptions>();
    CLI::App* pCmd = app.add_subcommand(
        "mount", "Serve a chain of backups as files under a folder: the virtual backups to restore from, and the "
                 "database's data files, read from the backups as they are needed");
    ZirlaneAddChainOptions(*pCmd, &pOptions->chain, false);
    pOptions->sparseFolder = ZirlaneCacheFolder("sparse");
    pCmd->add_option("--sparse-folder", pOptions->sparseFolder,
                     "Folder of the data files' own bytes (sparse files and their page bitmaps), kept for the next "
                     "mount of the same chain")
        ->default_str(pOptions->sparseFolder);
    pCmd->add_flag("--restore", pOptions->bRestore,
                   "Do the restore step here, for use without SQL Server: each data file is then readable in full");
    CLI::Option* pHydrate = pCmd->add_flag(
        "--hydrate", pOptions->bHydrate,
        "Once the mount is ready, fill the data files' sparse files from the backups while the mount serves, "
        "showing the progress: every page but the first extent of each file, which the restore writes (--restore, "
        "or SQL Server's RESTORE). An interrupted fill goes on at the next mount of the chain");
    pCmd->add_flag("--json", pOptions->bJson, "With --hydrate: the progress as one JSON object a line on stdout")
        ->needs(pHydrate);
    pCmd->add_flag("-d,--background", pOptions->bBackground,
                   "Go into the background once the mount is ready, and say how to unmount it");
    pCmd->add_flag("--allow-other", pOptions->bAllowOther,
                   "Let every user of the machine use the mount (SQL Server runs as a user of its own)");
    pCmd->add_option("mountpoint", pOptions->mountPoint, "An empty folder to mount at")->required();
    pCmd->callback([pOptions, piExit] { *piExit = ZirlaneServeMount(*pOptions); });
}

void AddUmountCommand(CLI::App& app, int* piExit) {
    auto pMountPoint = std::make_shared<std::string>();
    CLI::App* pCmd = app.add_subcommand("umount", "Remove a mount that zirlane mount made; its process then ends");
    pCmd->add_option("mountpoint", *pMountPoint, "The folder the mount stands on")->required();
    pCmd->callback([pMountPoint, piExit] { *piExit = ZirlaneUnmount(*pMountPoint); });
}
