// Zirlane: a SQL Server database served straight from its backup files.
//
// The exported functions of libzirlane.so. Everything else in the library is
// hidden. Strings are zero-terminated wide strings; a string that a function
// hands out is a heap copy that the caller frees as the function says.
#pragma once

#include <wchar.h>

#ifdef __cplusplus
#define ZR_EXTERN_C extern "C"
#else
#include <stdbool.h>
#define ZR_EXTERN_C
#endif
#define ZR_API ZR_EXTERN_C __attribute__((visibility("default")))

#ifdef __cplusplus
class ZR_MountInfo;
#else
typedef struct ZR_MountInfo ZR_MountInfo;
#endif

/* The GUID of Windows, where the caller's headers have none. */
#ifndef GUID_DEFINED
#define GUID_DEFINED
typedef struct _GUID {
    unsigned int Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID;
#endif

/* ---- Library life ------------------------------------------------------ */

/* Sets up the trace (switched off) and the library object. Always true. */
ZR_API bool InitializeZR(int iUnused);
/* The last call: ends the service that answers the driver, then every
   mount (hydrations are cancelled and waited for). */
ZR_API void UninitializeForExit(void);
/* Starts the service that answers the filter driver's requests (after
   InitializeZR and IOAttachVolume), then tells the driver it started. A later
   call retries what did not come up. Always true: the trace tells whether
   the service runs. wszFolder names the service's folder. */
ZR_API bool InitializeIOOperations(const wchar_t* wszFolder);
/* Adds a volume for the driver to attach to when the service starts; call
   it before InitializeIOOperations. Always true. */
ZR_API bool IOAttachVolume(const wchar_t* wszVolume);
/* Asks the driver to forget the file names of past mounts. */
ZR_API void CleanupFilterNames(void);

/* ---- Settings passed on to the driver ------------------------------------ */

/* The driver's own thread count, clamped to 1 to 64. Nothing is sent while
   the driver is not there. */
ZR_API void SetNumAsyncDriverThreads(unsigned int iThreads);
/* The number of I/Os the driver keeps track of. */
ZR_API void SetDriverNumActiveIOTracking(unsigned int iIOs);

/* ---- Building a mount request ------------------------------------------ */

ZR_API ZR_MountInfo* AllocateMountInfo(void);
ZR_API void FreeMountInfo(ZR_MountInfo* pInfo);
/* iType: 1 full, 2 differential, 3 log. False for another type or when the
   full or differential record exists already. The plain key wins over the
   encrypted one. */
ZR_API bool BuildBackupInfoFromSet(ZR_MountInfo* pInfo, int iType, int iDataSet, const wchar_t* wszPasswordKey,
                                   const wchar_t* wszEncryptedPasswordKey);
/* wszType: "Full", "Diff" or "Differential", "Log" (the last log record). */
ZR_API void AddBackupSetFilename(ZR_MountInfo* pInfo, const wchar_t* wszType, const wchar_t* wszFileName);
ZR_API void SetMountKey(ZR_MountInfo* pInfo, const wchar_t* wszKey);
ZR_API void SetTargetDatabase(ZR_MountInfo* pInfo, const wchar_t* wszDatabase);
ZR_API void SetFilterDrive(ZR_MountInfo* pInfo, const wchar_t* wszDrive);
/* Keeps the text behind the first backslash (SERVER\INST gives INST). */
ZR_API void SetTargetInstance(ZR_MountInfo* pInfo, const wchar_t* wszInstance);
/* A null argument leaves the stored value as it is. */
ZR_API void SetFileAccessAccount(ZR_MountInfo* pInfo, const wchar_t* wszUser, const wchar_t* wszPassword);
/* 0 on success, else the RPC status of the parse. */
ZR_API long SetGuid(ZR_MountInfo* pInfo, const wchar_t* wszGuid);
ZR_API void SetRestart(ZR_MountInfo* pInfo);
/* The stop clause of a point-in-time mount (STOPAT, STOPATMARK or
   STOPBEFOREMARK). False when it was not understood; the stop is then none. */
ZR_API bool SetStop(ZR_MountInfo* pInfo, const wchar_t* wszClause);
ZR_API bool GetDiff(ZR_MountInfo* pInfo);
ZR_API bool GetLog(ZR_MountInfo* pInfo, int i);
ZR_API int GetNumberOfLogs(ZR_MountInfo* pInfo);

/* ---- Mounting ----------------------------------------------------------- */

/* Mounts the request. The mount key is copied to wszKeyOut (cchKeyOut
   characters at most), also after a failure that came after the key was
   made. On false, ZRGetZRError with that key and with a null key tells why. */
ZR_API bool WrapMount(ZR_MountInfo* pInfo, wchar_t* wszKeyOut, unsigned int cchKeyOut);

/* ---- Restore statements ------------------------------------------------ */

/* Statements are counted from 0: the full backup, the differential if there
   is one, then the logs. They name the mount's virtual backup files, with
   ids that change at every call: only the statement fetched last names its
   files correctly, so fetch each one just before it runs, and give GetSQL
   some room beyond what GetSQLSize said. */
/* 1, plus 1 with a differential, plus the number of logs; 0 for null. */
ZR_API int GetNumSQL(ZR_MountInfo* pInfo);
/* Characters of statement iStatement with its terminator; 0 for a null
   record or a number past the last statement. */
ZR_API int GetSQLSize(ZR_MountInfo* pInfo, unsigned int iStatement);
/* Copies statement iStatement with wcsncpy(wszBuffer, ..., cchBuffer): a
   buffer too short gets what fits, without a terminator. */
ZR_API void GetSQL(ZR_MountInfo* pInfo, unsigned int iStatement, wchar_t* wszBuffer, unsigned int cchBuffer);
/* Appends a WITH option (such as move 'Sales' to 'D:\data\Sales.mdf') to
   statement iStatement, counted from 1 here: 1 is the full backup. */
ZR_API void AddWith(ZR_MountInfo* pInfo, int iStatement, const wchar_t* wszOption);

/* ---- Status of a mount, by the key WrapMount gave ---------------------- */

/* An unknown key answers false or 0; a null key does the same, and says so
   in the trace. */
/* Hydrating / hydration paused / recovering / restoring (SQL Server reads
   the virtual backup files). */
ZR_API bool IsHydrating(const wchar_t* wszKey);
ZR_API bool IsHydrationPaused(const wchar_t* wszKey);
ZR_API bool IsRecoveryStage(const wchar_t* wszKey);
ZR_API bool IsDataCopyStage(const wchar_t* wszKey);
/* The driver has announced every data file of the mount. */
ZR_API bool AllDataFilesOpened(const wchar_t* wszKey);
/* Hydration completed, or the database was deleted (then *pbDeleted, when
   given, is true). */
ZR_API bool DatabaseHydrationDone(const wchar_t* wszKey, bool* pbDeleted);
/* Bytes present in the data files (as the driver's bitmaps or this run's
   pushes tell, whichever is further) and their total. */
ZR_API void GetPercentComplete(const wchar_t* wszKey, long long* piDone, long long* piTotal);
/* Waits up to 10 seconds for progress to move (it is told at every tenth
   and at the end), then gives it in hundredths of a percent, 0 to 10,000. */
ZR_API int WaitOnPercentChange(const wchar_t* wszKey);
/* Mounts whose hydration is not paused. */
ZR_API int GetNumberOfActiveMounts(void);

/* ---- Control of a mount, by its key ------------------------------------ */

/* Hydrates the mount's data files on the calling thread and returns when
   hydration has ended: complete (the file wszMarkerPath, when there is one,
   then gets ".completed" appended to its name), cancelled by Remove or
   UninitializeForExit, or stopped by a failure (ZRGetZRError tells). A mount
   hydrates once at a time; a cancelled one never again. When the number of
   active hydrations is limited, smaller order keys go first. */
ZR_API void StartDataHydration(const wchar_t* wszKey, const wchar_t* wszMarkerPath, long long iOrderKey);
/* Always true for a known mount. A paused hydration finishes the chunk in
   hand and waits; reads of the database go on. */
ZR_API bool PauseHydration(const wchar_t* wszKey);
ZR_API bool ResumeHydration(const wchar_t* wszKey);
/* Threads of the mount's next hydration; 0 (the default) sizes them by the
   CPUs (hydration threads) or the data files (writers). False for an
   unknown mount. */
ZR_API bool SetNumHydrationThreads(const wchar_t* wszKey, int iThreads);
ZR_API bool SetNumWriterThreads(const wchar_t* wszKey, int iThreads);
/* The largest read of each backup file of the full and differential
   backups. */
ZR_API void SetMaxTransferSize(const wchar_t* wszKey, int iSize);
/* Ends the mount: its hydration and reads end, its files and backups close.
   Its recorded errors go too. */
ZR_API void Remove(const wchar_t* wszKey);

/* ---- Process-wide settings (for the mounts that start after them) ------- */

/* CPUs to size thread pools by; a value below 1 stores 1 (the default). */
ZR_API void SetNumCPUs(int iNumCPUs);
/* Live I/O threads of each mount; 0 (the default) or a value above 1000
   leaves the number to the CPUs and the stripes of the full backup. */
ZR_API void SetNumLiveIOThreads(int iThreads);
/* Blocks each cache of decompressed blocks keeps (default 12). */
ZR_API void SetDecompressedCacheSize(unsigned int iSize);
/* Hydrations that run at once (default 1,000); the others wait, the mounts
   with the smallest order keys first. Takes effect at once. */
ZR_API void SetMaxActiveHydrations(int iMaxActive);

/* ---- Errors -------------------------------------------------------------- */

/* The recorded errors of a mount key (null: those of no mount), newest
   first, at most cchOut - 1 characters. Empty when there are none. */
ZR_API void ZRGetZRError(const wchar_t* wszKey, wchar_t* wszOut, unsigned int cchOut);

/* ---- Trace --------------------------------------------------------------- */

/* Modes: 0 off, 1 ring, 2 ring and file (restarted every ~10,000 lines),
   3 ring and file (appended). */
ZR_API void EnableServiceTrace(int iMode);
/* Same as EnableServiceTrace (kept for callers of the old name). */
ZR_API void DisbleServiceTrace(int iMode);
/* The ring's lines, oldest first, in lines of *pcbLine bytes. Free the
   result with FreeTraceBuffer. */
ZR_API char* CaptureServiceTrace(int* pcbBuffer, int* pcbLine);
ZR_API void SetServiceTracePath(const wchar_t* wszPath);
ZR_API bool EnableDriverTrace(void);
ZR_API bool DisableDriverTrace(void);
ZR_API void* CaptureDriverTrace(void);
ZR_API void FreeTraceBuffer(void* p);
/* A narrow format with three values, or a wide text (told apart by its
   second byte being 0). */
ZR_API void ZRDbgTrace(const void* pText, unsigned long long i1, unsigned long long i2, unsigned long long i3);

/* ---- Accessors of a backup set record ----------------------------------- */

/* The record is the caller's, packed, laid out as the library's
   documentation tells; nothing in this library fills it. The pointer is not
   tested. Dates unpack the 5-byte tape format date. */
ZR_API unsigned short familyCount(const void* pSet);
ZR_API unsigned short familyIndex(const void* pSet);
ZR_API void mediaSetId(GUID* pOut, const void* pSet);
ZR_API bool missingConfigInfo(const void* pSet);
ZR_API bool Encrypted(const void* pSet);
ZR_API unsigned char backup_type(const void* pSet);
/* wszOut holds 260 characters. */
ZR_API void database_name(const void* pSet, wchar_t* wszOut);
ZR_API void server_name(const void* pSet, wchar_t* wszOut);
ZR_API unsigned int server_version(const void* pSet);
ZR_API void backup_start(const void* pSet, unsigned* piMonth, unsigned* piDay, unsigned* piYear, unsigned* piHour,
                         unsigned* piMinute, unsigned* piSecond);
ZR_API void backup_finish(const void* pSet, unsigned* piMonth, unsigned* piDay, unsigned* piYear, unsigned* piHour,
                          unsigned* piMinute, unsigned* piSecond);
ZR_API unsigned int first_lsn_SeqNo(const void* pSet);
ZR_API unsigned int first_lsn_blockOffset(const void* pSet);
ZR_API unsigned short first_lsn_slotId(const void* pSet);
ZR_API unsigned int last_lsn_SeqNo(const void* pSet);
ZR_API unsigned int last_lsn_blockOffset(const void* pSet);
ZR_API unsigned short last_lsn_slotId(const void* pSet);
ZR_API unsigned int checkpoint_lsn_SeqNo(const void* pSet);
ZR_API unsigned int checkpoint_lsn_blockOffset(const void* pSet);
ZR_API unsigned short checkpoint_lsn_slotId(const void* pSet);
ZR_API unsigned int last_full_base_lsn_SeqNo(const void* pSet);
ZR_API unsigned int last_full_base_lsn_blockOffset(const void* pSet);
ZR_API unsigned short last_full_base_lsn_slotId(const void* pSet);
ZR_API void last_full_base_guid(GUID* pOut, const void* pSet);
