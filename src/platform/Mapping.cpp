// Virtual memory and file mapping on mmap.
//
// VirtualAlloc hands out whole mmap regions (page-aligned, zeroed); a
// reservation is PROT_NONE until committed. A mapping object keeps its file
// (or a memfd for mappings backed by no file) alive after the file handle
// is closed, and every view keeps its mapping alive, as on Windows.
#include "platform/FileObject.h"
#include "platform/PosixErrors.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>

namespace zr::platform {

namespace {

constexpr DWORD kAllocationGranularity = 65536;

size_t PageSize() {
    static const size_t size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

int ProtectionFor(DWORD protect) {
    switch (protect & 0xFF) {
    case PAGE_READONLY: return PROT_READ;
    case PAGE_READWRITE: return PROT_READ | PROT_WRITE;
    default: return PROT_NONE;
    }
}

// Regions of VirtualAlloc and views of MapViewOfFile, by start address, so
// that the release calls know their sizes.
template <class Value>
class RegionTable {
public:
    void Add(void* start, Value value) {
        std::lock_guard guard(m_lock);
        m_regions.emplace(start, std::move(value));
    }
    // The region that contains `address`: start and value; false if none.
    bool Find(const void* address, void*& start, Value& value) {
        std::lock_guard guard(m_lock);
        auto it = m_regions.upper_bound(const_cast<void*>(address));
        if (it == m_regions.begin())
            return false;
        --it;
        if (static_cast<const char*>(address) >= static_cast<char*>(it->first) + SizeOf(it->second))
            return false;
        start = it->first;
        value = it->second;
        return true;
    }
    bool Remove(const void* start, Value& value) {
        std::lock_guard guard(m_lock);
        auto it = m_regions.find(const_cast<void*>(start));
        if (it == m_regions.end())
            return false;
        value = std::move(it->second);
        m_regions.erase(it);
        return true;
    }

private:
    static size_t SizeOf(size_t size) { return size; }
    template <class V>
    static size_t SizeOf(const V& view) { return view.size; }
    std::mutex m_lock;
    std::map<void*, Value> m_regions;
};

class Mapping;

struct View {
    size_t size = 0;
    std::shared_ptr<Mapping> mapping;
};

RegionTable<size_t>& Allocations() {
    static auto* table = new RegionTable<size_t>;
    return *table;
}

RegionTable<View>& Views() {
    static auto* table = new RegionTable<View>;
    return *table;
}

class Mapping : public KernelObject {
public:
    static constexpr Type kType = Type::Mapping;
    Mapping(int fd, uint64_t size, bool writable) : KernelObject(kType), m_fd(fd), m_size(size), m_writable(writable) {}
    ~Mapping() override { ::close(m_fd); }
    int fd() const { return m_fd; }
    uint64_t size() const { return m_size; }
    bool writable() const { return m_writable; }

private:
    const int m_fd;  // our own duplicate
    const uint64_t m_size;
    const bool m_writable;
};

// A descriptor of our own for the mapping: a duplicate of the file's, or a
// memfd of `size` bytes when there is no file.
int MappingDescriptor(HANDLE hFile, uint64_t& size, bool writable) {
    if (hFile == INVALID_HANDLE_VALUE) {
        int fd = ::memfd_create("zr-mapping", MFD_CLOEXEC);
        if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) {
            SetLastError(Win32ErrorFromErrno(errno));
            if (fd >= 0)
                ::close(fd);
            return -1;
        }
        return fd;
    }
    auto file = LookupHandleAs<FileObject>(hFile);
    if (!file)
        return -1;
    struct stat st {};
    if (::fstat(file->fd(), &st) != 0)
        return FailFromErrno(-1);
    if (size == 0)
        size = static_cast<uint64_t>(st.st_size);
    if (size == 0) {
        SetLastError(ERROR_FILE_INVALID);
        return -1;
    }
    if (size > static_cast<uint64_t>(st.st_size) &&
        (!writable || RetryOnEintr([&] { return ::ftruncate(file->fd(), static_cast<off_t>(size)); }) != 0)) {
        SetLastError(writable ? Win32ErrorFromErrno(errno) : ERROR_NOT_ENOUGH_MEMORY);
        return -1;
    }
    int fd = ::fcntl(file->fd(), F_DUPFD_CLOEXEC, 0);
    return fd >= 0 ? fd : FailFromErrno(-1);
}

}  // namespace

}  // namespace zr::platform

using namespace zr::platform;

LPVOID VirtualAlloc(LPVOID lpAddress, SIZE_T dwSize, DWORD flAllocationType, DWORD flProtect) {
    if (dwSize == 0 || !(flAllocationType & (MEM_COMMIT | MEM_RESERVE))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    int protection = (flAllocationType & MEM_COMMIT) ? ProtectionFor(flProtect) : PROT_NONE;
    if (lpAddress) {  // commit within a reservation
        void* start = nullptr;
        size_t regionSize = 0;
        auto* page = reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(lpAddress) & ~(PageSize() - 1));
        if (!Allocations().Find(lpAddress, start, regionSize) ||
            page + dwSize > static_cast<char*>(start) + regionSize) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return nullptr;
        }
        if (::mprotect(page, dwSize + (static_cast<char*>(lpAddress) - page), protection) != 0)
            return FailFromErrno<LPVOID>(nullptr);
        return lpAddress;
    }
    size_t size = (dwSize + PageSize() - 1) & ~(PageSize() - 1);
    void* memory = ::mmap(nullptr, size, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    Allocations().Add(memory, size);
    return memory;
}

