// The trace: printf-style lines in a ring of 4,096 lines of 256 bytes, and in
// modes 2 and 3 in a file too. Every call site tests g_iTraceMode first, so a
// switched-off trace costs one compare and no formatting:
//
//     if (g_iTraceMode) TraceLine("ZR::Mount returning\n");
//
// Formats use the Windows conversions (%S wide string, %hs narrow, %I64d),
// which is why TraceLine carries no printf format attribute: the compiler
// would reject those conversions.
// g_csTrace is the innermost lock of the library: TraceLine calls nothing
// that locks.
#pragma once

#include <cstdint>
#include <cstdio>

#include "platform/win32.h"

// ---- State (process-wide; all but g_iTraceMode guarded by g_csTrace) -------
extern volatile int g_iTraceMode;       // 0 off, 1 ring, 2 ring + file (restarted), 3 ring + file (appended)
extern bool g_bIOInstanceLog;           // the operation service's own small log
extern CRITICAL_SECTION g_csTrace;      // created by the first TraceSetup
extern char* g_pTraceRing;              // null until a mode other than 0 is set up
extern unsigned g_cbTraceRing;
extern int g_iTraceIndex;               // byte offset of the next line
extern int g_iTraceCount;               // lines recorded since load
extern unsigned g_iTraceLimit;          // most lines to record; kTraceNoLimit for none
extern volatile bool g_bTraceBusy;      // a line or a resize is in progress
extern wchar_t g_wszTracePath[MAX_PATH];  // default "c:\", which cannot be opened
extern FILE* g_pTraceFile;
extern int g_iTraceFileLines;           // lines since the file was last opened

// The tag under which an open handle appears in the trace: the low 32 bits
// of the handle plus 0x87654321.
inline uint32_t ZR_HandleTag(HANDLE h) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(h)) + 0x87654321u;
}

constexpr unsigned kTraceNoLimit = 0xFFFFFFFF;
constexpr unsigned kTraceRingSize = 0x100000;
constexpr int kTraceLineSize = 256;
constexpr int kTracePrefixSize = 23;      // "%06d-%04d-%010d "
constexpr int kTraceFileRestart = 10000;  // mode 2 starts the file anew after this many lines

// iLimit: most lines to record (0xFFFFFFFF: no limit); cbRing: ring size in
// bytes; iMode: 0 off, 1 ring, 2 ring and file (restarted every ~10,000
// lines), 3 ring and file (appended). Mode 0 closes the file and keeps the
// ring for capture.
void TraceSetup(unsigned iLimit, unsigned cbRing, int iMode);
void TraceLine(const char* szFormat, ...);

// Copies the ring's lines, oldest first, whole lines only, into pBuffer of
// *pcbBuffer bytes. *pcbBuffer becomes the bytes copied (0 without a ring)
// and *pcbLine the line size.
void CaptureServiceTracing(char* pBuffer, int* pcbBuffer, int* pcbLine);
// Switches a running trace to mode 2 and writes the ring to the file,
// oldest first; later lines follow in the file. Nothing in mode 0.
void TraceDumpToDisk();
// Stores the file's path when it fits MAX_PATH characters with its
// terminator; false otherwise. An open file stays open until mode 0.
bool SetTracePath(const wchar_t* wszPath);

// What the library object forwards to.
void EnableServiceTracing(int iMode);  // g_bIOInstanceLog on, ring of 1 MiB in iMode
void DisableServiceTracing();          // g_bIOInstanceLog off, mode 0
void EnableTracing();                  // g_bIOInstanceLog on, nothing else
void DisableTracing();                 // g_bIOInstanceLog off, nothing else

// The driver's trace port. Sends one message and returns the port's
// result; HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) and the like when the
// port cannot be opened.
HRESULT SendTracePortMessage(const void* pMessage, DWORD cbMessage, void* pReply, DWORD cbReply,
                             DWORD* pcbReturned);

// ---- The old flag-driven family: switched off for good (flags always 0) ----
constexpr uint64_t kTraceFlagDebugger = 0x4000000;  // TPrintf's output to the debugger

void TInit(FILE* pFile);
void TFini();
void SetTraceFlags(uint64_t iFlags);  // stores nothing
uint64_t GetTraceFlags();             // always 0
bool TraceFlagOn(uint64_t iFlag);     // always false
// The lock that keeps the lines of a multi-line dump together; never given,
// so a dump that asks for it prints nothing. Give back only what was given.
bool TAcquireDumpLock();
void TReleaseDumpLock();
// Texts written for the extended format engine ("%{X32}"); they reach the
// debugger only under kTraceFlagDebugger, and are not even formatted without it.
void TPrintf(const char* szFormat, ...);
void TPrintf(const wchar_t* wszFormat, ...);
void TDumpError(DWORD iError);
