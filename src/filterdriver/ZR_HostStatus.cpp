#include "filterdriver/ZR_HostStatus.h"

#include <cerrno>

#include "platform/win32.h"

namespace {

struct ErrnoOf {
    uint32_t iCode;
    int iErrno;
};

constexpr ErrnoOf kWin32Errnos[] = {
    {ERROR_FILE_NOT_FOUND, ENOENT},
    {ERROR_PATH_NOT_FOUND, ENOENT},
    {ERROR_TOO_MANY_OPEN_FILES, EMFILE},
    {ERROR_ACCESS_DENIED, EACCES},
    {ERROR_INVALID_HANDLE, EBADF},
    {ERROR_NOT_ENOUGH_MEMORY, ENOMEM},
    {ERROR_OUTOFMEMORY, ENOMEM},
    {ERROR_NOT_READY, EAGAIN},
    {ERROR_HANDLE_DISK_FULL, ENOSPC},
    {ERROR_DISK_FULL, ENOSPC},
    {ERROR_NOT_SUPPORTED, ENOTSUP},
    {ERROR_FILE_EXISTS, EEXIST},
    {ERROR_ALREADY_EXISTS, EEXIST},
    {ERROR_INVALID_PARAMETER, EINVAL},
    {ERROR_INVALID_NAME, EINVAL},
    {ERROR_SHARING_VIOLATION, EBUSY},
    {ERROR_OPERATION_ABORTED, ECANCELED},
    {ERROR_TIMEOUT, ETIMEDOUT},
    {WAIT_TIMEOUT, ETIMEDOUT},
    {ERROR_DEVICE_NOT_CONNECTED, ENOTCONN},
    {ERROR_FILENAME_EXCED_RANGE, ENAMETOOLONG},
};

constexpr ErrnoOf kStatusErrnos[] = {
    {0xC0000008, EBADF},    {0xC000000D, EINVAL}, {0xC0000017, ENOMEM},    {0xC0000022, EACCES},
    {0xC0000033, EINVAL},   {0xC0000034, ENOENT}, {0xC000003A, ENOENT},    {0xC000007F, ENOSPC},
    {0xC000009D, ENOTCONN}, {0xC00000A3, EAGAIN}, {0xC00000B5, ETIMEDOUT}, {0xC0000120, ECANCELED},
};

template <size_t N>
int Lookup(const ErrnoOf (&table)[N], uint32_t iCode) {
    for (const ErrnoOf& e : table)
        if (e.iCode == iCode) return e.iErrno;
    return EIO;
}

}  // namespace

int ZR_HostStatusToErrno(ZR_HostStatus iStatus) {
    uint32_t iCode = static_cast<uint32_t>(iStatus);
    if (iCode == 0) return 0;
    if ((iCode & 0xFFFF0000u) == 0x80070000u) return Lookup(kWin32Errnos, iCode & 0xFFFFu);
    if (iStatus > 0) return Lookup(kWin32Errnos, iCode);
    return Lookup(kStatusErrnos, iCode);
}

ZR_HostStatus ZR_HostStatusFromWin32(uint32_t iError) {
    switch (iError) {
        case ERROR_SUCCESS: return kHostSuccess;
        case ERROR_FILE_NOT_FOUND: return kHostNameNotFound;
        case ERROR_PATH_NOT_FOUND: return kHostPathNotFound;
        case ERROR_ACCESS_DENIED: return kHostAccessDenied;
        case ERROR_INVALID_HANDLE: return kHostInvalidHandle;
        case ERROR_NOT_ENOUGH_MEMORY:
        case ERROR_OUTOFMEMORY: return kHostNoMemory;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL: return kHostDiskFull;
        default: return kHostIoError;
    }
}
