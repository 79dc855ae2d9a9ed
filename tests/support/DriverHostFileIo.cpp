#include "support/DriverHostFileIo.h"

namespace zrtest {

// The host makes a data file at its first open, with the size the library
// announced: bWrite asks nothing more of it.
std::int32_t DriverHostFileIo::Open(const std::wstring& strName, bool, SqlHandle* phFile) {
    return m_pHost->Open(strName.c_str(), phFile);
}

std::int32_t DriverHostFileIo::Read(SqlHandle hFile, std::uint64_t iOffset, void* pBuffer, std::uint32_t cb,
                                    std::uint32_t* pcbRead) {
    return m_pHost->Read(hFile, iOffset, pBuffer, cb, pcbRead);
}

std::int32_t DriverHostFileIo::Write(SqlHandle hFile, std::uint64_t iOffset, const void* pBuffer, std::uint32_t cb) {
    return m_pHost->Write(hFile, iOffset, pBuffer, cb);
}

std::int32_t DriverHostFileIo::SetSize(SqlHandle hFile, std::uint64_t iSize) { return m_pHost->SetSize(hFile, iSize); }

std::int32_t DriverHostFileIo::Size(SqlHandle hFile, std::uint64_t* piSize) {
    return m_pHost->QuerySize(hFile, piSize);
}

std::int32_t DriverHostFileIo::Close(SqlHandle hFile) { return m_pHost->Close(hFile, false); }

}  // namespace zrtest
