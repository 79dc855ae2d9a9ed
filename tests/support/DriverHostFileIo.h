// The emulator's files through the embedded driver's host side, as SQL
// Server's file I/O reaches a mount: views and data files by the names the
// statements and the backups' file records give. Log files are not the
// driver's (the library announces data files only), so they never come here.
#pragma once

#include <memory>

#include "filterdriver/ZR_DriverHost.h"
#include "support/SqlFileIo.h"

namespace zrtest {

class DriverHostFileIo : public SqlFileIo {
public:
    // pHost: ZR_FilterDriver::Host() of a running driver, not null.
    explicit DriverHostFileIo(std::shared_ptr<ZR_DriverHost> pHost) : m_pHost(std::move(pHost)) {}

    std::int32_t Open(const std::wstring& strName, bool bWrite, SqlHandle* phFile) override;
    std::int32_t Read(SqlHandle hFile, std::uint64_t iOffset, void* pBuffer, std::uint32_t cb,
                      std::uint32_t* pcbRead) override;
    std::int32_t Write(SqlHandle hFile, std::uint64_t iOffset, const void* pBuffer, std::uint32_t cb) override;
    std::int32_t SetSize(SqlHandle hFile, std::uint64_t iSize) override;
    std::int32_t Size(SqlHandle hFile, std::uint64_t* piSize) override;
    std::int32_t Close(SqlHandle hFile) override;

private:
    std::shared_ptr<ZR_DriverHost> m_pHost;
};

}  // namespace zrtest
