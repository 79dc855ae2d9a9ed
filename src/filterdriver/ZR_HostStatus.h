// The results of the embedded driver's calls: NTSTATUS values, as the driver
// gives them to SQL Server's I/O. A failure that the library reported passes
// through unchanged, so a result may also be an HRESULT (0x8007xxxx) or a
// plain Win32 error code (a read's completion carries the library's last
// I/O error); ZR_HostStatusToErrno understands all three.
#pragma once

#include <cstdint>

using ZR_HostStatus = int32_t;

inline constexpr ZR_HostStatus kHostSuccess = 0;
inline constexpr ZR_HostStatus kHostInvalidHandle = static_cast<int32_t>(0xC0000008);     // STATUS_INVALID_HANDLE
inline constexpr ZR_HostStatus kHostInvalidParameter = static_cast<int32_t>(0xC000000D);  // STATUS_INVALID_PARAMETER
inline constexpr ZR_HostStatus kHostNoMemory = static_cast<int32_t>(0xC0000017);          // STATUS_NO_MEMORY
inline constexpr ZR_HostStatus kHostAccessDenied = static_cast<int32_t>(0xC0000022);      // STATUS_ACCESS_DENIED
inline constexpr ZR_HostStatus kHostNameInvalid = static_cast<int32_t>(0xC0000033);       // STATUS_OBJECT_NAME_INVALID
inline constexpr ZR_HostStatus kHostNameNotFound = static_cast<int32_t>(0xC0000034);   // STATUS_OBJECT_NAME_NOT_FOUND
inline constexpr ZR_HostStatus kHostPathNotFound = static_cast<int32_t>(0xC000003A);   // STATUS_OBJECT_PATH_NOT_FOUND
inline constexpr ZR_HostStatus kHostDiskFull = static_cast<int32_t>(0xC000007F);       // STATUS_DISK_FULL
inline constexpr ZR_HostStatus kHostNotConnected = static_cast<int32_t>(0xC000009D);   // STATUS_DEVICE_NOT_CONNECTED
inline constexpr ZR_HostStatus kHostDriverStopped = static_cast<int32_t>(0xC00000A3);  // STATUS_DEVICE_NOT_READY
inline constexpr ZR_HostStatus kHostTimeout = static_cast<int32_t>(0xC00000B5);        // STATUS_IO_TIMEOUT
inline constexpr ZR_HostStatus kHostIoError = static_cast<int32_t>(0xC00000E9);        // STATUS_UNEXPECTED_IO_ERROR

// The errno value of a result, for the FUSE front: 0 for success; HRESULTs
// of Win32 errors and plain Win32 codes by their Win32 meaning; NTSTATUS
// values by theirs; anything else EIO.
int ZR_HostStatusToErrno(ZR_HostStatus iStatus);

// The NTSTATUS of a Win32 error of the platform's file calls (the sparse
// files and bitmaps), for the callers of the host.
ZR_HostStatus ZR_HostStatusFromWin32(uint32_t iError);
