// For tests only: replaces the backup work of ZR::Mount. Null restores the
// library's own steps. Returns what was installed before. Not thread-safe:
// install before mounting and restore after.
#pragma once

#include "mount/ZR_MountSteps.h"

ZR_MountSteps* ZR_InstallMountStepsForTesting(ZR_MountSteps* pSteps);
