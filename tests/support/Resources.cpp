#include "support/Resources.h"

#include "platform/win32.h"

#include <fstream>
#include <string>
#include <vector>

namespace zrtest {

std::uint64_t AllocatedBytes(const std::filesystem::path& path) {
    HANDLE h = CreateFileW(path.wstring().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return 0;
    FILE_ALLOCATED_RANGE_BUFFER query{};
    query.Length.QuadPart = static_cast<LONGLONG>(std::filesystem::file_size(path));
    std::vector<FILE_ALLOCATED_RANGE_BUFFER> ranges(65536);
    DWORD iBytes = 0;
    const bool bOk = DeviceIoControl(h, FSCTL_QUERY_ALLOCATED_RANGES, &query, sizeof query, ranges.data(),
                                     static_cast<DWORD>(ranges.size() * sizeof ranges[0]), &iBytes, nullptr);
    CloseHandle(h);
    std::uint64_t iTotal = 0;
    for (size_t i = 0; bOk && i < iBytes / sizeof ranges[0]; ++i)
        iTotal += static_cast<std::uint64_t>(ranges[i].Length.QuadPart);
    return iTotal;
}

// Linux keeps the peak as VmHWM and resets it when "5" is written to the
// process's clear_refs.
bool ResetPeakResident() {
    std::ofstream out("/proc/self/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

std::uint64_t PeakResidentBytes() {
    std::ifstream in("/proc/self/status");
    std::string word;
    while (in >> word) {
        if (word == "VmHWM:") {
            std::uint64_t iKiB = 0;
            in >> iKiB;
            return iKiB * 1024;
        }
    }
    return 0;
}

}  // namespace zrtest
