// The one translation of POSIX failures into Win32 error codes, and the
// helpers that every system call of this folder goes through.
// Internal to src/platform.
#pragma once

#include "platform/win32.h"

#include <cerrno>
#include <string>

namespace zr::platform {

// The Win32 code for an errno value. Every failing call of the layer uses
// this table, so that GetLastError means the same thing everywhere.
DWORD Win32ErrorFromErrno(int error);

// As above, but ENOENT becomes ERROR_PATH_NOT_FOUND when the folder of
// `path` is missing too, as Windows tells the two apart.
DWORD Win32ErrorFromErrnoForPath(int error, const std::string& path);

// SetLastError(Win32ErrorFromErrno(errno)); returns `result` for chaining.
template <class R>
R FailFromErrno(R result) {
    SetLastError(Win32ErrorFromErrno(errno));
    return result;
}

// Repeats a system call while it fails with EINTR.
template <class F>
auto RetryOnEintr(F call) -> decltype(call()) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

// open(2) with O_CLOEXEC always added and EINTR retried.
int OpenCloexec(const std::string& path, int flags, unsigned mode = 0644);

}  // namespace zr::platform
