// Folders, renames, disk space and the FindFirstFileW enumeration.
//
// FindFirstFileW reads the whole folder at once: the entries whose names
// match the last component of the pattern ('*' any run, '?' one character,
// case ignored as on Windows; "*.*" is "*"), "." and ".." included, in
// order of name. Later changes to the folder are not seen.
#include "platform/KernelObject.h"
#include "platform/PathNames.h"
#include "platform/PosixErrors.h"
#include "platform/UnixTime.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cwctype>
#include <vector>

namespace zr::platform {

namespace {

class FindObject : public KernelObject {
public:
    static constexpr Type kType = Type::Find;
    FindObject() : KernelObject(kType) {}
    std::vector<WIN32_FIND_DATAW> entries;
    size_t next = 0;
};

bool Matches(const wchar_t* mask, const wchar_t* name) {
    if (*mask == 0)
        return *name == 0;
    if (*mask == L'*')
        return Matches(mask + 1, name) || (*name && Matches(mask, name + 1));
    if (*name == 0)
        return false;
    bool same = *mask == L'?' || std::towlower(static_cast<wint_t>(*mask)) == std::towlower(static_cast<wint_t>(*name));
    return same && Matches(mask + 1, name + 1);
}

WIN32_FIND_DATAW FindDataOf(const std::string& name, const struct stat& st) {
    WIN32_FIND_DATAW data{};
    data.dwFileAttributes = S_ISDIR(st.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
    if ((st.st_mode & 0222) == 0)
        data.dwFileAttributes |= FILE_ATTRIBUTE_READONLY;
    data.ftCreationTime = FileTimeFromUnix(st.st_ctim.tv_sec, st.st_ctim.tv_nsec);
    data.ftLastAccessTime = FileTimeFromUnix(st.st_atim.tv_sec, st.st_atim.tv_nsec);
    data.ftLastWriteTime = FileTimeFromUnix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    uint64_t size = S_ISDIR(st.st_mode) ? 0 : static_cast<uint64_t>(st.st_size);
    data.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(size);
    std::wstring wide = Utf8ToWide(name);
    wide.resize(std::min(wide.size(), MAX_PATH - 1));
    std::copy(wide.begin(), wide.end(), data.cFileName);
    return data;
}

// The matching entries of `folder`, sorted by name; false with the Win32
// error set when the folder cannot be read.
bool ReadMatches(const std::string& folder, const std::wstring& mask, std::vector<WIN32_FIND_DATAW>& out) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) {
        DWORD error = Win32ErrorFromErrnoForPath(errno, folder);
        SetLastError(error == ERROR_FILE_NOT_FOUND ? ERROR_PATH_NOT_FOUND : error);
        return false;
    }
    while (dirent* entry = ::readdir(dir)) {
        struct stat st {};
        if (!Matches(mask.c_str(), Utf8ToWide(entry->d_name).c_str()) ||
            ::fstatat(::dirfd(dir), entry->d_name, &st, 0) != 0)
            continue;
        out.push_back(FindDataOf(entry->d_name, st));
    }
    ::closedir(dir);
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return std::wcscmp(a.cFileName, b.cFileName) < 0; });
    return true;
}

BOOL NextEntry(FindObject& find, WIN32_FIND_DATAW* data) {
    if (find.next >= find.entries.size()) {
        SetLastError(ERROR_NO_MORE_FILES);
        return FALSE;
    }
    *data = find.entries[find.next++];
    return TRUE;
}

// Clusters of a volume in DWORDs: the cluster grows while the counts
// would not fit.
void ClusterCounts(const struct statvfs& fs, DWORD& sectorsPerCluster, DWORD& freeClusters, DWORD& totalClusters) {
    uint64_t cluster = std::max<uint64_t>(fs.f_frsize, 512);
    uint64_t free = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize / cluster;
    uint64_t total = static_cast<uint64_t>(fs.f_blocks) * fs.f_frsize / cluster;
    while (total > 0xFFFFFFFFull) {
        cluster *= 2;
        free /= 2;
        total /= 2;
    }
    sectorsPerCluster = static_cast<DWORD>(cluster / 512);
    freeClusters = static_cast<DWORD>(free);
    totalClusters = static_cast<DWORD>(total);
}

}  // namespace

}  // namespace zr::platform

