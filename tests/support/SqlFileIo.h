// How the SQL Server emulator reaches files: the few calls a RESTORE and a
// database make on a backup view or a data file, by name. Two
// implementations: the embedded driver's host side (DriverHostFileIo), and
// plain POSIX calls on paths (PosixFileIo), for a folder or a mount point.
//
// Every call gives 0 for success or the implementation's own failure code
// (the host's NTSTATUS, or an errno value); reads and writes move all their
// bytes or fail, but for a read at the end of a file, which moves what is
// there (0 at or past the end). Calls on different handles, and reads on one
// handle, may come from many threads at once.
#pragma once

#include <cstdint>
#include <string>

namespace zrtest {

using SqlHandle = std::uint64_t;

class SqlFileIo {
public:
    virtual ~SqlFileIo() = default;
    // bWrite opens for writing too, and makes the file when it is missing
    // (the data files of a RESTORE).
    virtual std::int32_t Open(const std::wstring& strName, bool bWrite, SqlHandle* phFile) = 0;
    virtual std::int32_t Read(SqlHandle hFile, std::uint64_t iOffset, void* pBuffer, std::uint32_t cb,
                              std::uint32_t* pcbRead) = 0;
    virtual std::int32_t Write(SqlHandle hFile, std::uint64_t iOffset, const void* pBuffer, std::uint32_t cb) = 0;
    virtual std::int32_t SetSize(SqlHandle hFile, std::uint64_t iSize) = 0;
    virtual std::int32_t Size(SqlHandle hFile, std::uint64_t* piSize) = 0;
    virtual std::int32_t Close(SqlHandle hFile) = 0;
};

}  // namespace zrtest
