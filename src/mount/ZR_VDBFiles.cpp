// The files that bear names of the library's making: the virtual names that
// SQL Server's data files are redirected to (mxf, nxf), the sparse files that
// really stand on disk behind them (mcf, ncf, lcf), and the map files; the
// cleanup of those no mount uses any more; and the hand-over of the data
// file names to the driver right after a mount.
//
// With key the mount key and n the SQL Server file number:
//   sparse file        <sparse folder>\<key>!<n>.mcf   (ncf other data files, lcf logs)
//   virtual name       <filter volume>\<key>!<n>.mxf   (nxf other data files)
//   name to the driver C:\<key>!<n>.mxf, each ' doubled
#include <cwctype>

#include "backup/MTF_Records.h"
#include "backup/SQL_Records.h"
#include "diag/Format.h"
#include "diag/ZR_Error.h"
#include "driver/ZR_DriverCommands.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_MapPool.h"
#include "mount/ZR.h"

namespace {

constexpr uint64_t kFileTimeTicksPerDay = 864000000000ULL;

// Calls visit(record) for each file record of the backup's configuration,
// null entries passed over. Below SQL Server 9 a log file numbered above 2
// is passed over too when bSkipOldExtraLogs is set.
template <class Visit>
void ForEachFileRecord(ZR_Backup* pBackup, bool bSkipOldExtraLogs, Visit visit) {
    if (!pBackup || !pBackup->m_pCMaps) return;
    AP<SQL_FILE_INFO_V7>& aFiles = pBackup->m_pCMaps->m_ConfigMSCI.m_Files;
    for (int i = 0; i < static_cast<int>(aFiles); ++i) {
        const SQL_FILE_INFO_V7* pRecord = aFiles(i);
        if (!pRecord) continue;
        if (bSkipOldExtraLogs && pBackup->m_iVersion < 9 && pRecord->m_file_type == SQL_FILE_PHYSICAL_LOG &&
            pRecord->m_file_number > 2)
            continue;
        visit(*pRecord);
    }
}

bool IsDataFile(const SQL_FILE_INFO_V7& record) { return record.m_file_type == SQL_FILE_DATABASE; }

// The first data file is the primary one, whatever its real extension.
const char* VirtualExtension(const SQL_FILE_INFO_V7& record) { return record.m_file_number == 1 ? "mxf" : "nxf"; }

const char* SparseExtension(const SQL_FILE_INFO_V7& record) {
    if (!IsDataFile(record)) return "lcf";
    return record.m_file_number == 1 ? "mcf" : "ncf";
}

std::wstring DoubleQuotes(std::wstring str) {
    for (size_t i = str.find(L'\''); i != std::wstring::npos; i = str.find(L'\'', i + 2)) str.insert(i, 1, L'\'');
    return str;
}

std::wstring Lower(std::wstring str) {
    for (wchar_t& c : str) c = static_cast<wchar_t>(towlower(static_cast<wint_t>(c)));
    return str;
}

// --- The physical name of a data file in the WITH options of a RESTORE ---

const wchar_t* SkipBlanks(const wchar_t* p) {
    while (*p == L' ' || *p == L'\t') ++p;
    return p;
}

// A name in quotes runs to the closing quote, a doubled quote not ending it,
// and comes back as written (quotes still doubled); otherwise it runs to the
// next blank, or with bToEnd to the end of the option.
std::wstring ReadName(const wchar_t*& p, bool bToEnd) {
    const wchar_t* pStart = p;
    if (*p == L'\'') {
        pStart = ++p;
        while (*p && !(*p == L'\'' && p[1] != L'\'')) p += *p == L'\'' ? 2 : 1;
        std::wstring str(pStart, p);
        if (*p) ++p;
        return str;
    }
    while (*p && (bToEnd || (*p != L' ' && *p != L'\t'))) ++p;
    return std::wstring(pStart, p);
}

// The name that "move '<logical>' to '<physical>'" gives the file of this
// logical name (which has its quotes doubled), with its quotes made single;
// false when no option moves it.
bool FindMovedName(const std::wstring& strLogical, const std::list<std::wstring>& With, std::wstring* pstrName) {
    for (const std::wstring& strOption : With) {
        const wchar_t* p = SkipBlanks(strOption.c_str());
        if (_wcsnicmp(p, L"move", 4) != 0) continue;
        p = SkipBlanks(p + 4);
        if (_wcsicmp(ReadName(p, false).c_str(), strLogical.c_str()) != 0) continue;
        p = SkipBlanks(p);
        if (_wcsnicmp(p, L"to", 2) != 0) continue;
        p = SkipBlanks(p + 2);
        std::wstring strName = ReadName(p, true);
        for (size_t i = strName.find(L"''"); i != std::wstring::npos; i = strName.find(L"''", i + 1))
            strName.erase(i, 1);
        *pstrName = strName;
        return true;
    }
    return false;
}

// What SQL Server will open for the data file of this record: the path of a
// MOVE option, else the recorded path; in lower case. False, with the reason
// recorded, when the record's names do not read.
bool PhysicalName(const SQL_FILE_INFO_V7& record, const std::list<std::wstring>& With, const wchar_t* wszKey,
                  std::wstring* pstrName) {
    std::wstring strLogical, strRecorded;
    if (!MTF_ReadString(&record, record.m_hdr.m_size, record.m_logical_name, MTF_UNICODE_STR, &strLogical, wszKey) ||
        !MTF_ReadString(&record, record.m_hdr.m_size, record.m_physical_name, MTF_UNICODE_STR, &strRecorded, wszKey))
        return false;
    if (!FindMovedName(DoubleQuotes(Lower(strLogical)), With, pstrName)) *pstrName = strRecorded;
    *pstrName = Lower(*pstrName);
    return true;
}

bool Fits(const wchar_t* wszFolder) { return wszFolder && wcslen(wszFolder) < MAX_PATH; }

// A 64-bit count of 100 ns ticks.
uint64_t Ticks(const FILETIME& ft) { return static_cast<uint64_t>(ft.dwHighDateTime) << 32 | ft.dwLowDateTime; }

bool IsExtensionOf(const wchar_t* wszName, std::initializer_list<const wchar_t*> aExtensions) {
    const wchar_t* pwszDot = wcsrchr(wszName, L'.');
    if (!pwszDot) return false;
    for (const wchar_t* wszExtension : aExtensions)
        if (_wcsicmp(pwszDot, wszExtension) == 0) return true;
    return false;
}

}  // namespace

