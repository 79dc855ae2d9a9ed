// Conversions between system times and FILETIME. Internal to src/platform.
#pragma once

#include "platform/win32.h"

#include <cstdint>

namespace zr::platform {

// 100-nanosecond intervals between 1601-01-01 and 1970-01-01.
constexpr uint64_t kFileTimeUnixEpoch = 116444736000000000ull;

FILETIME FileTimeFromUnix(int64_t seconds, int64_t nanoseconds);

}  // namespace zr::platform
