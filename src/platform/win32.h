// The subset of the Win32 API that the library calls, served on Linux by the
// POSIX implementations in this folder. The library's sources keep every
// Windows call literally; a Windows build would include <windows.h> instead
// of this header.
//
// Semantics follow the Windows documentation where the library relies on
// them: GetLastError is per thread, critical sections are recursive, events
// are manual- or auto-reset, waits honour their timeouts, an OVERLAPPED read
// that completes at once still signals its event, and VirtualAlloc returns
// page-aligned zeroed memory.
//
// Wide strings are wchar_t (32 bits here). Paths accept '\' and '/' as
// separators. Nothing outside src/platform includes a POSIX header.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cwchar>

// ---------------------------------------------------------------------------
// Basic types
// ---------------------------------------------------------------------------
using BOOL = int;
using BYTE = uint8_t;
using WORD = uint16_t;
using DWORD = uint32_t;
using LONG = int32_t;
using ULONG = uint32_t;
using UINT = unsigned int;
using LONGLONG = int64_t;
using ULONGLONG = uint64_t;
using DWORD64 = uint64_t;
using ULONG_PTR = uintptr_t;
using DWORD_PTR = uintptr_t;
using SIZE_T = size_t;
using HRESULT = int32_t;
using WCHAR = wchar_t;
using CHAR = char;
using HANDLE = void*;
using HMODULE = void*;
using HLOCAL = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPDWORD = DWORD*;
using PLONG = LONG*;
using PULONG_PTR = ULONG_PTR*;
using LPSTR = char*;
using LPCSTR = const char*;
using LPWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;

constexpr BOOL TRUE = 1;
constexpr BOOL FALSE = 0;

union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
};

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    ULONGLONG QuadPart;
};

struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;

inline HANDLE const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~uintptr_t(0));

// ---------------------------------------------------------------------------
// Error codes and the per-thread last error
// ---------------------------------------------------------------------------
constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD NO_ERROR = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_OUTOFMEMORY = 14;
constexpr DWORD ERROR_NO_MORE_FILES = 18;
constexpr DWORD ERROR_NOT_READY = 21;
constexpr DWORD ERROR_CRC = 23;
constexpr DWORD ERROR_NOT_SAME_DEVICE = 17;
constexpr DWORD ERROR_SEEK = 25;
constexpr DWORD ERROR_WRITE_FAULT = 29;
constexpr DWORD ERROR_READ_FAULT = 30;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_LOCK_VIOLATION = 33;
constexpr DWORD ERROR_HANDLE_EOF = 38;
constexpr DWORD ERROR_HANDLE_DISK_FULL = 39;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_BROKEN_PIPE = 109;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
constexpr DWORD ERROR_BAD_PATHNAME = 161;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_FILE_TOO_LARGE = 223;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD ERROR_DIRECTORY = 267;
constexpr DWORD ERROR_NOT_OWNER = 288;
constexpr DWORD ERROR_TOO_MANY_POSTS = 298;
constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
constexpr DWORD ERROR_ABANDONED_WAIT_0 = 735;
constexpr DWORD ERROR_INVALID_USER_BUFFER = 1784;
constexpr DWORD ERROR_INVALID_ADDRESS = 487;
constexpr DWORD ERROR_OPERATION_ABORTED = 995;
constexpr DWORD ERROR_IO_INCOMPLETE = 996;
constexpr DWORD ERROR_IO_PENDING = 997;
constexpr DWORD ERROR_NOACCESS = 998;
constexpr DWORD ERROR_FILE_INVALID = 1006;
constexpr DWORD ERROR_MAPPED_ALIGNMENT = 1132;
constexpr DWORD ERROR_TIMEOUT = 1460;
constexpr DWORD ERROR_IO_DEVICE = 1117;
constexpr DWORD ERROR_DEVICE_NOT_CONNECTED = 1167;
constexpr DWORD ERROR_NOT_FOUND = 1168;
constexpr DWORD ERROR_CONNECTION_INVALID = 1229;

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT E_HANDLE = static_cast<HRESULT>(0x80070006u);
constexpr HRESULT HRESULT_FROM_WIN32(DWORD e) {
    return e == 0 ? 0 : static_cast<HRESULT>((e & 0xFFFFu) | 0x80070000u);
}
constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
constexpr bool FAILED(HRESULT hr) { return hr < 0; }

