// The thirteen file calls on POSIX, and the table that the public functions
// forward through.
//
// Choices where Windows leaves room or where the system differs (pinned by
// tests/platform/ReadFileTest.cpp):
// - ReadFile without OVERLAPPED reads at the file pointer and moves it; at
//   or past the end it returns TRUE with 0 bytes.
// - ReadFile/WriteFile with OVERLAPPED read at Offset/OffsetHigh and always
//   complete before returning. Internal receives the Win32 status (0 on
//   success), InternalHigh the bytes, hEvent is set, and on a handle
//   associated with a completion port a packet is queued (not when the low
//   bit of hEvent is set). On a FILE_FLAG_OVERLAPPED handle the call then
//   returns FALSE with ERROR_IO_PENDING, failures included, and
//   GetOverlappedResult gives the outcome; on a synchronous handle it
//   returns the outcome directly and queues nothing.
// - A positioned read that starts at or past the end of the file fails with
//   ERROR_HANDLE_EOF; one that starts before it returns the bytes there.
// - Share modes are kept per device and inode within this process only.
// - FILE_FLAG_NO_BUFFERING asks for O_DIRECT and silently stays buffered
//   where the file system refuses it (tmpfs).
#include "platform/FileCalls.h"
#include "platform/FileObject.h"
#include "platform/PathNames.h"
#include "platform/PosixErrors.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <vector>

namespace zr::platform {

namespace {

// Access bits of an open, with the values of the FILE_SHARE_* bits that
// permit them, so that a conflict is a simple mask test.
constexpr DWORD kAccessRead = FILE_SHARE_READ;
constexpr DWORD kAccessWrite = FILE_SHARE_WRITE;
constexpr DWORD kAccessDelete = FILE_SHARE_DELETE;

DWORD AccessBits(DWORD access, DWORD flags) {
    DWORD bits = 0;
    if (access & (GENERIC_READ | FILE_READ_DATA | GENERIC_ALL))
        bits |= kAccessRead;
    if (access & (GENERIC_WRITE | FILE_WRITE_DATA | FILE_APPEND_DATA | GENERIC_ALL))
        bits |= kAccessWrite;
    if ((access & (DELETE | GENERIC_ALL)) || (flags & FILE_FLAG_DELETE_ON_CLOSE))
        bits |= kAccessDelete;
    return bits;
}

// The opens of this process, by file, for the share-mode emulation.
class ShareTable {
public:
    struct Key {
        dev_t dev;
        ino_t ino;
        bool operator<(const Key& other) const {
            return dev != other.dev ? dev < other.dev : ino < other.ino;
        }
    };

    std::mutex& lock() { return m_lock; }

    // Whether an open with `access` and `share` may join those standing.
    // Caller holds lock().
    bool Admits(const Key& key, DWORD access, DWORD share) const {
        auto it = m_files.find(key);
        if (it == m_files.end())
            return true;
        for (const Open& open : it->second.opens)
            if ((access & ~open.share) || (open.access & ~share))
                return false;
        return true;
    }

    // Caller holds lock().
    void Add(const Key& key, const void* owner, DWORD access, DWORD share, const std::string& deletePath) {
        File& file = m_files[key];
        file.opens.push_back({owner, access, share});
        if (!deletePath.empty())
            file.deleteOnClose = deletePath;
    }

