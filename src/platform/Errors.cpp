// Per-thread last error, the errno translation, system message texts and
// debugger output.
#include "platform/PathNames.h"
#include "platform/PosixErrors.h"
#include "platform/win32.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

thread_local DWORD t_lastError = ERROR_SUCCESS;

struct MessageText {
    DWORD code;
    const char* text;
};

// Texts as the system gives them for the codes this layer sets.
constexpr MessageText kMessages[] = {
    {ERROR_SUCCESS, "The operation completed successfully."},
    {ERROR_INVALID_FUNCTION, "Incorrect function."},
    {ERROR_FILE_NOT_FOUND, "The system cannot find the file specified."},
    {ERROR_PATH_NOT_FOUND, "The system cannot find the path specified."},
    {ERROR_TOO_MANY_OPEN_FILES, "The system cannot open the file."},
    {ERROR_ACCESS_DENIED, "Access is denied."},
    {ERROR_INVALID_HANDLE, "The handle is invalid."},
    {ERROR_NOT_ENOUGH_MEMORY, "Not enough memory resources are available to process this command."},
    {ERROR_OUTOFMEMORY, "Not enough memory resources are available to complete this operation."},
    {ERROR_NOT_SAME_DEVICE, "The system cannot move the file to a different disk drive."},
    {ERROR_NO_MORE_FILES, "There are no more files."},
    {ERROR_NOT_READY, "The device is not ready."},
    {ERROR_CRC, "Data error (cyclic redundancy check)."},
    {ERROR_SEEK, "The drive cannot locate a specific area or track on the disk."},
    {ERROR_WRITE_FAULT, "The system cannot write to the specified device."},
    {ERROR_READ_FAULT, "The system cannot read from the specified device."},
    {ERROR_GEN_FAILURE, "A device attached to the system is not functioning."},
    {ERROR_SHARING_VIOLATION, "The process cannot access the file because it is being used by another process."},
    {ERROR_LOCK_VIOLATION,
     "The process cannot access the file because another process has locked a portion of the file."},
    {ERROR_HANDLE_EOF, "Reached the end of the file."},
    {ERROR_HANDLE_DISK_FULL, "The disk is full."},
    {ERROR_NOT_SUPPORTED, "The request is not supported."},
    {ERROR_FILE_EXISTS, "The file exists."},
    {ERROR_INVALID_PARAMETER, "The parameter is incorrect."},
    {ERROR_BROKEN_PIPE, "The pipe has been ended."},
    {ERROR_DISK_FULL, "There is not enough space on the disk."},
    {ERROR_INSUFFICIENT_BUFFER, "The data area passed to a system call is too small."},
    {ERROR_INVALID_NAME, "The filename, directory name, or volume label syntax is incorrect."},
    {ERROR_NEGATIVE_SEEK, "An attempt was made to move the file pointer before the beginning of the file."},
    {ERROR_DIR_NOT_EMPTY, "The directory is not empty."},
    {ERROR_BAD_PATHNAME, "The specified path is invalid."},
    {ERROR_ALREADY_EXISTS, "Cannot create a file when that file already exists."},
    {ERROR_FILE_TOO_LARGE, "The file size exceeds the limit allowed and cannot be saved."},
    {ERROR_FILENAME_EXCED_RANGE, "The filename or extension is too long."},
    {ERROR_MORE_DATA, "More data is available."},
    {WAIT_TIMEOUT, "The wait operation timed out."},
    {ERROR_DIRECTORY, "The directory name is invalid."},
    {ERROR_NOT_OWNER, "Attempt to release mutex not owned by caller."},
    {ERROR_TOO_MANY_POSTS, "Too many posts were made to a semaphore."},
    {ERROR_ABANDONED_WAIT_0, "The wait was abandoned because the object was closed."},
    {ERROR_OPERATION_ABORTED,
     "The I/O operation has been aborted because of either a thread exit or an application request."},
    {ERROR_IO_INCOMPLETE, "Overlapped I/O event is not in a signaled state."},
    {ERROR_IO_PENDING, "Overlapped I/O operation is in progress."},
    {ERROR_NOACCESS, "Invalid access to memory location."},
    {ERROR_FILE_INVALID,
     "The volume for a file has been externally altered so that the opened file is no longer valid."},
    {ERROR_IO_DEVICE, "The request could not be performed because of an I/O device error."},
    {ERROR_MAPPED_ALIGNMENT, "The base address or the file offset specified does not have the proper alignment."},
    {ERROR_DEVICE_NOT_CONNECTED, "The device is not connected."},
    {ERROR_NOT_FOUND, "Element not found."},
    {ERROR_CONNECTION_INVALID, "An operation was attempted on a nonexistent network connection."},
    {ERROR_TIMEOUT, "This operation returned because the timeout period expired."},
    {ERROR_INVALID_ADDRESS, "Attempt to access invalid address."},
    {ERROR_INVALID_USER_BUFFER, "The supplied user buffer is not valid for the requested operation."},
};

const char* SystemMessage(DWORD code) {
    if ((code & 0xFFFF0000u) == 0x80070000u)  // HRESULT_FROM_WIN32
        code &= 0xFFFFu;
    for (const MessageText& message : kMessages)
        if (message.code == code)
            return message.text;
    return nullptr;
}

