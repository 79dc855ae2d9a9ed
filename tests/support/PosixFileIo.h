// The emulator's files as plain files: open, pread, pwrite, ftruncate on
// paths, for a folder or for the mount point of the FUSE front. A name with
// a drive ("C:\dir\file.mdf") lands under the root folder ("root/dir/
// file.mdf"), as SQL Server on Linux turns a drive into a root; a POSIX
// absolute path is taken as it stands; any other name is under the root.
// Failures are errno values.
#pragma once

#include <filesystem>

#include "support/SqlFileIo.h"

namespace zrtest {

class PosixFileIo : public SqlFileIo {
public:
    explicit PosixFileIo(std::filesystem::path root) : m_root(std::move(root)) {}

    // The path that a name stands for.
    std::filesystem::path PathOf(const std::wstring& strName) const;

    std::int32_t Open(const std::wstring& strName, bool bWrite, SqlHandle* phFile) override;
    std::int32_t Read(SqlHandle hFile, std::uint64_t iOffset, void* pBuffer, std::uint32_t cb,
                      std::uint32_t* pcbRead) override;
    std::int32_t Write(SqlHandle hFile, std::uint64_t iOffset, const void* pBuffer, std::uint32_t cb) override;
    std::int32_t SetSize(SqlHandle hFile, std::uint64_t iSize) override;
    std::int32_t Size(SqlHandle hFile, std::uint64_t* piSize) override;
    std::int32_t Close(SqlHandle hFile) override;

private:
    std::filesystem::path m_root;
};

}  // namespace zrtest
