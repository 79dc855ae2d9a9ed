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

/* ---- Library life ------------------------------------------------------ */

/* Sets up the trace (switched off) and the library object. Always true. */
ZR_API bool InitializeZR(int iUnused);
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

/* ---- Process-wide settings (for the mounts that start after them) ------- */

/* CPUs to size thread pools by; a value below 1 stores 1 (the default). */
ZR_API void SetNumCPUs(int iNumCPUs);
/* Live I/O threads of each mount; 0 (the default) or a value above 1000
   leaves the number to the CPUs and the stripes of the full backup. */
ZR_API void SetNumLiveIOThreads(int iThreads);

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