BOOL VirtualFree(LPVOID lpAddress, SIZE_T dwSize, DWORD dwFreeType) {
    size_t size = 0;
    if (dwFreeType == MEM_RELEASE) {
        if (dwSize != 0 || !Allocations().Remove(lpAddress, size)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        ::munmap(lpAddress, size);
        return TRUE;
    }
    void* start = nullptr;
    if (dwFreeType != MEM_DECOMMIT || !Allocations().Find(lpAddress, start, size)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    size_t length = dwSize ? dwSize : size;
    ::madvise(lpAddress, length, MADV_DONTNEED);  // a later commit sees zeros again
    ::mprotect(lpAddress, length, PROT_NONE);
    return TRUE;
}

HANDLE CreateFileMappingW(HANDLE hFile, LPSECURITY_ATTRIBUTES, DWORD flProtect, DWORD dwMaximumSizeHigh,
                          DWORD dwMaximumSizeLow, LPCWSTR) {
    uint64_t size = (static_cast<uint64_t>(dwMaximumSizeHigh) << 32) | dwMaximumSizeLow;
    bool writable = (flProtect & 0xFF) == PAGE_READWRITE;
    if (hFile == INVALID_HANDLE_VALUE && size == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    int fd = MappingDescriptor(hFile, size, writable);
    if (fd < 0)
        return nullptr;
    SetLastError(ERROR_SUCCESS);
    return RegisterHandle(std::make_shared<Mapping>(fd, size, writable));
}

LPVOID MapViewOfFile(HANDLE hFileMappingObject, DWORD dwDesiredAccess, DWORD dwFileOffsetHigh, DWORD dwFileOffsetLow,
                     SIZE_T dwNumberOfBytesToMap) {
    auto mapping = LookupHandleAs<Mapping>(hFileMappingObject);
    if (!mapping)
        return nullptr;
    uint64_t offset = (static_cast<uint64_t>(dwFileOffsetHigh) << 32) | dwFileOffsetLow;
    bool write = (dwDesiredAccess & FILE_MAP_WRITE) != 0;
    if (offset % kAllocationGranularity != 0) {
        SetLastError(ERROR_MAPPED_ALIGNMENT);
        return nullptr;
    }
    if (offset >= mapping->size() || dwNumberOfBytesToMap > mapping->size() - offset || (write && !mapping->writable())) {
        SetLastError(write && !mapping->writable() ? ERROR_ACCESS_DENIED : ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    size_t size = dwNumberOfBytesToMap ? dwNumberOfBytesToMap : static_cast<size_t>(mapping->size() - offset);
    void* view = ::mmap(nullptr, size, PROT_READ | (write ? PROT_WRITE : 0), MAP_SHARED, mapping->fd(),
                        static_cast<off_t>(offset));
    if (view == MAP_FAILED)
        return FailFromErrno<LPVOID>(nullptr);
    Views().Add(view, View{size, mapping});
    return view;
}

BOOL FlushViewOfFile(LPCVOID lpBaseAddress, SIZE_T dwNumberOfBytesToFlush) {
    void* start = nullptr;
    View view;
    if (!Views().Find(lpBaseAddress, start, view)) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return FALSE;
    }
    auto address = reinterpret_cast<uintptr_t>(lpBaseAddress);
    uintptr_t end = reinterpret_cast<uintptr_t>(start) + view.size;
    uintptr_t last = dwNumberOfBytesToFlush ? std::min<uintptr_t>(address + dwNumberOfBytesToFlush, end) : end;
    uintptr_t first = address & ~(PageSize() - 1);
    if (::msync(reinterpret_cast<void*>(first), last - first, MS_SYNC) != 0)
        return FailFromErrno(FALSE);
    return TRUE;
}

BOOL UnmapViewOfFile(LPCVOID lpBaseAddress) {
    View view;
    if (!Views().Remove(lpBaseAddress, view)) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return FALSE;
    }
    ::munmap(const_cast<void*>(lpBaseAddress), view.size);
    return TRUE;
}

void GetSystemInfo(SYSTEM_INFO* lpSystemInfo) {
    *lpSystemInfo = SYSTEM_INFO{};
#if defined(__aarch64__)
    lpSystemInfo->wProcessorArchitecture = 12;  // PROCESSOR_ARCHITECTURE_ARM64
#else
    lpSystemInfo->wProcessorArchitecture = 9;  // PROCESSOR_ARCHITECTURE_AMD64
#endif
    lpSystemInfo->dwPageSize = static_cast<DWORD>(PageSize());
    lpSystemInfo->lpMinimumApplicationAddress = reinterpret_cast<LPVOID>(0x10000);
    lpSystemInfo->lpMaximumApplicationAddress = reinterpret_cast<LPVOID>(0x7FFFFFFEFFFFull);
    long processors = ::sysconf(_SC_NPROCESSORS_ONLN);
    lpSystemInfo->dwNumberOfProcessors = processors > 0 ? static_cast<DWORD>(processors) : 1;
    lpSystemInfo->dwActiveProcessorMask =
        lpSystemInfo->dwNumberOfProcessors >= 64 ? ~DWORD_PTR(0) : (DWORD_PTR(1) << lpSystemInfo->dwNumberOfProcessors) - 1;
    lpSystemInfo->dwAllocationGranularity = kAllocationGranularity;
}
