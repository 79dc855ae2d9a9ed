#include "support/PosixFileIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zrtest {

namespace {

int Fd(SqlHandle hFile) { return static_cast<int>(hFile); }

}  // namespace

std::filesystem::path PosixFileIo::PathOf(const std::wstring& strName) const {
    std::wstring str = strName;
    for (wchar_t& c : str)
        if (c == L'\\') c = L'/';
    const bool bDrive = str.size() >= 2 && str[1] == L':';
    if (bDrive) str.erase(0, 2);
    if (!bDrive && !str.empty() && str[0] == L'/') return str;
    while (!str.empty() && str[0] == L'/') str.erase(0, 1);
    return m_root / str;
}

std::int32_t PosixFileIo::Open(const std::wstring& strName, bool bWrite, SqlHandle* phFile) {
    const int iFlags = O_CLOEXEC | (bWrite ? O_RDWR | O_CREAT : O_RDONLY);
    int fd;
    do fd = ::open(PathOf(strName).c_str(), iFlags, 0644);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) return errno;
    *phFile = static_cast<SqlHandle>(fd);
    return 0;
}

std::int32_t PosixFileIo::Read(SqlHandle hFile, std::uint64_t iOffset, void* pBuffer, std::uint32_t cb,
                               std::uint32_t* pcbRead) {
    auto* p = static_cast<char*>(pBuffer);
    *pcbRead = 0;
    while (*pcbRead < cb) {
        const ssize_t n = ::pread(Fd(hFile), p + *pcbRead, cb - *pcbRead, static_cast<off_t>(iOffset + *pcbRead));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n == 0) break;  // the end of the file
        *pcbRead += static_cast<std::uint32_t>(n);
    }
    return 0;
}

std::int32_t PosixFileIo::Write(SqlHandle hFile, std::uint64_t iOffset, const void* pBuffer, std::uint32_t cb) {
    const auto* p = static_cast<const char*>(pBuffer);
    for (std::uint32_t iDone = 0; iDone < cb;) {
        const ssize_t n = ::pwrite(Fd(hFile), p + iDone, cb - iDone, static_cast<off_t>(iOffset + iDone));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n < 0 ? errno : EIO;
        iDone += static_cast<std::uint32_t>(n);
    }
    return 0;
}

std::int32_t PosixFileIo::SetSize(SqlHandle hFile, std::uint64_t iSize) {
    return ::ftruncate(Fd(hFile), static_cast<off_t>(iSize)) == 0 ? 0 : errno;
}

std::int32_t PosixFileIo::Size(SqlHandle hFile, std::uint64_t* piSize) {
    struct stat st {};
    if (::fstat(Fd(hFile), &st) != 0) return errno;
    *piSize = static_cast<std::uint64_t>(st.st_size);
    return 0;
}

std::int32_t PosixFileIo::Close(SqlHandle hFile) { return ::close(Fd(hFile)) == 0 ? 0 : errno; }

}  // namespace zrtest
