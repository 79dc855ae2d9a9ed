// The whole mount request: the chain of backups, the target, the key, the
// WITH options of each restore statement and the point in time. Allocated by
// AllocateMountInfo, destroyed by FreeMountInfo; it owns everything it points
// to. Filled and read by one thread at a time (ZR::Mount works on it while
// its caller waits), so it has no lock of its own.
#pragma once

#include <iterator>
#include <list>
#include <string>

#include "foundation/AP.h"
#include "mount/ZR_BackupInfo.h"
#include "mount/ZR_StopInfo.h"
#include "platform/win32.h"

class ZR_MountInfo {
public:
    ZR_MountInfo();
    ~ZR_MountInfo();
    ZR_MountInfo(const ZR_MountInfo&) = delete;
    ZR_MountInfo& operator=(const ZR_MountInfo&) = delete;

    // Null when the record exists already (and nothing changes).
    ZR_BackupInfo* NewFull(int iDataSet);
    ZR_BackupInfo* NewDiff(int iDataSet);
    // Appends: the logs stand in restore order.
    ZR_BackupInfo* NewLog(int iDataSet);
    ZR_BackupInfo* GetFull() { return m_pFull; }
    ZR_BackupInfo* GetDiff() { return m_pDiff; }
    ZR_BackupInfo* GetLog(int i) { return m_aLogs(i); }
    int GetNumberOfLogs() { return static_cast<int>(m_aLogs); }

    ZR_StopInfo GetStop() { return m_Stop; }
    // True when the clause was understood; otherwise the stop kind is 0.
    bool SetStop(const wchar_t* wszClause);

    // The stored texts, owned by the record (null when never set).
    const wchar_t* GetMountKey() { return m_wszMountKey; }
    const wchar_t* GetTargetInstance() { return m_wszTargetInstance; }
    const wchar_t* GetTargetDatabase() { return m_wszTargetDatabase; }
    const wchar_t* GetFileAccessUser() { return m_wszFileAccessUser; }
    const wchar_t* GetFileAccessPassword() { return m_wszFileAccessPassword; }
    const wchar_t* GetFilterDrive() { return m_wszFilterDrive; }
    // Each replaces the stored text by a copy of its argument.
    void SetMountKey(const wchar_t* wszKey);
    void SetTargetInstance(const wchar_t* wszInstance);
    void SetTargetDatabase(const wchar_t* wszDatabase);
    void SetFilterDrive(const wchar_t* wszDrive);
    // A null argument keeps what was stored for it.
    void SetFileAccessAccount(const wchar_t* wszUser, const wchar_t* wszPassword);

    GUID GetGuid() { return m_Guid; }
    void SetGuid(GUID guid) { m_Guid = guid; }
    bool GetRestart() { return m_bRestart; }
    // There is no way back: a restart stays a restart.
    void SetRestart() { m_bRestart = true; }
    // The WITH options of restore statement i (0 the full backup); an empty
    // list when none were given.
    const std::list<std::wstring>& GetWith(size_t i) {
        static const std::list<std::wstring> kNone;
        return i < m_aWith.size() ? *std::next(m_aWith.begin(), static_cast<long>(i)) : kNone;
    }

    ZR_StopInfo m_Stop;
    ZR_BackupInfo* m_pFull = nullptr;
    ZR_BackupInfo* m_pDiff = nullptr;
    AP<ZR_BackupInfo> m_aLogs;
    GUID m_Guid = GUID_NULL;  // non-null: the identity the new database takes
    bool m_bRestart = false;
    wchar_t* m_wszMountKey = nullptr;
    wchar_t* m_wszFilterDrive = nullptr;  // prefix of the virtual backup names, e.g. C:\.
    wchar_t* m_wszTargetInstance = nullptr;
    wchar_t* m_wszTargetDatabase = nullptr;
    wchar_t* m_wszFileAccessUser = nullptr;
    wchar_t* m_wszFileAccessPassword = nullptr;
    // Entry n: the WITH options of restore statement n (full, differential
    // if any, then the logs).
    std::list<std::list<std::wstring>> m_aWith;
};