// Replaces %1 .. %9 by the string arguments (narrow for the A call, wide
// for the W call), %% by %, and %n by a line end; other text is copied.
template <class Char>
std::basic_string<Char> InsertArguments(const Char* source, va_list* arguments) {
    std::basic_string<Char> out;
    std::basic_string<Char> inserts[10];
    int fetched = 0;
    for (const Char* p = source; *p; ++p) {
        if (*p != '%' || p[1] == 0) {
            out += *p;
            continue;
        }
        Char next = *++p;
        if (next >= '1' && next <= '9') {
            int index = next - '0';
            while (fetched < index && arguments) {
                const Char* argument = va_arg(*arguments, const Char*);
                inserts[++fetched] = argument ? argument : std::basic_string<Char>();
            }
            out += inserts[index];
        } else if (next == 'n') {
            out += '\r';
            out += '\n';
        } else {
            out += next;
        }
    }
    return out;
}

template <class Char>
std::basic_string<Char> Widen(const char* text);

template <>
std::string Widen<char>(const char* text) {
    return text;
}

template <>
std::wstring Widen<wchar_t>(const char* text) {
    return zr::platform::Utf8ToWide(text);
}

template <class Char>
DWORD FormatMessageT(DWORD flags, LPCVOID source, DWORD messageId, Char* buffer, DWORD size, va_list* arguments) {
    std::basic_string<Char> text;
    if (flags & FORMAT_MESSAGE_FROM_STRING) {
        if (!source) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return 0;
        }
        const Char* format = static_cast<const Char*>(source);
        text = (flags & FORMAT_MESSAGE_IGNORE_INSERTS) ? std::basic_string<Char>(format)
                                                       : InsertArguments(format, arguments);
    } else if (flags & FORMAT_MESSAGE_FROM_SYSTEM) {
        const char* message = SystemMessage(messageId);
        if (!message) {
            SetLastError(ERROR_MR_MID_NOT_FOUND);
            return 0;
        }
        text = Widen<Char>(message);
        text += '\r';
        text += '\n';
    } else {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (!buffer) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) {
        size_t capacity = std::max<size_t>(size, text.size() + 1);
        auto* block = static_cast<Char*>(std::calloc(capacity, sizeof(Char)));
        if (!block) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return 0;
        }
        std::copy(text.begin(), text.end(), block);
        *reinterpret_cast<Char**>(buffer) = block;
    } else {
        if (text.size() + 1 > size) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        std::copy(text.begin(), text.end(), buffer);
        buffer[text.size()] = 0;
    }
    return static_cast<DWORD>(text.size());
}

bool DebugOutputEnabled() {
    const char* value = std::getenv("ZR_DEBUG_OUTPUT");
    return value && *value && std::strcmp(value, "0") != 0;
}

}  // namespace

namespace zr::platform {

DWORD Win32ErrorFromErrno(int error) {
    switch (error) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
    case ELOOP: return ERROR_PATH_NOT_FOUND;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENOMEM:
    case EAGAIN: return ERROR_NOT_ENOUGH_MEMORY;
    case EXDEV: return ERROR_NOT_SAME_DEVICE;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case ENOSPC:
    case EDQUOT: return ERROR_DISK_FULL;
    case EFBIG: return ERROR_FILE_TOO_LARGE;
    case EIO: return ERROR_IO_DEVICE;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case EEXIST: return ERROR_FILE_EXISTS;
    case EBUSY:
    case ETXTBSY: return ERROR_SHARING_VIOLATION;
    case EOPNOTSUPP:
    case ENOSYS:
    case ENOTTY: return ERROR_NOT_SUPPORTED;
    case ESPIPE: return ERROR_SEEK;
    case EPIPE: return ERROR_BROKEN_PIPE;
    case ETIMEDOUT: return ERROR_TIMEOUT;
    case EFAULT: return ERROR_NOACCESS;
    case ENXIO:
    case ENODEV:
    case ENOTCONN: return ERROR_DEVICE_NOT_CONNECTED;
    default: return ERROR_GEN_FAILURE;
    }
}

DWORD Win32ErrorFromErrnoForPath(int error, const std::string& path) {
    if (error != ENOENT)
        return Win32ErrorFromErrno(error);
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos || slash == 0)
        return ERROR_FILE_NOT_FOUND;
    struct stat folder {};
    bool folderExists = ::stat(path.substr(0, slash).c_str(), &folder) == 0 && S_ISDIR(folder.st_mode);
    return folderExists ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

int OpenCloexec(const std::string& path, int flags, unsigned mode) {
    return RetryOnEintr([&] { return ::open(path.c_str(), flags | O_CLOEXEC, static_cast<mode_t>(mode)); });
}

}  // namespace zr::platform

DWORD GetLastError() { return t_lastError; }

void SetLastError(DWORD dwError) { t_lastError = dwError; }

DWORD FormatMessageA(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD, LPSTR lpBuffer, DWORD nSize,
                     va_list* Arguments) {
    return FormatMessageT<char>(dwFlags, lpSource, dwMessageId, lpBuffer, nSize, Arguments);
}

DWORD FormatMessageW(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD, LPWSTR lpBuffer, DWORD nSize,
                     va_list* Arguments) {
    return FormatMessageT<wchar_t>(dwFlags, lpSource, dwMessageId, lpBuffer, nSize, Arguments);
}

HLOCAL LocalFree(HLOCAL hMem) {
    std::free(hMem);
    return nullptr;
}

void OutputDebugStringA(LPCSTR lpOutputString) {
    if (lpOutputString && DebugOutputEnabled())
        std::fputs(lpOutputString, stderr);
}

void OutputDebugStringW(LPCWSTR lpOutputString) {
    if (lpOutputString && DebugOutputEnabled())
        std::fputs(zr::platform::WideToUtf8(lpOutputString).c_str(), stderr);
}
