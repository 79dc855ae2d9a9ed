// The error chain: code that fails returns false or null and records why
// here, under the mount key of the mount it belongs to (null for none).
// Callers read it later through ZRGetZRError.
//
//     ZR_Error(m_wszKey, __FILE__, "ZR_Backup::Open", __LINE__,
//              "Failed to open %S\n", wszName);
//
// Formats are narrow and use the Windows conversions (%S is a wide string).
// May be called with any other lock held: nothing under the chain's mutex
// takes another lock of the library.
#pragma once

#include <atomic>
#include <cstdint>

void ZR_Error(const wchar_t* wszKey, const char* szFile, const char* szFunction, int iLine, const char* szFormat,
              ...);
void ZR_Warning(const wchar_t* wszKey, const char* szFile, const char* szFunction, int iLine,
                const char* szFormat, ...);

// The texts recorded for a key as ZRGetZRError shows them (newest five and
// the oldest), as a heap copy to free with free(); null when there are none.
wchar_t* ZR_ReadErrors(const wchar_t* wszKey);
// Removes the records of the key, and every record that has no key.
void ZR_ClearErrors(const wchar_t* wszKey);

// The last failed read's system error code, one value for the process:
// reads on several threads may store it at once, the last one wins.
extern std::atomic<uint32_t> g_iLastIOError;