bool ZR::SetVDBFolders(const wchar_t* wszSparseFilesFolder, const wchar_t* wszMapFilesFolder) {
    if (!Fits(wszSparseFilesFolder) || !Fits(wszMapFilesFolder)) {
        ZR_Error(nullptr, __FILE__, "ZR::SetVDBFolders", __LINE__,
                 "A folder must be named in fewer than %d characters\n", static_cast<int>(MAX_PATH));
        return false;
    }
    wcscpy(g_wszSparseFilesFolder, wszSparseFilesFolder);
    wcscpy(g_wszMapFilesFolder, wszMapFilesFolder);
    // The embedded driver keeps its sparse files in the same folder, so that
    // the names the library gives them and cleans up are the driver's.
    ZR_FilterDriver::SetSparseFolder(g_wszSparseFilesFolder);
    return true;
}

void ZR::GetSparseFiles(const wchar_t* wszKey, std::list<std::wstring>& Files) {
    ZR_Database* pDB = FindDatabase(wszKey);
    ForEachFileRecord(pDB ? pDB->GetFull() : nullptr, true, [&](const SQL_FILE_INFO_V7& record) {
        if (record.m_file_type != SQL_FILE_DATABASE && record.m_file_type != SQL_FILE_PHYSICAL_LOG) return;
        Files.push_back(ZR_FormatW(L"%s\\%s!%u.%hs", g_wszSparseFilesFolder, pDB->GetMountKey(),
                                   record.m_file_number, SparseExtension(record)));
    });
}

// The volume of a mount made by a virtual name is the name's folder, which
// the database keeps; every other mount has the library's.
void ZR::GetDatabaseFiles(std::list<std::wstring>& Files) {
    g_DBs.Lock();
    for (int i = 0; i < static_cast<int>(g_DBs); ++i) {
        ZR_Database* pDB = g_DBs(i);
        if (!pDB) continue;
        const wchar_t* wszVolume = pDB->GetFilterVolume() ? pDB->GetFilterVolume() : m_wszFilterVolume;
        ForEachFileRecord(pDB->GetFull(), true, [&](const SQL_FILE_INFO_V7& record) {
            if (!IsDataFile(record)) return;
            Files.push_back(ZR_FormatW(L"%s\\%s!%u.%hs", wszVolume ? wszVolume : L"", pDB->GetMountKey(),
                                       record.m_file_number, VirtualExtension(record)));
        });
    }
    g_DBs.Unlock();
}