    // Takes one open out; the last open of a file marked for deletion
    // deletes it.
    void Remove(const Key& key, const void* owner) {
        std::lock_guard guard(m_lock);
        auto it = m_files.find(key);
        if (it == m_files.end())
            return;
        auto& opens = it->second.opens;
        opens.erase(std::remove_if(opens.begin(), opens.end(), [&](const Open& o) { return o.owner == owner; }),
                    opens.end());
        if (!opens.empty())
            return;
        if (!it->second.deleteOnClose.empty())
            ::unlink(it->second.deleteOnClose.c_str());
        m_files.erase(it);
    }

private:
    struct Open {
        const void* owner;
        DWORD access;
        DWORD share;
    };
    struct File {
        std::vector<Open> opens;
        std::string deleteOnClose;
    };
    std::mutex m_lock;
    std::map<Key, File> m_files;
};

ShareTable& Shares() {
    static ShareTable* table = new ShareTable;  // file handles may outlive static destructors
    return *table;
}

ShareTable::Key KeyOf(const struct stat& st) { return {st.st_dev, st.st_ino}; }

std::shared_ptr<FileObject> LookupFile(HANDLE handle) { return LookupHandleAs<FileObject>(handle); }

// The common end of ReadFile, WriteFile and DeviceIoControl (see the top of
// the file for the rules).
BOOL FinishIo(FileObject& file, OVERLAPPED* overlapped, DWORD error, DWORD bytes, LPDWORD transferred) {
    if (transferred)
        *transferred = bytes;
    if (overlapped && file.IsOverlapped()) {
        CompleteOverlapped(file, overlapped, error, bytes);
        SetLastError(ERROR_IO_PENDING);
        return FALSE;
    }
    if (overlapped)
        StoreOverlappedResult(overlapped, error, bytes);
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return FALSE;
    }
    return TRUE;
}

int64_t OffsetOf(const OVERLAPPED* overlapped) {
    return static_cast<int64_t>((static_cast<uint64_t>(overlapped->OffsetHigh) << 32) | overlapped->Offset);
}

// Moves up to `size` bytes between the file and `buffer`, at `offset` or at
// the file pointer when offset is negative, until all are moved or the file
// ends. Returns the Win32 status.
DWORD Transfer(bool write, int fd, void* buffer, DWORD size, int64_t offset, DWORD& done) {
    done = 0;
    auto* bytes = static_cast<char*>(buffer);
    while (done < size) {
        size_t want = size - done;
        ssize_t moved = RetryOnEintr([&]() -> ssize_t {
            if (offset >= 0)
                return write ? ::pwrite(fd, bytes + done, want, offset + done) : ::pread(fd, bytes + done, want, offset + done);
            return write ? ::write(fd, bytes + done, want) : ::read(fd, bytes + done, want);
        });
        if (moved < 0)
            return Win32ErrorFromErrno(errno);
        if (moved == 0)
            return write ? ERROR_WRITE_FAULT : ERROR_SUCCESS;
        done += static_cast<DWORD>(moved);
    }
    return ERROR_SUCCESS;
}

int OpenFlagsFor(DWORD accessBits, DWORD disposition) {
    bool truncates = disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING;
    bool writes = (accessBits & kAccessWrite) || truncates;
    bool reads = (accessBits & kAccessRead) != 0;
    return writes ? (reads || truncates ? O_RDWR : O_WRONLY) : O_RDONLY;
}

// Opens `path` as the disposition says; `existed` tells whether the file
// was there before. Returns the descriptor or -1 with the Win32 error set.
int OpenForDisposition(const std::string& path, int mode, DWORD disposition, bool& existed) {
    existed = true;
    int fd = -1;
    if (disposition == CREATE_NEW || disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS) {
        fd = OpenCloexec(path, mode | O_CREAT | O_EXCL);
        if (fd >= 0)
            existed = false;
        else if (errno == EEXIST && disposition == CREATE_NEW) {
            SetLastError(ERROR_FILE_EXISTS);
            return -1;
        }
    }
    if (fd < 0 && (existed || errno == EEXIST))
        fd = OpenCloexec(path, mode);
    if (fd < 0)
        SetLastError(Win32ErrorFromErrnoForPath(errno, path));
    return fd;
}

// Switches a descriptor to O_DIRECT where the file system allows it.
void TryDirectIo(int fd) {
    int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0)
        ::fcntl(fd, F_SETFL, flags | O_DIRECT);  // refused on tmpfs: stay buffered
}

