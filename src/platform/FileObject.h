// The kernel object behind a file handle of CreateFileW. Internal to
// src/platform (the mapping code reads its descriptor).
#pragma once

#include "platform/KernelObject.h"

#include <string>

namespace zr::platform {

class FileObject : public KernelObject {
public:
    static constexpr Type kType = Type::File;

    // Takes ownership of `fd`. `access` is the desired access of the open,
    // `flags` its FILE_FLAG_* bits.
    FileObject(int fd, std::string path, DWORD access, DWORD flags);
    // Closes the descriptor, leaves the share table and, for the last handle
    // of a file opened with FILE_FLAG_DELETE_ON_CLOSE, deletes the file.
    ~FileObject() override;

    int fd() const { return m_fd; }
    const std::string& path() const { return m_path; }
    bool CanRead() const;
    bool CanWrite() const;
    bool IsOverlapped() const { return (m_flags & FILE_FLAG_OVERLAPPED) != 0; }

private:
    const int m_fd;
    const std::string m_path;
    const DWORD m_access;
    const DWORD m_flags;
};

}  // namespace zr::platform