DWORD GetLastError();
void SetLastError(DWORD dwError);

// The text of a system error code (FORMAT_MESSAGE_FROM_SYSTEM), in the
// shapes the library asks for.
constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x00000400;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;
constexpr DWORD LANG_NEUTRAL = 0;
constexpr DWORD SUBLANG_DEFAULT = 1;
constexpr DWORD MAKELANGID(DWORD p, DWORD s) { return (s << 10) | p; }
// With FORMAT_MESSAGE_ALLOCATE_BUFFER, lpBuffer is really a char** / wchar_t**
// that receives a block to be released with LocalFree.
DWORD FormatMessageA(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD dwLanguageId,
                     LPSTR lpBuffer, DWORD nSize, va_list* Arguments);
DWORD FormatMessageW(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD dwLanguageId,
                     LPWSTR lpBuffer, DWORD nSize, va_list* Arguments);
HLOCAL LocalFree(HLOCAL hMem);

void OutputDebugStringA(LPCSTR lpOutputString);
void OutputDebugStringW(LPCWSTR lpOutputString);

// ---------------------------------------------------------------------------
// Interlocked operations (on the 32-bit counters the library keeps)
// ---------------------------------------------------------------------------
long InterlockedIncrement(volatile long* p);
long InterlockedDecrement(volatile long* p);
long InterlockedExchange(volatile long* p, long v);
long InterlockedExchangeAdd(volatile long* p, long v);
long InterlockedCompareExchange(volatile long* p, long exchange, long comparand);
LONGLONG InterlockedIncrement64(volatile LONGLONG* p);
LONGLONG InterlockedExchangeAdd64(volatile LONGLONG* p, LONGLONG v);

// ---------------------------------------------------------------------------
// Synchronisation
// ---------------------------------------------------------------------------
constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_ABANDONED = 0x80;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;

// A recursive lock. The storage is opaque and large enough for a pthread
// recursive mutex; it must not be copied or moved while initialised.
struct CRITICAL_SECTION {
    alignas(16) unsigned char opaque[64];
};
using LPCRITICAL_SECTION = CRITICAL_SECTION*;

void InitializeCriticalSection(LPCRITICAL_SECTION cs);
BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION cs, DWORD dwSpinCount);
void DeleteCriticalSection(LPCRITICAL_SECTION cs);
void EnterCriticalSection(LPCRITICAL_SECTION cs);
BOOL TryEnterCriticalSection(LPCRITICAL_SECTION cs);
void LeaveCriticalSection(LPCRITICAL_SECTION cs);

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES sa, BOOL bManualReset, BOOL bInitialState, LPCWSTR lpName);
BOOL SetEvent(HANDLE hEvent);
BOOL ResetEvent(HANDLE hEvent);
HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES sa, BOOL bInitialOwner, LPCWSTR lpName);
BOOL ReleaseMutex(HANDLE hMutex);
HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES sa, LONG lInitialCount, LONG lMaximumCount, LPCWSTR lpName);
BOOL ReleaseSemaphore(HANDLE hSemaphore, LONG lReleaseCount, LONG* lpPreviousCount);

// Events, mutexes, semaphores and threads (signalled when they end).
DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
DWORD WaitForMultipleObjects(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds);
void Sleep(DWORD dwMilliseconds);

// ---------------------------------------------------------------------------
// Threads
// ---------------------------------------------------------------------------
using LPTHREAD_START_ROUTINE = DWORD (*)(LPVOID);
constexpr DWORD CREATE_SUSPENDED = 0x4;
constexpr DWORD STILL_ACTIVE = 259;
constexpr int THREAD_PRIORITY_LOWEST = -2;
constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
constexpr int THREAD_PRIORITY_NORMAL = 0;
constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
constexpr int THREAD_PRIORITY_HIGHEST = 2;
constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;
constexpr int THREAD_PRIORITY_IDLE = -15;