HANDLE PosixCreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode, LPSECURITY_ATTRIBUTES,
                        DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes, HANDLE) {
    std::string path = SystemPath(lpFileName);
    if (path.empty()) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (dwCreationDisposition < CREATE_NEW || dwCreationDisposition > TRUNCATE_EXISTING) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    DWORD accessBits = AccessBits(dwDesiredAccess, dwFlagsAndAttributes);
    ShareTable& shares = Shares();
    std::lock_guard guard(shares.lock());
    bool existed = false;
    int fd = OpenForDisposition(path, OpenFlagsFor(accessBits, dwCreationDisposition), dwCreationDisposition,
                                existed);
    if (fd < 0) {
        if (errno == EISDIR)
            SetLastError(ERROR_ACCESS_DENIED);  // a folder opened for writing
        return INVALID_HANDLE_VALUE;
    }
    struct stat st {};
    DWORD error = ERROR_SUCCESS;
    if (::fstat(fd, &st) != 0)
        error = Win32ErrorFromErrno(errno);
    else if (S_ISDIR(st.st_mode) && !(dwFlagsAndAttributes & FILE_FLAG_BACKUP_SEMANTICS))
        error = ERROR_ACCESS_DENIED;
    else if (!shares.Admits(KeyOf(st), accessBits, dwShareMode & (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)))
        error = ERROR_SHARING_VIOLATION;
    else if (existed && (dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == TRUNCATE_EXISTING) &&
             RetryOnEintr([&] { return ::ftruncate(fd, 0); }) != 0)
        error = Win32ErrorFromErrno(errno);
    if (error != ERROR_SUCCESS) {
        ::close(fd);
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    if (dwFlagsAndAttributes & FILE_FLAG_NO_BUFFERING)
        TryDirectIo(fd);
    auto file = std::make_shared<FileObject>(fd, path, dwDesiredAccess, dwFlagsAndAttributes);
    shares.Add(KeyOf(st), file.get(), accessBits, dwShareMode,
               (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) ? path : std::string());
    HANDLE handle = RegisterHandle(std::move(file));
    bool reportsExisting = existed && (dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == OPEN_ALWAYS);
    SetLastError(reportsExisting ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

BOOL ReadOrWrite(bool write, HANDLE hFile, void* buffer, DWORD size, LPDWORD transferred, LPOVERLAPPED overlapped) {
    std::shared_ptr<FileObject> file = LookupFile(hFile);
    if (!file)
        return FALSE;
    if ((write && !file->CanWrite()) || (!write && !file->CanRead())) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (!overlapped && file->IsOverlapped()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (size > 0 && !buffer) {
        SetLastError(ERROR_INVALID_USER_BUFFER);
        return FALSE;
    }
    if (overlapped)
        overlapped->Internal = kStatusPending;
    DWORD done = 0;
    DWORD error = Transfer(write, file->fd(), buffer, size, overlapped ? OffsetOf(overlapped) : -1, done);
    if (!write && overlapped && error == ERROR_SUCCESS && size > 0 && done == 0)
        error = ERROR_HANDLE_EOF;
    return FinishIo(*file, overlapped, error, done, transferred);
}

BOOL PosixReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
                   LPOVERLAPPED lpOverlapped) {
    return ReadOrWrite(false, hFile, lpBuffer, nNumberOfBytesToRead, lpNumberOfBytesRead, lpOverlapped);
}

BOOL PosixWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, LPDWORD lpNumberOfBytesWritten,
                    LPOVERLAPPED lpOverlapped) {
    return ReadOrWrite(true, hFile, const_cast<void*>(lpBuffer), nNumberOfBytesToWrite, lpNumberOfBytesWritten,
                       lpOverlapped);
}

DWORD PosixGetFileAttributesW(LPCWSTR lpFileName) {
    std::string path = SystemPath(lpFileName);
    struct stat st {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) {
        SetLastError(path.empty() ? ERROR_PATH_NOT_FOUND : Win32ErrorFromErrnoForPath(errno, path));
        return INVALID_FILE_ATTRIBUTES;
    }
    DWORD attributes = S_ISDIR(st.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : 0;
    if ((st.st_mode & 0222) == 0)
        attributes |= FILE_ATTRIBUTE_READONLY;
    return attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
}

bool SizeOf(FileObject& file, int64_t& size) {
    struct stat st {};
    if (::fstat(file.fd(), &st) != 0)
        return FailFromErrno(false);
    size = st.st_size;
    return true;
}

DWORD PosixGetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    std::shared_ptr<FileObject> file = LookupFile(hFile);
    int64_t size = 0;
    if (!file || !SizeOf(*file, size))
        return INVALID_FILE_SIZE;
    if (lpFileSizeHigh)
        *lpFileSizeHigh = static_cast<DWORD>(static_cast<uint64_t>(size) >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(size);
}

BOOL PosixGetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                              BOOL bWait) {
    if (!LookupHandle(hFile))
        return FALSE;
    if (!lpOverlapped) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // I/O of this layer completes before it returns; only an I/O of the
    // filter-port stand-in can still be in flight here.
    while (__atomic_load_n(&lpOverlapped->Internal, __ATOMIC_ACQUIRE) == kStatusPending) {
        if (!bWait) {
            SetLastError(ERROR_IO_INCOMPLETE);
            return FALSE;
        }
        ::usleep(1000);
    }
    if (lpNumberOfBytesTransferred)
        *lpNumberOfBytesTransferred = static_cast<DWORD>(lpOverlapped->InternalHigh);
    DWORD status = static_cast<DWORD>(lpOverlapped->Internal);
    if (status != ERROR_SUCCESS) {
        SetLastError(status);
        return FALSE;
    }
    return TRUE;
}

BOOL PosixFlushFileBuffers(HANDLE hFile) {
    std::shared_ptr<FileObject> file = LookupFile(hFile);
    if (!file)
        return FALSE;
    if (RetryOnEintr([&] { return ::fsync(file->fd()); }) != 0)
        return FailFromErrno(FALSE);
    return TRUE;
}

BOOL PosixSetEndOfFile(HANDLE hFile) {
    std::shared_ptr<FileObject> file = LookupFile(hFile);
    if (!file)
        return FALSE;
    if (!file->CanWrite()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    off_t position = ::lseek(file->fd(), 0, SEEK_CUR);
    if (position < 0 || RetryOnEintr([&] { return ::ftruncate(file->fd(), position); }) != 0)
        return FailFromErrno(FALSE);
    return TRUE;
}

DWORD PosixSetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh, DWORD dwMoveMethod) {
    std::shared_ptr<FileObject> file = LookupFile(hFile);
    if (!file)
        return INVALID_SET_FILE_POINTER;
    int64_t distance = lpDistanceToMoveHigh
                           ? static_cast<int64_t>((static_cast<uint64_t>(static_cast<DWORD>(*lpDistanceToMoveHigh)) << 32) |
                                                  static_cast<DWORD>(lDistanceToMove))
                           : lDistanceToMove;
    int64_t base = 0;
    if (dwMoveMethod == FILE_CURRENT)
        base = ::lseek(file->fd(), 0, SEEK_CUR);
    else if (dwMoveMethod == FILE_END && !SizeOf(*file, base))
        return INVALID_SET_FILE_POINTER;
    else if (dwMoveMethod > FILE_END) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    if (base + distance < 0) {
        SetLastError(ERROR_NEGATIVE_SEEK);
        return INVALID_SET_FILE_POINTER;
    }
    off_t position = ::lseek(file->fd(), base + distance, SEEK_SET);
    if (position < 0)
        return FailFromErrno(INVALID_SET_FILE_POINTER);
    if (lpDistanceToMoveHigh)
        *lpDistanceToMoveHigh = static_cast<LONG>(static_cast<uint64_t>(position) >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(position);
}

BOOL PosixCloseHandle(HANDLE hObject) { return UnregisterHandle(hObject) ? TRUE : FALSE; }

BOOL PosixDeleteFileW(LPCWSTR lpFileName) {
    std::string path = SystemPath(lpFileName);
    ShareTable& shares = Shares();
    std::lock_guard guard(shares.lock());
    struct stat st {};
    if (path.empty() || ::lstat(path.c_str(), &st) != 0) {
        SetLastError(path.empty() ? ERROR_PATH_NOT_FOUND : Win32ErrorFromErrnoForPath(errno, path));
        return FALSE;
    }
    if (S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (!shares.Admits(KeyOf(st), kAccessDelete, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)) {
        SetLastError(ERROR_SHARING_VIOLATION);
        return FALSE;
    }
    if (::unlink(path.c_str()) != 0) {
        SetLastError(Win32ErrorFromErrnoForPath(errno, path));
        return FALSE;
    }
    return TRUE;
}

// FSCTL_SET_ZERO_DATA: frees the range where the file system can punch
// holes, else writes zeros over it. The size of the file does not change.
DWORD ZeroRange(FileObject& file, const FILE_ZERO_DATA_INFORMATION& range) {
    int64_t from = range.FileOffset.QuadPart;
    int64_t size = 0;
    if (!SizeOf(file, size))
        return GetLastError();
    int64_t to = std::min<int64_t>(range.BeyondFinalZero.QuadPart, size);
    if (from < 0 || range.BeyondFinalZero.QuadPart < from)
        return ERROR_INVALID_PARAMETER;
    if (to <= from)
        return ERROR_SUCCESS;
    if (RetryOnEintr([&] { return ::fallocate(file.fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, from, to - from); }) == 0)
        return ERROR_SUCCESS;
    if (errno != EOPNOTSUPP)
        return Win32ErrorFromErrno(errno);
    std::vector<char> zeros(std::min<int64_t>(to - from, 1 << 20));
    for (int64_t at = from; at < to;) {
        DWORD done = 0;
        DWORD chunk = static_cast<DWORD>(std::min<int64_t>(to - at, static_cast<int64_t>(zeros.size())));
        if (DWORD error = Transfer(true, file.fd(), zeros.data(), chunk, at, done); error != ERROR_SUCCESS)
            return error;
        at += done;
    }
    return ERROR_SUCCESS;
}

// FSCTL_QUERY_ALLOCATED_RANGES: the data ranges within the queried range,
// as far as the output holds them (ERROR_MORE_DATA when it is too short).
DWORD AllocatedRanges(FileObject& file, const FILE_ALLOCATED_RANGE_BUFFER& query, FILE_ALLOCATED_RANGE_BUFFER* out,
                      DWORD outSize, DWORD& bytes) {
    bytes = 0;
    int64_t size = 0;
    if (!SizeOf(file, size))
        return GetLastError();
    if (query.FileOffset.QuadPart < 0 || query.Length.QuadPart < 0)
        return ERROR_INVALID_PARAMETER;
    if (outSize < sizeof(FILE_ALLOCATED_RANGE_BUFFER))
        return ERROR_INSUFFICIENT_BUFFER;
    size_t capacity = outSize / sizeof(FILE_ALLOCATED_RANGE_BUFFER);
    size_t count = 0;
    int64_t end = std::min<int64_t>(size, query.FileOffset.QuadPart + query.Length.QuadPart);
    for (int64_t at = query.FileOffset.QuadPart; at < end;) {
        off_t data = ::lseek(file.fd(), at, SEEK_DATA);
        if (data < 0 || data >= end)
            break;  // ENXIO: no data after `at`
        off_t hole = ::lseek(file.fd(), data, SEEK_HOLE);
        int64_t stop = std::min<int64_t>(hole < 0 ? end : hole, end);
        if (count == capacity)
            return bytes = static_cast<DWORD>(count * sizeof(*out)), ERROR_MORE_DATA;
        out[count].FileOffset.QuadPart = data;
        out[count].Length.QuadPart = stop - data;
        ++count;
        at = stop;
    }
    bytes = static_cast<DWORD>(count * sizeof(*out));
    return ERROR_SUCCESS;
}

BOOL PosixDeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize,
                          LPVOID lpOutBuffer, DWORD nOutBufferSize, LPDWORD lpBytesReturned,
                          LPOVERLAPPED lpOverlapped) {
    std::shared_ptr<FileObject> file = LookupFile(hDevice);
    if (!file)
        return FALSE;
    DWORD error = ERROR_SUCCESS;
    DWORD bytes = 0;
    switch (dwIoControlCode) {
    case FSCTL_SET_SPARSE:
        break;  // every Linux file system that matters here is sparse already
    case FSCTL_SET_ZERO_DATA:
        error = !lpInBuffer || nInBufferSize < sizeof(FILE_ZERO_DATA_INFORMATION) ? ERROR_INVALID_PARAMETER
              : !file->CanWrite()                                                 ? ERROR_ACCESS_DENIED
                      : ZeroRange(*file, *static_cast<FILE_ZERO_DATA_INFORMATION*>(lpInBuffer));
        break;
    case FSCTL_QUERY_ALLOCATED_RANGES:
        error = !lpInBuffer || nInBufferSize < sizeof(FILE_ALLOCATED_RANGE_BUFFER) || !lpOutBuffer
                    ? ERROR_INVALID_PARAMETER
                    : AllocatedRanges(*file, *static_cast<FILE_ALLOCATED_RANGE_BUFFER*>(lpInBuffer),
                                      static_cast<FILE_ALLOCATED_RANGE_BUFFER*>(lpOutBuffer), nOutBufferSize, bytes);
        break;
    default:
        error = ERROR_INVALID_FUNCTION;
        break;
    }
    return FinishIo(*file, lpOverlapped, error, bytes, lpBytesReturned);
}

bool IsNetworkFileSystem(decltype(statfs::f_type) type) {
    constexpr decltype(type) kNetwork[] = {NFS_SUPER_MAGIC, SMB_SUPER_MAGIC, static_cast<decltype(type)>(0xFF534D42),
                                           static_cast<decltype(type)>(0xFE534D42), CODA_SUPER_MAGIC,
                                           static_cast<decltype(type)>(0x5346414F), V9FS_MAGIC,
                                           static_cast<decltype(type)>(0x00C36400)};
    return std::find(std::begin(kNetwork), std::end(kNetwork), type) != std::end(kNetwork);
}

UINT PosixGetDriveTypeW(LPCWSTR lpRootPathName) {
    std::string path = lpRootPathName ? SystemPath(lpRootPathName) : std::string(".");
    struct stat st {};
    struct statfs fs {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || ::statfs(path.c_str(), &fs) != 0)
        return DRIVE_NO_ROOT_DIR;
    return IsNetworkFileSystem(fs.f_type) ? DRIVE_REMOTE : DRIVE_FIXED;
}

}  // namespace

FileObject::FileObject(int fd, std::string path, DWORD access, DWORD flags)
    : KernelObject(kType), m_fd(fd), m_path(std::move(path)), m_access(access), m_flags(flags) {}

FileObject::~FileObject() {
    struct stat st {};
    bool known = ::fstat(m_fd, &st) == 0;
    ::close(m_fd);
    if (known)
        Shares().Remove(KeyOf(st), this);
}

bool FileObject::CanRead() const { return (AccessBits(m_access, 0) & kAccessRead) != 0; }
bool FileObject::CanWrite() const { return (AccessBits(m_access, 0) & kAccessWrite) != 0; }

}  // namespace zr::platform

using namespace zr::platform;

const FileCalls g_DefaultFileCalls = {
    PosixCreateFileW,  PosixReadFile,         PosixWriteFile,      PosixGetFileAttributesW, PosixGetFileSize,
    PosixGetOverlappedResult, PosixFlushFileBuffers, PosixSetEndOfFile, PosixSetFilePointer, PosixCloseHandle,
    PosixDeleteFileW,  PosixDeviceIoControl,  PosixGetDriveTypeW,
};

FileCalls g_FileCalls = g_DefaultFileCalls;

HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode, LPSECURITY_ATTRIBUTES sa,
                   DWORD dwCreationDisposition, DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
    return g_FileCalls.CreateFileW(lpFileName, dwDesiredAccess, dwShareMode, sa, dwCreationDisposition,
                                   dwFlagsAndAttributes, hTemplateFile);
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
              LPOVERLAPPED lpOverlapped) {
    return g_FileCalls.ReadFile(hFile, lpBuffer, nNumberOfBytesToRead, lpNumberOfBytesRead, lpOverlapped);
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, LPDWORD lpNumberOfBytesWritten,
               LPOVERLAPPED lpOverlapped) {
    return g_FileCalls.WriteFile(hFile, lpBuffer, nNumberOfBytesToWrite, lpNumberOfBytesWritten, lpOverlapped);
}

