// How the operation service words its failures: the HRESULT of a Windows
// error, and the one-line text of a failed operation,
//   ZRerr - hr:<result> - op:<operation> - file:<name>
// ("ZRxcpt" in front when an exception stopped it). The text has no reader
// in the library; it goes to the trace.
#pragma once

#include <cstdint>

#include "platform/win32.h"

// A positive Windows error e becomes (e & 0xFFFF) | 0x80070000; zero and
// values already negative (HRESULTs, NTSTATUSes) stay as they are.
HRESULT HResultOfError(DWORD iError);
inline HRESULT HResultOfLastError() { return HResultOfError(GetLastError()); }

// The names of the operations in the text.
inline constexpr wchar_t kOpCreateFile[] = L"createProc CreateFile";
inline constexpr wchar_t kOpDeleteFile[] = L"closeThreadProc DeleteFile";
inline constexpr wchar_t kOpCloseHandle[] = L"closeThreadProc CloseHandle";

void TraceOperationError(bool bException, HRESULT hr, const wchar_t* wszOperation, const wchar_t* wszFile);