HANDLE CreateThread(LPSECURITY_ATTRIBUTES sa, SIZE_T dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress,
                    LPVOID lpParameter, DWORD dwCreationFlags, LPDWORD lpThreadId);
uintptr_t _beginthreadex(void* security, unsigned stack_size, unsigned (*start_address)(void*), void* arglist,
                         unsigned initflag, unsigned* thrdaddr);
DWORD ResumeThread(HANDLE hThread);
BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode);
// Best effort: Linux lets an unprivileged process lower, not raise, a
// thread's priority; a refused change still returns TRUE.
BOOL SetThreadPriority(HANDLE hThread, int nPriority);
int GetThreadPriority(HANDLE hThread);
HANDLE GetCurrentThread();
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();

// ---------------------------------------------------------------------------
// Files: the thirteen file calls go through the table in FileCalls.h, so
// that tests can replace any of them. These functions forward through it.
// ---------------------------------------------------------------------------
constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD GENERIC_WRITE = 0x40000000;
constexpr DWORD GENERIC_EXECUTE = 0x20000000;
constexpr DWORD GENERIC_ALL = 0x10000000;
constexpr DWORD DELETE = 0x00010000;
constexpr DWORD FILE_READ_DATA = 0x0001;
constexpr DWORD FILE_WRITE_DATA = 0x0002;
constexpr DWORD FILE_APPEND_DATA = 0x0004;
constexpr DWORD FILE_READ_ATTRIBUTES = 0x0080;

constexpr DWORD FILE_SHARE_READ = 0x1;
constexpr DWORD FILE_SHARE_WRITE = 0x2;
constexpr DWORD FILE_SHARE_DELETE = 0x4;

constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;

constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
constexpr DWORD FILE_ATTRIBUTE_HIDDEN = 0x2;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x20;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x100;
constexpr DWORD FILE_ATTRIBUTE_SPARSE_FILE = 0x200;
constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000;
constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
constexpr DWORD FILE_FLAG_NO_BUFFERING = 0x20000000;
constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000;
constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000;
constexpr DWORD FILE_FLAG_DELETE_ON_CLOSE = 0x04000000;
constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x02000000;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFF;
constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFF;
constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;
constexpr DWORD FILE_END = 2;

constexpr UINT DRIVE_UNKNOWN = 0;
constexpr UINT DRIVE_NO_ROOT_DIR = 1;
constexpr UINT DRIVE_REMOVABLE = 2;
constexpr UINT DRIVE_FIXED = 3;
constexpr UINT DRIVE_REMOTE = 4;
constexpr UINT DRIVE_CDROM = 5;
constexpr UINT DRIVE_RAMDISK = 6;

// DeviceIoControl codes the library sends to files.
constexpr DWORD FSCTL_SET_SPARSE = 0x000900C4;
constexpr DWORD FSCTL_SET_ZERO_DATA = 0x000980C8;
constexpr DWORD FSCTL_QUERY_ALLOCATED_RANGES = 0x000940CF;
constexpr DWORD IOCTL_DISK_GET_DRIVE_GEOMETRY = 0x00070000;

struct FILE_ZERO_DATA_INFORMATION {
    LARGE_INTEGER FileOffset;
    LARGE_INTEGER BeyondFinalZero;
};
struct FILE_ALLOCATED_RANGE_BUFFER {
    LARGE_INTEGER FileOffset;
    LARGE_INTEGER Length;
};
// What a query of the standard information of a file answers.
struct FILE_STANDARD_INFO {
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    DWORD NumberOfLinks;
    BYTE DeletePending;
    BYTE Directory;
};

struct OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    union {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        LPVOID Pointer;
    };
    HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED*;

HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode, LPSECURITY_ATTRIBUTES sa,
                   DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
              LPOVERLAPPED lpOverlapped);
BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, LPDWORD lpNumberOfBytesWritten,
               LPOVERLAPPED lpOverlapped);