DWORD GetFileAttributesW(LPCWSTR lpFileName) { return g_FileCalls.GetFileAttributesW(lpFileName); }

DWORD GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) { return g_FileCalls.GetFileSize(hFile, lpFileSizeHigh); }

BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred, BOOL bWait) {
    return g_FileCalls.GetOverlappedResult(hFile, lpOverlapped, lpNumberOfBytesTransferred, bWait);
}

BOOL FlushFileBuffers(HANDLE hFile) { return g_FileCalls.FlushFileBuffers(hFile); }

BOOL SetEndOfFile(HANDLE hFile) { return g_FileCalls.SetEndOfFile(hFile); }

DWORD SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh, DWORD dwMoveMethod) {
    return g_FileCalls.SetFilePointer(hFile, lDistanceToMove, lpDistanceToMoveHigh, dwMoveMethod);
}

BOOL CloseHandle(HANDLE hObject) { return g_FileCalls.CloseHandle(hObject); }

BOOL DeleteFileW(LPCWSTR lpFileName) { return g_FileCalls.DeleteFileW(lpFileName); }

BOOL DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize, LPVOID lpOutBuffer,
                     DWORD nOutBufferSize, LPDWORD lpBytesReturned, LPOVERLAPPED lpOverlapped) {
    return g_FileCalls.DeviceIoControl(hDevice, dwIoControlCode, lpInBuffer, nInBufferSize, lpOutBuffer,
                                       nOutBufferSize, lpBytesReturned, lpOverlapped);
}

UINT GetDriveTypeW(LPCWSTR lpRootPathName) { return g_FileCalls.GetDriveTypeW(lpRootPathName); }

BOOL GetFileSizeEx(HANDLE hFile, LARGE_INTEGER* lpFileSize) {
    std::shared_ptr<FileObject> file = LookupHandleAs<FileObject>(hFile);
    int64_t size = 0;
    if (!file || !lpFileSize || !SizeOf(*file, size))
        return FALSE;
    lpFileSize->QuadPart = size;
    return TRUE;
}
