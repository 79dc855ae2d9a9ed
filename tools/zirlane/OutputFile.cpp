#include "OutputFile.h"

#include <csignal>
#include <system_error>

#include "Commands.h"
#include "diag/ZR_Error.h"

namespace fs = std::filesystem;

namespace {

volatile std::sig_atomic_t g_bInterrupted = 0;

extern "C" void OnInterrupt(int) { g_bInterrupted = 1; }

}  // namespace

ZirlaneOutputFile::~ZirlaneOutputFile() {
    Close();
    if (!m_bCommitted && !m_temp.empty()) {
        std::error_code ec;
        fs::remove(m_temp, ec);
    }
}

bool ZirlaneOutputFile::Create(const std::string& path, uint64_t iSize) {
    m_path = path;
    m_temp = path + ".partial";
    const fs::path folder = fs::path(path).parent_path();
    std::error_code ec;
    if (!folder.empty() && !fs::is_directory(folder, ec)) {
        m_temp.clear();  // nothing was made, nothing to remove
        return ZirlaneFail(__FILE__, __LINE__, "Unable to write %s: the folder %s does not exist.\n", path.c_str(),
                         folder.c_str());
    }
    m_h = CreateFileW(ZirlaneWide(m_temp).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                      nullptr);
    if (m_h == INVALID_HANDLE_VALUE) {
        ZR_Error(nullptr, __FILE__, "ZirlaneOutputFile", __LINE__, "Unable to create %s.\n", m_temp.c_str());
        m_temp.clear();
        return false;
    }
    return Seek(iSize) && SetEndOfFile(m_h) ? true : Fail("size", iSize);
}

bool ZirlaneOutputFile::WriteAt(uint64_t iOfs, const void* p, uint32_t iLen) {
    DWORD iWritten = 0;
    if (!Seek(iOfs) || !WriteFile(m_h, p, iLen, &iWritten, nullptr) || iWritten != iLen) return Fail("write", iOfs);
    return true;
}

bool ZirlaneOutputFile::Commit() {
    Close();
    std::error_code ec;
    fs::rename(m_temp, m_path, ec);
    if (ec) return ZirlaneFail(__FILE__, __LINE__, "Unable to rename %s to %s: %s.\n", m_temp.c_str(), m_path.c_str(),
                             ec.message().c_str());
    m_bCommitted = true;
    return true;
}

bool ZirlaneOutputFile::Seek(uint64_t iOfs) {
    LONG iHigh = static_cast<LONG>(iOfs >> 32);
    DWORD iLow = SetFilePointer(m_h, static_cast<LONG>(iOfs & 0xFFFFFFFF), &iHigh, FILE_BEGIN);
    return !(iLow == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR);
}

bool ZirlaneOutputFile::Fail(const char* szWhat, uint64_t iOfs) {
    ZR_Error(nullptr, __FILE__, "ZirlaneOutputFile", __LINE__, "Unable to %s %s at offset %I64d.\n", szWhat,
             m_temp.c_str(), static_cast<int64_t>(iOfs));
    return false;
}

void ZirlaneOutputFile::Close() {
    if (m_h == INVALID_HANDLE_VALUE) return;
    CloseHandle(m_h);
    m_h = INVALID_HANDLE_VALUE;
}

ZirlaneOutputFolder::~ZirlaneOutputFolder() {
    std::error_code ec;
    for (const fs::path& folder : m_aMade) fs::remove(folder, ec);  // only an empty folder goes
}

bool ZirlaneOutputFolder::Create(const std::string& folder) {
    fs::path path = fs::path(folder).lexically_normal();
    if (!path.has_filename()) path = path.parent_path();  // a trailing separator
    std::error_code ec;
    for (fs::path p = path; !p.empty() && !fs::exists(p, ec); p = p.parent_path()) {
        m_aMade.push_back(p);
        if (p == p.parent_path()) break;
    }
    if (m_aMade.empty() && !fs::is_directory(path, ec))
        return ZirlaneFail(__FILE__, __LINE__, "Unable to write into %s: it is a file, not a folder.\n", folder.c_str());
    fs::create_directories(path, ec);
    if (ec) return ZirlaneFail(__FILE__, __LINE__, "Unable to create the folder %s: %s.\n", folder.c_str(), ec.message().c_str());
    return true;
}

void ZirlaneCatchInterrupts() {
    std::signal(SIGINT, OnInterrupt);
    std::signal(SIGTERM, OnInterrupt);
}

bool ZirlaneStopRequested() {
    if (!g_bInterrupted) return false;
    ZirlaneFail(__FILE__, __LINE__, "Interrupted.\n");
    return true;
}
