// zirlane mount and zirlane umount: the options (MountCommand.cpp), and the
// work, which lives in fuse/ in a build with libfuse3 and in nofuse/, which
// says that mounts are not available, in one without.
#pragma once

#include <string>

#include "Commands.h"

struct ZirlaneMountOptions {
    ZirlaneChain chain;
    std::string sparseFolder;
    std::string mountPoint;
    bool bRestore = false;
    bool bBackground = false;
    bool bHydrate = false;  // fill the sparse files from the backups while serving
    bool bJson = false;     // the hydration's progress as JSON lines on stdout
    bool bAllowOther = false;
};

// Mounts the chain at the mount point and serves it until it is
// interrupted or unmounted; the exit code.
int ZirlaneServeMount(const ZirlaneMountOptions& options);
// Removes the zirlane mount at the mount point; the exit code.
int ZirlaneUnmount(const std::string& mountPoint);
