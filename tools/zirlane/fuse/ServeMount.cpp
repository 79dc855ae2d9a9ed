// zirlane mount and umount with the FUSE front: the checks that come before
// anything is read, the move into the background, and the steps of a mount.
#include <cstdio>
#include <filesystem>

#include "Mount.h"
#include "fuse/ZirlaneMount.h"
#include "fusefront/ZR_MountPoint.h"
#include "fusefront/ZR_ServerProcess.h"

namespace fs = std::filesystem;

namespace {

// Absolute and without links where the path exists: as /proc/self/mounts
// shows a mount point (one whose process has gone cannot be resolved).
std::string Resolved(const std::string& path) {
    std::error_code ec;
    fs::path resolved = fs::canonical(path, ec);
    if (ec) resolved = fs::absolute(path, ec).lexically_normal();
    std::string text = resolved.string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

// The server leaves the folder it started in: every path must stand alone.
void MakeAbsolute(ZirlaneMountOptions* pOptions) {
    auto absolute = [](std::string& path) { path = fs::absolute(path).lexically_normal().string(); };
    ZirlaneChain& chain = pOptions->chain;
    absolute(chain.mapFolder);
    absolute(pOptions->sparseFolder);
    for (std::string& file : chain.aFull) absolute(file);
    for (auto& aFiles : chain.aDiffs)
        for (std::string& file : aFiles) absolute(file);
    for (auto& aFiles : chain.aLogs)
        for (std::string& file : aFiles) absolute(file);
    pOptions->mountPoint = Resolved(pOptions->mountPoint);
}

bool Interrupted() {
    return ZR_ServerProcess::Interrupted() && ZirlaneFail(__FILE__, __LINE__, "Interrupted before the mount was ready.\n");
}

}  // namespace

int ZirlaneServeMount(const ZirlaneMountOptions& given) {
    ZirlaneMountOptions options = given;
    std::string stopClause;
    ZirlaneCheckChain(options.chain, &stopClause);
    // SQL Server's names of the files use backslashes as separators.
    if (options.mountPoint.find('\\') != std::string::npos)
        ZirlaneUsageError("mountpoint", "the path must not hold a backslash");
    MakeAbsolute(&options);
    if (!ZR_MountPoint::CheckFree(options.mountPoint)) return ZirlaneFinish(false);
    if (options.bBackground) {
        const ZR_ServerProcess::Detached detached = ZR_ServerProcess::Detach();
        if (detached.bReady)
            std::printf("Serving in the background (process %d). Unmount with: zirlane umount %s\n",
                        detached.iServerPid, options.mountPoint.c_str());
        if (!detached.bServer) return detached.bReady ? ZIRLANE_EXIT_OK : detached.iExit;
        if (detached.iExit) return ZirlaneFinish(false);
    }
    ZR_ServerProcess::HoldSignals();  // before the library starts its threads
    ZirlaneMount mount(options, stopClause);
    if (!mount.Prepare() || Interrupted() || (options.bRestore && !mount.Restore()) || Interrupted() ||
        !mount.Expose()) {
        ZirlanePrintErrors(mount.Key().empty() ? nullptr : mount.Key().c_str());
        return ZIRLANE_EXIT_FAILED;
    }
    mount.Report();
    if (!options.bBackground)
        std::printf("\nServing until Ctrl-C, or zirlane umount %s.\n", options.mountPoint.c_str());
    ZR_ServerProcess::Ready();
    if (options.bHydrate) mount.Hydrate();
    mount.Serve();
    return ZIRLANE_EXIT_OK;
}

int ZirlaneUnmount(const std::string& mountPoint) { return ZirlaneFinish(ZR_MountPoint::Unmount(Resolved(mountPoint))); }