DWORD GetFileAttributesW(LPCWSTR lpFileName);
DWORD GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh);
BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred, BOOL bWait);
BOOL FlushFileBuffers(HANDLE hFile);
BOOL SetEndOfFile(HANDLE hFile);
DWORD SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh, DWORD dwMoveMethod);
// Closes any handle of this layer: files, events, mutexes, threads, ports,
// mappings.
BOOL CloseHandle(HANDLE hObject);
BOOL DeleteFileW(LPCWSTR lpFileName);
BOOL DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize, LPVOID lpOutBuffer,
                     DWORD nOutBufferSize, LPDWORD lpBytesReturned, LPOVERLAPPED lpOverlapped);
UINT GetDriveTypeW(LPCWSTR lpRootPathName);

// Not in the replaceable table.
BOOL GetFileSizeEx(HANDLE hFile, LARGE_INTEGER* lpFileSize);
BOOL CreateDirectoryW(LPCWSTR lpPathName, LPSECURITY_ATTRIBUTES sa);
BOOL RemoveDirectoryW(LPCWSTR lpPathName);
BOOL MoveFileW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName);
BOOL GetDiskFreeSpaceW(LPCWSTR lpRootPathName, LPDWORD lpSectorsPerCluster, LPDWORD lpBytesPerSector,
                       LPDWORD lpNumberOfFreeClusters, LPDWORD lpTotalNumberOfClusters);

constexpr size_t MAX_PATH = 260;

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};
using LPFILETIME = FILETIME*;

struct WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    WCHAR cFileName[MAX_PATH];
    WCHAR cAlternateFileName[14];
};
// A pattern is a folder and a last component with '*' and '?'.
HANDLE FindFirstFileW(LPCWSTR lpFileName, WIN32_FIND_DATAW* lpFindFileData);
BOOL FindNextFileW(HANDLE hFindFile, WIN32_FIND_DATAW* lpFindFileData);
BOOL FindClose(HANDLE hFindFile);

// ---------------------------------------------------------------------------
// I/O completion ports
// ---------------------------------------------------------------------------
HANDLE CreateIoCompletionPort(HANDLE FileHandle, HANDLE ExistingCompletionPort, ULONG_PTR CompletionKey,
                              DWORD NumberOfConcurrentThreads);
BOOL GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred, PULONG_PTR lpCompletionKey,
                               LPOVERLAPPED* lpOverlapped, DWORD dwMilliseconds);
BOOL PostQueuedCompletionStatus(HANDLE CompletionPort, DWORD dwNumberOfBytesTransferred, ULONG_PTR dwCompletionKey,
                                LPOVERLAPPED lpOverlapped);

// ---------------------------------------------------------------------------
// Memory and file mapping
// ---------------------------------------------------------------------------
constexpr DWORD MEM_COMMIT = 0x00001000;
constexpr DWORD MEM_RESERVE = 0x00002000;
constexpr DWORD MEM_DECOMMIT = 0x00004000;
constexpr DWORD MEM_RELEASE = 0x00008000;
constexpr DWORD PAGE_NOACCESS = 0x01;
constexpr DWORD PAGE_READONLY = 0x02;
constexpr DWORD PAGE_READWRITE = 0x04;
constexpr DWORD FILE_MAP_WRITE = 0x0002;
constexpr DWORD FILE_MAP_READ = 0x0004;
constexpr DWORD FILE_MAP_ALL_ACCESS = 0x000F001F;

LPVOID VirtualAlloc(LPVOID lpAddress, SIZE_T dwSize, DWORD flAllocationType, DWORD flProtect);
BOOL VirtualFree(LPVOID lpAddress, SIZE_T dwSize, DWORD dwFreeType);

HANDLE CreateFileMappingW(HANDLE hFile, LPSECURITY_ATTRIBUTES sa, DWORD flProtect, DWORD dwMaximumSizeHigh,
                          DWORD dwMaximumSizeLow, LPCWSTR lpName);
LPVOID MapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess, DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                     SIZE_T dwNumberOfBytesToMap);
BOOL FlushViewOfFile(LPCVOID lpBaseAddress, SIZE_T dwNumberOfBytesToFlush);
BOOL UnmapViewOfFile(LPCVOID lpBaseAddress);

