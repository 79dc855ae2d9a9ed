// A mount as a service makes it, through the library's exports alone, and
// its statements run by the SQL Server emulator: what the end-to-end tests
// and the benchmarks of a whole mount share.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "support/SqlServerEmulator.h"
#include "zirlane/zirlane.h"

namespace zrtest {

// As a service starts: InitializeZR (which starts the embedded driver), the
// folders (sparse files and maps, made under folder), then the operation
// service. False, with *pError, when a step fails.
bool StartService(const std::filesystem::path& folder, std::string* pError);
// As a service ends: UninitializeForExit, then the embedded driver stops;
// the folders are forgotten.
void StopService();

struct MountRequest {
    std::vector<std::filesystem::path> full = {}, diff = {};
    std::vector<std::filesystem::path> logs = {};  // one file each
    const wchar_t* wszStop = nullptr;              // as SetStop takes it
    int iDataSet = 1;
    const wchar_t* wszWith = nullptr;  // an option of the full backup's statement
    // The mount's GUID, which makes its key "GUID=" and the GUID in
    // capitals; a new one when null.
    const wchar_t* wszGuid = nullptr;
};

class ServiceMount {
public:
    ServiceMount() = default;
    // Frees the request; the mount stays until Remove or the service's end.
    ~ServiceMount();
    ServiceMount(const ServiceMount&) = delete;
    ServiceMount& operator=(const ServiceMount&) = delete;

    // Builds the request with the exports (target database "Copy", drive
    // C:\) and calls WrapMount; false with Error().
    bool Mount(const MountRequest& request);
    // Runs every statement of the mount, in order, then opens the data files
    // for the database's reads; false with Error().
    bool Restore(SqlServerEmulator& sql);

    ZR_MountInfo* Info() { return m_pInfo; }
    const std::wstring& Key() const { return m_strKey; }
    const std::string& Error() const { return m_strError; }

private:
    bool Fail(const std::string& strWhy);

    ZR_MountInfo* m_pInfo = nullptr;
    std::wstring m_strKey;
    std::string m_strError;
};

}  // namespace zrtest
