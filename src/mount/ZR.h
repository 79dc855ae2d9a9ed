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

#include <atomic>
#include <cstdio>
#include <list>
#include <string>

#include "driver/DriverMessages.h"
#include "engine/ZR_Database.h"
#include "foundation/XString.h"
#include "mount/ZR_DatabaseList.h"
#include "mount/ZR_FileInfo.h"
#include "mount/ZR_MountInfo.h"
#include "platform/win32.h"

// The pair the operation service passes to ZR::ReadFile: the file's key in
// the file collection and whether it is a virtual backup file.
using FILEINFO = ZR_FileInfoPair;

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
    // Ends the live I/O of every database (the queued reads served), the
    // operation service, then destroys every database and closes the
    // control port; the library object stays, and the next mount connects
    // to the driver anew.
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

    // --- File operations of the driver's requests (ZR_FileOperations.cpp) ---
    // Named after the Windows calls they stand in for; the operation service
    // calls them on its threads. A virtual backup file's handle is the id in
    // its .bxk name; a data file's "handle" is its SQL Server file id.
    //
    // The handle of a .bxk name (no mount happens: the mount must stand);
    // INVALID_HANDLE_VALUE with ERROR_FILE_NOT_FOUND for any other name.
    // Takes the library lock.
    HANDLE CreateFileW(const wchar_t* wszName);
    // Links the data file wszFileName, which the driver saw opened under the
    // virtual name wszVirtualName, with its mount (mounting a Backups name
    // first); iFileId receives the file number of the name. Always TRUE; an
    // unknown mount leaves ERROR_FILE_NOT_FOUND as the last error.
    BOOL AssociateFileW(const wchar_t* wszFileName, const wchar_t* wszVirtualName, DWORD iMountFileKey,
                        FileObjectUniquifier Uniquifier, DWORD& iFileId);
    // A read of a virtual backup file is served at once and completed
    // through sendReadCompletion; a read of a data file goes on the live I/O
    // queue and completes there. The result is for the driver: 0, or
    // 0xC0000008 (no such mount or file), 0xC0000017 (not queued),
    // 0xC0000420 (the read failed). Errors are recorded with a null key.
    unsigned int ReadFile(FILEINFO Info, void* hFile, void* pBuffer, unsigned int iLength, unsigned char* pBitmap,
                          unsigned int* piRead, OVERLAPPED* pOverlapped, void* pOpId, void* iBufferKey);
    // SQL Server deleted a data file. Always TRUE. Takes the library lock.
    BOOL DeleteFileW(const wchar_t* wszName, DWORD iMountFileKey, DWORD iFileId);
    // FILE_ATTRIBUTE_ARCHIVE for every name.
    DWORD GetFileAttributesW(const wchar_t* wszName);
    // The position of hFile, turned from the real file's into the view's
    // when hFile is a virtual backup file. plHigh must not be null.
    DWORD GetFilePointer(void* hFile, LONG* plHigh);
    BOOL FlushFileBuffers(void* hFile);
    // The size of the view of a virtual backup file; false for any other handle.
    bool VirtualBackupStandardInfo(void* hFile, FILE_STANDARD_INFO* pInfo);
    // The backend and type of a backup file, without a mount.
    bool BackupFileInfo(const wchar_t* wszName, ZR_BackupFileInfo* pInfo);
    // --- end of the file operations ---

    // --- Data file names and folders (ZR_VDBFiles.cpp) ---
    // Copies both folders (each must fit MAX_PATH characters with its
    // terminator; false, changing nothing, when one does not) and tells the
    // embedded driver the sparse folder. Before the first mount.
    static bool SetVDBFolders(const wchar_t* wszSparseFilesFolder, const wchar_t* wszMapFilesFolder);
    static wchar_t* GetSparseFilesFolder() { return g_wszSparseFilesFolder; }
    // Appends the sparse files of the mount of wszKey, data and log, in the
    // order of the file records; nothing for an unknown key.
    void GetSparseFiles(const wchar_t* wszKey, std::list<std::wstring>& Files);
    // Appends the virtual names of the data files of every mount.
    void GetDatabaseFiles(std::list<std::wstring>& Files);
    // Removes the sparse files that no mount uses, and the map files older
    // than iDays (any age for 0) that the map pool does not hold.
    void CleanupVDBFolders(int iDays);
    // Tells the driver, for each data file of the full backup (or of the
    // differential), the path SQL Server will open (after the MOVE options of
    // With) and the virtual name to present it under. Hold no lock of the
    // collection: these take the library lock.
    void SendFilterFileNamesForFull(const wchar_t* wszDatabase, const wchar_t* wszKey,
                                    const std::list<std::wstring>& With, bool bRestart);
    void SendFilterFileNamesForDiff(const wchar_t* wszDatabase, const wchar_t* wszKey,
                                    const std::list<std::wstring>& With);
    // --- end of the data file names ---

    // --- Status and control of a mount by its key (ZR_Control.cpp) ---
    // Each takes the library lock, finds the database and answers; an
    // unknown key answers false, 0 or nothing.
    bool IsHydrating(const wchar_t* wszKey);        // state 9
    bool IsHydrationPaused(const wchar_t* wszKey);  // state 10
    bool IsRecoveryStage(const wchar_t* wszKey);    // state 8
    bool IsDataCopyStage(const wchar_t* wszKey);    // state 7
    bool AllDataFilesOpened(const wchar_t* wszKey);
    // IsHydrationDone; *pbDeleted (when given) whether the database went.
    bool DatabaseHydrationDone(const wchar_t* wszKey, bool* pbDeleted);
    void GetPercentComplete(const wchar_t* wszKey, int64_t* piDone, int64_t* piTotal);
    // Holds the lock only to find the mount and mark the wait; waits up to
    // 10 s outside it. 0 for an unknown key.
    int WaitOnPercentChange(const wchar_t* wszKey);
    // Mounts that are not in state 10.
    static int GetNumberOfActiveMounts();
    // Runs the mount's hydration on the caller's thread until it has ended;
    // nothing for an unknown key or a mount that hydrates already. The
    // marker gets ".completed" appended to its name at completion; mounts
    // with smaller order keys hydrate first when the number of active
    // hydrations is limited. Takes the lock only around its start.
    void StartDataHydration(const wchar_t* wszKey, const wchar_t* wszMarker, int64_t iOrderKey);
    bool PauseHydration(const wchar_t* wszKey);
    bool ResumeHydration(const wchar_t* wszKey);
    // Counted at the mount's next hydration; false for an unknown key.
    bool SetNumHydrationThreads(const wchar_t* wszKey, int iThreads);
    bool SetNumWriterThreads(const wchar_t* wszKey, int iThreads);
    void SetMaxTransferSize(const wchar_t* wszKey, int iSize);
    // Stores the limit of hydrations that run at once (default 1,000), then
    // works the cut-off out at once.
    void SetMaxActiveHydrations(int iMaxActive);
    // Of the mounts that hydrate (state 9, not done), the iMaxActive with
    // the smallest order keys run; the others wait until the list changes.
    // Called at every start and end of a hydration, at pause and resume.
    void DetermineHydrationCutoff(int iMaxActive);
    static std::atomic<int> ms_iMaxActiveHydrations;
    // --- end of status and control ---

    static int g_iNumCPUs;
    // The size of the caches of decompressed blocks (SetDecompressedCacheSize);
    // the block caches of compressed backups read it.
    static std::atomic<unsigned> g_iDecompressedCacheSize;
    static wchar_t g_wszSparseFilesFolder[MAX_PATH];  // empty at load
    static wchar_t (&g_wszMapFilesFolder)[MAX_PATH];  // the map files' folder (maps/X_MapFile.h)

