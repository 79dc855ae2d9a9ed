// ZR: the one library object (g_pZR). It holds the library lock and the
// filter volume; the exported functions call its methods. Beside it stands
// g_DBs, the list of mounted databases.
//
// Lock order: the library lock, then the list's lock of g_DBs, then the
// locks inside a ZR_Database. A mount holds no library lock, so mounts may
// run side by side; appending to g_DBs takes only the list's lock. Remove
// holds the library lock so that no status call keeps a database that it
// destroys.
#pragma once

#include <cstdio>

#include "engine/ZR_Database.h"
#include "foundation/XString.h"
#include "mount/ZR_DatabaseList.h"
#include "mount/ZR_FileInfo.h"
#include "mount/ZR_MountInfo.h"
#include "platform/win32.h"

class ZR {
public:
    ZR();
    explicit ZR(FILE* pTraceFile);
    ~ZR();
    ZR(const ZR&) = delete;
    ZR& operator=(const ZR&) = delete;

    // Starts the trace switched off, the embedded driver when no driver
    // serves the control port, then makes g_pZR (once: the library never
    // destroys it).
    static void Initialize();
    static ZR* GetZR() { return g_pZR; }

    // Mounts the request and, on success, puts the database in g_DBs.
    // *ppwszKey (when ppwszKey is not null) receives a heap copy of the mount
    // key for the caller to free, also after a failure that came after the
    // key was made. The mount's own errors are recorded with a null key, those
    // of the database and its backups under the mount key.
    bool Mount(ZR_MountInfo* pInfo, wchar_t** ppwszKey);
    // Ends the mount of this key if there is one, and drops the recorded
    // errors of the key in any case.
    void Remove(const wchar_t* wszKey);
    // Destroys every database; the library object stays.
    static void UninitializeForExit();
    // No library lock of its own: callers that keep the result take it.
    static ZR_Database* FindDatabase(const wchar_t* wszKey);
    // Null does nothing; one trailing backslash is cut.
    void SetFilterVolume(const wchar_t* wszVolume);
    const wchar_t* GetFilterVolume() { return m_wszFilterVolume; }

    // --- Restore and attach statements (ZR_Statements.cpp) ---
    // Each generator appends to strSQL the statement of one backup of the
    // mount of wszKey, naming the mount's virtual backup files on wszDrive
    // (which ends in a backslash). Every call takes new handle ids for the
    // files it names, so only the statement generated last names them
    // correctly. They look the mount up without the library lock: the caller
    // must not remove it meanwhile. An unknown key gives the first line only.
    void GenRestoreDatabaseFullSQL(const wchar_t* wszDatabase, ZR_MountInfo* pInfo, const wchar_t* wszDrive,
                                   const wchar_t* wszKey, XString<wchar_t>& strSQL);
    void GenRestoreDatabaseDiffSQL(const wchar_t* wszDatabase, ZR_MountInfo* pInfo, const wchar_t* wszDrive,
                                   const wchar_t* wszKey, XString<wchar_t>& strSQL);
    // iLog counts the logs of the mount from 0.
    void GenRestoreDatabaseLogSQL(const wchar_t* wszDatabase, ZR_MountInfo* pInfo, const wchar_t* wszDrive,
                                  const wchar_t* wszKey, unsigned int iLog, XString<wchar_t>& strSQL);
    // Appends the stop clause of the request, behind a comma when bWith
    // (the statement has its WITH already), else behind " with ".
    void GenStopAt(ZR_MountInfo* pInfo, XString<wchar_t>& strSQL, bool bWith);
    // The CREATE DATABASE ... FOR ATTACH text for the data files of the full
    // backup, as a heap copy for the caller to free with free().
    static wchar_t* GenAttachDatabaseSQL(const wchar_t* wszDatabase, const wchar_t* wszKey);
    // --- end of the statements ---

    static int g_iNumCPUs;
    static wchar_t* g_wszSparseFilesFolder;  // owned by the setter
    static wchar_t* g_wszMapFilesFolder;     // owned by the setter

private:
    friend struct ZR_TestAccess;  // tests reach the private mounts
    // The database that a parsed virtual file name speaks of, found or (for
    // a Backups name) mounted.
    ZR_Database* Mount(ZR_FileInfo* pFileInfo);
    ZR_Database* MountImplicit(ZR_FileInfo* pFileInfo);

    void Init();
    void Fini();
    void Lock() { EnterCriticalSection(&m_cs); }
    void Unlock() { LeaveCriticalSection(&m_cs); }

    bool AddBackups(ZR_Database* pDB, ZR_MountInfo* pInfo);
    bool FinishMount(ZR_Database* pDB);

    CRITICAL_SECTION m_cs;                 // the library lock
    wchar_t* m_wszFilterVolume = nullptr;  // owned

    static ZR* g_pZR;
};