struct SYSTEM_INFO {
    WORD wProcessorArchitecture;
    WORD wReserved;
    DWORD dwPageSize;
    LPVOID lpMinimumApplicationAddress;
    LPVOID lpMaximumApplicationAddress;
    DWORD_PTR dwActiveProcessorMask;
    DWORD dwNumberOfProcessors;
    DWORD dwProcessorType;
    DWORD dwAllocationGranularity;
    WORD wProcessorLevel;
    WORD wProcessorRevision;
};
void GetSystemInfo(SYSTEM_INFO* lpSystemInfo);

// ---------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------
struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};
void GetSystemTime(SYSTEMTIME* lpSystemTime);
void GetSystemTimeAsFileTime(LPFILETIME lpSystemTimeAsFileTime);
BOOL SystemTimeToFileTime(const SYSTEMTIME* lpSystemTime, LPFILETIME lpFileTime);
BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, SYSTEMTIME* lpSystemTime);
LONG CompareFileTime(const FILETIME* lpFileTime1, const FILETIME* lpFileTime2);
BOOL QueryPerformanceCounter(LARGE_INTEGER* lpPerformanceCount);
BOOL QueryPerformanceFrequency(LARGE_INTEGER* lpFrequency);
DWORD GetTickCount();
ULONGLONG GetTickCount64();
// Seconds since 1970, UTC.
int64_t _time64(int64_t* timer);

// ---------------------------------------------------------------------------
// Code pages: the system's narrow text is UTF-8 here, whatever the call asks.
// ---------------------------------------------------------------------------
constexpr UINT CP_ACP = 0;
constexpr UINT CP_UTF8 = 65001;
// With cchWideChar or cbMultiByte -1 the input ends at its zero, which is
// converted too. With an output size of 0 the result is the size needed.
// Characters that are no Unicode scalar value, and bytes that are no UTF-8,
// become U+FFFD.
int WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr,
                        int cbMultiByte, LPCSTR lpDefaultChar, BOOL* lpUsedDefaultChar);
int MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr,
                        int cchWideChar);

// ---------------------------------------------------------------------------
// Wide and narrow text helpers of the C runtime
// ---------------------------------------------------------------------------
wchar_t* _wcsdup(const wchar_t* s);
int _wcsicmp(const wchar_t* a, const wchar_t* b);
int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t n);
int _stricmp(const char* a, const char* b);
int _strnicmp(const char* a, const char* b, size_t n);
wchar_t* _wcsupr(wchar_t* s);
wchar_t* _wcslwr(wchar_t* s);
int _wtoi(const wchar_t* s);
int64_t _wtoi64(const wchar_t* s);
long _wtol(const wchar_t* s);
// Formatting is not here: the library's texts use the Windows conversions
// (%S, %I64d), which diag/Format.h understands.

// ---------------------------------------------------------------------------
// GUIDs
// ---------------------------------------------------------------------------
// The public header may have declared it first, in the same layout.
#ifndef GUID_DEFINED
#define GUID_DEFINED
typedef struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
} GUID;
#endif
using UUID = GUID;
using RPC_STATUS = long;
using RPC_WSTR = wchar_t*;
constexpr RPC_STATUS RPC_S_OK = 0;
constexpr RPC_STATUS RPC_S_INVALID_STRING_UUID = 1705;
constexpr RPC_STATUS RPC_S_UUID_LOCAL_ONLY = 1824;
inline bool operator==(const GUID& a, const GUID& b) {
    return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 &&
           __builtin_memcmp(a.Data4, b.Data4, 8) == 0;
}
inline constexpr GUID GUID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};

// A new GUID, ordered after those made before it in this process.
RPC_STATUS UuidCreateSequential(UUID* Uuid);
// Parses "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" (no braces); a null string
// gives the null GUID.
RPC_STATUS UuidFromStringW(RPC_WSTR StringUuid, UUID* Uuid);
RPC_STATUS UuidToStringW(const UUID* Uuid, RPC_WSTR* StringUuid);
RPC_STATUS RpcStringFreeW(RPC_WSTR* String);