private:
    friend struct ZR_TestAccess;  // tests reach the private mounts
    // The database that a parsed virtual file name speaks of, found or (for
    // a Backups name) mounted.
    ZR_Database* Mount(ZR_FileInfo* pFileInfo);
    ZR_Database* MountImplicit(ZR_FileInfo* pFileInfo);
    // fAnswer(pDB) under the library lock, or none for an unknown key.
    template <class R, class Answer>
    R WithDatabase(const wchar_t* wszKey, R none, Answer fAnswer);

    void Init();
    void Fini();
    void Lock() { EnterCriticalSection(&m_cs); }
    void Unlock() { LeaveCriticalSection(&m_cs); }

    bool AddBackups(ZR_Database* pDB, ZR_MountInfo* pInfo);
    bool FinishMount(ZR_Database* pDB);
    void CleanupVDBFiles(const wchar_t* wszFolder, const wchar_t* wszPattern, int iDays);
    // Commands 4 for the data files of one backup of the mount; the number
    // of files sent.
    int SendFilterFileNames(ZR_Backup* pBackup, const wchar_t* wszKey, const std::list<std::wstring>& With);

    CRITICAL_SECTION m_cs;                 // the library lock
    wchar_t* m_wszFilterVolume = nullptr;  // owned

    static ZR* g_pZR;
};