void ZR::CleanupVDBFolders(int iDays) {
    CleanupVDBFiles(g_wszSparseFilesFolder, L"*.?cf", iDays);
    CleanupVDBFiles(g_wszMapFilesFolder, L"*.x?m", iDays);
}

// A sparse file goes when no mount has a data file of its name, whatever its
// age; a map file when it is older than the limit and no map of the pool is
// read from it. A folder not set is left alone (its name would be the root).
void ZR::CleanupVDBFiles(const wchar_t* wszFolder, const wchar_t* wszPattern, int iDays) {
    if (!wszFolder || !wszFolder[0]) return;
    WIN32_FIND_DATAW found;
    HANDLE hFind = FindFirstFileW(ZR_FormatW(L"%s\\%s", wszFolder, wszPattern).c_str(), &found);
    if (hFind == INVALID_HANDLE_VALUE) return;
    SYSTEMTIME now;
    FILETIME ftNow;
    GetSystemTime(&now);
    if (SystemTimeToFileTime(&now, &ftNow)) {
        const uint64_t iLimit = Ticks(ftNow) - static_cast<uint64_t>(iDays) * kFileTimeTicksPerDay;
        do {
            const std::wstring strName = ZR_FormatW(L"%s\\%s", wszFolder, found.cFileName);
            bool bGoes = false;
            if (IsExtensionOf(found.cFileName, {L".mcf", L".ncf", L".lcf"}))
                bGoes = !g_DBs.FindByDataFileName(strName.c_str());
            else if (IsExtensionOf(found.cFileName, {L".xbm", L".xcm", L".xdm", L".xtm"}))
                bGoes = Ticks(found.ftCreationTime) < iLimit && g_MapPool.Find(strName.c_str()) < 0;
            if (bGoes) ::DeleteFileW(strName.c_str());
        } while (FindNextFileW(hFind, &found));
    }
    FindClose(hFind);
}

int ZR::SendFilterFileNames(ZR_Backup* pBackup, const wchar_t* wszKey, const std::list<std::wstring>& With) {
    int iSent = 0;
    ForEachFileRecord(pBackup, false, [&](const SQL_FILE_INFO_V7& record) {
        std::wstring strPhysical;
        if (!IsDataFile(record) || !PhysicalName(record, With, wszKey, &strPhysical)) return;
        const std::wstring strVirtual =
            DoubleQuotes(ZR_FormatW(L"C:\\%s!%u.%hs", wszKey, record.m_file_number, VirtualExtension(record)));
        if (SendAddFileNames(record.m_file_size, strPhysical.c_str(), strVirtual.c_str()) == E_INVALIDARG)
            ZR_Warning(wszKey, __FILE__, "ZR::SendFilterFileNames", __LINE__,
                       "The names of data file %u are too long for the driver: %S\n", record.m_file_number,
                       strPhysical.c_str());
        ++iSent;
    });
    return iSent;
}

void ZR::SendFilterFileNamesForFull(const wchar_t* wszDatabase, const wchar_t* wszKey,
                                    const std::list<std::wstring>& With, bool bRestart) {
    Lock();
    if (g_hControlPort != INVALID_HANDLE_VALUE) {
        ZR_Database* pDB = FindDatabase(wszKey);
        if (pDB) SendFilterFileNames(pDB->GetFull(), wszKey, With);
        SendFileNamesDone(sizeof(ZR_CodeValueMessage));
        if (bRestart) SendRestartMount();
    }
    Unlock();
}

void ZR::SendFilterFileNamesForDiff(const wchar_t* wszDatabase, const wchar_t* wszKey,
                                    const std::list<std::wstring>& With) {
    Lock();
    ZR_Database* pDB = g_hControlPort != INVALID_HANDLE_VALUE ? FindDatabase(wszKey) : nullptr;
    if (pDB && pDB->GetDiff() && SendFilterFileNames(pDB->GetDiff(), wszKey, With) > 0)
        SendFileNamesDone(sizeof(uint32_t));
    Unlock();
}
