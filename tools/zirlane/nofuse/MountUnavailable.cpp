// A build without libfuse3 has no mounts: the commands say so.
#include <cstdio>

#include "Mount.h"

namespace {

int Unavailable() {
    std::fputs("Mounts are not available in this build of zirlane: it was built without libfuse3 (install the "
               "Debian packages libfuse3-dev and fuse3, then build again).\n",
               stderr);
    return ZIRLANE_EXIT_FAILED;
}

}  // namespace

int ZirlaneServeMount(const ZirlaneMountOptions&) { return Unavailable(); }

int ZirlaneUnmount(const std::string&) { return Unavailable(); }
