// The folder a mount stands on: whether it can take one, what is mounted
// there, and the removal of a zirlane mount. Paths are absolute and
// canonical, as /proc/self/mounts shows them.
#pragma once

#include <string>

class ZR_MountPoint {
public:
    // The file system type of a zirlane mount.
    static constexpr const char* kType = "fuse.zirlane";

    // True when strPath can take a mount now; otherwise false, with why in
    // the error chain: it is missing or not a folder, holds files, is a
    // mount already (a zirlane mount whose process has gone included), or
    // /dev/fuse cannot be opened.
    static bool CheckFree(const std::string& strPath);
    // The type of the file system mounted at strPath (the last one, if
    // several are); empty when none is.
    static std::string MountedType(const std::string& strPath);
    // Removes the zirlane mount at strPath (fusermount3 -u; umount2 as
    // root); false with why in the error chain, also when no zirlane mount
    // stands there.
    static bool Unmount(const std::string& strPath);
};
