// The trace: printf-style lines in a ring of 4,096 lines of 256 bytes, and in
// modes 2 and 3 in a file too. Every call site tests g_iTraceMode first, so a
// switched-off trace costs one compare and no formatting:
//
//     if (g_iTraceMode) TraceLine("ZR::Mount returning\n");
//
// Formats use the Windows conversions (%S wide string, %hs narrow, %I64d).
// g_csTrace is the innermost lock of the library: TraceLine calls nothing
// that locks.
#pragma once

#include <cstdint>
#include <cstdio>

extern volatile int g_iTraceMode;
extern bool g_bIOInstanceLog;

// iLimit: most lines to record (0xFFFFFFFF: no limit); cbRing: ring size in
// bytes; iMode: 0 off, 1 ring, 2 ring and file (restarted every ~10,000
// lines), 3 ring and file (appended).
void TraceSetup(unsigned iLimit, unsigned cbRing, int iMode);
void TraceLine(const char* szFormat, ...) __attribute__((format(printf, 1, 2)));

// The old flag-driven family: switched off for good (flags always 0).
void TInit(FILE* pFile);
void TFini();
void SetTraceFlags(uint64_t iFlags);
uint64_t GetTraceFlags();