using namespace zr::platform;

BOOL CreateDirectoryW(LPCWSTR lpPathName, LPSECURITY_ATTRIBUTES) {
    std::string path = SystemPath(lpPathName);
    if (::mkdir(path.c_str(), 0755) == 0)
        return TRUE;
    SetLastError(errno == EEXIST ? ERROR_ALREADY_EXISTS : Win32ErrorFromErrnoForPath(errno, path));
    return FALSE;
}

BOOL RemoveDirectoryW(LPCWSTR lpPathName) {
    std::string path = SystemPath(lpPathName);
    if (::rmdir(path.c_str()) == 0)
        return TRUE;
    SetLastError(errno == ENOTDIR ? ERROR_DIRECTORY : Win32ErrorFromErrnoForPath(errno, path));
    return FALSE;
}

// Fails when the target exists, as MoveFileW does.
BOOL MoveFileW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName) {
    std::string from = SystemPath(lpExistingFileName), to = SystemPath(lpNewFileName);
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return TRUE;
    if (errno == EINVAL) {  // a file system without RENAME_NOREPLACE
        struct stat st {};
        if (::lstat(to.c_str(), &st) == 0)
            errno = EEXIST;
        else if (::rename(from.c_str(), to.c_str()) == 0)
            return TRUE;
    }
    SetLastError(errno == EEXIST ? ERROR_ALREADY_EXISTS : Win32ErrorFromErrnoForPath(errno, from));
    return FALSE;
}

BOOL GetDiskFreeSpaceW(LPCWSTR lpRootPathName, LPDWORD lpSectorsPerCluster, LPDWORD lpBytesPerSector,
                       LPDWORD lpNumberOfFreeClusters, LPDWORD lpTotalNumberOfClusters) {
    std::string path = lpRootPathName ? SystemPath(lpRootPathName) : std::string(".");
    struct statvfs fs {};
    if (::statvfs(path.c_str(), &fs) != 0) {
        SetLastError(Win32ErrorFromErrnoForPath(errno, path));
        return FALSE;
    }
    DWORD sectors = 0, freeClusters = 0, totalClusters = 0;
    ClusterCounts(fs, sectors, freeClusters, totalClusters);
    if (lpSectorsPerCluster)
        *lpSectorsPerCluster = sectors;
    if (lpBytesPerSector)
        *lpBytesPerSector = 512;
    if (lpNumberOfFreeClusters)
        *lpNumberOfFreeClusters = freeClusters;
    if (lpTotalNumberOfClusters)
        *lpTotalNumberOfClusters = totalClusters;
    return TRUE;
}

HANDLE FindFirstFileW(LPCWSTR lpFileName, WIN32_FIND_DATAW* lpFindFileData) {
    std::string pattern = SystemPath(lpFileName);
    if (pattern.empty() || pattern.back() == '/' || !lpFindFileData) {
        SetLastError(pattern.empty() || !lpFindFileData ? ERROR_INVALID_PARAMETER : ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    size_t slash = pattern.find_last_of('/');
    std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : pattern.substr(0, slash);
    std::wstring mask = Utf8ToWide(slash == std::string::npos ? pattern : pattern.substr(slash + 1));
    if (mask == L"*.*")
        mask = L"*";
    auto find = std::make_shared<FindObject>();
    if (!ReadMatches(folder, mask, find->entries))
        return INVALID_HANDLE_VALUE;
    if (find->entries.empty()) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    NextEntry(*find, lpFindFileData);
    SetLastError(ERROR_SUCCESS);
    return RegisterHandle(std::move(find));
}

BOOL FindNextFileW(HANDLE hFindFile, WIN32_FIND_DATAW* lpFindFileData) {
    auto find = LookupHandleAs<FindObject>(hFindFile);
    return find ? NextEntry(*find, lpFindFileData) : FALSE;
}

BOOL FindClose(HANDLE hFindFile) {
    if (!LookupHandleAs<FindObject>(hFindFile))
        return FALSE;
    return UnregisterHandle(hFindFile) ? TRUE : FALSE;
}
